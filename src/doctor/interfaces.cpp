// SPDX-License-Identifier: MIT
#include "dorve/doctor/interfaces.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <bit>
#include <fstream>
#include <memory>

#include "dorve/doctor/text.h"

namespace dorve {
namespace {

Interface& entryFor(std::vector<Interface>& interfaces, const ifaddrs& address) {
  const auto known = std::ranges::find_if(
      interfaces, [&](const Interface& entry) { return entry.name == address.ifa_name; });
  if (known != interfaces.end()) return *known;
  Interface fresh;
  fresh.name = address.ifa_name;
  fresh.up = (address.ifa_flags & IFF_UP) != 0;
  fresh.carrier = (address.ifa_flags & IFF_RUNNING) != 0;
  fresh.loopback = (address.ifa_flags & IFF_LOOPBACK) != 0;
  interfaces.push_back(fresh);
  return interfaces.back();
}

std::string dotted(const in_addr& address) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

/// The names of the interfaces that a default route uses.
std::vector<std::string> uplinkNames() {
  std::vector<std::string> names;
  std::ifstream routes("/proc/net/route");
  for (std::string line; std::getline(routes, line);) {
    const std::vector<std::string> fields = split(line, " \t");
    if (fields.size() > 7 && fields[1] == "00000000" && fields[7] == "00000000") names.push_back(fields[0]);
  }
  return names;
}

}  // namespace

bool Interface::has(std::string_view address) const {
  return std::ranges::any_of(addresses, [&](const Address& own) { return own.text == address; });
}

std::string Interface::state() const {
  if (!up) return "down";
  return carrier ? "up" : "up, no carrier";
}

std::vector<Interface> listInterfaces() {
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
  for (const std::string& name : uplinkNames()) {
    for (Interface& interface : interfaces) interface.uplink |= interface.name == name;
  }
  return interfaces;
}

const Interface* findByName(const std::vector<Interface>& interfaces, std::string_view name) {
  const auto found =
      std::ranges::find_if(interfaces, [&](const Interface& interface) { return interface.name == name; });
  return found == interfaces.end() ? nullptr : &*found;
}

const Interface* findByAddress(const std::vector<Interface>& interfaces, std::string_view address) {
  const auto found =
      std::ranges::find_if(interfaces, [&](const Interface& interface) { return interface.has(address); });
  return found == interfaces.end() ? nullptr : &*found;
}

const Interface* guessLink(const std::vector<Interface>& interfaces) {
  std::vector<const Interface*> candidates;
  for (const Interface& interface : interfaces) {
    if (!interface.loopback && !interface.uplink && interface.addresses.empty())
      candidates.push_back(&interface);
  }
  if (candidates.size() > 1) {
    std::erase_if(candidates, [](const Interface* candidate) { return !candidate->carrier; });
  }
  return candidates.size() == 1 ? candidates.front() : nullptr;
}

std::string describe(const std::vector<Interface>& interfaces) {
  std::vector<std::string> parts;
  for (const Interface& interface : interfaces) {
    if (interface.loopback) continue;
    parts.push_back(interface.name + " (" + interface.state() +
                    (interface.uplink ? ", default route)" : ")"));
  }
  return parts.empty() ? "none" : join(parts, ", ");
}

}  // namespace dorve
