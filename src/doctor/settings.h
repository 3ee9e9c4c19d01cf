// SPDX-License-Identifier: MIT
#ifndef DORVE_DOCTOR_SETTINGS_H_
#define DORVE_DOCTOR_SETTINGS_H_

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace dorve {

/// The effective configuration that `ssh -G` or `sshd -T` prints: a line for each value, the setting's name
/// in lower case first. Several lines may have the same name.
class Settings {
 public:
  explicit Settings(std::string_view text);

  /// The first value of a setting; empty if there is none.
  std::string first(std::string_view name) const;

  /// All values of a setting, in order.
  std::vector<std::string> all(std::string_view name) const;

  /// All words of all values of a setting.
  std::vector<std::string> words(std::string_view name) const;

 private:
  std::vector<std::pair<std::string, std::string>> entries;
};

/// The command that turns the line of a configuration file that `message` complains about into a comment,
/// with sudo if this user may not write the file; empty if the message names no line. ssh and sshd write
/// "FILE: line N: ..." or "FILE line N: ...".
std::string disableLine(const std::string& message);

}  // namespace dorve

#endif  // DORVE_DOCTOR_SETTINGS_H_
