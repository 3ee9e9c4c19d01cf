// SPDX-License-Identifier: MIT
#ifndef DORVE_FACTS_FACTS_H_
#define DORVE_FACTS_FACTS_H_

#include <string>

#include "dorve/facts/access.h"
#include "dorve/facts/device.h"
#include "dorve/facts/firewall.h"

namespace dorve {

/// The side of this device, and what follows from it.
struct Side {
  Role role = Role::CLIENT;
  bool isGuess = false;
  int timeoutMs = 0;  ///< for an answer from the other device
  std::string reason;
  std::string program;  ///< dorve-client or dorve-server
  std::string ownAddress;
  std::string peerAddress;

  /// "client" or "server".
  const char* name() const { return role == Role::CLIENT ? "client" : "server"; }

  /// The first line of the block that a pairing adds to ssh's config.
  std::string hostLine() const { return "Host " + peerAddress; }
};

/// All that is known. A subject without a value was not examined in time.
struct Facts {
  Fact<User> user;
  Fact<Side> side;
  Fact<Link> link;
  Fact<Directory> directory;
  Fact<Processes> processes;
  Fact<Firewall> firewall;
  Fact<Sshd> sshd;
  Fact<Pairing> pairing;
  Fact<Login> login;
  Fact<Peer> peer;
};

/// The interface of the link; null if there is none. On the client, it is the interface named bsab, if there
/// is one. Else it is the one with this side's address over which packets to the other device leave, else any
/// with the address, else the one named bsab.
const Interface* linkOf(const Link& link, const Side& side);

}  // namespace dorve

#endif  // DORVE_FACTS_FACTS_H_
