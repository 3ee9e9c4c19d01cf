// SPDX-License-Identifier: MIT
// For a device without a service manager: serves one pairing, then restarts the sshd whose process id stands
// in /var/run/sshd.pid. Run it as root on the device that has 172.20.10.1.
// Exits with 0 once a client was served, with 1 otherwise.
#include <dorve/client/ssh_directory.h>
#include <dorve/protocol/endpoints.h>
#include <dorve/server/dorve_server.h>

#include <string>

int main() {
  const std::string sshDir = dorve::findUserSshDirectory();
  if (sshDir.empty()) return 1;

  dorve::DorveServer server(dorve::kServerAddress, dorve::kPort, sshDir);
  if (!server.start()) return 1;

  // sshd reads authorized_keys at every login. A restart is for an sshd that must also read its own files
  // again, for example host keys that were made at the same time.
  server.restartSshdUnmanaged();
  return 0;
}
