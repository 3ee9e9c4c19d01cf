// SPDX-License-Identifier: MIT
// For a device that must not keep keys across a reboot: mounts a tmpfs on /root/.ssh and pairs as the client.
// Run it as root on the device whose interface bsab has 172.20.10.2.
// The mount hides the previous content of the directory until the next boot. If something is already mounted
// there, the keys go to that mount. The exit status is 0 after a pairing, otherwise 1.
#include <dorve/client/dorve_client.h>
#include <dorve/keys/ssh_files.h>
#include <dorve/net/endpoints.h>
#include <dorve/util/mounts.h>

#include <iostream>
#include <string>

int main() {
  const std::string sshDir = "/root/.ssh";
  dorve::makeSshDirectory(sshDir);  // the mount needs an existing directory
  if (!dorve::mountTmpfs(sshDir.c_str(), "mode=0700,size=1m")) return 1;

  dorve::DorveClient client(dorve::kServerAddress, dorve::kPort, sshDir);
  // `start` returns false if the interface does not appear or a phase fails.
  // It throws if the connection can't be set up.
  try {
    return client.start() ? 0 : 1;
  } catch (const dorve::NqSocketException& failure) {
    std::cerr << failure.what() << std::endl;
    return 1;
  }
}
