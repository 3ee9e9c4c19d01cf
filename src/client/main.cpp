// SPDX-License-Identifier: MIT
// dorve-client: finds the SSH directory, performs one run and returns its result as the exit status.
#include <iostream>

#include "dorve/client/dorve_client.h"
#include "dorve/client/ssh_directory.h"
#include "dorve/net/endpoints.h"

// A socket exception from `start` is not caught: if the connection can't be set up, the process aborts.
int main() {
  const std::string sshDir = dorve::findUserSshDirectory();
  if (sshDir.empty()) return 1;

  std::cout << "Starting DORVE Client (Base) v1.0" << std::endl;
  dorve::DorveClient client(dorve::kServerAddress, dorve::kPort, sshDir);
  if (!client.start()) {
    std::cerr << "Client failed" << std::endl;
    return 1;
  }
  std::cout << "Client completed successfully" << std::endl;
  return 0;
}
