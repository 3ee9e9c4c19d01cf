// SPDX-License-Identifier: MIT
// Whether an SSH server listens for the other device.
#include <algorithm>

#include "dorve/checks/checks.h"
#include "dorve/facts/text.h"

namespace dorve {
namespace {

/// An sshd that listens, but not on port 22 of the link's address; no finding if there is none.
std::optional<Finding> judgeMisplaced(const Known& known) {
  for (const Listener& listener : known.processes->listeners) {
    if (!listener.owner || !listener.owner->isSshd()) continue;
    const bool byArgument = contains(" " + known.sshd.arguments, " -p");
    const bool byAddress = std::ranges::any_of(
        known.sshd.lines, [](const ConfigLine& line) { return line.keyword == "listenaddress"; });
    Finding finding = {Verdict::FAIL,     "sshd", "", "the other device's ssh connects to port 22", "",
                       Serves::LOGIN_HERE};
    if (listener.port == kSshPort) {
      finding.found = "sshd listens on other addresses than " + known.side.ownAddress;
      finding.cause = "the other device cannot reach those";
    } else {
      finding.found = "sshd listens on port " + std::to_string(listener.port) + ", not on 22";
    }
    const std::string family = known.sshd.settings.first("addressfamily");
    if (byArgument) {
      finding.cause += "; it was started with" + known.sshd.arguments + ": start it without -p";
    } else if (family == "inet6") {
      finding.cause = "AddressFamily inet6 excludes IPv4";
      finding.command = known.commands.disableKeyword("AddressFamily");
    } else {
      finding.command = byAddress ? known.commands.setForAll("ListenAddress", known.side.ownAddress + ":22")
                                  : known.commands.setForAll("Port", "22");
    }
    return finding;
  }
  return std::nullopt;
}

/// An sshd that does not run, and would not listen on port 22 of the link's address either.
std::optional<Finding> judgeConfiguredAddress(const Known& known) {
  const std::vector<std::string> addresses = known.sshd.settings.all("listenaddress");
  const std::string wanted = known.side.ownAddress + ":22";
  const bool covered = addresses.empty() || std::ranges::any_of(addresses, [&](const std::string& address) {
                         return address == wanted || address == "0.0.0.0:22" || address == "[::]:22";
                       });
  if (covered) return std::nullopt;
  return Finding{Verdict::FAIL,
                 "sshd",
                 "sshd would listen only on " + join(addresses, ", ") + " (ListenAddress)",
                 "the other device's ssh connects to " + known.side.ownAddress + ", port 22",
                 known.commands.setForAll("ListenAddress", wanted),
                 Serves::LOGIN_HERE};
}

Finding judgeHolder(const Listener& listener, const Known& known) {
  if (!listener.owner) return {Verdict::OK, "sshd", "a process of another user listens on port 22"};
  const Process& owner = *listener.owner;
  const std::string process = owner.name + " (process " + std::to_string(owner.pid) + ")";
  if (owner.stopped) {
    return {Verdict::FAIL,
            "sshd",
            process + " is stopped",
            "it accepts connections, but does not answer",
            known.commands.resume(owner),
            Serves::LOGIN_HERE};
  }
  const bool isSshd = owner.isSshd() || (owner.ofRoot && owner.name == "sshd" && !owner.isSession);
  if (isSshd || listener.speaksSsh) return {Verdict::OK, "sshd", owner.name + " listens on port 22"};
  const std::string terminate = known.commands.terminate({owner});
  return {Verdict::FAIL,
          "sshd",
          "port 22 is held by " + process,
          "sshd cannot listen on it",
          terminate.empty() ? "" : terminate + " && sleep 1 && " + known.commands.startSshd(),
          Serves::LOGIN_HERE};
}

/// Whether an SSH server, or systemd for it, listens on port 22 of the link's address.
Finding judgeListening(const Known& known) {
  if (!known.processes) return {Verdict::SKIP, "sshd", "not checked: " + known.processes.whyNot};
  for (const Listener& listener : known.processes->listeners) {
    if (listener.port == kSshPort && listener.coversOwn) return judgeHolder(listener, known);
  }
  if (auto finding = judgeMisplaced(known)) return *finding;
  return judgeConfiguredAddress(known).value_or(Finding{
      Verdict::FAIL, "sshd", "nothing listens on port 22 of " + known.side.ownAddress,
      "without sshd the other device cannot log in here", known.commands.startSshd(), Serves::LOGIN_HERE});
}

}  // namespace

Findings checkSshd(const Known& known) {
  Findings findings = {checkSshdConfig(known), judgeListening(known)};
  // A wrong configuration may be why sshd does not listen, so it is reported first.
  if (findings.front().verdict == Verdict::OK || findings.front().verdict == Verdict::SKIP) {
    std::swap(findings.front(), findings.back());
  }
  return findings;
}

}  // namespace dorve
