// SPDX-License-Identifier: MIT
// stopwatch WANTED PROGRAM [ARGUMENT...]: runs a program and prints what it saw of it from outside, as lines
// "NANOSECONDS EVENT" on the steady clock, which all hosts on one machine share: `start`, `exit STATUS`, and
// what the letters of WANTED ask for (l and c don't go together):
//   0, 1  it and its children run on this CPU only, as if each host had one of its own
//   l  `line TEXT` for each line on its standard output, which is /dev/null otherwise
//   a  `accepting`, told at once, when it has gone to sleep in accept(2)
//   c  `cost KIB FAULTS CALLS`: the peak of its resident memory, its page faults and system calls, without
//      those of its children, which getrusage(2) would add. The tracing makes times of such a run worthless.
#include <fcntl.h>
#include <sched.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

namespace {

constexpr timespec kPollInterval{0, 20'000};
constexpr int kCallStop = SIGTRAP | 0x80;  // with PTRACE_O_TRACESYSGOOD
constexpr int kTraceOptions = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXIT | PTRACE_O_EXITKILL;

void note(const std::string& event) {
  const std::chrono::nanoseconds now = std::chrono::steady_clock::now().time_since_epoch();
  std::cout << now.count() << ' ' << event << '\n';
}

std::string processFile(pid_t process, const char* name) {
  return "/proc/" + std::to_string(process) + '/' + name;
}

bool isAccepting(pid_t child) {
  int call = -1;  // stays -1 while the file says "running"
  std::ifstream(processFile(child, "syscall")) >> call;
  return call == SYS_accept || call == SYS_accept4;
}

void noteCost(pid_t child, unsigned long calls) {
  std::string word;
  std::ifstream status(processFile(child, "status"));
  while (status >> word && word != "VmHWM:") {
  }
  status >> word;
  unsigned long minor = 0;
  unsigned long major = 0;
  std::string skipped;
  std::ifstream stat(processFile(child, "stat"));
  for (int field = 1; field < 10; ++field) stat >> skipped;  // as proc(5) numbers them
  stat >> minor >> skipped >> major;
  note("cost " + word + ' ' + std::to_string(minor + major) + ' ' + std::to_string(calls));
}

void noteLines(int output) {
  std::FILE* stream = fdopen(output, "r");
  char line[256];
  while (std::fgets(line, sizeof line, stream) != nullptr) {
    line[std::strcspn(line, "\n")] = '\0';
    note(std::string("line ") + line);
  }
}

void follow(pid_t child, bool untilAccepting) {
  unsigned long callStops = 0;
  for (;;) {
    int status = 0;
    if (waitpid(child, &status, untilAccepting ? WNOHANG : 0) == 0) {
      nanosleep(&kPollInterval, nullptr);
      if (!isAccepting(child)) continue;
      untilAccepting = false;
      note("accepting");
      std::cout.flush();
    } else if (!WIFSTOPPED(status)) {
      return note("exit " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)));
    } else {
      int signal = WSTOPSIG(status);
      if (signal == kCallStop) ++callStops;
      // Each call stops twice, but execve has been left when the tracing begins and exit_group is never left.
      if (status >> 16 == PTRACE_EVENT_EXIT) noteCost(child, callStops / 2 + 2);
      if (signal == SIGTRAP) ptrace(PTRACE_SETOPTIONS, child, nullptr, kTraceOptions);
      if (signal == SIGTRAP || signal == kCallStop) signal = 0;
      ptrace(PTRACE_SYSCALL, child, nullptr, signal);
    }
  }
}

}  // namespace

int main(int count, char** words) {
  if (count < 3) return 2;
  const auto wants = [&](char letter) { return std::string(words[1]).find(letter) != std::string::npos; };
  int output[2];
  if (pipe2(output, O_CLOEXEC) != 0) return 1;
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);

  note("start");
  const pid_t child = fork();
  if (child == 0) {
    dup2(nothing, STDIN_FILENO);
    dup2(wants('l') ? output[1] : nothing, STDOUT_FILENO);
    for (const std::size_t cpu : {0, 1}) {
      cpu_set_t one;
      CPU_ZERO(&one);
      CPU_SET(cpu, &one);
      if (wants(static_cast<char>('0' + cpu))) sched_setaffinity(0, sizeof one, &one);
    }
    if (wants('c')) ptrace(PTRACE_TRACEME);
    execvp(words[2], words + 2);
    _exit(127);
  }
  close(output[1]);
  if (wants('l')) noteLines(output[0]);
  follow(child, wants('a'));
  return 0;
}
