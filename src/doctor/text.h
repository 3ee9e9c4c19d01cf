// SPDX-License-Identifier: MIT
#ifndef DORVE_DOCTOR_TEXT_H_
#define DORVE_DOCTOR_TEXT_H_

#include <string>
#include <string_view>
#include <vector>

namespace dorve {

/// The parts of a text between the characters of `separators`; empty parts are left out.
std::vector<std::string> split(std::string_view text, std::string_view separators);

/// The parts in one text, with `separator` between them.
std::string join(const std::vector<std::string>& parts, std::string_view separator);

/// The text with its ASCII letters in lower case.
std::string toLower(std::string text);

/// Whether a shell reads the text as one plain word, without quotes.
bool isPlainWord(std::string_view text);

/// A word as a POSIX shell reads it back: quoted if it holds anything that the shell treats specially.
std::string shellWord(std::string_view word);

/// Whether the path leads to a regular file.
bool isRegularFile(const std::string& path);

/// The bytes of a regular file of at most 64 MiB; empty for anything else, so that a pipe or a device cannot
/// hold up the caller.
std::string readRegularFile(const std::string& path);

}  // namespace dorve

#endif  // DORVE_DOCTOR_TEXT_H_
