// SPDX-License-Identifier: MIT
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include "dorve/facts/text.h"
#include "dorve/gather/files.h"
#include "dorve/gather/subjects.h"
#include "dorve/net/endpoints.h"

namespace dorve {
namespace {

constexpr int kArpMs = 1000;
constexpr int kGuessMs = 300;
constexpr int kMaxAsked = 4;               // interfaces
constexpr const char* kPermanent = "0x6";  // flags in /proc/net/arp

std::string dotted(const in_addr& address) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

int mtuOf(const char* name) {
  const Descriptor any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request = {};
  std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
  return ioctl(any.get(), SIOCGIFMTU, &request) == 0 ? request.ifr_mtu : 0;
}

/// Returns whether the kernel answers to no ARP request for an address of this interface. The larger of the
/// two values counts; 8 means never.
bool ignoresArp(const std::string& name) {
  int largest = 0;
  for (const std::string& folder : {std::string("all"), name}) {
    int value = 0;
    std::ifstream("/proc/sys/net/ipv4/conf/" + folder + "/arp_ignore") >> value;
    largest = std::max(largest, value);
  }
  return largest == 8;
}

Interface& entryFor(std::vector<Interface>& interfaces, const ifaddrs& address) {
  const auto known = std::ranges::find_if(
      interfaces, [&](const Interface& entry) { return entry.name == address.ifa_name; });
  if (known != interfaces.end()) return *known;
  Interface fresh;
  fresh.name = address.ifa_name;
  fresh.up = (address.ifa_flags & IFF_UP) != 0;
  fresh.carrier = (address.ifa_flags & IFF_RUNNING) != 0;
  fresh.loopback = (address.ifa_flags & IFF_LOOPBACK) != 0;
  fresh.arp = (address.ifa_flags & IFF_NOARP) == 0;
  fresh.ignoresArp = ignoresArp(fresh.name);
  fresh.mtu = mtuOf(address.ifa_name);
  std::error_code error;
  fresh.master = std::filesystem::read_symlink("/sys/class/net/" + fresh.name + "/master", error).filename();
  interfaces.push_back(fresh);
  return interfaces.back();
}

/// The rows of a table in /proc/net, as words.
std::vector<std::vector<std::string>> tableOf(const char* path) {
  std::vector<std::vector<std::string>> rows;
  std::ifstream table(path);
  for (std::string line; std::getline(table, line);) rows.push_back(split(line, " \t"));
  return rows;
}

Route parseRoute(const nlmsghdr* header) {
  const auto* message = static_cast<const rtmsg*>(NLMSG_DATA(header));
  Route route;
  route.local = message->rtm_type == RTN_LOCAL;
  int size = static_cast<int>(RTM_PAYLOAD(header));
  for (const rtattr* part = RTM_RTA(message); RTA_OK(part, size); part = RTA_NEXT(part, size)) {
    in_addr address = {};
    std::memcpy(&address, RTA_DATA(part), std::min<std::size_t>(RTA_PAYLOAD(part), sizeof address));
    char name[IF_NAMESIZE] = "";
    if (part->rta_type == RTA_OIF) route.interface = if_indextoname(address.s_addr, name) ? name : "";
    if (part->rta_type == RTA_PREFSRC) route.source = dotted(address);
    if (part->rta_type == RTA_TABLE) route.table = address.s_addr;
    if (part->rta_type == RTA_GATEWAY) route.gateway = dotted(address);
  }
  return route;
}

/// Asks the kernel for its route, by rtnetlink(7).
Fact<Route> lookUpRoute(const std::string& address) {
  const Descriptor netlink(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  struct {
    nlmsghdr header;
    rtmsg message;
    rtattr attribute;
    in_addr destination;
  } request = {};
  request.header = {sizeof request, RTM_GETROUTE, NLM_F_REQUEST, 1, 0};
  request.message.rtm_family = AF_INET;
  request.message.rtm_dst_len = 32;
  request.message.rtm_flags = RTM_F_LOOKUP_TABLE;
  request.attribute = {RTA_LENGTH(sizeof request.destination), RTA_DST};
  inet_pton(AF_INET, address.c_str(), &request.destination);
  alignas(nlmsghdr) char answer[4096];
  if (send(netlink.get(), &request, sizeof request, 0) < 0) {
    return Fact<Route>::unknown(std::strerror(errno));
  }
  const ssize_t size = recv(netlink.get(), answer, sizeof answer, 0);
  const auto* header = reinterpret_cast<const nlmsghdr*>(answer);
  const bool isWhole = size >= 0 && NLMSG_OK(header, static_cast<unsigned int>(size));
  if (!isWhole) {
    return Fact<Route>::unknown(std::strerror(errno));
  }
  if (header->nlmsg_type != NLMSG_ERROR) return parseRoute(header);
  Route route;
  route.error = std::strerror(-static_cast<const nlmsgerr*>(NLMSG_DATA(header))->error);
  return route;
}

}  // namespace

std::vector<Interface> gatherInterfaces() {
  std::vector<Interface> interfaces;
  ifaddrs* first = nullptr;
  if (getifaddrs(&first) != 0) return interfaces;
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(first, freeifaddrs);
  for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
    Interface& interface = entryFor(interfaces, *entry);
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    const auto& address = *reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
    const auto& mask = *reinterpret_cast<const sockaddr_in*>(entry->ifa_netmask);
    interface.addresses.push_back({dotted(address.sin_addr), std::popcount(mask.sin_addr.s_addr)});
  }
  for (const auto& fields : tableOf("/proc/net/route")) {
    if (fields.size() < 8 || fields[1] != "00000000" || fields[7] != "00000000") continue;
    for (Interface& interface : interfaces) interface.uplink |= interface.name == fields[0];
  }
  return interfaces;
}

Side makeSide(Role role, std::string reason) {
  const bool client = role == Role::CLIENT;
  Side side;
  side.role = role;
  side.reason = std::move(reason);
  side.program = client ? "dorve-client" : "dorve-server";
  side.ownAddress = client ? kClientAddress : kServerAddress;
  side.peerAddress = client ? kServerAddress : kClientAddress;
  return side;
}

Side findSide(const std::vector<Interface>& interfaces, const Directory& directory) {
  const Side sides[] = {makeSide(Role::SERVER, ""), makeSide(Role::CLIENT, "")};
  const auto because = [](Side side, const std::string& reason) {
    side.reason = reason;
    return side;
  };
  // Another interface may have one of the addresses by chance, so the one named bsab counts first.
  for (const bool byName : {true, false}) {
    for (const Side& side : sides) {
      for (const Interface& interface : interfaces) {
        if (!interface.has(side.ownAddress) || (byName && interface.name != kLinkInterface)) continue;
        return because(side, interface.name + " has " + side.ownAddress);
      }
    }
  }
  const std::string config = readText(directory.config.path);
  for (const Side& side : sides) {
    if (contains(config, side.hostLine() + "\n")) return because(side, "ssh's config names the other device");
  }
  int asked = 0;
  for (const Interface& interface : interfaces) {
    const bool mayBeLink =
        interface.name == kLinkInterface || (interface.addresses.empty() && !interface.uplink);
    if (!mayBeLink || interface.loopback || !interface.carrier || !interface.master.empty() ||
        ++asked > kMaxAsked)
      continue;
    const Fact<Answers> answers = askForAddresses(interface.name, sides[0], kGuessMs);
    if (answers && !answers->peer.empty()) return because(sides[0], "the client is on " + interface.name);
    if (answers && !answers->own.empty()) return because(sides[1], "the server is on " + interface.name);
  }
  Side guess = makeSide(Role::CLIENT, "a guess");
  guess.isGuess = true;
  return guess;
}

bool mayBeAsked(const Interface* interface, const Side& side) {
  return interface != nullptr && (side.role == Role::SERVER || interface->name == kLinkInterface);
}

Link gatherLink(std::vector<Interface> interfaces, const Side& side, const Deadline& deadline) {
  Link link;
  link.interfaces = std::move(interfaces);
  link.route = lookUpRoute(side.peerAddress);
  const Interface* interface = linkOf(link, side);
  if (mayBeAsked(interface, side) && interface->up && interface->arp) {
    link.answers = askForAddresses(interface->name, side, deadline.leftMs(std::min(kArpMs, side.timeoutMs)));
  } else {
    link.answers = Fact<Answers>::unknown("no interface to ask on");
  }
  for (const auto& fields : tableOf("/proc/net/arp")) {
    if (fields.size() < 6 || fields[0] != side.peerAddress || fields[2] == "0x0") continue;
    link.neighbour = fields[3];
    link.neighbourIsFixed = fields[2] == kPermanent;
  }
  return link;
}

}  // namespace dorve
