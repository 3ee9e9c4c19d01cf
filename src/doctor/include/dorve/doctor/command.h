// SPDX-License-Identifier: MIT
#ifndef DORVE_DOCTOR_COMMAND_H_
#define DORVE_DOCTOR_COMMAND_H_

#include <string>
#include <string_view>
#include <vector>

namespace dorve {

/// The outcome of a command and its output.
struct CommandResult {
  enum class End { EXITED, NOT_FOUND, TIMED_OUT };  ///< NOT_FOUND: the program can't be started
  End end = End::NOT_FOUND;
  int status = -1;  ///< the exit status, or 128 + N for signal N
  std::string out;
  std::string err;

  bool succeeded() const { return end == End::EXITED && status == 0; }

  /// The text to report for a failed command: "not found", "timed out", or the first non-blank line of
  /// standard error, else of standard output, of at most 1024 bytes. Without any of these, "exit status N".
  std::string message() const;
};

/// Runs `words` without a shell, with `input` (at most 4096 bytes) on standard input. PATH is searched unless
/// the first word contains a slash. LC_ALL=C makes the messages English. After `timeoutMs` milliseconds,
/// the process group of the command is killed. Keeps at most 1 MiB of each output.
CommandResult runCommand(const std::vector<std::string>& words, int timeoutMs, std::string_view input = "");

}  // namespace dorve

#endif  // DORVE_DOCTOR_COMMAND_H_
