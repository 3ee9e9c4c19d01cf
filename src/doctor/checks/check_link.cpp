// SPDX-License-Identifier: MIT
#include <algorithm>

#include "dorve/checks/checks.h"
#include "dorve/facts/text.h"
#include "dorve/net/endpoints.h"

namespace dorve {
namespace {

constexpr int kPrefixBits = 30;
constexpr int kSmallestMtu = 576;  // bytes; RFC 791

std::string withPrefix(const Interface::Address& address) {
  return address.text + "/" + std::to_string(address.prefix);
}

/// Removes an address from an interface, whatever its prefix. An address that is not there is no error.
std::string removeAddress(const std::string& address, const std::string& interface) {
  return "ip address flush dev " + quoted(interface) + " to " + address + "/32";
}

/// An address with its prefix; without a prefix if the interface does not have it.
std::string heldBy(const Interface& interface, const std::string& address) {
  const auto own =
      std::ranges::find_if(interface.addresses, [&](const auto& each) { return each.text == address; });
  return own == interface.addresses.end() ? address : withPrefix(*own);
}

const Interface* holderOf(const Link& link, const std::string& address) {
  const auto found = std::ranges::find_if(link.interfaces,
                                          [&](const Interface& interface) { return interface.has(address); });
  return found == link.interfaces.end() ? nullptr : &*found;
}

/// The names and states of all interfaces except loopback in one line; "none" if there are none.
std::string describe(const Link& link) {
  std::vector<std::string> parts;
  for (const Interface& interface : link.interfaces) {
    if (interface.loopback) continue;
    parts.push_back(interface.name + " (" + interface.state() +
                    (interface.uplink ? ", default route)" : ")"));
  }
  return parts.empty() ? "none" : join(parts, ", ");
}

/// The interface that is most likely the link, on a device where none has its name or its address.
/// Candidates are all interfaces without an address, except loopback and uplink.
/// If there are several, those without a carrier are left out. Null unless exactly one is left.
const Interface* guessLink(const Link& link) {
  std::vector<const Interface*> candidates;
  for (const Interface& interface : link.interfaces) {
    if (!interface.loopback && !interface.uplink && interface.addresses.empty())
      candidates.push_back(&interface);
  }
  if (candidates.size() > 1) {
    std::erase_if(candidates, [](const Interface* candidate) { return !candidate->carrier; });
  }
  return candidates.size() == 1 ? candidates.front() : nullptr;
}

std::string setDevice(const std::string& name, const std::string& change) {
  return "ip link set dev " + quoted(name) + " " + change;
}

Finding missingInterface(const Side& side, const Link& link, const Commands& commands) {
  const Interface* guess = holderOf(link, side.ownAddress);
  // The uplink may have the link's address by chance. The doctor must not suggest renaming the uplink.
  if (guess == nullptr || guess->uplink) guess = guessLink(link);
  const std::string found = "this device has: " + describe(link);
  if (side.role == Role::SERVER) {
    return {Verdict::FAIL, "interface", found,
            "no interface has " + side.ownAddress + ", so the doctor cannot tell which one is the link"};
  }
  Finding finding = {Verdict::FAIL, "interface", std::string("no ") + kLinkInterface + "; " + found,
                     std::string("dorve-client connects only through an interface named ") + kLinkInterface};
  if (guess == nullptr) {
    finding.cause += "; give this name to the interface with the cable";
  } else {
    finding.command =
        commands.asRoot(setDevice(guess->name, "down") + " && { " +
                        setDevice(guess->name, std::string("name ") + kLinkInterface) + " && " +
                        setDevice(kLinkInterface, "up") + " || " + setDevice(guess->name, "up") + "; }");
  }
  return finding;
}

/// The settings of an interface that is up.
std::optional<Finding> judgeSettings(const Interface& interface, const Commands& commands) {
  if (!interface.arp) {
    return Finding{Verdict::FAIL, "interface", interface.name + " does not use ARP",
                   "the other device cannot find this one",
                   commands.asRoot(setDevice(interface.name, "arp on"))};
  }
  if (interface.ignoresArp) {
    return Finding{Verdict::FAIL, "interface", interface.name + " does not answer to ARP (arp_ignore)",
                   "the other device cannot find this one",
                   commands.asRoot("sysctl -w net.ipv4.conf.all.arp_ignore=0 " +
                                   quoted("net/ipv4/conf/" + interface.name + "/arp_ignore=0"))};
  }
  if (!interface.master.empty()) {
    return Finding{Verdict::FAIL, "interface", interface.name + " is a port of " + interface.master,
                   interface.master + " receives its packets",
                   commands.asRoot(setDevice(interface.name, "nomaster"))};
  }
  if (interface.mtu > 0 && interface.mtu < kSmallestMtu) {
    return Finding{Verdict::FAIL, "interface",
                   interface.name + " has an MTU of only " + std::to_string(interface.mtu) + " bytes",
                   "IPv4 needs 576", commands.asRoot(setDevice(interface.name, "mtu 1500"))};
  }
  return std::nullopt;
}

Finding judgeInterface(const Side& side, const Link& link, const Commands& commands) {
  const Interface* interface = linkOf(link, side);
  const bool isNamed = interface != nullptr && interface->name == kLinkInterface;
  if (interface == nullptr || (side.role == Role::CLIENT && !isNamed)) {
    return missingInterface(side, link, commands);
  }
  const std::string found = interface->name + " is " + interface->state();
  if (!interface->up) {
    return {Verdict::FAIL, "interface", found, "no packets pass while the interface is down",
            commands.asRoot(setDevice(interface->name, "up"))};
  }
  if (!interface->carrier) {
    const Interface* other = guessLink(link);
    const bool isElsewhere = other != nullptr && other->carrier;
    return {Verdict::FAIL, "interface", found,
            isElsewhere ? "the cable may be in " + other->name + ", which is up and has no address"
                        : "the cable is out, or the other end of the link is down",
            isElsewhere ? "" : commands.doctorThere()};
  }
  if (auto finding = judgeSettings(*interface, commands)) return *finding;
  return {Verdict::OK, "interface", found};
}

/// This device has no own address on the link, or has it elsewhere. No finding if the address is where it
/// belongs.
std::optional<Finding> judgePlace(const Side& side, const Link& link, const Commands& commands) {
  const std::string& address = side.ownAddress;
  const Interface* interface = linkOf(link, side);
  const Interface* holder =
      interface != nullptr && interface->has(address) ? interface : holderOf(link, address);
  if (interface == nullptr) interface = holder != nullptr ? holder : guessLink(link);
  const std::string target = interface == nullptr ? kLinkInterface : interface->name;
  const std::string add =
      "ip address replace " + address + "/" + std::to_string(kPrefixBits) + " dev " + quoted(target);
  if (holder == nullptr) {
    const bool isSwapped = interface != nullptr && interface->has(side.peerAddress);
    return Finding{Verdict::FAIL, "address",
                   address + " is on no interface" +
                       (isSwapped ? ", but " + target + " has the other device's address" : ""),
                   std::string("the address of the ") + side.name() + " is fixed",
                   commands.asRoot(isSwapped ? removeAddress(side.peerAddress, target) + " && " + add : add)};
  }
  const std::string held = heldBy(*holder, address);
  if (holder->name != target) {
    Finding finding = {Verdict::FAIL, "address", held + " is on " + holder->name + ", not on " + target,
                       "packets to the other device then leave over the wrong interface"};
    if (!holder->uplink) {
      finding.command = commands.asRoot(removeAddress(address, holder->name) + " && " + add);
    }
    return finding;
  }
  const bool tooLong = held != address && std::stoi(held.substr(address.size() + 1)) > kPrefixBits;
  if (tooLong && (!link.route || link.route->interface != target)) {
    return Finding{Verdict::FAIL, "address", held + " is on " + holder->name,
                   "the other device's address is outside this network",
                   commands.asRoot(removeAddress(address, target) + " && " + add)};
  }
  return std::nullopt;
}

/// Somebody else has this device's address, or this device has that of the other one.
std::optional<Finding> judgeOwners(const Side& side, const Link& link, const Commands& commands) {
  if (link.route && link.route->local) {
    const Interface* holder = holderOf(link, side.peerAddress);
    const std::string name = holder == nullptr ? "" : holder->name;
    Finding finding = {Verdict::FAIL, "address",
                       side.peerAddress + " is on this device too" + (name.empty() ? "" : ", on " + name),
                       "it belongs to the other device; packets to it never leave this one"};
    if (holder != nullptr && !holder->uplink) {
      finding.command = commands.asRoot(removeAddress(side.peerAddress, name));
    }
    return finding;
  }
  if (link.answers && !link.answers->own.empty()) {
    return Finding{
        Verdict::FAIL, "address",
        "another device on the link also has " + side.ownAddress + " (hardware address " +
            join(link.answers->own, ", ") + ")",
        "both devices have the same address: change it to " + side.peerAddress + " on one of them"};
  }
  if (link.answers && link.answers->peer.size() > 1) {
    return Finding{Verdict::WARN, "address",
                   "several devices on the link have " + side.peerAddress + " (hardware addresses " +
                       join(link.answers->peer, ", ") + ")",
                   "only the other device may have this address: remove it from all others"};
  }
  if (link.neighbourIsFixed && link.answers && !link.answers->peer.empty() &&
      link.answers->peer.front() != link.neighbour) {
    const Interface* interface = linkOf(link, side);
    return Finding{
        Verdict::FAIL, "address",
        "a fixed neighbour entry says that " + side.peerAddress + " is " + link.neighbour,
        "the device that answers is " + link.answers->peer.front(),
        commands.asRoot("ip neighbour del " + side.peerAddress + " dev " + quoted(interface->name))};
  }
  return std::nullopt;
}

/// What the kernel's answer to a route lookup says.
std::string meaningOf(const std::string& error) {
  if (error == "Invalid argument") return "there is a blackhole route";
  if (error == "No route to host") return "there is an unreachable route";
  if (error == "Permission denied") return "there is a prohibit route";
  return error;
}

/// Packets to the other device leave elsewhere.
std::optional<Finding> judgeRoute(const Side& side, const Link& link, const Commands& commands) {
  const Interface* interface = linkOf(link, side);
  if (interface == nullptr || !interface->up || !link.route) return std::nullopt;
  const Route& route = *link.route;
  if (route.error.empty() && route.interface == interface->name && route.gateway.empty()) return std::nullopt;
  const std::string way = !route.error.empty() ? " do not leave: " + meaningOf(route.error)
                          : !route.gateway.empty()
                              ? " leave over the gateway " + route.gateway
                              : " leave over " + route.interface + ", not " + interface->name;
  const std::string replace = "ip route replace " + side.peerAddress + "/32 dev " + quoted(interface->name) +
                              " src " + side.ownAddress;
  // The main table, 254, has the route of the interface's address. Another table, or an error, comes from a
  // rule.
  const bool byRule = route.table != 254;
  return Finding{
      Verdict::FAIL, "address", "packets to " + side.peerAddress + way,
      byRule ? "a route or a rule of ip-rule(8) takes precedence" : "another route takes precedence",
      commands.asRoot(byRule ? replace + " && { ip rule add priority 1 to " + side.peerAddress +
                                   " lookup main || true; }"
                             : replace)};
}

Finding judgeAddress(const Side& side, const Link& link, const Commands& commands) {
  if (side.isGuess) return {Verdict::SKIP, "address", "not checked: the side is not known"};
  for (auto* judgement : {judgePlace, judgeOwners, judgeRoute}) {
    if (auto finding = judgement(side, link, commands)) return *finding;
  }
  const Interface* interface = linkOf(link, side);
  return {Verdict::OK, "address",
          (interface == nullptr ? side.ownAddress
                                : heldBy(*interface, side.ownAddress) + " on " + interface->name)};
}

}  // namespace

Findings checkLink(const User&, const Side& side, const Link& link, const Commands& commands) {
  return {judgeInterface(side, link, commands), judgeAddress(side, link, commands)};
}

}  // namespace dorve
