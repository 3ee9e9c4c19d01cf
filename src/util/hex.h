// SPDX-License-Identifier: MIT
#ifndef DORVE_UTIL_HEX_H_
#define DORVE_UTIL_HEX_H_

#include <cstddef>
#include <string>

namespace dorve {

/// Two lower-case hexadecimal characters a byte, most significant digit first.
std::string toHex(const unsigned char* bytes, std::size_t count);

}  // namespace dorve

#endif  // DORVE_UTIL_HEX_H_
