// SPDX-License-Identifier: MIT
#ifndef DORVE_UTIL_HEX_H_
#define DORVE_UTIL_HEX_H_

#include <cstddef>
#include <string>

namespace dorve {

/// `count` bytes as 2 * `count` lower-case hexadecimal digits, the high digit of each byte first.
std::string toHex(const unsigned char* bytes, std::size_t count);

}  // namespace dorve

#endif  // DORVE_UTIL_HEX_H_
