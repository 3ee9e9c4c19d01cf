// SPDX-License-Identifier: MIT
#ifndef DORVE_DOCTOR_REPORT_H_
#define DORVE_DOCTOR_REPORT_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace dorve {

/// The result of a check.
enum class Verdict : std::uint8_t {
  OK,
  WARN,
  FAIL,
  SKIP,  ///< not checked, or nothing to check yet
};

/// The finding of one check.
struct Check {
  Verdict verdict;
  std::string name;       ///< lower case with hyphens; scripts rely on it
  std::string found;      ///< one short line
  std::string cause{};    ///< why that is a problem, in plain words; may be empty
  std::string command{};  ///< the command that fixes it, ready to paste; may be empty
};

/// Prints checks on standard output, each as soon as it is added.
///
/// As text, a check is one line, followed by a line for its cause and a line for its command.
/// Control characters become '?', so that a file name can't control the terminal.
/// All lines but those of commands are truncated:
/// to the width of the terminal, or to 80 columns without one.
///
/// As JSON, a check is one object on one line, in UTF-8.
class Report {
 public:
  enum class Format : std::uint8_t { TEXT, JSON };

  explicit Report(Format wanted);

  void add(const Check& check);

  /// Prints how many checks failed and the first command to run; as JSON, prints nothing.
  /// Returns the exit status: 1 if a check failed, else 0.
  int finish() const;

 private:
  void printLine(std::string line) const;

  Format format;
  bool colour;
  std::size_t width;
  int failed = 0;
  std::string firstRemedy;  ///< the first command of a FAIL or warn
  std::string nextStep;     ///< the first command of an ok or skip
};

}  // namespace dorve

#endif  // DORVE_DOCTOR_REPORT_H_
