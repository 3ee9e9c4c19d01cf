// SPDX-License-Identifier: MIT
// Finds, stops and starts an sshd that no service manager runs.
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>

#include "dorve/server/dorve_server.h"
#include "dorve/util/report_error.h"
#include "dorve/util/sleep.h"

namespace dorve {
namespace {

constexpr const char* kPidFile = "/var/run/sshd.pid";
constexpr const char* kProgram = "/usr/sbin/sshd";
constexpr const char* kIntoKernelLog = " > /dev/kmsg 2>&1 &";
constexpr const char* kProcessName = "sshd";
constexpr int kNoSshd = -1;

constexpr int kTermWaitMs = 5000;
constexpr int kKillWaitMs = 2000;
constexpr unsigned int kFirstPollMs = 20;
constexpr unsigned int kLongestPollMs = 200;

std::string processFile(int pid, const char* name) {
  return "/proc/" + std::to_string(pid) + "/" + name;
}

/// Returns whether a process is a zombie: it has ended, but its parent has not reaped it.
/// In /proc/PID/stat, the state follows the last ')'. The name before it may also contain a ')'.
bool isZombie(int pid) {
  std::ifstream file(processFile(pid, "stat"));
  std::string line;
  std::getline(file, line);
  const auto nameEnd = line.rfind(')');
  return nameEnd != std::string::npos && nameEnd + 2 < line.size() && line[nameEnd + 2] == 'Z';
}

}  // namespace

int DorveServer::readSshdPid() {
  std::ifstream file(kPidFile);
  int pid = 0;
  if (!(file >> pid) || pid <= 0) return kNoSshd;
  return verifySshdProcess(pid) ? pid : kNoSshd;
}

bool DorveServer::verifySshdProcess(int pid) {
  std::ifstream file(processFile(pid, "cmdline"));
  std::string program;
  std::getline(file, program, '\0');
  return program.find(kProcessName) != std::string::npos;
}

bool DorveServer::waitForProcTerm(int pid, int timeoutMs) {
  const auto start = std::chrono::steady_clock::now();
  for (unsigned int delayMs = kFirstPollMs;; delayMs = std::min(2 * delayMs, kLongestPollMs)) {
    if (kill(pid, 0) != 0 && errno == ESRCH) return true;
    if (isZombie(pid)) return true;
    const auto elapsed = std::chrono::steady_clock::now() - start;
    if (std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count() > timeoutMs) return false;
    sleepMs(delayMs);
  }
}

bool DorveServer::terminateSshd(int pid) {
  const struct {
    int signal;
    int waitMs;
  } steps[] = {{SIGTERM, kTermWaitMs}, {SIGKILL, kKillWaitMs}};
  for (const auto& [signal, waitMs] : steps) {
    if (kill(pid, signal) != 0) {
      if (errno == ESRCH) return true;
      break;
    }
    if (waitForProcTerm(pid, waitMs)) return true;
  }
  reportError();
  return false;
}

void DorveServer::restartSshdUnmanaged() {
  const int pid = readSshdPid();
  if (pid != kNoSshd) {
    if (!terminateSshd(pid)) std::cerr << "Warning" << std::endl;
    std::remove(kPidFile);
  }
  // sshd starts in the background, and its status is not checked. Its output is in the kernel log.
  [[maybe_unused]] const int status = std::system((std::string(kProgram) + kIntoKernelLog).c_str());
}

}  // namespace dorve
