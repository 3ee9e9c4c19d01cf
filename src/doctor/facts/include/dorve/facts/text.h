// SPDX-License-Identifier: MIT
#ifndef DORVE_FACTS_TEXT_H_
#define DORVE_FACTS_TEXT_H_

#include <string>
#include <string_view>
#include <vector>

namespace dorve {

/// The parts of a text between the characters in `separators`, without empty parts.
std::vector<std::string> split(std::string_view text, std::string_view separators);

/// The parts as one text, with `separator` between them.
std::string join(const std::vector<std::string>& parts, std::string_view separator);

/// Returns whether `part` occurs in `text`.
bool contains(std::string_view text, std::string_view part);

/// The text with its ASCII letters in lower case.
std::string toLower(std::string text);

/// The non-blank lines of a text, without carriage returns.
std::vector<std::string> linesOf(std::string_view text);

/// The same without the frames of '@' that ssh draws around a warning.
std::vector<std::string> spokenLines(std::string_view text);

/// Returns whether a name has only letters, digits, dots, underscores and hyphens, and no hyphen in front.
bool isPlainName(std::string_view name);

}  // namespace dorve

#endif  // DORVE_FACTS_TEXT_H_
