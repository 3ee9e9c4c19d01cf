// SPDX-License-Identifier: MIT
// dorve-doctor: parses its arguments, runs the checks and returns their result as the exit status.
#include <signal.h>

#include <charconv>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>

#include "dorve/doctor/checks.h"

namespace {

constexpr int kMaxTimeoutSeconds = 60;
constexpr const char* kUsage = "usage: dorve-doctor [--json] [--timeout SECONDS] [client|server]\n";
constexpr const char* kHelp =
    "Says why a pairing, or a login after it, does not work, and which command fixes it. Changes nothing.\n"
    "Run it as the user who runs dorve-client or dorve-server. Without the argument client or server, the\n"
    "doctor finds out which side this device is.\n\n"
    "  --json             print one JSON object for each check\n"
    "  --timeout SECONDS  wait that long for an answer, 1 to 60; the default is 3\n"
    "  --help             print this text\n"
    "  --version          print the version\n\n"
    "Exit status: 0 if nothing failed, 1 if something failed, 2 for bad usage.\n";

struct Options {
  std::optional<dorve::Role> role;
  dorve::Report::Format format = dorve::Report::Format::TEXT;
  int timeoutSeconds = 3;
};

/// A number of seconds from 1 to 60; no value for any other text.
std::optional<int> parseSeconds(std::string_view text) {
  int seconds = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  if (seconds < 1 || seconds > kMaxTimeoutSeconds) return std::nullopt;
  return seconds;
}

/// The options; no value if the arguments are wrong.
std::optional<Options> parseOptions(int count, char** arguments) {
  Options options;
  for (int i = 1; i < count; ++i) {
    const std::string_view argument = arguments[i];
    if (argument == "--json") {
      options.format = dorve::Report::Format::JSON;
    } else if (argument == "--timeout" && i + 1 < count) {
      const std::optional<int> seconds = parseSeconds(arguments[++i]);
      if (!seconds) return std::nullopt;
      options.timeoutSeconds = *seconds;
    } else if (argument == "client" && !options.role) {
      options.role = dorve::Role::CLIENT;
    } else if (argument == "server" && !options.role) {
      options.role = dorve::Role::SERVER;
    } else {
      return std::nullopt;
    }
  }
  return options;
}

int examine(const Options& options) {
  const dorve::Situation situation = dorve::examineSituation(options.role, options.timeoutSeconds * 1000);
  dorve::Report report(options.format);
  dorve::checkLink(situation, report);
  dorve::checkDirectory(situation, report);
  dorve::checkKeygen(situation, report);
  dorve::checkPort(situation, report);
  dorve::checkSshd(situation, report);
  const bool sshIsOpen = dorve::checkPeer(situation, report);
  dorve::checkPairing(situation, sshIsOpen, report);
  const int status = report.finish();
  if (!std::cout) {
    std::cerr << "dorve-doctor: cannot write to standard output\n";
    return 1;
  }
  return status;
}

}  // namespace

int main(int count, char** arguments) {
  // The caller may have left SIGCHLD ignored. The kernel would then drop the exit status of commands.
  signal(SIGCHLD, SIG_DFL);
  for (int i = 1; i < count; ++i) {
    if (std::strcmp(arguments[i], "--help") == 0) {
      std::cout << kUsage << kHelp;
      return 0;
    }
    if (std::strcmp(arguments[i], "--version") == 0) {
      std::cout << "dorve-doctor " DORVE_VERSION << std::endl;
      return 0;
    }
  }
  const std::optional<Options> options = parseOptions(count, arguments);
  if (!options) {
    std::cerr << kUsage;
    return 2;
  }
  return examine(*options);
}
