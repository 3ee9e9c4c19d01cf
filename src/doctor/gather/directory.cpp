// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "dorve/client/ssh_directory.h"
#include "dorve/gather/files.h"
#include "dorve/gather/subjects.h"
#include "dorve/keys/key_material.h"

namespace dorve {
namespace {

void measureSpace(Directory& directory, bool isRoot) {
  struct statvfs space = {};
  if (statvfs(directory.path.c_str(), &space) != 0) {
    directory.spaceError = std::strerror(errno);
    return;
  }
  directory.readOnly = (space.f_flag & ST_RDONLY) != 0;
  directory.noFilesLeft = space.f_files != 0 && (isRoot ? space.f_ffree : space.f_favail) == 0;
  if (space.f_blocks != 0) {
    directory.bytesFree = std::uint64_t{isRoot ? space.f_bfree : space.f_bavail} * space.f_frsize;
  }
}

/// The topmost directory above a path that this process may not enter; empty if there is none.
std::string closedAbove(const std::filesystem::path& path) {
  std::filesystem::path place;
  for (const std::filesystem::path& part : path.parent_path()) {
    place /= part;
    if (faccessat(AT_FDCWD, place.c_str(), X_OK, AT_EACCESS) != 0 && errno == EACCES) return place;
  }
  return "";
}

}  // namespace

Directory gatherDirectory(const User& user) {
  Directory directory;
  for (const std::string& path : sshDirectoryCandidates()) {
    directory.candidates.push_back(inspect(path));
    const FileInfo& candidate = directory.candidates.back();
    // Root can enter directories that the user can't.
    const bool isOthers =
        geteuid() == 0 && !user.isRoot() && candidate.owner != user.id && path != user.home + "/.ssh";
    if (directory.path.empty() && candidate.type == FileInfo::Type::DIRECTORY && !isOthers) {
      directory.path = path;
    }
  }
  directory.ofHome = inspect(user.home + "/.ssh");
  if (directory.ofHome.type == FileInfo::Type::UNKNOWN) directory.closed = closedAbove(directory.ofHome.path);
  directory.canonicalHome = canonical(user.home);
  if (directory.path.empty()) return directory;

  std::error_code error;
  directory.isOfHome = std::filesystem::equivalent(directory.path, directory.ofHome.path, error);
  directory.parents = inspectUpTo(directory.path, directory.canonicalHome);
  measureSpace(directory, user.isRoot());
  directory.authorizedKeys = inspect(directory.path + "/authorized_keys");
  directory.config = inspect(directory.path + "/config");
  directory.privateKey = inspect(directory.path + "/" + kPairingKeyName);
  directory.publicKey = inspect(directory.privateKey.path + ".pub");
  directory.keysParents = inspectUpTo(directory.authorizedKeys.path, directory.canonicalHome);
  return directory;
}

}  // namespace dorve
