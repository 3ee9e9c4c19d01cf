// SPDX-License-Identifier: MIT
#include "dorve/client/ssh_directory.h"

#include <sys/stat.h>

#include <cstdlib>
#include <iostream>
#include <vector>

namespace dorve {
namespace {

bool isDirectory(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

std::string findUserSshDirectory() {
  std::vector<std::string> candidates;
  const char* home = std::getenv("HOME");
  if (home != nullptr && isDirectory(home)) candidates.push_back(std::string(home) + "/.ssh");
  candidates.emplace_back("/root/.ssh");
  candidates.emplace_back("/home/root/.ssh");

  for (const std::string& candidate : candidates) {
    if (isDirectory(candidate)) return candidate;
  }
  std::cerr << "Error" << std::endl;
  return "";
}

}  // namespace dorve
