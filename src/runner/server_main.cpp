// SPDX-License-Identifier: MIT
// dorve-server: finds the SSH directory, runs one server, maps the result to a status. It stands above
// client/, which finds the directory for both programs, and server/, so that neither needs the other.
#include <iostream>

#include "dorve/client/ssh_directory.h"
#include "dorve/protocol/endpoints.h"
#include "dorve/server/dorve_server.h"

int main() {
  const std::string sshDir = dorve::findUserSshDirectory();
  if (sshDir.empty()) return 1;

  std::cout << "Starting DORVE Server (Base) " << dorve::kBannerVersion << std::endl;
  dorve::DorveServer server(dorve::kServerAddress, dorve::kPort, sshDir);
  if (!server.start()) {
    std::cerr << "Server failed" << std::endl;
    return 1;
  }
  std::cout << "Server completed successfully" << std::endl;
  return 0;
}
