// SPDX-License-Identifier: MIT
#include "dorve/programs/printable.h"

#include <algorithm>
#include <string_view>

namespace dorve {
namespace {

/// The size in bytes of the control character or invisible character at the front of a text in UTF-8.
/// 0 if another character is there.
std::size_t sizeOfControl(std::string_view text) {
  const auto byte = [&](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
  const auto isBetween = [&](std::size_t i, unsigned int first, unsigned int last) {
    return byte(i) >= first && byte(i) <= last;
  };
  if (byte(0) < ' ' || byte(0) == 0x7F) return 1;
  if (byte(0) == 0xC2 && isBetween(1, 0x80, 0x9F)) return 2;
  if (byte(0) != 0xE2) return 0;
  const bool isInvisible = (byte(1) == 0x80 && (isBetween(2, 0x8B, 0x8F) || isBetween(2, 0xA8, 0xAF))) ||
                           (byte(1) == 0x81 && isBetween(2, 0xA0, 0xAF));
  return isInvisible ? 3 : 0;
}

}  // namespace

std::string printable(const std::string& text) {
  std::string result;
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t control = sizeOfControl(std::string_view(text).substr(i));
    result += control != 0 ? '?' : text[i];
    i += std::max<std::size_t>(control, 1);
  }
  return result;
}

}  // namespace dorve
