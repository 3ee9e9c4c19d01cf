// SPDX-License-Identifier: MIT
#ifndef DORVE_PROTOCOL_TEXT_FIELD_H_
#define DORVE_PROTOCOL_TEXT_FIELD_H_

#include <cstddef>
#include <cstring>
#include <string_view>

namespace dorve {

/// The text in a field of N characters, up to its NUL. A field that came from a peer without one is read to
/// its capacity and no further.
template <std::size_t N>
std::string_view readText(const char (&field)[N]) {
  return {field, strnlen(field, N)};
}

/// Copies at most N-1 characters of `text` into a field of N and zeroes the rest, so the field always ends in
/// NUL. A longer text is cut without notice.
template <std::size_t N>
void writeText(char (&field)[N], std::string_view text) {
  const std::size_t size = text.copy(field, N - 1);
  std::memset(field + size, 0, N - size);
}

}  // namespace dorve

#endif  // DORVE_PROTOCOL_TEXT_FIELD_H_
