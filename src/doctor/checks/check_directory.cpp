// SPDX-License-Identifier: MIT
// With StrictModes, sshd(8) ignores authorized_keys if others own or may write the file or a directory above
// it. The programs do not report files that they cannot write.
#include <algorithm>
#include <array>

#include "dorve/checks/checks.h"
#include "dorve/facts/text.h"

namespace dorve {
namespace {

constexpr const char* kLinkLoop = "Too many levels of symbolic links";
constexpr const char* kReadOnly = "Read-only file system";
constexpr std::uint64_t kBytesNeeded = 65536;  // a pairing writes less than half of this

std::string octal(unsigned int mode) {
  std::string text = "0000";
  for (std::size_t i = 0; i < 4; ++i) text[3 - i] = static_cast<char>('0' + ((mode >> (3 * i)) & 7U));
  return text;
}

/// The candidates before `chosen`, each with the reason why it was not chosen.
std::string skippedCandidates(const Directory& directory) {
  std::vector<std::string> parts;
  for (const FileInfo& candidate : directory.candidates) {
    if (candidate.path == directory.path) break;
    const std::string reason = candidate.type == FileInfo::Type::MISSING   ? "missing"
                               : candidate.type == FileInfo::Type::UNKNOWN ? candidate.error
                                                                           : "a file";
    const std::string part = candidate.path + " (" + reason + ")";
    // $HOME/.ssh may be the same path as a fixed candidate.
    if (std::ranges::find(parts, part) == parts.end()) parts.push_back(part);
  }
  return join(parts, ", ");
}

/// Makes `own`, the .ssh of the home directory. What has its name but is no directory becomes .ssh.old.
std::string makeDirectory(const FileInfo& own, const Commands& commands) {
  const std::string path = quoted(own.path);
  const bool isFree = own.type == FileInfo::Type::MISSING && !own.dangling;
  const std::string move = isFree ? "" : "mv -nT " + path + " " + quoted(own.path + ".old") + " && ";
  return commands.asUser(move + "mkdir -m 700 " + path);
}

Finding missingDirectory(const User& user, const Side& side, const Directory& directory,
                         const Commands& commands) {
  const std::string found = "none: " + skippedCandidates(directory);
  const std::string& path = directory.ofHome.path;
  if (directory.ofHome.type == FileInfo::Type::DIRECTORY) {
    return {Verdict::FAIL, "ssh-dir", found, "HOME is not the home directory of " + user.name,
            commands.useHome()};
  }
  if (directory.ofHome.type == FileInfo::Type::UNKNOWN && directory.ofHome.error != kLinkLoop) {
    const std::string closed = directory.closed.empty() ? "a directory above it" : directory.closed;
    return {Verdict::FAIL, "ssh-dir", path + ": " + directory.ofHome.error,
            user.name + " may not enter " + closed + "; root must permit it"};
  }
  if (directory.canonicalHome.empty()) {
    return {Verdict::FAIL, "ssh-dir", found,
            user.name + " has no home directory: " + user.home + " is missing"};
  }
  return {Verdict::FAIL, "ssh-dir", found, side.program + " does not create this directory",
          makeDirectory(directory.ofHome, commands)};
}

Finding judgePath(const User& user, const Directory& directory, const Commands& commands) {
  const std::string& path = directory.path;
  const std::string& own = directory.ofHome.path;
  const std::string skipped = skippedCandidates(directory);
  const std::string found = path + (skipped.empty() ? "" : ", not " + skipped);
  if (!isSafeForShell(path)) {
    Finding finding = {Verdict::FAIL, "ssh-dir", path + " contains a blank or a special character",
                       "the programs pass this path to a shell, so ssh-keygen creates no key"};
    if (isSafeForShell(own)) {
      finding.command = commands.useHome();
    } else {
      finding.cause += "; the user needs a home directory with another name";
    }
    return finding;
  }
  if (directory.isOfHome) return {Verdict::OK, "ssh-dir", found};
  return {Verdict::FAIL, "ssh-dir", found, "ssh and sshd use " + own + " for " + user.name,
          directory.ofHome.type == FileInfo::Type::DIRECTORY ? commands.useHome()
                                                             : makeDirectory(directory.ofHome, commands)};
}

/// The first of these files whose owner or mode sshd rejects.
std::optional<Finding> judgeModes(const char* name, const std::vector<FileInfo>& files, const User& user,
                                  const Commands& commands) {
  for (const FileInfo& file : files) {
    const bool foreign = file.owner != 0 && file.owner != user.id;
    const bool groupWrites = (file.mode & 020U) != 0 && !file.groupIsPrivate;
    if (!foreign && !groupWrites && (file.mode & 002U) == 0) continue;
    Finding finding = {Verdict::FAIL, name, "", "", "", Serves::LOGIN_HERE};
    if (foreign) {
      finding.found = file.path + " belongs to " + file.ownerName + ", not to " + user.name;
      finding.cause = "ssh and sshd reject files and directories of other users";
      finding.command = commands.takeOwnership(file);
    } else {
      finding.found = file.path + " may be written by others (mode " + octal(file.mode) + ")";
      finding.cause = "ssh and sshd reject files that others could have written";
      finding.command = commands.changeMode(file, "go-w");
    }
    if (finding.command.empty()) {
      finding.cause += "; no command is safe here: look at it, then fix it by hand or move it away";
    }
    return finding;
  }
  return std::nullopt;
}

Finding judgeOwner(const User& user, const Directory& directory, bool strictModes, const Commands& commands) {
  if (strictModes) {
    if (auto finding = judgeModes("ssh-dir-modes", directory.parents, user, commands)) return *finding;
  }
  if (directory.parents.empty()) return {Verdict::SKIP, "ssh-dir-modes", "not checked"};
  const FileInfo& own = directory.parents.front();
  if (own.flag != '\0') {
    return {Verdict::FAIL, "ssh-dir-modes", own.path + " cannot be changed (chattr +" + own.flag + ")",
            "the programs cannot store a key there", commands.removeFlag(own)};
  }
  // The programs set the mode of the directory if their user owns it, and root may write to any directory.
  // So only an ordinary user who does not own the directory has a problem.
  if (!user.isRoot() && own.owner != user.id) {
    return {Verdict::FAIL, "ssh-dir-modes", own.path + " belongs to " + own.ownerName,
            "the programs run as " + user.name + " and cannot write there", commands.takeOwnership(own)};
  }
  return {Verdict::OK, "ssh-dir-modes", "owner " + own.ownerName + ", mode " + octal(own.mode)};
}

Finding judgeSpace(const Directory& directory, const Commands& commands) {
  const std::string& path = directory.path;
  if (!directory.spaceError.empty()) return {Verdict::SKIP, "ssh-dir-space", directory.spaceError};
  if (directory.readOnly) {
    return {Verdict::FAIL, "ssh-dir-space", "the file system of " + path + " is read-only",
            "the programs cannot store a key there; the command makes it writable until the next boot",
            commands.remount(directory.parents.empty() ? FileInfo() : directory.parents.front())};
  }
  if (directory.noFilesLeft || (directory.bytesFree && *directory.bytesFree < kBytesNeeded)) {
    return {Verdict::FAIL, "ssh-dir-space",
            "the file system of " + path + (directory.noFilesLeft ? " can hold no more files" : " is full"),
            "the programs cannot store a key; delete files there that nobody needs"};
  }
  if (!directory.bytesFree) return {Verdict::OK, "ssh-dir-space", "its file system has no limit"};
  return {Verdict::OK, "ssh-dir-space", std::to_string(*directory.bytesFree / 1024) + " KiB free"};
}

/// Checks a file that the programs edit (`isEdited`), or delete and create again.
std::optional<Finding> judgeFile(const FileInfo& file, bool isEdited, const User& user,
                                 const Commands& commands) {
  using Type = FileInfo::Type;
  if (file.dangling) {
    return Finding{Verdict::FAIL, "ssh-files",
                   file.path + " is a symbolic link, and its target cannot be created",
                   "the programs store nothing in it", commands.moveAway(file.path)};
  }
  if (file.type == Type::MISSING) return std::nullopt;
  if (file.type == Type::UNKNOWN) {
    Finding finding = {Verdict::FAIL, "ssh-files", file.path + ": " + file.error,
                       "the programs cannot use this file"};
    if (file.error == kLinkLoop) finding.command = commands.moveAway(file.path);
    return finding;
  }
  if (file.type != Type::FILE) {
    return Finding{Verdict::FAIL, "ssh-files", file.path + " is not a regular file",
                   "the programs store nothing in it", commands.moveAway(file.path)};
  }
  if (file.flag != '\0') {
    return Finding{Verdict::FAIL, "ssh-files", file.path + " cannot be changed (chattr +" + file.flag + ")",
                   "the programs cannot store a key there", commands.removeFlag(file)};
  }
  if (!isEdited || (file.readable && file.writable)) return std::nullopt;
  Finding finding = {Verdict::FAIL, "ssh-files", file.path + ": " + file.error,
                     "the programs and ssh need access to this file"};
  if (file.error == kReadOnly) {
    finding.command = commands.remount(file);
    return finding;
  }
  finding.command = file.owner == user.id ? commands.changeMode(file, "u+rw") : commands.takeOwnership(file);
  return finding;
}

}  // namespace

Findings checkDirectory(const User& user, const Side& side, const Directory& directory, bool strictModes,
                        const Commands& commands) {
  if (user.name.empty()) return {};
  if (directory.path.empty()) return {missingDirectory(user, side, directory, commands)};
  Findings findings = {judgePath(user, directory, commands),
                       judgeOwner(user, directory, strictModes, commands), judgeSpace(directory, commands)};
  const std::size_t before = findings.size();
  // ssh-dir-modes already judges the directories above authorized_keys, unless the file is a link to another
  // directory.
  const bool isElsewhere =
      !directory.keysParents.empty() && !directory.parents.empty() &&
      !directory.keysParents.front().path.starts_with(directory.parents.front().path + "/");
  std::vector<FileInfo> keys = directory.keysParents;
  if (!isElsewhere) keys.resize(std::min<std::size_t>(keys.size(), 1));
  if (strictModes && directory.authorizedKeys.type == FileInfo::Type::FILE) {
    if (auto finding = judgeModes("ssh-files", keys, user, commands)) findings.push_back(*finding);
  }
  if (directory.config.type == FileInfo::Type::FILE) {
    if (auto finding = judgeModes("ssh-files", {directory.config}, user, commands)) {
      finding->serves = Serves::LOGIN_THERE;
      findings.push_back(*finding);
    }
  }
  const std::pair<const FileInfo&, bool> files[] = {{directory.authorizedKeys, true},
                                                    {directory.config, true},
                                                    {directory.privateKey, false},
                                                    {directory.publicKey, false}};
  for (const auto& [file, isEdited] : files) {
    if (auto finding = judgeFile(file, isEdited, user, commands)) findings.push_back(*finding);
  }
  if (findings.size() == before) {
    findings.push_back({Verdict::OK, "ssh-files", "authorized_keys, config and keys are usable"});
  }
  return findings;
}

Findings checkKeygen(const User& user, const Pairing& pairing, const Commands& commands) {
  if (user.name.empty()) {
    return {{Verdict::SKIP, "ssh-keygen", "not checked: it does not run without a user name"}};
  }
  if (pairing.keygen.succeeded()) return {{Verdict::OK, "ssh-keygen", "runs and knows ed25519"}};
  if (isReplaced("ssh-keygen", pairing.keygenPath)) {
    return {
        {Verdict::FAIL, "ssh-keygen", pairing.keygenPath + ": " + pairing.keygen.message(),
         "PATH leads to this file, not to /usr/bin/ssh-keygen; move it away if it does not belong there"}};
  }
  return {{Verdict::FAIL, "ssh-keygen", pairing.keygen.message(),
           "without ssh-keygen the programs create no key, and they do not report that",
           commands.asRoot("apt-get install --reinstall --yes openssh-client")}};
}

}  // namespace dorve
