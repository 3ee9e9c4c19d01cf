// SPDX-License-Identifier: MIT
// dorve-client: reads its arguments, finds the SSH directory, performs one run and returns its result as the
// exit status.
#include <iostream>

#include "dorve/client/dorve_client.h"
#include "dorve/client/ssh_directory.h"
#include "dorve/net/endpoints.h"
#include "dorve/programs/arguments.h"

namespace {

constexpr dorve::Program kProgram = {
    "dorve-client", "[--help | --version]",
    "Without an argument: pairs this device with the device at the other end of the link, which runs\n"
    "dorve-server. Replaces the pairing key of the user who runs it. See dorve-client(1).\n\n"
    "  --help     print this text\n"
    "  --version  print the version\n\n"
    "Exit status: 0 after a pairing, 1 or 134 if it failed, 2 for bad usage.\n"};

}  // namespace

// A socket exception from `start` is not caught: if the connection can't be set up, the process aborts.
int main(int count, char** arguments) {
  if (const auto status = dorve::readArguments(kProgram, count, arguments)) return *status;
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
