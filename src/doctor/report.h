// SPDX-License-Identifier: MIT
#ifndef DORVE_DOCTOR_REPORT_H_
#define DORVE_DOCTOR_REPORT_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace dorve {

enum class Verdict : std::uint8_t {
  OK,
  WARN,
  FAIL,
  SKIP,  ///< not checked, or nothing to check yet
};

/// What one check found.
struct Check {
  Verdict verdict;
  std::string name;       ///< stable, for scripts: lower case with hyphens
  std::string found;      ///< one short line
  std::string cause{};    ///< why that is a problem, in plain words; may be empty
  std::string command{};  ///< what to type against it, ready to paste; may be empty
};

/// Prints checks on standard output, each as soon as it is added.
///
/// As text, a check is one line, with a line for its cause and one for its command below. Control characters
/// become '?', so that no file name can steer the terminal. Lines other than commands end at the terminal's
/// width, or at 80 columns. As JSON, each check is one object on a line of its own, in UTF-8.
class Report {
 public:
  enum class Format : std::uint8_t { TEXT, JSON };

  explicit Report(Format wanted);

  void add(const Check& check);

  /// Prints how many checks failed and the first command to type. JSON has no such line. Returns the exit
  /// status: 1 if a check failed, else 0.
  int finish() const;

 private:
  void printLine(std::string line) const;

  Format format;
  bool colour;
  std::size_t width;
  int failed = 0;
  std::string firstRemedy;  ///< the first command under a FAIL or warn
  std::string nextStep;     ///< the first command under an ok or skip
};

}  // namespace dorve

#endif  // DORVE_DOCTOR_REPORT_H_
