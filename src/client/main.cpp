// SPDX-License-Identifier: MIT
// dorve-client: finds the SSH directory, runs one client, maps the result to a status.
#include <iostream>

#include "dorve/client/dorve_client.h"
#include "dorve/client/ssh_directory.h"
#include "dorve/protocol/endpoints.h"

// Whatever `start` reports as false is a "Client failed". A socket exception out of it is not caught: a
// connection that can't be set up ends the process abnormally.
int main() {
  const std::string sshDir = dorve::findUserSshDirectory();
  if (sshDir.empty()) return 1;

  std::cout << "Starting DORVE Client (Base) " << dorve::kBannerVersion << std::endl;
  dorve::DorveClient client(dorve::kServerAddress, dorve::kPort, sshDir);
  if (!client.start()) {
    std::cerr << "Client failed" << std::endl;
    return 1;
  }
  std::cout << "Client completed successfully" << std::endl;
  return 0;
}
