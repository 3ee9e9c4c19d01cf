// SPDX-License-Identifier: MIT
// Checks of the SSH directory and its files. With StrictModes, sshd(8) ignores authorized_keys if others
// own or may write the file or a directory above it. The programs do not report files that they cannot write.
#include <fcntl.h>
#include <grp.h>
#include <linux/fs.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>

#include "dorve/client/ssh_directory.h"
#include "dorve/doctor/checks.h"
#include "dorve/doctor/command.h"
#include "dorve/doctor/text.h"
#include "dorve/keys/key_material.h"

namespace dorve {
namespace {

constexpr std::uint64_t kBytesNeeded = 65536;  // a pairing writes less than half of this

std::string octal(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%04o", mode & 07777U);
  return text;
}

std::string userName(uid_t id) {
  const passwd* entry = getpwuid(id);
  return entry == nullptr ? std::to_string(id) : entry->pw_name;
}

/// The reason why a candidate is not the SSH directory.
std::string whyNotDirectory(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return errno == ENOENT ? "missing" : std::strerror(errno);
  return "a file";
}

/// The candidates before `chosen`, each with the reason why it was not chosen.
std::string skippedCandidates(const std::string& chosen) {
  std::vector<std::string> parts;
  for (const std::string& candidate : sshDirectoryCandidates()) {
    if (candidate == chosen) break;
    const std::string part = candidate + " (" + whyNotDirectory(candidate) + ")";
    // $HOME/.ssh may be the same path as a fixed candidate.
    if (std::ranges::find(parts, part) == parts.end()) parts.push_back(part);
  }
  return join(parts, ", ");
}

Check missingDirectory(const Situation& situation) {
  const std::string path = situation.home + "/.ssh";
  const std::string found = "none: " + skippedCandidates("");
  if (isDirectory(path)) {
    return {Verdict::FAIL, "ssh-dir", found, "HOME is not the home directory of " + situation.user,
            "export HOME=" + shellWord(situation.home)};
  }
  if (situation.home.empty()) return {Verdict::FAIL, "ssh-dir", found, "this user has no home directory"};
  std::error_code error;
  std::string command = "mkdir -m 700 " + shellWord(path);
  if (std::filesystem::exists(std::filesystem::symlink_status(path, error))) {
    command = "mv " + shellWord(path) + " " + shellWord(path + ".old") + " && " + command;
  }
  return {Verdict::FAIL, "ssh-dir", found, situation.program + " does not make this directory", command};
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

/// The first path whose owner or mode sshd rejects: `path`, or a directory above it up to the home directory.
/// No value if there is none.
std::optional<std::pair<std::string, struct stat>> findUnsafe(std::string path, const Situation& situation) {
  std::error_code error;
  path = std::filesystem::canonical(path, error);
  const std::string home = std::filesystem::canonical(situation.home, error);
  while (!path.empty()) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) return std::nullopt;
    const bool foreign = status.st_uid != 0 && status.st_uid != situation.userId;
    const bool groupWrites = (status.st_mode & S_IWGRP) != 0 && !isPrivateGroup(status);
    if (foreign || groupWrites || (status.st_mode & S_IWOTH) != 0) return std::pair(path, status);
    if (path == home || path == "/") return std::nullopt;
    path = std::filesystem::path(path).parent_path();
  }
  return std::nullopt;
}

/// Checks the owners and modes of the SSH directory, or of a file in it, and of the directories above.
/// The check of a file does not report the SSH directory and those above: the directory's own check does.
std::optional<Check> judgeModes(const std::string& name, const std::string& path,
                                const Situation& situation) {
  if (!situation.strictModes) return std::nullopt;
  const auto offender = findUnsafe(path, situation);
  if (!offender) return std::nullopt;
  const auto& [place, status] = *offender;
  std::error_code error;
  const std::string directory = std::filesystem::canonical(situation.sshDir, error).string() + "/";
  if (path != situation.sshDir && directory.starts_with(place + "/")) return std::nullopt;
  if (status.st_uid == 0 || status.st_uid == situation.userId) {
    const std::string command = "chmod go-w " + shellWord(place);
    return Check{Verdict::FAIL, name,
                 place + " may be written by others (mode " + octal(status.st_mode) + ")",
                 "ssh and sshd reject files that others could have written",
                 status.st_uid == situation.userId ? command : situation.asRoot(command)};
  }
  return Check{Verdict::FAIL, name,
               place + " belongs to " + userName(status.st_uid) + ", not to " + situation.user,
               "ssh and sshd reject files and directories of other users",
               situation.asRoot("chown " + shellWord(situation.user) + ": " + shellWord(place))};
}

bool hasFlag(const std::string& path, unsigned int flag) {
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  unsigned int flags = 0;
  const bool known = fd >= 0 && ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
  if (fd >= 0) close(fd);
  return known && (flags & flag) != 0;
}

std::optional<Check> judgeFlags(const std::string& name, const std::string& path,
                                const Situation& situation) {
  using Flag = std::pair<unsigned int, const char*>;
  constexpr std::array kFlags = {Flag{FS_IMMUTABLE_FL, "i"}, Flag{FS_APPEND_FL, "a"}};
  for (const auto& [flag, letter] : kFlags) {
    if (!hasFlag(path, flag)) continue;
    return Check{Verdict::FAIL, name, path + " cannot be changed (chattr +" + letter + ")",
                 "the programs cannot store a key there",
                 situation.asRoot(std::string("chattr -") + letter + " " + shellWord(path))};
  }
  return std::nullopt;
}

Check judgePath(const Situation& situation) {
  const std::string& path = situation.sshDir;
  const std::string own = situation.home + "/.ssh";
  const std::string skipped = skippedCandidates(path);
  if (!isPlainWord(path)) {
    return {Verdict::FAIL, "ssh-dir", path + " holds a blank or a special character",
            "the programs pass this path to a shell, so ssh-keygen creates no key",
            isPlainWord(own) ? "export HOME=" + situation.home
                             : situation.asRoot("usermod --home /home/" + situation.user + " --move-home " +
                                                situation.user)};
  }
  std::error_code error;
  if (!std::filesystem::equivalent(path, own, error)) {
    return {Verdict::FAIL, "ssh-dir", path + (skipped.empty() ? "" : ", not " + skipped),
            "ssh and sshd use " + own + " for " + situation.user,
            isDirectory(own) ? "export HOME=" + shellWord(situation.home) : "mkdir -m 700 " + shellWord(own)};
  }
  return {Verdict::OK, "ssh-dir", path + (skipped.empty() ? "" : ", not " + skipped)};
}

Check judgeOwner(const Situation& situation) {
  if (auto check = judgeModes("ssh-dir-modes", situation.sshDir, situation)) return *check;
  if (auto check = judgeFlags("ssh-dir-modes", situation.sshDir, situation)) return *check;
  struct stat status = {};
  stat(situation.sshDir.c_str(), &status);
  // The programs set the mode of the directory if their user owns it, and root may write to any directory.
  // So only an ordinary user who does not own the directory has a problem.
  if (!situation.isRoot() && status.st_uid != situation.userId) {
    return {Verdict::FAIL, "ssh-dir-modes", situation.sshDir + " belongs to " + userName(status.st_uid),
            "the programs run as " + situation.user + " and cannot write there",
            situation.asRoot("chown -R " + situation.user + ": " + shellWord(situation.sshDir))};
  }
  return {Verdict::OK, "ssh-dir-modes",
          "owner " + userName(status.st_uid) + ", mode " + octal(status.st_mode)};
}

Check judgeSpace(const Situation& situation) {
  const std::string& path = situation.sshDir;
  struct statvfs space = {};
  if (statvfs(path.c_str(), &space) != 0) {
    return {Verdict::SKIP, "ssh-dir-space", std::strerror(errno)};
  }
  if ((space.f_flag & ST_RDONLY) != 0) {
    return {Verdict::FAIL, "ssh-dir-space", "the file system of " + path + " is read-only",
            "the programs cannot store a key there",
            situation.asRoot("mount -o remount,rw \"$(findmnt -n -o TARGET -T " + shellWord(path) + ")\"")};
  }
  if (space.f_blocks == 0) return {Verdict::OK, "ssh-dir-space", "its file system has no limit"};
  const std::uint64_t blocks = situation.isRoot() ? space.f_bfree : space.f_bavail;
  const std::uint64_t bytes = blocks * space.f_frsize;
  const bool noFiles = space.f_files != 0 && (situation.isRoot() ? space.f_ffree : space.f_favail) == 0;
  if (bytes < kBytesNeeded || noFiles) {
    return {
        Verdict::FAIL, "ssh-dir-space",
        "the file system of " + path + (noFiles ? " can hold no more files" : " is full"),
        "the programs cannot store a key; this command lists the largest files",
        situation.asRoot("du -xah \"$(findmnt -n -o TARGET -T " + shellWord(path) + ")\" | sort -h | tail")};
  }
  return {Verdict::OK, "ssh-dir-space", std::to_string(bytes / 1024) + " KiB free"};
}

/// Checks that a file is regular and readable, and that its chattr(1) flags let the programs change it.
/// If `mode` is W_OK, also checks that it is writable, and that ssh and sshd accept its owner and mode.
std::optional<Check> judgeFile(const std::string& path, int mode, const Situation& situation) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) return std::nullopt;
    return Check{Verdict::SKIP, "ssh-files", "not checked: " + path + ": " + std::strerror(errno)};
  }
  if (!S_ISREG(status.st_mode)) {
    return Check{Verdict::FAIL, "ssh-files", path + " is not a regular file",
                 "the programs store nothing in it",
                 "mv " + shellWord(path) + " " + shellWord(path + ".old")};
  }
  if (auto check = judgeFlags("ssh-files", path, situation)) return check;
  if (mode == W_OK) {
    if (auto check = judgeModes("ssh-files", path, situation)) return check;
  }
  if (faccessat(AT_FDCWD, path.c_str(), R_OK | mode, AT_EACCESS) != 0) {
    const bool own = status.st_uid == situation.userId;
    return Check{Verdict::FAIL, "ssh-files", path + ": " + std::strerror(errno),
                 "the programs and ssh need access to this file",
                 own ? "chmod u+rw " + shellWord(path)
                     : situation.asRoot("chown " + situation.user + ": " + shellWord(path))};
  }
  return std::nullopt;
}

}  // namespace

