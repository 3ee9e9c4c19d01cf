// SPDX-License-Identifier: MIT
#include <arpa/inet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/if_ether.h>
#include <netpacket/packet.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "dorve/gather/subjects.h"

namespace dorve {
namespace {

constexpr std::size_t kMaxAnswers = 4;
constexpr int kLastWordMs = 100;  // after the other device's answer, for one more device with an address

std::string colons(const std::uint8_t* address) {
  char text[18];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", address[0], address[1], address[2],
                address[3], address[4], address[5]);
  return text;
}

/// Broadcasts the question who has `address`. The sender address 0.0.0.0 leaves all neighbour tables
/// as they are (RFC 5227).
bool ask(const Descriptor& packets, const sockaddr_ll& interface, const std::uint8_t* hardware,
         const std::string& address) {
  ether_arp request = {};
  request.arp_hrd = htons(ARPHRD_ETHER);
  request.arp_pro = htons(ETH_P_IP);
  request.arp_hln = ETH_ALEN;
  request.arp_pln = 4;
  request.arp_op = htons(ARPOP_REQUEST);
  std::memcpy(request.arp_sha, hardware, ETH_ALEN);
  inet_pton(AF_INET, address.c_str(), request.arp_tpa);
  sockaddr_ll everyone = interface;
  everyone.sll_halen = ETH_ALEN;
  std::memset(everyone.sll_addr, 0xFF, ETH_ALEN);
  return sendto(packets.get(), &request, sizeof request, 0, reinterpret_cast<const sockaddr*>(&everyone),
                sizeof everyone) == sizeof request;
}

void note(std::vector<std::string>& addresses, const std::string& address) {
  const bool isNew = std::ranges::find(addresses, address) == addresses.end();
  if (isNew && addresses.size() < kMaxAnswers) addresses.push_back(address);
}

}  // namespace

Fact<Answers> askForAddresses(const std::string& interface, const Side& side, int timeoutMs) {
  const Descriptor packets(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, htons(ETH_P_ARP)));
  ifreq name = {};
  std::strncpy(name.ifr_name, interface.c_str(), IFNAMSIZ - 1);
  sockaddr_ll local = {};
  local.sll_family = AF_PACKET;
  local.sll_protocol = htons(ETH_P_ARP);
  local.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
  std::uint8_t hardware[ETH_ALEN] = {};
  if (packets && ioctl(packets.get(), SIOCGIFHWADDR, &name) == 0 &&
      name.ifr_hwaddr.sa_family == ARPHRD_ETHER) {
    std::memcpy(hardware, name.ifr_hwaddr.sa_data, ETH_ALEN);
  } else {
    return Fact<Answers>::unknown(std::strerror(errno));
  }
  if (bind(packets.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0 ||
      !ask(packets, local, hardware, side.ownAddress) || !ask(packets, local, hardware, side.peerAddress)) {
    return Fact<Answers>::unknown(std::strerror(errno));
  }

  Answers answers;
  Deadline deadline(timeoutMs);
  pollfd waiting = {packets.get(), POLLIN, 0};
  while (deadline.leftMs(1) > 0 && poll(&waiting, 1, deadline.leftMs(timeoutMs)) > 0) {
    ether_arp reply = {};
    if (recv(packets.get(), &reply, sizeof reply, MSG_DONTWAIT) != sizeof reply) continue;
    char sender[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, reply.arp_spa, sender, sizeof sender);
    const bool isOwnEcho = std::memcmp(reply.arp_sha, hardware, ETH_ALEN) == 0;
    if (reply.arp_op != htons(ARPOP_REPLY) || isOwnEcho) continue;
    if (side.ownAddress == sender) note(answers.own, colons(reply.arp_sha));
    if (side.peerAddress == sender && answers.peer.empty()) deadline = Deadline(kLastWordMs);
    if (side.peerAddress == sender) note(answers.peer, colons(reply.arp_sha));
  }
  return answers;
}

}  // namespace dorve
