// SPDX-License-Identifier: MIT
#include "dorve/client/ssh_directory.h"

#include <sys/stat.h>

#include <cstdlib>

#include "dorve/util/report_error.h"

namespace dorve {

bool isDirectory(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::vector<std::string> sshDirectoryCandidates() {
  std::vector<std::string> candidates;
  const char* home = std::getenv("HOME");
  if (home != nullptr && isDirectory(home)) candidates.push_back(std::string(home) + "/.ssh");
  candidates.emplace_back("/root/.ssh");
  candidates.emplace_back("/home/root/.ssh");
  return candidates;
}

std::string findUserSshDirectory() {
  for (const std::string& candidate : sshDirectoryCandidates()) {
    if (isDirectory(candidate)) return candidate;
  }
  reportError();
  return "";
}

}  // namespace dorve
