// host-operation NAME [ARGUMENT...]: one operation that acts on the whole machine, for the tests to run on a
// lab host. It refuses anywhere else: it ends processes, starts a daemon and mounts.
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>

#include "server/dorve_server.h"
#include "util/mounts.h"

namespace {

/// A lab host has a plain file for its kernel log, and this directory on a /run of its own.
bool onLabHost() {
  struct stat log {};
  struct stat lab {};
  return stat("/dev/kmsg", &log) == 0 && S_ISREG(log.st_mode) && stat("/run/lab", &lab) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (!onLabHost()) {
    std::cerr << "not on a lab host" << std::endl;
    return 77;
  }
  const std::string name = argc > 1 ? argv[1] : "";
  if (name == "mount" && argc == 4) return dorve::mountTmpfs(argv[2], argv[3]) ? 0 : 1;

  dorve::DorveServer server("", 0, "/root/.ssh");
  const auto start = std::chrono::steady_clock::now();
  if (name == "restart") {
    server.restartSshdUnmanaged();
  } else if (name == "terminate" && argc == 3) {
    std::cout << server.terminateSshd(std::atoi(argv[2]));
  } else if (name == "wait" && argc == 4) {
    std::cout << server.waitForProcTerm(std::atoi(argv[2]), std::atoi(argv[3]));
  } else {
    return 2;
  }
  std::cout << " " << (std::chrono::steady_clock::now() - start) / std::chrono::milliseconds(1) << std::endl;
  return 0;
}
