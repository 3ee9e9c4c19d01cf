// dorve-client: finds the SSH directory, runs one client, maps the result to a status.
#include <iostream>

#include "client/dorve_client.h"
#include "client/ssh_directory.h"

// A socket exception out of `start` is not caught: only a failure of the protocol is a "Client failed", a
// connection that can't be set up ends the process abnormally.
int main() {
  const std::string sshDir = dorve::findUserSshDirectory();
  if (sshDir.empty()) return 1;

  std::cout << "Starting DORVE Client (Base) "
            << "v1.0" << std::endl;
  dorve::DorveClient client("172.20.10.1", 8888, sshDir);
  if (!client.start()) {
    std::cerr << "Client failed" << std::endl;
    return 1;
  }
  std::cout << "Client completed successfully" << std::endl;
  return 0;
}
