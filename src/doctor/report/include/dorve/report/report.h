// SPDX-License-Identifier: MIT
#ifndef DORVE_REPORT_REPORT_H_
#define DORVE_REPORT_REPORT_H_

#include <string>
#include <vector>

#include "dorve/checks/finding.h"

namespace dorve {

/// How findings are printed.
struct Style {
  bool colour = false;
  std::size_t width = 0;  ///< columns of the terminal; 0 without one

  /// The style for standard output. Colour needs a terminal that can show it, and no NO_COLOR.
  static Style ofStandardOutput();
};

/// The findings as text. A finding is one line, followed by a line for its cause and a line for its command.
/// The last line says how many checks failed, and the first command to run.
/// Control characters become '?', so that a file name can't control the terminal.
/// On a terminal, all lines but those of commands are truncated to its width.
std::string asText(const std::vector<Finding>& findings, const Style& style);

/// The findings as JSON: one object on one line for each, in UTF-8.
std::string asJson(const std::vector<Finding>& findings);

}  // namespace dorve

#endif  // DORVE_REPORT_REPORT_H_
