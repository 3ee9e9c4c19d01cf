// SPDX-License-Identifier: MIT
#ifndef DORVE_DOCTOR_COMMAND_H_
#define DORVE_DOCTOR_COMMAND_H_

#include <string>
#include <string_view>
#include <vector>

namespace dorve {

struct CommandResult {
  enum class End { EXITED, NOT_FOUND, TIMED_OUT };
  End end = End::NOT_FOUND;
  int status = -1;  ///< the exit status, or 128 + N for signal N
  std::string out;
  std::string err;

  bool succeeded() const { return end == End::EXITED && status == 0; }

  /// The first line that is not blank on standard error, else on standard output: most tools give the reason
  /// of a failure there. Says in words how the command ended if it printed nothing.
  std::string message() const;
};

/// Runs a program, found by PATH unless the name holds a slash, with `input` (at most 4096 bytes) on standard
/// input. No shell is involved. Messages are in English. After `timeoutMs` the program is killed, with all
/// that it has started in its process group. At most one MiB of each output is kept.
CommandResult runCommand(const std::vector<std::string>& words, int timeoutMs, std::string_view input = "");

}  // namespace dorve

#endif  // DORVE_DOCTOR_COMMAND_H_
