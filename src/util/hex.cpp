// SPDX-License-Identifier: MIT
#include "dorve/util/hex.h"

namespace dorve {

std::string toHex(const unsigned char* bytes, std::size_t count) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * count);
  for (std::size_t i = 0; i < count; ++i) {
    hex += kDigits[bytes[i] >> 4];
    hex += kDigits[bytes[i] & 0xF];
  }
  return hex;
}

}  // namespace dorve
