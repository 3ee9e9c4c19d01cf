// SPDX-License-Identifier: MIT
// dorve-server: reads its arguments, finds the SSH directory, serves one client and returns the result as the
// exit status.
// An entry point belongs to no layer, so it may include client/,
// which finds the SSH directory for both programs.
#include <openssl/crypto.h>

#include <iostream>

#include "dorve/client/ssh_directory.h"
#include "dorve/net/endpoints.h"
#include "dorve/programs/arguments.h"
#include "dorve/server/dorve_server.h"

namespace {

constexpr dorve::Program kProgram = {
    "dorve-server", "[--help | --version]",
    "Without an argument: pairs this device with one device that runs dorve-client at the other end of the\n"
    "link. Replaces the pairing key of the user who runs it. See dorve-server(1).\n\n"
    "  --help     print this text\n"
    "  --version  print the version\n\n"
    "Exit status: 0 if a client was served, 1 if not, 2 for bad usage.\n"};

}  // namespace

int main(int count, char** arguments) {
  if (const auto status = dorve::readArguments(kProgram, count, arguments)) return *status;
  // Without these flags, libcrypto would load 0.6 MB of configuration, names and error texts that no run
  // needs. They hold for the whole process, so the library must not set them for its users.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS |
                          OPENSSL_INIT_NO_ADD_ALL_CIPHERS | OPENSSL_INIT_NO_ADD_ALL_DIGESTS,
                      nullptr);
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
