// SPDX-License-Identifier: MIT
// stopwatch OPTIONS PROGRAM [ARGUMENT...]: runs a program and prints its events.
// Each event is a line "NANOSECONDS EVENT". The time is that of the steady clock, which all lab hosts share.
// The events `start` and `exit STATUS` are always printed.
//
// OPTIONS is one word of these characters, or - for none. Do not combine l with a.
//   0, 1  Run the program and its children only on the CPU with this number, so each host can have its own.
//   l     Print `line TEXT` for each line on the program's standard output, which otherwise is /dev/null.
//   a     Print `accepting` as soon as the program sleeps in accept(2).
#include <fcntl.h>
#include <sched.h>
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

void print(const std::string& event) {
  const std::chrono::nanoseconds now = std::chrono::steady_clock::now().time_since_epoch();
  std::cout << now.count() << ' ' << event << '\n';
}

bool isAccepting(pid_t child) {
  int call = -1;  // becomes 0, which is not accept, if the file contains "running"
  std::ifstream("/proc/" + std::to_string(child) + "/syscall") >> call;
  return call == SYS_accept || call == SYS_accept4;
}

void printLines(int output) {
  std::FILE* stream = fdopen(output, "r");
  char line[256];
  while (std::fgets(line, sizeof line, stream) != nullptr) {
    line[std::strcspn(line, "\n")] = '\0';
    print(std::string("line ") + line);
  }
}

/// Waits until the child exits, and prints its events.
/// If `waitForAccept` is true, first polls until the child sleeps in accept(2).
void follow(pid_t child, bool waitForAccept) {
  int status = 0;
  while (waitpid(child, &status, waitForAccept ? WNOHANG : 0) == 0) {
    nanosleep(&kPollInterval, nullptr);
    if (!isAccepting(child)) continue;
    waitForAccept = false;
    print("accepting");
    std::cout.flush();
  }
  print("exit " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)));
}

}  // namespace

int main(int count, char** words) {
  if (count < 3) return 2;
  const auto hasOption = [&](char letter) { return std::string(words[1]).find(letter) != std::string::npos; };
  int output[2];
  if (pipe2(output, O_CLOEXEC) != 0) return 1;
  const int devNull = open("/dev/null", O_RDWR | O_CLOEXEC);

  print("start");
  const pid_t child = fork();
  if (child == 0) {
    dup2(devNull, STDIN_FILENO);
    dup2(hasOption('l') ? output[1] : devNull, STDOUT_FILENO);
    for (const std::size_t cpu : {0, 1}) {
      cpu_set_t cpus;
      CPU_ZERO(&cpus);
      CPU_SET(cpu, &cpus);
      if (hasOption(static_cast<char>('0' + cpu))) sched_setaffinity(0, sizeof cpus, &cpus);
    }
    execvp(words[2], words + 2);
    _exit(127);
  }
  close(output[1]);
  if (hasOption('l')) printLines(output[0]);
  follow(child, hasOption('a'));
  return 0;
}
