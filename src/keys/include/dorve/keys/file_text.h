// SPDX-License-Identifier: MIT
#ifndef DORVE_KEYS_FILE_TEXT_H_
#define DORVE_KEYS_FILE_TEXT_H_

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

/// Reads text files whole and edits them in place, so that owners and hard and symbolic links stay.
///
/// An edit repeats calls that a signal interrupts. After a failed write (full disk,
/// quota, size limit, I/O error) it restores the old text. Lines that the edit does not change stay
/// whole even if one system call fails or the process ends between two calls.
/// SECURITY.md describes what can still damage these lines.
namespace dorve {

/// All bytes of a file. Empty if the file is missing or this user may not read it.
/// No value if it can't be opened for another reason, or can't be read to its end (a failing disk,
/// a directory), so that no caller mistakes a part of the text for all of it.
std::optional<std::string> readFileText(const std::string& path);

/// An edit of a text: the first `from` bytes stay, and `text` replaces all bytes after them.
struct TextTail {
  std::size_t from;
  std::string text;
};

/// Like `editExistingFile`, but creates a missing file with mode 0600 and reports no failure.
/// A file that this user may write but not read counts as empty, so its old text is lost.
void replaceFileTail(const std::string& path, const std::function<TextTail(std::string_view text)>& edit);

/// All bytes of a regular file, in `text`. Empty if the file is missing or is not a regular file: in such a
/// file no edit leaves text. Returns the error if the file can't be read to its end.
std::error_code loadRegularFile(const std::string& path, std::string& text);

/// Reads an existing file and makes the edit that `edit` returns for its text. Returns the error if the file
/// can't be opened for reading and writing, read or written, or if its size changes before the write.
std::error_code editExistingFile(const std::string& path,
                                 const std::function<TextTail(std::string_view text)>& edit);

/// Appends all of `text` to a file, or none of it. Creates a missing file with mode 0600. Reports no failure.
void appendAllOrNothing(const std::string& path, std::string_view text);

}  // namespace dorve

#endif  // DORVE_KEYS_FILE_TEXT_H_
