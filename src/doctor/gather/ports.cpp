// SPDX-License-Identifier: MIT
// <linux/errqueue.h> needs its timespec.
#include <ctime>

#include <linux/errqueue.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "dorve/gather/subjects.h"
#include "dorve/net/endpoints.h"
#include "dorve/net/nq_socket.h"

namespace dorve {
namespace {

constexpr int kOwnAddressMs = 300;

/// Keeps the packets of a socket on one interface.
bool bindTo(const Descriptor& socket, const std::string& interface) {
  return setsockopt(socket.get(), SOL_SOCKET, SO_BINDTODEVICE, interface.c_str(),
                    static_cast<socklen_t>(interface.size())) == 0;
}

/// Makes a socket send from an address of this device. Fails if the address is not this device's, so that a
/// connection to the same address can't leave it.
bool bindToOwn(const Descriptor& socket, const std::string& address) {
  const sockaddr_in own = makeAddress(address.c_str(), 0);
  return bind(socket.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) == 0;
}

/// A TCP connection attempt that never completes the handshake.
class Probe {
 public:
  /// All packets leave through `interface`. If it is empty, `address` must be this device's own.
  Probe(const std::string& address, std::uint16_t port, const std::string& interface)
      : fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    // Without TCP_QUICKACK, the kernel delays the last packet of the handshake to send it with data.
    // A close with a linger time of 0 then sends a reset instead.
    const int off = 0;
    setsockopt(fd.get(), IPPROTO_TCP, TCP_QUICKACK, &off, sizeof off);
    const linger abort = {1, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    if (interface.empty() ? !bindToOwn(fd, address) : !bindTo(fd, interface)) {
      error = EADDRNOTAVAIL;
      return;
    }
    const sockaddr_in peer = makeAddress(address.c_str(), port);
    error = connect(fd.get(), reinterpret_cast<const sockaddr*>(&peer), sizeof peer) == 0 ? 0 : errno;
  }

  bool pending() const { return error == EINPROGRESS; }
  pollfd waiting() const { return {pending() ? fd.get() : -1, POLLOUT, 0}; }

  void readResult() {
    socklen_t size = sizeof error;
    getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    // A closed port answers with a reset, a firewall perhaps with ICMP. Both answers give this error.
    if (error == ECONNREFUSED && isFromIcmp()) error = EHOSTUNREACH;
    isAnswer = error != EHOSTUNREACH || isFromIcmp();
    fd.close();
  }

  PortState state() const {
    switch (error) {
      case 0:
        return PortState::OPEN;
      case ECONNREFUSED:
      case ECONNRESET:
        return PortState::REFUSED;
      case EINPROGRESS:
      case ETIMEDOUT:
        return PortState::SILENT;
      case EHOSTUNREACH:
        return isAnswer ? PortState::REJECTED : PortState::SILENT;
      default:
        return isAnswer ? PortState::REJECTED : PortState::NO_ROUTE;
    }
  }

 private:
  /// The kernel queues the ICMP errors of a connection attempt even without the option IP_RECVERR.
  bool isFromIcmp() {
    if (fromIcmp) return true;
    alignas(cmsghdr) char control[512];
    char data[64];
    iovec part = {data, sizeof data};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    if (recvmsg(fd.get(), &message, MSG_ERRQUEUE) < 0) return false;
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (header == nullptr || header->cmsg_level != IPPROTO_IP || header->cmsg_type != IP_RECVERR)
      return false;
    sock_extended_err details = {};
    std::memcpy(&details, CMSG_DATA(header), sizeof details);
    fromIcmp = details.ee_origin == SO_EE_ORIGIN_ICMP;
    return fromIcmp;
  }

  Descriptor fd;
  int error = 0;
  bool isAnswer = false;  ///< the error came over the network, not from this device
  bool fromIcmp = false;
};

std::vector<PortState> probe(const std::string& address, const std::vector<std::uint16_t>& ports,
                             const std::string& interface, int timeoutMs) {
  const Deadline deadline(timeoutMs);
  std::vector<Probe> probes;
  probes.reserve(ports.size());
  for (const std::uint16_t port : ports) probes.emplace_back(address, port, interface);
  while (true) {
    std::vector<pollfd> waiting;
    bool pending = false;
    for (const Probe& each : probes) {
      waiting.push_back(each.waiting());
      pending |= each.pending();
    }
    if (!pending || poll(waiting.data(), waiting.size(), deadline.leftMs(timeoutMs)) == 0) break;
    for (std::size_t i = 0; i < probes.size(); ++i) {
      if (waiting[i].revents != 0) probes[i].readResult();
    }
  }
  std::vector<PortState> states;
  states.reserve(probes.size());
  for (const Probe& each : probes) states.push_back(each.state());
  return states;
}

}  // namespace

Peer gatherPeer(const Side& side, const std::string& interface, int timeoutMs) {
  const std::vector<PortState> states = probe(side.peerAddress, {kSshPort, kPort}, interface, timeoutMs);
  return {states[0], states[1]};
}

bool greetsAsSsh(const std::string& address) {
  const Descriptor connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval timeout = {0, kOwnAddressMs * 1000L};
  setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  setsockopt(connection.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  const sockaddr_in peer = makeAddress(address.c_str(), kSshPort);
  char greeting[4] = {};
  return bindToOwn(connection, address) &&
         connect(connection.get(), reinterpret_cast<const sockaddr*>(&peer), sizeof peer) == 0 &&
         recv(connection.get(), greeting, sizeof greeting, MSG_WAITALL) == sizeof greeting &&
         std::memcmp(greeting, "SSH-", sizeof greeting) == 0;
}

bool acceptsConnections(const std::string& address, std::uint16_t port) {
  return probe(address, {port}, "", kOwnAddressMs).front() == PortState::OPEN;
}

}  // namespace dorve
