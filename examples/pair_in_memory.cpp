// SPDX-License-Identifier: MIT
// For a device that may keep no key over a reboot: backs /root/.ssh by memory, then pairs as the client.
// Run it as root on the device whose interface bsab has 172.20.10.2.
// What the directory held before is hidden until the next boot. If something is mounted there already, the
// keys go there. Exits with 0 once paired, with 1 otherwise.
#include <dorve/client/dorve_client.h>
#include <dorve/keys/ssh_files.h>
#include <dorve/protocol/endpoints.h>
#include <dorve/util/mounts.h>

#include <iostream>
#include <string>

int main() {
  const std::string sshDir = "/root/.ssh";
  dorve::makeSshDirectory(sshDir);  // a mount needs a directory to mount on
  if (!dorve::mountTmpfs(sshDir.c_str(), "mode=0700,size=1m")) return 1;

  // The constructor sets the mode of the directory again; `start` throws if it can't set up the connection.
  dorve::DorveClient client(dorve::kServerAddress, dorve::kPort, sshDir);
  try {
    return client.start() ? 0 : 1;
  } catch (const dorve::NqSocketException& failure) {
    std::cerr << failure.what() << std::endl;
    return 1;
  }
}
