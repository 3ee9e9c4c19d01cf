// SPDX-License-Identifier: MIT
#ifndef DORVE_GATHER_COMMAND_H_
#define DORVE_GATHER_COMMAND_H_

#include <sys/types.h>

#include <array>
#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "dorve/facts/outcome.h"
#include "dorve/util/descriptor.h"

namespace dorve {

/// The time until which something must be done.
class Deadline {
 public:
  explicit Deadline(int ms) : end(std::chrono::steady_clock::now() + std::chrono::milliseconds(ms)) {}

  /// The time that is left in milliseconds, from 0 to `limit`.
  int leftMs(int limit) const;

 private:
  std::chrono::steady_clock::time_point end;
};

/// A running command, started without a shell. LC_ALL=C makes its messages English.
/// PATH is searched unless the first word contains a slash.
class Command {
 public:
  /// What is on the command's standard input.
  struct Input {
    std::string_view text{};  ///< at most 4096 bytes
    int socket = -1;          ///< also its standard output, unless it is -1
    bool isLog = false;       ///< the command may write to /dev/stdin; `log` returns what it wrote
  };

  Command(const std::vector<std::string>& words, const Input& input);
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  /// Kills what is left of the command and its children.
  ~Command();

  /// Waits for the command, for at most `timeoutMs` milliseconds, then kills it and its children.
  /// Keeps at most 1 MiB of each output.
  Outcome finish(int timeoutMs);

  const std::string& log() const { return logged; }

 private:
  static constexpr std::size_t kOutputs = 3;

  void spawn(const std::vector<std::string>& words, int input, int output, int error);
  void readAll(Outcome& outcome, int waitMs);

  pid_t child = -1;
  std::array<Descriptor, kOutputs> outputs;  ///< standard output, standard error, log
  std::string logged;
};

/// Runs a command and waits for it.
Outcome runCommand(const std::vector<std::string>& words, int timeoutMs, std::string_view input = "");

/// Makes this process the parent of all processes that its commands leave behind, so that it can kill them.
void adoptChildren();

/// Kills all children of this process, and theirs.
void killChildren();

}  // namespace dorve

#endif  // DORVE_GATHER_COMMAND_H_
