// SPDX-License-Identifier: MIT
#include "dorve/programs/arguments.h"

#include <iostream>

namespace dorve {
namespace {

// Outside the range of characters, which the options of a program use.
constexpr int kHelp = 1001;
constexpr int kVersion = 1002;

void printUsage(const Program& program, std::ostream& stream) {
  stream << "usage: " << program.name << ' ' << program.synopsis << '\n';
}

int printAboutProgram(const Program& program, int wish) {
  if (wish == kHelp) {
    printUsage(program, std::cout);
    std::cout << program.help;
  } else {
    std::cout << program.name << " " DORVE_VERSION "\n";
  }
  return endOutput(program, 0);
}

}  // namespace

std::optional<int> readArguments(const Program& program, int count, char** arguments,
                                 std::vector<option> options, const TakeArgument& take) {
  const auto usageError = [&program] {
    printUsage(program, std::cerr);
    return 2;
  };
  if (count <= 1) return std::nullopt;
  const bool takesNone = options.empty();
  options.push_back({"help", no_argument, nullptr, kHelp});
  options.push_back({"version", no_argument, nullptr, kVersion});
  options.push_back({nullptr, 0, nullptr, 0});
  opterr = 0;  // the usage line replaces the messages of getopt_long
  for (int letter = 0; (letter = getopt_long(count, arguments, "", options.data(), nullptr)) != -1;) {
    if (letter == kHelp || letter == kVersion) return printAboutProgram(program, letter);
    if (letter == '?' || !take(letter, optarg)) return usageError();
  }
  if (takesNone) return usageError();
  for (; optind < count; ++optind)
    if (!take(kOperand, arguments[optind])) return usageError();
  return std::nullopt;
}

int endOutput(const Program& program, int status) {
  std::cout.flush();
  if (std::cout) return status;
  std::cerr << program.name << ": cannot write to standard output\n";
  return 1;
}

}  // namespace dorve
