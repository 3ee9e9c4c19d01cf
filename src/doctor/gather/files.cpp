// SPDX-License-Identifier: MIT
#include "dorve/gather/files.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>

#include "dorve/facts/text.h"
#include "dorve/gather/command.h"

namespace dorve {
namespace {

constexpr off_t kMaxFileSize = 4 << 20;  // bytes

/// Opens a file for reading if it is regular and on a disk. Opens again what was examined,
/// so that nobody can put a FIFO or a device in its place meanwhile.
Descriptor openRegular(const std::string& path, struct stat& status) {
  const Descriptor place(open(path.c_str(), O_PATH | O_CLOEXEC));
  struct statfs kind = {};
  if (!place || fstat(place.get(), &status) != 0 || !S_ISREG(status.st_mode)) return Descriptor();
  if (fstatfs(place.get(), &kind) != 0 || kind.f_type == PROC_SUPER_MAGIC || kind.f_type == SYSFS_MAGIC) {
    return Descriptor();
  }
  const std::string same = "/proc/self/fd/" + std::to_string(place.get());
  return Descriptor(open(same.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

char chattrFlag(const std::string& path, bool isDirectory) {
  struct stat status = {};
  const Descriptor file = isDirectory ? Descriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
                                      : openRegular(path, status);
  unsigned int flags = 0;
  if (!file || ioctl(file.get(), FS_IOC_GETFLAGS, &flags) != 0) return '\0';
  return (flags & FS_IMMUTABLE_FL) != 0 ? 'i' : (flags & FS_APPEND_FL) != 0 ? 'a' : '\0';
}

/// Returns whether the owner is the only member of the file's group.
/// Debian's sshd then accepts a file that the group may write.
bool isPrivateGroup(const struct stat& status) {
  const passwd* owner = getpwuid(status.st_uid);
  const group* entry = getgrgid(status.st_gid);
  if (owner == nullptr || entry == nullptr || owner->pw_gid != status.st_gid) return false;
  for (char** member = entry->gr_mem; *member != nullptr; ++member) {
    if (std::strcmp(*member, owner->pw_name) != 0) return false;
  }
  int members = 0;
  setpwent();
  while (const passwd* user = getpwent()) members += user->pw_gid == status.st_gid ? 1 : 0;
  endpwent();
  return members == 1;
}

std::string readFrom(const std::string& path, off_t largest, off_t lastBytes) {
  struct stat status = {};
  const Descriptor file = openRegular(path, status);
  if (!file || status.st_size > largest) return "";
  const off_t start = std::max<off_t>(0, status.st_size - lastBytes);
  std::string text;
  char buffer[16384];
  for (ssize_t size = 0;
       text.size() < static_cast<std::size_t>(lastBytes) &&
       (size = pread(file.get(), buffer, sizeof buffer, start + static_cast<off_t>(text.size()))) > 0;) {
    text.append(buffer, static_cast<std::size_t>(size));
  }
  return text;
}

}  // namespace

FileInfo inspect(const std::string& path) {
  FileInfo info;
  info.path = path;
  const Descriptor place(open(path.c_str(), O_PATH | O_CLOEXEC));
  struct stat status = {};
  if (!place || fstat(place.get(), &status) != 0) {
    info.error = std::strerror(errno);
    info.type = errno == ENOENT ? FileInfo::Type::MISSING : FileInfo::Type::UNKNOWN;
    std::error_code error;
    if (info.type == FileInfo::Type::MISSING && std::filesystem::is_symlink(path, error)) {
      const std::filesystem::path target =
          std::filesystem::path(path).parent_path() / std::filesystem::read_symlink(path, error);
      info.dangling = !std::filesystem::is_directory(target.parent_path(), error);
    }
    return info;
  }
  info.type = S_ISREG(status.st_mode)   ? FileInfo::Type::FILE
              : S_ISDIR(status.st_mode) ? FileInfo::Type::DIRECTORY
                                        : FileInfo::Type::OTHER;
  info.real = canonical(path);
  info.owner = status.st_uid;
  const passwd* owner = getpwuid(status.st_uid);
  info.ownerName = owner == nullptr ? std::to_string(status.st_uid) : owner->pw_name;
  info.mode = status.st_mode & 07777U;
  info.groupIsPrivate = (status.st_mode & S_IWGRP) != 0 && isPrivateGroup(status);
  info.hasOtherNames = info.type == FileInfo::Type::FILE && status.st_nlink > 1;
  if (info.type != FileInfo::Type::OTHER) {
    info.flag = chattrFlag(path, info.type == FileInfo::Type::DIRECTORY);
  }
  info.readable = faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) == 0;
  info.writable = faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0;
  if (!info.readable || !info.writable) info.error = std::strerror(errno);
  info.changed = status.st_mtim.tv_sec * std::int64_t{1000000000} + status.st_mtim.tv_nsec;
  return info;
}

std::string canonical(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr), std::free);
  return real == nullptr ? "" : real.get();
}

std::vector<FileInfo> inspectUpTo(const std::string& path, const std::string& top) {
  std::vector<FileInfo> infos;
  std::string place = canonical(path);
  while (!place.empty()) {
    infos.push_back(inspect(place));
    if (place == top || place == "/") break;
    place = std::filesystem::path(place).parent_path();
  }
  return infos;
}

std::string findProgram(const std::string& name) {
  const char* path = std::getenv("PATH");
  for (const std::string& folder : split(path == nullptr ? "" : path, ":")) {
    const FileInfo program = inspect(std::filesystem::path(folder) / name);
    if (program.type == FileInfo::Type::FILE && (program.mode & 0111U) != 0) return program.path;
  }
  return "";
}

std::string readText(const std::string& path) {
  return readFrom(path, kMaxFileSize, kMaxFileSize);
}

std::string readEnd(const std::string& path, std::size_t size) {
  return readFrom(path, INT64_MAX, static_cast<off_t>(size));
}

FaultyLine faultIn(const Outcome& outcome) {
  FaultyLine fault = findFault(outcome.err);
  int number = 0;
  std::istringstream text(readText(fault.file));
  for (std::string line; ++number <= fault.number && std::getline(text, line);) fault.text = line;
  return fault;
}

}  // namespace dorve
