// SPDX-License-Identifier: MIT
#ifndef DORVE_CLIENT_SSH_DIRECTORY_H_
#define DORVE_CLIENT_SSH_DIRECTORY_H_

#include <string>
#include <vector>

namespace dorve {

/// The paths that may be the SSH directory, in order: $HOME/.ssh if $HOME is a directory, /root/.ssh and
/// /home/root/.ssh.
std::vector<std::string> sshDirectoryCandidates();

/// Whether the path leads to a directory.
bool isDirectory(const std::string& path);

/// The first candidate that is a directory; makes none. When none is, prints "Error" on standard error and
/// returns an empty text.
std::string findUserSshDirectory();

}  // namespace dorve

#endif  // DORVE_CLIENT_SSH_DIRECTORY_H_
