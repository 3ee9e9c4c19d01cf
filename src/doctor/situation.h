// SPDX-License-Identifier: MIT
#ifndef DORVE_DOCTOR_SITUATION_H_
#define DORVE_DOCTOR_SITUATION_H_

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dorve/doctor/command.h"
#include "dorve/doctor/interfaces.h"

namespace dorve {

constexpr const char* kSshd = "/usr/sbin/sshd";

enum class Role : std::uint8_t { CLIENT, SERVER };

/// What all checks need to know: which side this device is, as whom we run, and where things are.
struct Situation {
  Role role = Role::CLIENT;
  std::string roleReason;
  bool roleIsGuess = false;
  std::string program;  ///< of this side: dorve-client or dorve-server
  bool programRuns = false;
  std::string ownAddress;
  std::string peerAddress;
  std::vector<Interface> interfaces;

  uid_t userId = 0;
  std::string user;   ///< empty if the password database does not know the user
  std::string home;   ///< of the password database, which ssh and sshd go by
  std::string shell;  ///< of the password database

  std::string sshDir;  ///< as both programs find it; empty if there is none
  std::string privateKey;
  std::string authorizedKeys;
  std::string config;

  CommandResult sshdTest;   ///< `sshd -T`: the configuration that sshd applies to a login of the other side
  bool strictModes = true;  ///< sshd wants safe owners and modes

  int timeoutMs = 0;                               ///< for an answer of the other device
  std::chrono::steady_clock::time_point deadline;  ///< of all checks together

  /// The time that a program of this device may take now: a few seconds, but not beyond the deadline.
  int commandMs() const;

  /// The time that the other device has for an answer now.
  int answerMs() const;

  /// The interface of the link: by the own address, else by its name on the client; null if there is none.
  const Interface* link() const;

  /// The time until the deadline, at least 100 ms.
  int remainingMs() const;

  bool isRoot() const { return userId == 0; }

  /// The command with sudo in front where this user needs it.
  std::string asRoot(const std::string& command) const;

  /// A command that is to be typed on the other device.
  std::string onPeer(const std::string& command) const;

  /// "client" or "server".
  const char* roleName() const { return role == Role::CLIENT ? "client" : "server"; }

  /// The doctor, on the other device.
  std::string doctorThere() const;

  /// The first line of the block that a pairing adds to ssh's config.
  std::string hostLine() const;

  /// The commands that pair again.
  std::string pairAgain() const;
};

/// Finds out all of it. Without a role from the caller the addresses and interfaces tell it.
Situation examineSituation(std::optional<Role> role, int timeoutMs);

}  // namespace dorve

#endif  // DORVE_DOCTOR_SITUATION_H_
