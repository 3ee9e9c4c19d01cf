// SPDX-License-Identifier: MIT
#include "dorve/doctor/command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "dorve/doctor/text.h"
#include "dorve/util/sleep.h"

namespace dorve {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxInput = 4096;      // bytes; a pipe holds them until the command reads
constexpr std::size_t kMaxOutput = 1 << 20;  // bytes
constexpr std::size_t kMaxMessage = 1024;    // bytes
constexpr unsigned int kReapMs = 5;

/// A pipe. Its destructor closes both ends.
class Pipe {
 public:
  Pipe() {
    if (pipe2(ends.data(), O_CLOEXEC) != 0) ends = {-1, -1};
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  ~Pipe() {
    closeReading();
    closeWriting();
  }

  int reading() const { return ends[0]; }
  int writing() const { return ends[1]; }
  void closeReading() { close(ends[0]); }
  void closeWriting() { close(ends[1]); }

 private:
  static void close(int& end) {
    if (end >= 0) ::close(end);
    end = -1;
  }

  std::array<int, 2> ends{};
};

/// The environment of a command: that of this process, with LC_ALL=C for English messages.
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

pid_t spawn(const std::vector<std::string>& words, const Pipe& in, const Pipe& out, const Pipe& err) {
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in.reading(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out.writing(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err.writing(), STDERR_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  pid_t child = -1;
  if (posix_spawnp(&child, arguments[0], &actions, &attributes, arguments.data(),
                   commandEnvironment().data()) != 0) {
    child = -1;
  }
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return child;
}

/// Reads once and appends the bytes. Returns false at the end of the pipe.
bool readSome(int fd, std::string& text) {
  char buffer[4096];
  const ssize_t size = read(fd, buffer, sizeof buffer);
  if (size <= 0) return size < 0 && errno == EINTR;
  text.append(buffer, std::min(static_cast<std::size_t>(size), kMaxOutput - text.size()));
  return true;
}

}  // namespace

CommandResult runCommand(const std::vector<std::string>& words, int timeoutMs, std::string_view input) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  const auto remainingMs = [&] {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
  };
  CommandResult result;
  Pipe in;
  Pipe out;
  Pipe err;
  if (write(in.writing(), input.data(), std::min(input.size(), kMaxInput)) < 0) return result;
  in.closeWriting();
  const pid_t child = spawn(words, in, out, err);
  if (child < 0) return result;
  out.closeWriting();
  err.closeWriting();

  std::array<pollfd, 2> streams = {{{out.reading(), POLLIN, 0}, {err.reading(), POLLIN, 0}}};
  while ((streams[0].fd >= 0 || streams[1].fd >= 0) && remainingMs() > 0) {
    if (poll(streams.data(), streams.size(), remainingMs()) <= 0) continue;
    if (streams[0].revents != 0 && !readSome(streams[0].fd, result.out)) streams[0].fd = -1;
    if (streams[1].revents != 0 && !readSome(streams[1].fd, result.err)) streams[1].fd = -1;
  }

  int status = 0;
  pid_t ended = 0;
  while ((ended = waitpid(child, &status, WNOHANG)) == 0) {
    if (remainingMs() == 0) {
      kill(-child, SIGKILL);
      waitpid(child, &status, 0);
      result.end = CommandResult::End::TIMED_OUT;
      return result;
    }
    sleepMs(kReapMs);
  }
  if (ended < 0) return result;
  result.end = CommandResult::End::EXITED;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

std::string CommandResult::message() const {
  if (end == End::NOT_FOUND) return "not found";
  if (end == End::TIMED_OUT) return "timed out";
  std::vector<std::string> lines = split(err + '\n' + out, "\r\n");
  std::erase_if(lines, [](const std::string& line) { return split(line, " \t").empty(); });
  return lines.empty() ? "exit status " + std::to_string(status) : lines.front().substr(0, kMaxMessage);
}

}  // namespace dorve
