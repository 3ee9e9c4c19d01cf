// SPDX-License-Identifier: MIT
#ifndef DORVE_KEYS_FILE_TEXT_H_
#define DORVE_KEYS_FILE_TEXT_H_

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

/// Reads text files whole and edits them in place, so that owners and hard and symbolic links stay.
///
/// An edit reports no failure. It repeats calls that a signal interrupts. After a failed write (full disk,
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

/// Reads a file and makes the edit that `edit` returns for its text. Creates a missing file with mode 0600.
/// A file that this user may write but not read counts as empty, so its old text is lost.
/// Does nothing if the file can't be opened or read for another reason, or if its size
/// changes before the write.
void replaceFileTail(const std::string& path, const std::function<TextTail(std::string_view text)>& edit);

/// Appends all of `text` to a file, or none of it. Creates a missing file with mode 0600.
void appendAllOrNothing(const std::string& path, std::string_view text);

}  // namespace dorve

#endif  // DORVE_KEYS_FILE_TEXT_H_
