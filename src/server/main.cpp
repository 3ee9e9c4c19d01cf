// SPDX-License-Identifier: MIT
// dorve-server: finds the SSH directory, serves one client and returns the result as the exit status.
// An entry point belongs to no layer, so it may include client/,
// which finds the SSH directory for both programs.
#include <iostream>

#include "dorve/client/ssh_directory.h"
#include "dorve/net/endpoints.h"
#include "dorve/server/dorve_server.h"

int main() {
  const std::string sshDir = dorve::findUserSshDirectory();
  if (sshDir.empty()) return 1;

  std::cout << "Starting DORVE Server (Base) v1.0" << std::endl;
  dorve::DorveServer server(dorve::kServerAddress, dorve::kPort, sshDir);
  if (!server.start()) {
    std::cerr << "Server failed" << std::endl;
    return 1;
  }
  std::cout << "Server completed successfully" << std::endl;
  return 0;
}
