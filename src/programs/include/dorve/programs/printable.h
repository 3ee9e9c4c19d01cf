// SPDX-License-Identifier: MIT
#ifndef DORVE_PROGRAMS_PRINTABLE_H_
#define DORVE_PROGRAMS_PRINTABLE_H_

#include <string>

namespace dorve {

/// The text with '?' for each control character: ASCII, and U+0080 to U+009F in UTF-8.
std::string printable(const std::string& text);

}  // namespace dorve

#endif  // DORVE_PROGRAMS_PRINTABLE_H_
