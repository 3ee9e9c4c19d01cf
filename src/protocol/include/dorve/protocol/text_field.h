// SPDX-License-Identifier: MIT
#ifndef DORVE_PROTOCOL_TEXT_FIELD_H_
#define DORVE_PROTOCOL_TEXT_FIELD_H_

#include <cstddef>
#include <cstring>
#include <string_view>

namespace dorve {

/// The text in a field of N bytes, up to its first NUL. A field from a peer may lack a NUL.
/// Its text is then all N bytes.
template <std::size_t N>
std::string_view readText(const char (&field)[N]) {
  return {field, strnlen(field, N)};
}

/// Copies at most N-1 bytes of `text` into a field of N bytes and sets all other bytes to 0.
/// Truncates a longer text and does not report it.
template <std::size_t N>
void writeText(char (&field)[N], std::string_view text) {
  const std::size_t size = text.copy(field, N - 1);
  std::memset(field + size, 0, N - size);
}

}  // namespace dorve

#endif  // DORVE_PROTOCOL_TEXT_FIELD_H_
