// SPDX-License-Identifier: MIT
// Whether this device's packet filter lets the packets of a pairing and of the logins pass.
#include <algorithm>
#include <charconv>
#include <map>

#include "dorve/checks/checks.h"
#include "dorve/facts/text.h"

namespace dorve {
namespace {

using Packet = std::map<std::string, std::string>;

enum class Fate : std::uint8_t {
  ACCEPTED,
  DROPPED,
  RETURNED,
  PERHAPS_ACCEPTED,  ///< else RETURNED
  UNKNOWN,
};
enum class Match : std::uint8_t { YES, NO, UNKNOWN };

std::uint64_t number(std::string_view text) {
  std::uint64_t value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

std::uint64_t addressNumber(const std::string& address) {
  std::uint64_t value = 0;
  for (const std::string& part : split(address, ".")) value = value * 256 + number(part);
  return value;
}

/// Returns whether a field's value is one of a condition's.
bool covers(const std::string& wanted, const std::string& value) {
  if (wanted == value || (wanted.ends_with('*') && value.starts_with(wanted.substr(0, wanted.size() - 1))))
    return true;
  const bool isAddress = contains(value, ".");
  const auto asNumber = [&](const std::string& text) {
    return isAddress ? addressNumber(text) : number(text);
  };
  if (const std::size_t dash = wanted.find('-');
      dash != std::string::npos && (isAddress || number(value) > 0)) {
    return asNumber(wanted.substr(0, dash)) <= asNumber(value) &&
           asNumber(value) <= asNumber(wanted.substr(dash + 1));
  }
  const std::size_t slash = wanted.find('/');
  if (!isAddress || slash == std::string::npos) return false;
  const std::uint64_t host =
      std::uint64_t{32} - std::min<std::uint64_t>(32, number(wanted.substr(slash + 1)));
  return addressNumber(wanted.substr(0, slash)) >> host == addressNumber(value) >> host;
}

Match matches(const Condition& condition, const Packet& packet) {
  const auto field = packet.find(condition.field);
  if (field == packet.end()) {
    // A field of another protocol, such as "udp dport", does not match. Anything else may.
    const std::string protocol = condition.field.substr(0, condition.field.find(' '));
    const bool isOther =
        protocol == "udp" || protocol == "ip6" || protocol.starts_with("icmp") || protocol == "ether";
    return isOther ? Match::NO : Match::UNKNOWN;
  }
  const bool found = std::ranges::any_of(
      condition.values, [&](const std::string& value) { return covers(value, field->second); });
  return found != condition.negated ? Match::YES : Match::NO;
}

Match matches(const Rule& rule, const Packet& packet) {
  Match all = rule.understood ? Match::YES : Match::UNKNOWN;
  for (const Condition& condition : rule.conditions) {
    if (condition.field.empty()) continue;
    const Match one = matches(condition, packet);
    if (one == Match::NO) return Match::NO;
    if (one == Match::UNKNOWN) all = Match::UNKNOWN;
  }
  return all;
}

/// What becomes of a packet in the chains to which rules jump, by the names of the chains.
using Fates = std::map<std::string, Fate>;

Fate follow(const Firewall& firewall, const Chain& chain, const Packet& packet, Fates& fates);

/// Follows each chain once, because many jumps would otherwise take very long. In a circle of jumps, the fate
/// stays unknown.
Fate followTo(const Firewall& firewall, const Chain& from, const std::string& target, const Packet& packet,
              Fates& fates) {
  const auto [known, isNew] = fates.emplace(target, Fate::UNKNOWN);
  if (!isNew) return known->second;
  const auto chain = std::ranges::find_if(firewall, [&](const Chain& each) {
    return each.family == from.family && each.table == from.table && each.name == target;
  });
  if (chain == firewall.end()) return Fate::UNKNOWN;
  return fates[target] = follow(firewall, *chain, packet, fates);
}

Fate fateOf(const Firewall& firewall, const Chain& chain, const Rule& rule, const Packet& packet,
            Fates& fates) {
  if (!rule.target.empty()) return followTo(firewall, chain, rule.target, packet, fates);
  if (rule.verdict == "accept") return Fate::ACCEPTED;
  return rule.verdict == "return" ? Fate::RETURNED : Fate::DROPPED;
}

/// What becomes of a packet in a chain, without its policy.
Fate follow(const Firewall& firewall, const Chain& chain, const Packet& packet, Fates& fates) {
  bool mayAccept = false;
  bool mayDrop = false;
  bool mayReturn = false;
  for (const Rule& rule : chain.rules) {
    const Match match = matches(rule, packet);
    if (match == Match::NO || rule.verdict.empty()) continue;
    const Fate fate = fateOf(firewall, chain, rule, packet, fates);
    if (fate == Fate::RETURNED && rule.verdict == "jump") continue;
    const bool isDoubtful =
        match == Match::UNKNOWN || fate == Fate::UNKNOWN || fate == Fate::PERHAPS_ACCEPTED;
    if (isDoubtful) {
      mayReturn = mayReturn || fate == Fate::RETURNED;
      mayAccept = mayAccept || (fate != Fate::DROPPED && fate != Fate::RETURNED);
      mayDrop = mayDrop || fate == Fate::DROPPED || fate == Fate::UNKNOWN;
      continue;
    }
    if (fate == Fate::RETURNED) break;
    if (fate == Fate::ACCEPTED && !mayDrop) return mayReturn ? Fate::PERHAPS_ACCEPTED : fate;
    return fate == Fate::DROPPED && !mayAccept && !mayReturn ? fate : Fate::UNKNOWN;
  }
  if (mayDrop) return Fate::UNKNOWN;
  return mayAccept ? Fate::PERHAPS_ACCEPTED : Fate::RETURNED;
}

/// A kind of packet that must pass, and the rule that lets it pass.
struct Need {
  std::string hook;
  Packet packet;
  std::string rule;
};

std::vector<Need> needsOf(const Side& side, const std::string& link, bool paired) {
  std::string ports = "22";
  std::vector<std::string> in = {"22"};
  std::vector<std::string> out = {"22"};
  if (!paired) {
    ports = "{ 22, 8888 }";
    (side.role == Role::SERVER ? in : out).emplace_back("8888");
  }
  const Packet common = {{"nfproto", "ipv4"}, {"l4proto", "tcp"}, {"protocol", "ip"}, {"ip protocol", "tcp"}};
  std::vector<Need> needs;
  for (const bool isInput : {true, false}) {
    const std::string start = (isInput ? "iifname " : "oifname ") + quoted("\"" + link + "\"") +
                              (isInput ? " ip saddr " : " ip daddr ") + side.peerAddress;
    Packet packet = common;
    for (const char* field : {"iifname", "oifname", "iif", "oif"})
      packet[field] = field[0] == (isInput ? 'i' : 'o') ? link : "";
    packet["ip saddr"] = isInput ? side.peerAddress : side.ownAddress;
    packet["ip daddr"] = isInput ? side.ownAddress : side.peerAddress;
    packet["ct state"] = "new";
    packet["tcp sport"] = "50000";
    for (const std::string& port : isInput ? in : out) {
      packet["tcp dport"] = port;
      needs.push_back({isInput ? "input" : "output", packet, start + " tcp dport " + quoted(ports)});
    }
    packet["ct state"] = "established";
    packet["tcp sport"] = "22";
    packet["tcp dport"] = "50000";
    needs.push_back({isInput ? "input" : "output", packet,
                     start + " tcp sport " + quoted(ports) + " ct state established"});
  }
  return needs;
}

void note(std::vector<std::string>& texts, const std::string& text) {
  if (std::ranges::find(texts, text) == texts.end()) texts.push_back(text);
}

/// Returns whether a connection over the link failed, so that a doubtful rule may well be the reason.
bool isBlocked(const Known& known) {
  const bool backFailed = known.login.backTried && !known.login.backProven;
  const auto isSilent = [](PortState state) {
    return state == PortState::SILENT || state == PortState::REJECTED;
  };
  return backFailed || (known.peer && (isSilent(known.peer->ssh) || isSilent(known.peer->dorve)));
}

}  // namespace

Findings checkFirewall(const Firewall& firewall, const Known& known) {
  const Interface* link = linkOf(known.link, known.side);
  if (link == nullptr) return {};
  const bool paired = known.pairing.exists;
  std::vector<std::string> places;
  std::vector<std::string> rules;
  bool sure = false;
  for (const Need& need : needsOf(known.side, link->name, paired)) {
    for (const Chain& chain : firewall) {
      const bool early = (chain.hook == "prerouting" || chain.hook == "ingress") && need.hook == "input";
      if ((chain.hook != need.hook && !early) || chain.family == "ip6" || chain.family == "arp") continue;
      Fates fates;
      const Fate fate = follow(firewall, chain, need.packet, fates);
      const bool policyDrops = chain.policy == "drop";
      const bool dropped = fate == Fate::DROPPED || (fate == Fate::RETURNED && policyDrops);
      const bool doubtful = fate == Fate::UNKNOWN || (fate == Fate::PERHAPS_ACCEPTED && policyDrops);
      if (!dropped && !doubtful) continue;
      sure = sure || dropped;
      note(places, chain.family + " " + chain.table + " " + chain.name);
      note(rules, isPlainName(link->name) ? Commands::allowPackets(chain, need.rule) : "");
    }
  }
  if (places.empty()) return {{Verdict::OK, "firewall", "lets the other device through"}};
  // A rule without a command has a special name, so that no command would help.
  const bool isComplete = std::ranges::find(rules, "") == rules.end();
  const std::string command = isComplete ? known.commands.asRoot(join(rules, " && ")) : "";
  const std::string verb = sure ? "this device drops packets of the link in chain "
                                : "packets of the link may be dropped in chain ";
  return {{sure || isBlocked(known) ? Verdict::FAIL : Verdict::WARN, "firewall", verb + join(places, ", "),
           "the command lets only " + known.side.peerAddress + " through, only on " + link->name +
               ", until the next boot",
           command, paired ? Serves::LOGIN_HERE : Serves::PAIRING}};
}

}  // namespace dorve