void checkDirectory(const Situation& situation, Report& report) {
  if (situation.user.empty()) {
    report.add({Verdict::FAIL, "user", "no name for user " + std::to_string(situation.userId),
                "ssh works only for users in the password database",
                "sudo useradd --create-home --uid " + std::to_string(situation.userId) + " dorve"});
  }
  if (situation.sshDir.empty()) {
    report.add(missingDirectory(situation));
    return;
  }
  report.add(judgePath(situation));
  report.add(judgeOwner(situation));
  report.add(judgeSpace(situation));
  // The programs delete the key files and create new ones, so they do not need to write the old ones.
  const std::pair<std::string, int> files[] = {{situation.authorizedKeys, W_OK},
                                               {situation.config, W_OK},
                                               {situation.privateKey, 0},
                                               {situation.privateKey + ".pub", 0}};
  bool allUsable = true;
  for (const auto& [path, mode] : files) {
    const auto check = judgeFile(path, mode, situation);
    if (check) report.add(*check);
    allUsable &= !check;
  }
  if (allUsable) report.add({Verdict::OK, "ssh-files", "authorized_keys, config and keys are usable"});
}

void checkKeygen(const Situation& situation, Report& report) {
  // An ed25519 public key of zeros: ssh-keygen only has to recognise its type.
  constexpr const char* kSample =
      "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA sample\n";
  const CommandResult result = runCommand({"ssh-keygen", "-l", "-f", "-"}, situation.commandMs(), kSample);
  if (situation.user.empty()) {
    report.add({Verdict::SKIP, "ssh-keygen", "not checked: it does not run without a user name"});
    return;
  }
  if (result.succeeded()) {
    report.add({Verdict::OK, "ssh-keygen", "runs and knows ed25519"});
    return;
  }
  report.add({Verdict::FAIL, "ssh-keygen", result.message(),
              "without it a device gets no key, and the programs do not report that",
              situation.asRoot("apt-get install --reinstall --yes openssh-client")});
}

}  // namespace dorve
