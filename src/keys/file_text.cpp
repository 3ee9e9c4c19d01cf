// SPDX-License-Identifier: MIT
#include "dorve/keys/file_text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace dorve {
namespace {

constexpr mode_t kNewFileMode = 0600;
constexpr off_t kMostReserved = 256 << 20;  // bytes
constexpr std::size_t kChunkSize = 16384;   // bytes of one read
constexpr std::size_t kBlockSize = 4096;    // bytes that a disk is taken to store whole or not at all

/// Repeats a system call that a signal interrupts.
template <typename Call>
auto uninterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

/// One descriptor. The operations are false, with errno set, when they fail.
class File {
 public:
  File(const std::string& path, int flags)
      : fd(uninterrupted([&] { return ::open(path.c_str(), flags | O_CLOEXEC, kNewFileMode); })) {}
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() {
    if (isOpen()) ::close(fd);
  }

  bool isOpen() const { return fd >= 0; }

  /// In bytes; -1 when it fails.
  off_t size() const {
    struct stat status = {};
    return fstat(fd, &status) == 0 ? status.st_size : -1;
  }

  bool readAll(std::string& text) const {
    // One allocation for the usual file; up to a bound, because a size may be anything.
    text.reserve(static_cast<std::size_t>(std::clamp<off_t>(size(), 0, kMostReserved)));
    char chunk[kChunkSize];
    ssize_t count = 0;
    while ((count = uninterrupted([&] { return ::read(fd, chunk, sizeof chunk); })) > 0) {
      text.append(chunk, static_cast<std::size_t>(count));
    }
    return count == 0;
  }

  /// Writes all of `text` in one call, or fails. A second call for the rest would end the process where the
  /// rest is past the limit of a file's size: it raises SIGXFSZ.
  bool writeAt(std::size_t offset, std::string_view text) const {
    const ssize_t count =
        uninterrupted([&] { return ::pwrite(fd, text.data(), text.size(), static_cast<off_t>(offset)); });
    return count == static_cast<ssize_t>(text.size());
  }

  bool sync() const {
    return uninterrupted([&] { return ::fdatasync(fd); }) == 0;
  }

  bool endAt(std::size_t size) const {
    return uninterrupted([&] { return ::ftruncate(fd, static_cast<off_t>(size)); }) == 0;
  }

 private:
  int fd;
};

/// Writes `tail` over `oldTail`, which ends the file and begins at `from`, or leaves `oldTail` there.
void writeTail(const File& file, std::size_t from, std::string_view oldTail, std::string tail) {
  // The new tail covers the old one before the file is cut, so that no half of an old line is ever a line:
  // without its beginning a key has lost its restrictions. sshd ignores the blank lines that pad the new
  // tail, and the next edit removes them.
  const std::size_t size = from + tail.size();
  const std::size_t oldSize = from + oldTail.size();
  const bool shrinks = size < oldSize;
  if (shrinks) tail.resize(oldTail.size(), '\n');

  // The disk may store the blocks and the new size in any order. The sync shortens the time in which old and
  // new blocks are mixed, and stores the text before the cut.
  const bool mixesBlocks = !tail.empty() && from / kBlockSize != (from + tail.size() - 1) / kBlockSize;
  bool done = file.writeAt(from, tail);
  if (shrinks || mixesBlocks) done = done && file.sync();
  if (shrinks) done = done && file.endAt(size);
  if (done) return;
  file.writeAt(from, oldTail);
  file.endAt(oldSize);
}

}  // namespace

std::optional<std::string> readFileText(const std::string& path) {
  const File file(path, O_RDONLY);
  std::string text;
  if (!file.isOpen()) {
    const bool countsAsEmpty = errno == ENOENT || errno == ENOTDIR || errno == EACCES;
    return countsAsEmpty ? std::optional(text) : std::nullopt;
  }
  if (!file.readAll(text)) return std::nullopt;
  return text;
}

void replaceFileTail(const std::string& path, const std::function<TextTail(std::string_view text)>& edit) {
  const File file(path, O_RDWR | O_CREAT);
  if (!file.isOpen()) {
    if (errno != EACCES) return;
    const File unreadable(path, O_WRONLY | O_CREAT | O_TRUNC);
    if (unreadable.isOpen()) writeTail(unreadable, 0, "", edit("").text);
    return;
  }
  std::string text;
  if (!file.readAll(text)) return;
  auto [from, tail] = edit(text);
  if (file.size() != static_cast<off_t>(text.size())) return;
  writeTail(file, from, std::string_view(text).substr(from), std::move(tail));
}

void appendFileText(const std::string& path, std::string_view text) {
  const File file(path, O_WRONLY | O_APPEND | O_CREAT);
  const off_t size = file.isOpen() ? file.size() : -1;
  if (size >= 0) writeTail(file, static_cast<std::size_t>(size), "", std::string(text));
}

}  // namespace dorve
