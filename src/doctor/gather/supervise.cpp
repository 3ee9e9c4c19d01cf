// SPDX-License-Identifier: MIT
#include "dorve/gather/supervise.h"

#include <linux/close_range.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iostream>

#include "dorve/gather/command.h"

namespace dorve {
namespace {

sigset_t watchedSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
  return signals;
}

/// Waits until the child has ended, and stores its status. Returns 0 then, -1 if it stopped or needs too
/// long, else the signal that arrived.
int watch(pid_t child, const sigset_t& signals, const Deadline& deadline, int limitMs, int& status) {
  while (true) {
    const int left = deadline.leftMs(limitMs);
    const timespec timeout = {left / 1000, left % 1000 * 1000000L};
    const int arrived = sigtimedwait(&signals, nullptr, &timeout);
    if (waitpid(child, &status, WNOHANG | WUNTRACED) == child) return WIFSTOPPED(status) ? -1 : 0;
    if (left == 0) return -1;
    if (arrived > 0 && arrived != SIGCHLD) return arrived;
  }
}

}  // namespace

int supervise(int limitMs, const std::function<int()>& work) {
  // What the caller has open is not for the commands that the child runs.
  close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
  const sigset_t signals = watchedSignals();
  sigset_t former;
  sigprocmask(SIG_BLOCK, &signals, &former);
  adoptChildren();
  const pid_t child = fork();
  if (child < 0) return work();
  if (child == 0) {
    sigprocmask(SIG_SETMASK, &former, nullptr);
    setsid();  // without a terminal, nothing can type into the caller's
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    _exit(work());
  }
  int status = 0;
  const int reason = watch(child, signals, Deadline(limitMs), limitMs, status);
  if (reason == 0 && WIFEXITED(status)) return WEXITSTATUS(status);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  killChildren();
  sigprocmask(SIG_SETMASK, &former, nullptr);
  if (reason > 0) raise(reason);
  std::cerr << "dorve-doctor: the examination did not finish\n";
  return 1;
}

}  // namespace dorve
