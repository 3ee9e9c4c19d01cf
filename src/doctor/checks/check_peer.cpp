// SPDX-License-Identifier: MIT
// Whether the other device answers on the link.
#include "dorve/checks/checks.h"

namespace dorve {
namespace {

Finding judgePort(const std::string& place, const std::string& name, PortState state,
                  const Commands& commands) {
  if (state == PortState::OPEN) return {Verdict::OK, name, place + " is open"};
  const bool rejected = state == PortState::REJECTED;
  if (state == PortState::NO_ROUTE) {
    return {Verdict::FAIL, name, "this device does not send packets to " + place,
            "a firewall or a rule on this device stops them"};
  }
  return {Verdict::FAIL, name, place + (rejected ? " is rejected" : " does not answer"),
          rejected ? "a firewall there rejects connections from this device"
                   : "a firewall there or here drops the packets; the device itself is on the link",
          commands.doctorThere()};
}

/// The hardware address of the other device; empty if it is not on the link, or if that is not known.
std::string neighbourOf(const Link& link) {
  if (link.answers && !link.answers->peer.empty()) return link.answers->peer.front();
  return link.answers ? "" : link.neighbour;
}

}  // namespace

Findings checkPeer(const Known& known) {
  const Side& side = known.side;
  const std::string& address = side.peerAddress;
  const std::string ssh = "port 22 of " + address;
  if (known.login.proven) {
    return {{Verdict::OK, "peer", address + " answers on the link"},
            {Verdict::OK, "peer-22", ssh + " is open"}};
  }
  if (!known.peer) return {{Verdict::SKIP, "peer", "not probed, for the reasons above"}};
  const bool silent = known.peer->ssh == PortState::SILENT && known.peer->dorve == PortState::SILENT;
  const std::string neighbour = neighbourOf(known.link);
  if (silent && neighbour.empty()) {
    // If the other device has this device's address instead, a doctor at the address of the peer is no help.
    const bool hasOwn = known.link.answers && !known.link.answers->own.empty();
    return {{Verdict::FAIL, "peer", address + " does not answer on the link",
             "no device on the link has this address", hasOwn ? "" : known.commands.doctorThere()}};
  }
  Findings findings = {
      {Verdict::OK, "peer",
       address + " is on the link" + (silent ? " (hardware address " + neighbour + ")" : "")}};
  const bool waits = known.peer->dorve == PortState::REFUSED;
  if (side.role == Role::CLIENT && !known.pairing.exists) {
    findings.push_back(
        waits ? Finding{Verdict::SKIP, "peer-8888", "no dorve-server waits on " + address,
                        "dorve-server waits only 60 seconds; start it, then dorve-client here",
                        known.commands.onPeer("dorve-server")}
              : judgePort("port 8888 of " + address, "peer-8888", known.peer->dorve, known.commands));
  }
  if (known.peer->ssh == PortState::REFUSED) {
    findings.push_back({Verdict::FAIL, "peer-22", ssh + " refuses connections",
                        "no sshd listens there, so no login is possible", known.commands.doctorThere()});
  } else {
    findings.push_back(judgePort(ssh, "peer-22", known.peer->ssh, known.commands));
  }
  return findings;
}

}  // namespace dorve
