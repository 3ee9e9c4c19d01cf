// SPDX-License-Identifier: MIT
#include "dorve/gather/command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "dorve/util/sleep.h"

namespace dorve {
namespace {

constexpr std::size_t kMaxInput = 4096;      // bytes; a pipe holds them until the command reads
constexpr std::size_t kMaxOutput = 1 << 20;  // bytes
constexpr int kPollMs = 10;
constexpr int kMaxRounds = 100;  // of killing; a process that keeps forking may win

int runningCommands = 0;
std::vector<pid_t> formerChildren;  // of the program that this process was before exec(3)

struct Pipe {
  Descriptor reading;
  Descriptor writing;
};

Pipe makePipe() {
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) ends[0] = ends[1] = -1;
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

/// The environment of a command: that of this process, with LC_ALL=C.
std::vector<char*> commandEnvironment() {
  static char language[] = "LC_ALL=C";
  std::vector<char*> result;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (std::strncmp(*entry, "LC_ALL=", 7) != 0) result.push_back(*entry);
  }
  result.push_back(language);
  result.push_back(nullptr);
  return result;
}

/// Reads once and appends the bytes. Returns false at the end of the pipe.
bool readSome(int fd, std::string& text) {
  char buffer[4096];
  const ssize_t size = read(fd, buffer, sizeof buffer);
  if (size <= 0) return size < 0 && errno == EINTR;
  text.append(buffer, std::min(static_cast<std::size_t>(size), kMaxOutput - text.size()));
  return true;
}

std::vector<pid_t> childrenOfThis() {
  std::vector<pid_t> pids;
  std::error_code error;
  for (std::filesystem::directory_iterator task("/proc/self/task", error), end; !error && task != end;
       task.increment(error)) {
    std::ifstream children(task->path() / "children");
    for (pid_t pid = 0; children >> pid;) pids.push_back(pid);
  }
  return pids;
}

}  // namespace

int Deadline::leftMs(int limit) const {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
  return std::clamp(static_cast<int>(left.count()), 0, limit);
}

Command::Command(const std::vector<std::string>& words, const Input& input) {
  ++runningCommands;
  Pipe in = makePipe();
  Pipe out = makePipe();
  Pipe err = makePipe();
  if (!in.reading || !out.reading || !err.reading) return;
  const std::string_view text = input.text.substr(0, kMaxInput);
  if (write(in.writing.get(), text.data(), text.size()) < 0) return;
  if (input.socket >= 0) {
    spawn(words, input.socket, input.socket, err.writing.get());
  } else {
    spawn(words, input.isLog ? in.writing.get() : in.reading.get(), out.writing.get(), err.writing.get());
  }
  outputs = {std::move(out.reading), std::move(err.reading),
             input.isLog ? std::move(in.reading) : Descriptor()};
}

Command::~Command() {
  if (child > 0) {
    kill(-child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
  // Only now are all children of this process those that commands left behind.
  if (--runningCommands == 0) killChildren();
}

void Command::spawn(const std::vector<std::string>& words, int input, int output, int error) {
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, error, STDERR_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  // In a session of its own, a command has no terminal into which it could type.
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  if (posix_spawnp(&child, arguments[0], &actions, &attributes, arguments.data(),
                   commandEnvironment().data()) != 0) {
    child = -1;
  }
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
}

void Command::readAll(Outcome& outcome, int waitMs) {
  const std::array<std::string*, kOutputs> texts = {&outcome.out, &outcome.err, &logged};
  std::array<pollfd, kOutputs> streams = {};
  for (std::size_t i = 0; i < kOutputs; ++i) streams.at(i) = {outputs.at(i).get(), POLLIN, 0};
  if (poll(streams.data(), streams.size(), waitMs) <= 0) return;
  for (std::size_t i = 0; i < kOutputs; ++i) {
    const bool isReady = streams.at(i).revents != 0;
    if (isReady && !readSome(outputs.at(i).get(), *texts.at(i))) outputs.at(i).close();
  }
}

Outcome Command::finish(int timeoutMs) {
  Outcome outcome;
  if (child < 0) return outcome;
  outcome.end = Outcome::End::TIMED_OUT;
  const Deadline deadline(timeoutMs);
  int status = 0;
  while (deadline.leftMs(1) > 0) {
    readAll(outcome, kPollMs);
    siginfo_t ended = {};
    if (waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT) != 0 ||
        ended.si_pid == 0) {
      continue;
    }
    outcome.end = Outcome::End::EXITED;
    break;
  }
  kill(-child, SIGKILL);  // before the wait, while no other process can have its ID
  waitpid(child, &status, 0);
  outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  child = -1;
  // The last bytes may still be in the pipes.
  for (std::size_t before = 1; before != 0;) {
    before = outcome.out.size() + outcome.err.size() + logged.size();
    readAll(outcome, 0);
    before = outcome.out.size() + outcome.err.size() + logged.size() - before;
  }
  return outcome;
}

Outcome runCommand(const std::vector<std::string>& words, int timeoutMs, std::string_view input) {
  return Command(words, {input}).finish(timeoutMs);
}

void adoptChildren() {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  formerChildren = childrenOfThis();
}

void killChildren() {
  for (int round = 0; round < kMaxRounds; ++round) {
    std::vector<pid_t> children = childrenOfThis();
    std::erase_if(children,
                  [](pid_t pid) { return std::ranges::find(formerChildren, pid) != formerChildren.end(); });
    for (const pid_t pid : children) {
      kill(-pid, SIGKILL);
      kill(pid, SIGKILL);
    }
    for (const pid_t pid : children) waitpid(pid, nullptr, WNOHANG);
    if (children.empty()) return;
    sleepMs(1);
  }
}

}  // namespace dorve
