// SPDX-License-Identifier: MIT
#ifndef DORVE_CLIENT_SSH_DIRECTORY_H_
#define DORVE_CLIENT_SSH_DIRECTORY_H_

#include <string>
#include <vector>

namespace dorve {

/// The candidates for the SSH directory, in order:
/// $HOME/.ssh if $HOME is a directory, /root/.ssh and /home/root/.ssh.
std::vector<std::string> sshDirectoryCandidates();

/// Returns whether `path` is a directory or a link to one.
bool isDirectory(const std::string& path);

/// The first candidate that is a directory.
/// If there is none, prints "Error" on standard error and returns an empty text. Creates no directory.
std::string findUserSshDirectory();

}  // namespace dorve

#endif  // DORVE_CLIENT_SSH_DIRECTORY_H_
