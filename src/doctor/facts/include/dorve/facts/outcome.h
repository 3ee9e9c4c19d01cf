// SPDX-License-Identifier: MIT
#ifndef DORVE_FACTS_OUTCOME_H_
#define DORVE_FACTS_OUTCOME_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace dorve {

/// How a command ended, and what it printed.
struct Outcome {
  enum class End : std::uint8_t { NOT_FOUND, EXITED, TIMED_OUT };  ///< NOT_FOUND: it could not be started
  End end = End::NOT_FOUND;
  int status = -1;  ///< the exit status, or 128 + N for signal N
  std::string out;
  std::string err;

  bool succeeded() const { return end == End::EXITED && status == 0; }

  /// The text to report for a failed command: "not found", "timed out", or the first non-blank line of
  /// standard error, else of standard output, of at most 1024 bytes. Without any of these, "exit status N".
  std::string message() const;
};

/// The configuration that `ssh -G` or `sshd -T` prints: lines of a name in lower case, a blank and a value.
/// Several lines may have the same name.
class Settings {
 public:
  Settings() = default;
  explicit Settings(std::string_view text);

  /// The first value of a setting; empty if there is none.
  std::string first(std::string_view name) const;

  /// All values of a setting, in order.
  std::vector<std::string> all(std::string_view name) const;

  /// The names of all settings, each once, in order.
  std::vector<std::string> names() const;

 private:
  std::vector<std::pair<std::string, std::string>> entries;
};

}  // namespace dorve

#endif  // DORVE_FACTS_OUTCOME_H_
