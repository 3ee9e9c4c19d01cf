// SPDX-License-Identifier: MIT
// For a device without a service manager: serves one pairing, then restarts the sshd whose process id is in
// /var/run/sshd.pid. Run it as root on the device that has 172.20.10.1.
// The exit status is 0 if a client was served, otherwise 1.
#include <dorve/client/ssh_directory.h>
#include <dorve/net/endpoints.h>
#include <dorve/server/dorve_server.h>

#include <string>

int main() {
  const std::string sshDir = dorve::findUserSshDirectory();
  if (sshDir.empty()) return 1;

  dorve::DorveServer server(dorve::kServerAddress, dorve::kPort, sshDir);
  if (!server.start()) return 1;

  // A pairing needs no restart, because sshd reads authorized_keys at every login. Restart sshd if its own
  // files have changed, for example if host keys were made at the same time.
  server.restartSshdUnmanaged();
  return 0;
}
