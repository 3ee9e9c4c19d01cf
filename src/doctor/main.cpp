// SPDX-License-Identifier: MIT
// dorve-doctor: parses its arguments, gathers facts, judges them, prints the findings and returns the exit
// status.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>

#include "dorve/checks/checks.h"
#include "dorve/gather/command.h"
#include "dorve/gather/gather.h"
#include "dorve/gather/supervise.h"
#include "dorve/programs/arguments.h"
#include "dorve/report/report.h"

namespace {

constexpr int kMaxTimeoutSeconds = 60;
constexpr int kReserveMs = 1000;  // for printing
constexpr dorve::Program kProgram = {
    "dorve-doctor", "[--json] [--timeout SECONDS] [--user NAME] [client|server]",
    "Says why a pairing, or a login after it, does not work, and which command fixes it. Changes nothing.\n"
    "Run it as the user who runs dorve-client or dorve-server. Without the argument client or server, the\n"
    "doctor finds out which side this device is.\n\n"
    "  --json             print one JSON object for each check\n"
    "  --timeout SECONDS  wait that long for an answer, 1 to 60; the default is 3\n"
    "  --user NAME        examine the pairing of that user; only root can\n"
    "  --help             print this text\n"
    "  --version          print the version\n\n"
    "Exit status: 0 if nothing failed, 1 if something failed, 2 for bad usage.\n"};

struct Options {
  bool json = false;
  dorve::Question question;
};

/// A number of seconds from 1 to 60; no value for any other text.
std::optional<int> parseSeconds(std::string_view text) {
  int seconds = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  if (seconds < 1 || seconds > kMaxTimeoutSeconds) return std::nullopt;
  return seconds;
}

/// Takes one option or operand. Returns false if it is wrong.
bool takeArgument(Options& options, int letter, const char* value) {
  dorve::Question& question = options.question;
  const std::string_view text = value == nullptr ? "" : value;
  if (letter == 'j') options.json = true;
  if (letter == 'u') question.user = text;
  if (letter == 't') {
    const std::optional<int> seconds = parseSeconds(text);
    question.timeoutMs = seconds.value_or(0) * 1000;
    return seconds.has_value();
  }
  if (letter != dorve::kOperand) return letter != 'u' || !question.user.empty();
  if (question.role || (text != "client" && text != "server")) return false;
  question.role = text == "client" ? dorve::Role::CLIENT : dorve::Role::SERVER;
  return true;
}

/// Opens /dev/null for each standard stream that the caller closed, so that no other file takes its number.
void openStandardStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) == -1) open("/dev/null", O_RDWR);
  }
}

int examine(const Options& options) {
  const dorve::Style style = dorve::Style::ofStandardOutput();
  dorve::cleanEnvironment();
  const dorve::Gathered gathered = dorve::gatherFacts(options.question);
  const std::vector<dorve::Finding> findings = dorve::judge(gathered.facts);
  std::cout << (options.json ? dorve::asJson(findings) : dorve::asText(findings, style)) << std::flush;
  const bool failed = std::ranges::count(findings, dorve::Verdict::FAIL, &dorve::Finding::verdict) > 0;
  const int status = dorve::endOutput(kProgram, failed || !gathered.isComplete ? 1 : 0);
  // If the gathering thread hangs, nothing that it holds may delay the exit.
  dorve::killChildren();
  return status;
}

}  // namespace

int main(int count, char** arguments) {
  openStandardStreams();
  // The caller may have left SIGCHLD ignored. The kernel would then drop the exit status of commands.
  signal(SIGCHLD, SIG_DFL);
  Options options;
  const auto take = [&](int letter, const char* value) { return takeArgument(options, letter, value); };
  const auto status = dorve::readArguments(kProgram, count, arguments,
                                           {{"json", no_argument, nullptr, 'j'},
                                            {"timeout", required_argument, nullptr, 't'},
                                            {"user", required_argument, nullptr, 'u'}},
                                           take);
  if (status) return *status;
  if (!options.question.user.empty() && geteuid() != 0) {
    std::cerr << "dorve-doctor: --user needs root\n";
    return 2;
  }
  const int limitMs = dorve::totalMs(options.question) + kReserveMs;
  return dorve::supervise(limitMs, [&] { return examine(options); });
}
