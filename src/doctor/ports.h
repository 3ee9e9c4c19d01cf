// SPDX-License-Identifier: MIT
#ifndef DORVE_DOCTOR_PORTS_H_
#define DORVE_DOCTOR_PORTS_H_

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace dorve {

constexpr std::uint16_t kSshPort = 22;

/// A process of this host. The name is the kernel's: at most 15 characters.
struct ProcessInfo {
  pid_t pid = -1;
  std::string name;
};

/// A TCP socket that listens on this host.
struct Listener {
  std::uint16_t port;
  std::string inode;  ///< of the socket
  std::string scope;  ///< the address that it listens on, as /proc/net/tcp and tcp6 write it
};

/// All listening TCP sockets; nothing if /proc does not tell.
std::optional<std::vector<Listener>> listListeners();

/// Whether the listener takes connections to `address` (dotted decimal). One for every IPv6 address may take
/// those for IPv4 or not, so a connection is probed.
bool covers(const Listener& listener, const std::string& address);

/// The listener that takes connections to the address and port; null if there is none.
const Listener* findListener(const std::vector<Listener>& listeners, const std::string& address,
                             std::uint16_t port);

/// The process that holds the listener's socket, if this user may see it.
std::optional<ProcessInfo> findOwner(const Listener& listener);

/// All processes of that name; nothing if /proc does not tell.
std::optional<std::vector<ProcessInfo>> findProcesses(std::string_view name);

/// How a TCP port of another device answers.
enum class PortState : std::uint8_t {
  OPEN,
  REFUSED,       ///< a reset came back: nobody listens, or a firewall rejects
  REJECTED,      ///< the device, or a firewall there, answered that it is unreachable
  SILENT,        ///< the device is on the link, the port did not answer
  NO_NEIGHBOUR,  ///< nobody on the link answers for the address
  NO_ROUTE,      ///< this host has no way to the address
};

/// Probes ports of one IPv4 address at the same time. No connection comes about: an open port is left before
/// the last packet of the handshake, so that a server that accepts one client only does not take the probe
/// for it. The states are in the order of the ports.
std::vector<PortState> probePorts(const std::string& address, const std::vector<std::uint16_t>& ports,
                                  int timeoutMs);

/// The own address that packets to `address` leave with; empty if there is no route.
std::string sourceAddressFor(const std::string& address);

}  // namespace dorve

#endif  // DORVE_DOCTOR_PORTS_H_
