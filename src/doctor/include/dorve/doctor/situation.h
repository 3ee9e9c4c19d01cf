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

/// The side of a pairing.
enum class Role : std::uint8_t { CLIENT, SERVER };

/// What all checks need to know: the role of this device, the user who runs the doctor, addresses and paths.
struct Situation {
  Role role = Role::CLIENT;
  std::string roleReason;
  bool roleIsGuess = false;
  std::string program;  ///< dorve-client or dorve-server, by role
  bool programRuns = false;
  std::string ownAddress;
  std::string peerAddress;
  std::vector<Interface> interfaces;

  uid_t userId = 0;
  std::string user;   ///< empty if the password database does not know the user
  std::string home;   ///< from the password database; ssh and sshd use it instead of HOME
  std::string shell;  ///< from the password database

  std::string sshDir;  ///< as both programs find it; empty if there is none
  std::string privateKey;
  std::string authorizedKeys;
  std::string config;

  CommandResult sshdTest;   ///< output of `sshd -T` for a login of this user from the other device
  bool strictModes = true;  ///< sshd requires safe owners and modes of files

  int timeoutMs = 0;                               ///< for an answer from the other device
  std::chrono::steady_clock::time_point deadline;  ///< for all checks together

  /// The timeout in milliseconds for a command that starts now:
  /// 4 seconds or `timeoutMs`, whichever is longer, but no longer than `remainingMs`.
  int commandMs() const;

  /// The timeout in milliseconds for a probe that starts now:
  /// `timeoutMs`, but no longer than `remainingMs`.
  int probeMs() const;

  /// The interface of the link; null if there is none. On the client, it is the interface named bsab.
  /// On the server, it is the one with the server's address, else the one named bsab.
  const Interface* link() const;

  /// The time until the deadline in milliseconds, at least 100.
  int remainingMs() const;

  bool isRoot() const { return userId == 0; }

  /// The command, with sudo in front unless this user is root.
  std::string asRoot(const std::string& command) const;

  /// The command with a remark that it is for the other device.
  std::string onPeer(const std::string& command) const;

  /// "client" or "server".
  const char* roleName() const { return role == Role::CLIENT ? "client" : "server"; }

  /// The command that runs dorve-doctor on the other device.
  std::string doctorThere() const;

  /// The first line of the block that a pairing adds to ssh's config.
  std::string hostLine() const;

  /// The command that starts a new pairing, with a remark about the other device.
  std::string pairAgain() const;
};

/// Collects the situation. If `role` has no value, finds it by the addresses of this device,
/// else by ssh's config, else guesses that this device is the client.
Situation examineSituation(std::optional<Role> role, int timeoutMs);

}  // namespace dorve

#endif  // DORVE_DOCTOR_SITUATION_H_
