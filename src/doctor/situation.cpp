// SPDX-License-Identifier: MIT
#include "dorve/doctor/situation.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>

#include "dorve/client/ssh_directory.h"
#include "dorve/doctor/ports.h"
#include "dorve/doctor/settings.h"
#include "dorve/doctor/text.h"
#include "dorve/keys/key_material.h"
#include "dorve/net/endpoints.h"

namespace dorve {
namespace {

constexpr int kCommandMs = 4000;  // a slow device needs more than a second for a login
constexpr int kShortestMs = 100;
constexpr int kTotalMs = 7000;
constexpr int kTotalTimeouts = 3;  // the checks may take this many timeouts, if longer than kTotalMs

void setUser(Situation& situation) {
  situation.userId = geteuid();
  const passwd* entry = getpwuid(situation.userId);
  if (entry == nullptr) return;
  situation.user = entry->pw_name;
  situation.home = entry->pw_dir;
  situation.shell = entry->pw_shell;
}

void setDirectory(Situation& situation) {
  const std::vector<std::string> candidates = sshDirectoryCandidates();
  const auto usable = std::ranges::find_if(candidates, isDirectory);
  if (usable == candidates.end()) return;
  situation.sshDir = *usable;
  situation.privateKey = *usable + "/" + kPairingKeyName;
  situation.authorizedKeys = *usable + "/authorized_keys";
  situation.config = *usable + "/config";
}

void setRole(Situation& situation, Role role, std::string reason) {
  const bool client = role == Role::CLIENT;
  situation.role = role;
  situation.roleReason = std::move(reason);
  situation.program = client ? "dorve-client" : "dorve-server";
  situation.ownAddress = client ? kClientAddress : kServerAddress;
  situation.peerAddress = client ? kServerAddress : kClientAddress;
}

void guessRole(Situation& situation) {
  if (const Interface* link = findByAddress(situation.interfaces, kServerAddress)) {
    return setRole(situation, Role::SERVER, link->name + " has " + kServerAddress);
  }
  if (const Interface* link = findByAddress(situation.interfaces, kClientAddress)) {
    return setRole(situation, Role::CLIENT, link->name + " has " + kClientAddress);
  }
  const std::string config = readRegularFile(situation.config);
  const std::pair<Role, std::string> blocks[] = {{Role::SERVER, kClientAddress},
                                                 {Role::CLIENT, kServerAddress}};
  for (const auto& [role, peerAddress] : blocks) {
    if (config.find("Host " + peerAddress + "\n") != std::string::npos) {
      return setRole(situation, role, "ssh's config names " + peerAddress);
    }
  }
  setRole(situation, Role::CLIENT, "a guess");
  situation.roleIsGuess = true;
}

}  // namespace

int Situation::remainingMs() const {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return std::max(static_cast<int>(left.count()), kShortestMs);
}

int Situation::commandMs() const {
  return std::min(remainingMs(), std::max(kCommandMs, timeoutMs));
}

int Situation::probeMs() const {
  return std::min(remainingMs(), timeoutMs);
}

const Interface* Situation::link() const {
  const Interface* named = findByName(interfaces, kLinkInterface);
  if (role == Role::CLIENT) return named;
  const Interface* addressed = findByAddress(interfaces, ownAddress);
  return addressed != nullptr ? addressed : named;
}

std::string Situation::asRoot(const std::string& command) const {
  return isRoot() ? command : "sudo " + command;
}

std::string Situation::onPeer(const std::string& command) const {
  return command + "  # on " + peerAddress;
}

std::string Situation::doctorThere() const {
  return onPeer(role == Role::CLIENT ? "dorve-doctor server" : "dorve-doctor client");
}

std::string Situation::hostLine() const {
  return "Host " + peerAddress;
}

std::string Situation::pairAgain() const {
  if (role == Role::CLIENT) return "dorve-client  # first start dorve-server on " + peerAddress;
  // A second dorve-server would replace the key of the first one and then wait for its port.
  return programRuns ? onPeer("dorve-client") : "dorve-server  # then dorve-client on " + peerAddress;
}

Situation examineSituation(std::optional<Role> role, int timeoutMs) {
  Situation situation;
  situation.timeoutMs = timeoutMs;
  situation.deadline = std::chrono::steady_clock::now() +
                       std::chrono::milliseconds(std::max(kTotalMs, kTotalTimeouts * timeoutMs));
  situation.interfaces = listInterfaces();
  setUser(situation);
  setDirectory(situation);
  if (role) {
    setRole(situation, *role, "as given on the command line");
  } else {
    guessRole(situation);
  }
  const std::string connection = "user=" + situation.user + ",host=" + situation.peerAddress +
                                 ",addr=" + situation.peerAddress + ",laddr=" + situation.ownAddress +
                                 ",lport=22";
  situation.sshdTest = runCommand({kSshd, "-T", "-C", connection}, situation.commandMs());
  situation.strictModes = Settings(situation.sshdTest.out).first("strictmodes") != "no";
  const auto running = findProcesses(situation.program);
  situation.programRuns = running && !running->empty();
  return situation;
}

}  // namespace dorve
