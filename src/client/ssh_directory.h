// SPDX-License-Identifier: MIT
#ifndef DORVE_CLIENT_SSH_DIRECTORY_H_
#define DORVE_CLIENT_SSH_DIRECTORY_H_

#include <string>

namespace dorve {

/// The first of $HOME/.ssh, /root/.ssh and /home/root/.ssh that is a directory; makes none. $HOME counts only
/// when it is a directory itself. When none is, prints "Error" on standard error and returns an empty text.
std::string findUserSshDirectory();

}  // namespace dorve

#endif  // DORVE_CLIENT_SSH_DIRECTORY_H_
