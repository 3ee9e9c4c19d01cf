// SPDX-License-Identifier: MIT
#include "dorve/checks/checks.h"
#include "dorve/facts/text.h"
#include "dorve/net/endpoints.h"

namespace dorve {
namespace {

Finding judgeUser(const User& user, const Directory& directory, const Commands& commands) {
  if (user.name.empty()) {
    return {Verdict::FAIL, "user", "no name for user " + std::to_string(user.id),
            "ssh works only for users in the password database",
            commands.asRoot("useradd --create-home --uid " + std::to_string(user.id) + " dorve")};
  }
  Finding finding = {Verdict::OK, "user",
                     user.name + (directory.path.empty() ? "" : ", with the SSH files in " + directory.path)};
  if (user.isRoot() && !user.runBy.empty() && user.runBy != "root") {
    finding.cause =
        "sudo runs this as root; to examine your own pairing: sudo dorve-doctor --user " + quoted(user.runBy);
  }
  return finding;
}

Finding judgeSide(const Side& side) {
  if (side.isGuess) {
    return {Verdict::WARN, "role", "cannot tell whether this device is the client or the server",
            "neither " + side.ownAddress + " nor " + side.peerAddress + " is on an interface",
            "dorve-doctor server  # or: dorve-doctor client"};
  }
  return {Verdict::OK, "role", side.name() + (": " + side.reason)};
}

std::string ids(const std::vector<Process>& processes) {
  std::vector<std::string> numbers;
  numbers.reserve(processes.size());
  for (const Process& process : processes) numbers.push_back(std::to_string(process.pid));
  return join(numbers, " ");
}

Finding judgeCount(const Side& side, const Processes& processes, const Commands& commands) {
  const std::vector<Process>& programs = processes.programs;
  const std::vector<Process>& misplaced = processes.misplaced;
  if (programs.empty() && !misplaced.empty() && !side.isGuess) {
    return {Verdict::WARN, "programs", misplaced.front().name + " runs (process " + ids(misplaced) + ")",
            "this device has the address of the " + std::string(side.name()) + ", so run " + side.program +
                " here, and the other program there",
            commands.terminate(misplaced)};
  }
  if (programs.empty()) return {Verdict::OK, "programs", "no " + side.program + " runs"};
  if (programs.size() == 1 && programs.front().stopped) {
    return {Verdict::FAIL, "programs", side.program + " (process " + ids(programs) + ") is stopped",
            "it does nothing until it is continued", commands.resume(programs.front())};
  }
  if (programs.size() == 1) {
    return {Verdict::OK, "programs", side.program + " runs (process " + ids(programs) + ")"};
  }
  return {Verdict::FAIL, "programs", side.program + " runs " + std::to_string(programs.size()) + " times",
          "each start replaced the earlier key; stop all, then pair again", commands.terminate(programs)};
}

/// Whether port 8888 of the server is free, or dorve-server holds it.
Finding judgeServerPort(const Side& side, const Processes& processes, const Commands& commands) {
  for (const Listener& listener : processes.listeners) {
    if (listener.port != kPort || !listener.coversOwn) continue;
    if (!listener.owner) {
      if (!processes.programs.empty()) break;
      return {Verdict::FAIL, "port-8888", "held by a process of another user",
              "dorve-server cannot listen on it; root's dorve-doctor names the process",
              commands.asRoot("dorve-doctor server")};
    }
    const Process& owner = *listener.owner;
    if (owner.name == side.program) return {Verdict::OK, "port-8888", side.program + " waits for a client"};
    return {Verdict::FAIL, "port-8888",
            "held by " + owner.name + " (process " + std::to_string(owner.pid) + ")",
            "dorve-server cannot listen on it", commands.terminate({owner})};
  }
  return {Verdict::OK, "port-8888",
          processes.programs.empty() ? "free" : side.program + " waits for a client"};
}

}  // namespace

Findings checkUser(const User& user, const Side& side, const Directory& directory, const Commands& commands) {
  return {judgeUser(user, directory, commands), judgeSide(side)};
}

Findings checkPrograms(const Side& side, const Fact<Processes>& processes, const Commands& commands) {
  if (!processes) return {{Verdict::SKIP, "programs", "not checked: " + processes.whyNot}};
  Findings findings = {judgeCount(side, *processes, commands)};
  if (side.role == Role::SERVER) findings.push_back(judgeServerPort(side, *processes, commands));
  return findings;
}

}  // namespace dorve
