// SPDX-License-Identifier: MIT
#include "dorve/programs/printable.h"

namespace dorve {

std::string printable(const std::string& text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool isC1 = byte == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0;
    result += byte < ' ' || byte == 0x7F || isC1 ? '?' : text[i];
    i += isC1 ? 1 : 0;
  }
  return result;
}

}  // namespace dorve
