// SPDX-License-Identifier: MIT
#ifndef DORVE_DOCTOR_SETTINGS_H_
#define DORVE_DOCTOR_SETTINGS_H_

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace dorve {

/// The effective configuration that `ssh -G` or `sshd -T` prints.
/// Each line has a setting's name in lower case, then one value. Several lines may have the same name.
class Settings {
 public:
  explicit Settings(std::string_view text);

  /// The first value of a setting; empty if there is none.
  std::string first(std::string_view name) const;

  /// All values of a setting, in order.
  std::vector<std::string> all(std::string_view name) const;

  /// The words of all values of a setting, in order.
  std::vector<std::string> words(std::string_view name) const;

 private:
  std::vector<std::pair<std::string, std::string>> entries;
};

/// The command that comments out the line that a `message` of ssh or sshd names: "FILE: line N:" or
/// "FILE line N:". Uses sudo if this user may not write the file. Empty if the message names no line.
std::string disableLine(const std::string& message);

}  // namespace dorve

#endif  // DORVE_DOCTOR_SETTINGS_H_
