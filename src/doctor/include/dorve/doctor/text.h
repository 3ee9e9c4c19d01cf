// SPDX-License-Identifier: MIT
#ifndef DORVE_DOCTOR_TEXT_H_
#define DORVE_DOCTOR_TEXT_H_

#include <string>
#include <string_view>
#include <vector>

namespace dorve {

/// The parts of a text between the characters in `separators`, without empty parts.
std::vector<std::string> split(std::string_view text, std::string_view separators);

/// The parts as one text, with `separator` between them.
std::string join(const std::vector<std::string>& parts, std::string_view separator);

/// The text with its ASCII letters in lower case.
std::string toLower(std::string text);

/// Returns whether a shell reads the text as one word even without quotes.
bool isPlainWord(std::string_view text);

/// `word` as one word of a POSIX shell command: in quotes unless `isPlainWord`.
std::string shellWord(std::string_view word);

/// Returns whether `path` is a regular file or a link to one.
bool isRegularFile(const std::string& path);

/// The bytes of a regular file of at most 64 MiB; empty for any other file,
/// so that a pipe or a device can't block the caller.
std::string readRegularFile(const std::string& path);

}  // namespace dorve

#endif  // DORVE_DOCTOR_TEXT_H_
