// SPDX-License-Identifier: MIT
#ifndef DORVE_KEYS_FILE_TEXT_H_
#define DORVE_KEYS_FILE_TEXT_H_

#include <optional>
#include <string>

namespace dorve {

/// All bytes of a file, unchanged. A file that can't be opened is an empty text; one that opens but can't be
/// read to its end (a directory, a failing disk) gives nothing, so that nobody takes a part of it for the
/// whole.
std::optional<std::string> readFileText(const std::string& path);

}  // namespace dorve

#endif  // DORVE_KEYS_FILE_TEXT_H_
