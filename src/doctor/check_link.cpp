// SPDX-License-Identifier: MIT
// Checks of the link: this device's interface and address, the server's port, and the other device.
#include <algorithm>

#include "dorve/doctor/checks.h"
#include "dorve/doctor/ports.h"
#include "dorve/doctor/text.h"
#include "dorve/net/endpoints.h"

namespace dorve {
namespace {

constexpr const char* kPrefix = "/30";
constexpr int kPrefixBits = 30;
constexpr const char* kShowInterfaces = "ip -brief link";

std::string renameCommand(const Situation& situation, const std::string& from) {
  const std::string device = "ip link set dev " + from;
  return situation.asRoot(device + " down") + " && " + situation.asRoot(device + " name " + kLinkInterface) +
         " && " + situation.asRoot(std::string("ip link set dev ") + kLinkInterface + " up");
}

/// Checks the link's interface. `judgeAddress` checks its address.
Check judgeInterface(const Situation& situation) {
  const Interface* link = situation.link();
  const Interface* guess = findByAddress(situation.interfaces, situation.ownAddress);
  // The uplink may have the link's address by chance. The doctor must not suggest renaming the uplink.
  if (guess == nullptr || guess->uplink) guess = guessLink(situation.interfaces);
  if (link == nullptr && situation.role == Role::SERVER) link = guess;
  if (link == nullptr) {
    const std::string found = "there is " + describe(situation.interfaces);
    if (situation.role == Role::SERVER) {
      return {Verdict::FAIL, "interface", found, "none of these is certainly the link", kShowInterfaces};
    }
    return {Verdict::FAIL, "interface", std::string("no ") + kLinkInterface + "; " + found,
            std::string("dorve-client connects only through an interface named ") + kLinkInterface,
            guess == nullptr ? kShowInterfaces : renameCommand(situation, guess->name)};
  }
  const std::string found = link->name + " is " + link->state();
  if (!link->up) {
    return {Verdict::FAIL, "interface", found, "no packets pass while the interface is down",
            situation.asRoot("ip link set dev " + link->name + " up")};
  }
  if (!link->carrier) {
    return {Verdict::FAIL, "interface", found, "the cable is out, or the other end of the link is down",
            situation.doctorThere()};
  }
  return {Verdict::OK, "interface", found};
}

/// Checks that packets to the other device leave over the link.
/// If the link is down, returns OK, because `judgeInterface` already reports the cause.
/// `own` is this device's address on the link, and `replace` is the command that sets its prefix.
Check judgeRoute(const Interface& link, const Interface::Address& own, const std::string& replace,
                 const Situation& situation) {
  const std::string held = own.text + "/" + std::to_string(own.prefix);
  const Interface* source = findByAddress(situation.interfaces, sourceAddressFor(situation.peerAddress));
  if (!link.up || (source != nullptr && source->name == link.name)) {
    return {Verdict::OK, "address", held + " on " + link.name};
  }
  if (own.prefix > kPrefixBits) {
    return {Verdict::FAIL, "address", held + " is on " + link.name,
            "the other device's address is outside this network", replace};
  }
  return {Verdict::FAIL, "address", "packets to " + situation.peerAddress + " do not leave over " + link.name,
          "another route or address takes precedence",
          situation.asRoot("ip route replace " + situation.peerAddress + "/32 dev " + link.name + " src " +
                           own.text)};
}

Check judgeAddress(const Situation& situation) {
  if (situation.roleIsGuess) return {Verdict::SKIP, "address", "not checked: client or server?"};
  const std::string& address = situation.ownAddress;
  const Interface* link = situation.link();
  const Interface* holder =
      link != nullptr && link->has(address) ? link : findByAddress(situation.interfaces, address);
  if (link == nullptr) link = holder != nullptr ? holder : guessLink(situation.interfaces);
  const std::string target = link == nullptr ? kLinkInterface : link->name;
  const std::string add = situation.asRoot("ip address add " + address + kPrefix + " dev " + target);
  if (holder == nullptr) {
    return {Verdict::FAIL, "address", address + " is on no interface",
            std::string("the address of the ") + situation.roleName() + " is fixed", add};
  }
  const auto own = std::ranges::find_if(
      holder->addresses, [&](const Interface::Address& entry) { return entry.text == address; });
  const std::string held = address + "/" + std::to_string(own->prefix);
  const std::string replace =
      situation.asRoot("ip address del " + held + " dev " + holder->name) + " && " + add;
  if (holder->name != target) {
    return {Verdict::FAIL, "address", held + " is on " + holder->name + ", not on " + target,
            "packets to the other device then leave over the wrong interface",
            holder->uplink ? "ip -brief address" : replace};
  }
  return judgeRoute(*holder, *own, replace, situation);
}

std::string pids(const std::vector<ProcessInfo>& processes) {
  std::vector<std::string> numbers;
  numbers.reserve(processes.size());
  for (const ProcessInfo& process : processes) numbers.push_back(std::to_string(process.pid));
  return join(numbers, " ");
}

/// Checks that this device's program runs at most once.
Check judgePrograms(const Situation& situation) {
  const auto running = findProcesses(situation.program);
  if (!running) return {Verdict::SKIP, "programs", "not checked: /proc cannot be read"};
  if (running->empty()) return {Verdict::OK, "programs", "no " + situation.program + " runs"};
  if (running->size() == 1) {
    return {Verdict::OK, "programs", situation.program + " runs (process " + pids(*running) + ")"};
  }
  return {Verdict::FAIL, "programs",
          situation.program + " runs " + std::to_string(running->size()) + " times",
          "each start replaced the earlier key; stop all, then pair again",
          situation.asRoot("kill " + pids(*running))};
}

/// Checks that port 8888 of the server is free, or that dorve-server holds it.
Check judgeListener(const Situation& situation) {
  const auto listeners = listListeners();
  if (!listeners) return {Verdict::SKIP, "port-8888", "not checked: /proc cannot be read"};
  const Listener* holder = findListener(*listeners, situation.ownAddress, kPort);
  if (holder == nullptr) return {Verdict::OK, "port-8888", "free"};
  const auto owner = findOwner(*holder);
  if (situation.programRuns && (!owner || owner->name == situation.program)) {
    return {Verdict::OK, "port-8888", situation.program + " waits for a client"};
  }
  if (!owner) {
    return {Verdict::FAIL, "port-8888", "held by a process of another user",
            "dorve-server cannot listen on it", "sudo ss -ltnp sport = :8888"};
  }
  return {
      Verdict::FAIL, "port-8888", "held by " + owner->name + " (process " + std::to_string(owner->pid) + ")",
      "dorve-server cannot listen on it",
      owner->pid == 1 ? "systemctl list-sockets" : situation.asRoot("kill " + std::to_string(owner->pid))};
}

/// The command that lets this device through the firewall of the other device.
/// Its first part is for the table of Debian's nftables.conf, the second part for the rules of iptables.
/// If both fail, the third part shows all rules.
std::string openFirewall(const Situation& situation) {
  const std::string from = situation.ownAddress;
  return situation.asRoot("nft insert rule inet filter input ip saddr " + from + " accept") + " || " +
         situation.asRoot("iptables -I INPUT -s " + from + " -j ACCEPT") + " || " +
         situation.asRoot("nft list ruleset");
}

/// Checks a port of the other device that a firewall may block.
Check judgePeerPort(const Situation& situation, std::uint16_t port, PortState state) {
  const std::string name = "peer-" + std::to_string(port);
  const std::string place = "port " + std::to_string(port) + " of " + situation.peerAddress;
  if (state == PortState::OPEN) return {Verdict::OK, name, place + " is open"};
  return {Verdict::FAIL, name, place + (state == PortState::REJECTED ? " is rejected" : " does not answer"),
          "a firewall on this device or on the other one blocks the port",
          situation.onPeer(openFirewall(situation))};
}

/// Checks that dorve-server waits on the other device. After a pairing, it is not needed.
Check judgePeerServer(const Situation& situation, PortState state) {
  if (isPaired(situation)) return {Verdict::OK, "peer-8888", "not needed after a pairing"};
  if (state != PortState::REFUSED) return judgePeerPort(situation, kPort, state);
  return {Verdict::SKIP, "peer-8888", "no dorve-server waits on " + situation.peerAddress,
          "dorve-server waits only 60 seconds; start it, then dorve-client here",
          situation.onPeer("dorve-server")};
}

}  // namespace

void checkLink(const Situation& situation, Report& report) {
  if (situation.roleIsGuess) {
    report.add({Verdict::WARN, "role", "client or server?",
                std::string("neither ") + kServerAddress + " nor " + kClientAddress + " is on an interface",
                "dorve-doctor server  # or: dorve-doctor client"});
  } else {
    report.add({Verdict::OK, "role", situation.roleName() + (": " + situation.roleReason)});
  }
  report.add(judgeInterface(situation));
  report.add(judgeAddress(situation));
}

void checkPort(const Situation& situation, Report& report) {
  report.add(judgePrograms(situation));
  if (situation.role == Role::SERVER) report.add(judgeListener(situation));
}

bool checkPeer(const Situation& situation, Report& report) {
  const std::vector<PortState> states =
      probePorts(situation.peerAddress, {kSshPort, kPort}, situation.probeMs());
  const PortState ssh = states.front();
  if (ssh == PortState::NO_ROUTE) {
    report.add({Verdict::FAIL, "peer", "this device has no route to " + situation.peerAddress,
                "the line interface or address above says why", "ip route get " + situation.peerAddress});
    return false;
  }
  // For a while, the kernel keeps the hardware address of a device that is gone.
  // So silence on both ports can also mean that the device is gone.
  if (std::ranges::all_of(states, [](PortState state) {
        return state == PortState::NO_NEIGHBOUR || state == PortState::SILENT;
      })) {
    report.add({Verdict::FAIL, "peer", situation.peerAddress + " does not answer on the link",
                "no reachable device has this address, or a firewall drops all packets",
                situation.doctorThere()});
    return false;
  }
  report.add({Verdict::OK, "peer", situation.peerAddress + " answers on the link"});
  if (situation.role == Role::CLIENT) report.add(judgePeerServer(situation, states.back()));
  if (ssh == PortState::REFUSED) {
    report.add({Verdict::FAIL, "peer-22", "port 22 of " + situation.peerAddress + " refuses connections",
                "no sshd listens there, so no login is possible", situation.doctorThere()});
  } else {
    report.add(judgePeerPort(situation, kSshPort, ssh));
  }
  return ssh == PortState::OPEN;
}

}  // namespace dorve
