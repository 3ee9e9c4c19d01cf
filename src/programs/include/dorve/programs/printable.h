// SPDX-License-Identifier: MIT
#ifndef DORVE_PROGRAMS_PRINTABLE_H_
#define DORVE_PROGRAMS_PRINTABLE_H_

#include <string>

namespace dorve {

/// The text with '?' for each control character of ASCII and, in UTF-8, for U+0080 to U+009F and for the
/// invisible characters from U+200B to U+206F, some of which change the direction of the text.
std::string printable(const std::string& text);

}  // namespace dorve

#endif  // DORVE_PROGRAMS_PRINTABLE_H_
