// SPDX-License-Identifier: MIT
#include "dorve/util/mounts.h"

#include <sys/mount.h>

#include <fstream>
#include <iostream>
#include <string>
#include <string_view>

#include "dorve/util/report_error.h"

namespace dorve {

bool isMounted(const char* path) {
  std::ifstream mounts("/proc/mounts");
  if (!mounts) {
    reportError();
    return false;
  }
  for (std::string line; std::getline(mounts, line);) {
    const auto first = line.find(' ');
    if (first == std::string::npos) continue;
    const auto second = line.find(' ', first + 1);
    if (second == std::string::npos) continue;
    if (std::string_view(line).substr(first + 1, second - first - 1) == path) return true;
  }
  return false;
}

bool mountTmpfs(const char* path, const char* options) {
  if (isMounted(path)) return true;
  if (mount("tmpfs", path, "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, options) != 0) {
    reportError();
    return false;
  }
  std::cout << "Successful" << std::endl;
  return true;
}

}  // namespace dorve
