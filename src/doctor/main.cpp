// SPDX-License-Identifier: MIT
// dorve-doctor: parses its arguments, gathers facts, judges them, prints the findings and returns the exit
// status.
#include <fcntl.h>
#include <getopt.h>
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
#include "dorve/report/report.h"

namespace {

constexpr int kMaxTimeoutSeconds = 60;
constexpr int kReserveMs = 1000;  // for printing
constexpr const char* kUsage =
    "usage: dorve-doctor [--json] [--timeout SECONDS] [--user NAME] [client|server]\n";
constexpr const char* kHelp =
    "Says why a pairing, or a login after it, does not work, and which command fixes it. Changes nothing.\n"
    "Run it as the user who runs dorve-client or dorve-server. Without the argument client or server, the\n"
    "doctor finds out which side this device is.\n\n"
    "  --json             print one JSON object for each check\n"
    "  --timeout SECONDS  wait that long for an answer, 1 to 60; the default is 3\n"
    "  --user NAME        examine the pairing of that user; only root can\n"
    "  --help             print this text\n"
    "  --version          print the version\n\n"
    "Exit status: 0 if nothing failed, 1 if something failed, 2 for bad usage.\n";

struct Options {
  enum class Wish { EXAMINE, HELP, VERSION } wish = Wish::EXAMINE;
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

/// Reads the argument client or server. Returns false for any other, or if there are several.
bool parseRole(int count, char** arguments, dorve::Question& question) {
  if (count == 0) return true;
  const std::string_view word = arguments[0];
  if (count > 1 || (word != "client" && word != "server")) return false;
  question.role = word == "client" ? dorve::Role::CLIENT : dorve::Role::SERVER;
  return true;
}

/// The options; no value if the arguments are wrong.
std::optional<Options> parseOptions(int count, char** arguments) {
  constexpr option kOptions[] = {
      {"json", no_argument, nullptr, 'j'},       {"timeout", required_argument, nullptr, 't'},
      {"user", required_argument, nullptr, 'u'}, {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'v'},    {nullptr, 0, nullptr, 0}};
  Options options;
  opterr = 0;
  for (int letter = 0; (letter = getopt_long(count, arguments, "", kOptions, nullptr)) != -1;) {
    if (letter == 'h' || letter == 'v') {
      options.wish = letter == 'h' ? Options::Wish::HELP : Options::Wish::VERSION;
      return options;
    }
    if (letter == 'j') options.json = true;
    if (letter == 'u') options.question.user = optarg;
    if (letter == 't') {
      const std::optional<int> seconds = parseSeconds(optarg);
      if (!seconds) return std::nullopt;
      options.question.timeoutMs = *seconds * 1000;
    }
    if (letter == '?' || (letter == 'u' && options.question.user.empty())) return std::nullopt;
  }
  if (!parseRole(count - optind, arguments + optind, options.question)) return std::nullopt;
  return options;
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
  int status = failed || !gathered.isComplete ? 1 : 0;
  if (!std::cout) {
    std::cerr << "dorve-doctor: cannot write to standard output\n";
    status = 1;
  }
  // If the gathering thread hangs, nothing that it holds may delay the end.
  dorve::killChildren();
  return status;
}

}  // namespace

int main(int count, char** arguments) {
  openStandardStreams();
  // The caller may have left SIGCHLD ignored. The kernel would then drop the exit status of commands.
  signal(SIGCHLD, SIG_DFL);
  const std::optional<Options> options = parseOptions(count, arguments);
  if (!options) {
    std::cerr << kUsage;
    return 2;
  }
  if (options->wish == Options::Wish::HELP) {
    std::cout << kUsage << kHelp;
    return 0;
  }
  if (options->wish == Options::Wish::VERSION) {
    std::cout << "dorve-doctor " DORVE_VERSION << std::endl;
    return 0;
  }
  if (!options->question.user.empty() && geteuid() != 0) {
    std::cerr << "dorve-doctor: --user needs root, run it with sudo\n";
    return 2;
  }
  const int limitMs = dorve::totalMs(options->question) + kReserveMs;
  return dorve::supervise(limitMs, [&] { return examine(*options); });
}
