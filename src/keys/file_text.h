// SPDX-License-Identifier: MIT
#ifndef DORVE_KEYS_FILE_TEXT_H_
#define DORVE_KEYS_FILE_TEXT_H_

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

/// Reads and edits whole text files in place, so that links and owners stay. The edits report no failure.
///
/// Both edits promise that the rest of a file survives any single failing call, and the end of the process
/// between two calls. A write that fails (full disk, quota, size limit, I/O error) is taken back. Interrupted
/// calls are repeated.
///
/// A line of the rest can still be damaged if the new tail covers more than one block of 4096 bytes, and the
/// process or the power ends while the kernel copies or stores these blocks, or the take-back fails as well.
namespace dorve {

/// All bytes of a file, unchanged. A file that is missing or that this user may not read is an empty text.
/// One that can't be opened for another reason, or can't be read to its end (a directory, a failing disk),
/// gives nothing, so that nobody takes a part of it for the whole.
std::optional<std::string> readFileText(const std::string& path);

/// What follows the first `from` bytes of a text after an edit.
struct TextTail {
  std::size_t from;
  std::string text;
};

/// Replaces the tail of a file by what `edit` makes of its text. Makes the file, with mode 0600, if it is
/// missing. A file that this user may write but not read counts as empty, and its text is lost. A file that
/// can't be opened or read for another reason is left alone, and so is one whose size changes meanwhile.
void replaceFileTail(const std::string& path, const std::function<TextTail(std::string_view text)>& edit);

/// Appends `text` to a file, whole or not at all. Makes the file, with mode 0600, if it is missing.
void appendFileText(const std::string& path, std::string_view text);

}  // namespace dorve

#endif  // DORVE_KEYS_FILE_TEXT_H_
