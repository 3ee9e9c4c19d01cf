// SPDX-License-Identifier: MIT
#include "dorve/keys/file_text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "dorve/util/descriptor.h"

namespace dorve {
namespace {

constexpr mode_t kNewFileMode = 0600;
constexpr off_t kReserveLimit = 256 << 20;  // bytes
constexpr std::size_t kChunkSize = 16384;   // bytes of one read
constexpr std::size_t kBlockSize = 4096;    // bytes; assumes that a disk stores a block whole or not at all

/// Makes a system call, and repeats it if a signal interrupts it.
template <typename Call>
auto retryOnEintr(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

/// One open file. If the file can't be opened, `isOpen` returns false and errno is set.
/// The other operations return false if they fail.
class File {
 public:
  File(const std::string& path, int flags)
      : fd(retryOnEintr([&] { return ::open(path.c_str(), flags | O_CLOEXEC, kNewFileMode); })) {}

  bool isOpen() const { return static_cast<bool>(fd); }

  /// The size in bytes, or -1 on failure.
  off_t size() const {
    struct stat status = {};
    return fstat(fd.get(), &status) == 0 ? status.st_size : -1;
  }

  bool readAll(std::string& text) const {
    // Allocates once for a usual file. The limit guards against a wrong size, which may be huge.
    text.reserve(static_cast<std::size_t>(std::clamp<off_t>(size(), 0, kReserveLimit)));
    char chunk[kChunkSize];
    ssize_t count = 0;
    while ((count = retryOnEintr([&] { return ::read(fd.get(), chunk, sizeof chunk); })) > 0) {
      text.append(chunk, static_cast<std::size_t>(count));
    }
    return count == 0;
  }

  /// Writes all of `text` with one pwrite(2), or fails. After a short write it does not write the rest:
  /// at the limit of a file's size, a second call would raise SIGXFSZ, which ends the process.
  /// A short write sets no errno. Its usual cause is a full disk.
  bool writeAt(std::size_t offset, std::string_view text) const {
    const ssize_t count = retryOnEintr(
        [&] { return ::pwrite(fd.get(), text.data(), text.size(), static_cast<off_t>(offset)); });
    if (count >= 0) errno = ENOSPC;
    return count == static_cast<ssize_t>(text.size());
  }

  bool sync() const {
    return retryOnEintr([&] { return ::fdatasync(fd.get()); }) == 0;
  }

  bool truncateTo(std::size_t size) const {
    return retryOnEintr([&] { return ::ftruncate(fd.get(), static_cast<off_t>(size)); }) == 0;
  }

 private:
  Descriptor fd;
};

std::error_code lastError() {
  return {errno, std::generic_category()};
}

/// Replaces `oldTail`, the bytes of the file from `from` to its end, by `tail`.
/// Restores `oldTail` if a call fails, and returns the error.
std::error_code writeTail(const File& file, std::size_t from, std::string_view oldTail, std::string tail) {
  // A shorter tail is padded with newlines, so it overwrites all of the old tail before the truncation.
  // Without the padding, a kill before the truncation could leave the end of an old line:
  // a key without the restrictions that stand before it.
  // sshd ignores empty lines, and the next edit removes them.
  const std::size_t size = from + tail.size();
  const std::size_t oldSize = from + oldTail.size();
  const bool shrinks = size < oldSize;
  if (shrinks) tail.resize(oldTail.size(), '\n');

  // The disk may store the blocks and the new size in any order.
  // The sync stores the text before the truncation.
  // It also shortens the time in which the disk holds both old and new blocks.
  const bool spansBlocks = !tail.empty() && from / kBlockSize != (from + tail.size() - 1) / kBlockSize;
  bool done = file.writeAt(from, tail);
  if (shrinks || spansBlocks) done = done && file.sync();
  if (shrinks) done = done && file.truncateTo(size);
  if (done) return {};
  const std::error_code error = lastError();
  file.writeAt(from, oldTail);
  file.truncateTo(oldSize);
  return error;
}

/// Reads an open file and makes the edit that `edit` returns for its text.
std::error_code editFile(const File& file, const std::function<TextTail(std::string_view text)>& edit) {
  std::string text;
  if (!file.readAll(text)) return lastError();
  auto [from, tail] = edit(text);
  if (file.size() != static_cast<off_t>(text.size())) return std::make_error_code(std::errc::text_file_busy);
  return writeTail(file, from, std::string_view(text).substr(from), std::move(tail));
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
  editFile(file, edit);
}

std::error_code loadRegularFile(const std::string& path, std::string& text) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) {
    const bool isMissing = errno == ENOENT || errno == ENOTDIR;
    return isMissing ? std::error_code() : lastError();
  }
  if (!S_ISREG(status.st_mode)) return {};
  const File file(path, O_RDONLY);
  return file.isOpen() && file.readAll(text) ? std::error_code() : lastError();
}

std::error_code editExistingFile(const std::string& path,
                                 const std::function<TextTail(std::string_view text)>& edit) {
  const File file(path, O_RDWR);
  return file.isOpen() ? editFile(file, edit) : lastError();
}

void appendAllOrNothing(const std::string& path, std::string_view text) {
  const File file(path, O_WRONLY | O_APPEND | O_CREAT);
  const off_t size = file.isOpen() ? file.size() : -1;
  if (size >= 0) writeTail(file, static_cast<std::size_t>(size), "", std::string(text));
}

}  // namespace dorve
