// SPDX-License-Identifier: MIT
// host-operation NAME [ARGUMENT...]: one operation that acts on a whole machine, for the tests to run on a
// lab host. It runs only there, because it ends processes, starts a daemon and mounts a file system.
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "dorve/server/dorve_server.h"
#include "dorve/util/mounts.h"

namespace {

/// Only a lab host has lab/host as init, a plain file as kernel log, and /run/lab.
bool onLabHost() {
  struct stat log = {}, lab = {};
  std::ifstream init("/proc/1/cmdline");
  const std::string command(std::istreambuf_iterator<char>(init), {});
  return stat("/dev/kmsg", &log) == 0 && S_ISREG(log.st_mode) && stat("/run/lab", &lab) == 0 &&
         command.find("lab/host") != std::string::npos;
}

}  // namespace

int main(int argc, char** argv) {
  if (!onLabHost()) {
    std::cerr << "not on a lab host with processes and a kernel log of its own" << std::endl;
    return 77;
  }
  const std::string name = argc > 1 ? argv[1] : "";
  if (name == "check") return 0;
  if (name == "mount" && argc == 4) return dorve::mountTmpfs(argv[2], argv[3]) ? 0 : 1;

  const int pid = argc > 2 ? std::atoi(argv[2]) : 0;
  if (name != "restart" && pid <= 0) return 2;
  dorve::DorveServer server("", 0, "/root/.ssh");
  if (name == "restart") server.restartSshdUnmanaged();
  if (name == "terminate") std::cout << server.terminateSshd(pid);
  if (name == "wait" && argc == 4) std::cout << server.waitForProcTerm(pid, std::atoi(argv[3]));
  return 0;
}
