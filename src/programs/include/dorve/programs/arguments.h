// SPDX-License-Identifier: MIT
#ifndef DORVE_PROGRAMS_ARGUMENTS_H_
#define DORVE_PROGRAMS_ARGUMENTS_H_

#include <getopt.h>

#include <functional>
#include <optional>
#include <vector>

/// What the entry points of all programs share: their arguments and the end of their output.
namespace dorve {

/// What a program prints about itself.
struct Program {
  const char* name;
  const char* synopsis;  ///< the arguments, for the usage line
  const char* help;      ///< what `--help` prints after the usage line, with its newlines
};

/// Stands for an argument that is not an option.
constexpr int kOperand = 1;

/// Takes the `val` of an option and its argument, which is null if there is none, or `kOperand` and an
/// operand. Returns false if the program does not accept this.
using TakeArgument = std::function<bool(int letter, const char* value)>;

/// Reads the arguments of `main` with getopt_long(3): options can be abbreviated, and operands can precede
/// them. Calls `take` for each of the program's own `options`, then for each operand. A program without
/// `options` takes no arguments: even a lone "--" is wrong.
///
/// Returns no value if the program shall run. Otherwise it shall exit with the returned status:
/// 0 or 1 after --help or --version, as `endOutput` returns, or 2 after a usage line on standard error.
std::optional<int> readArguments(const Program& program, int count, char** arguments,
                                 std::vector<option> options = {}, const TakeArgument& take = {});

/// Flushes standard output and returns `status`.
/// If a write to standard output has failed, prints so on standard error and returns 1.
int endOutput(const Program& program, int status);

}  // namespace dorve

#endif  // DORVE_PROGRAMS_ARGUMENTS_H_
