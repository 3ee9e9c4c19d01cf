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

/// A process on this device. `name` is the name of the process in /proc/PID/comm, at most 15 bytes.
struct ProcessInfo {
  pid_t pid = -1;
  std::string name;
};

/// A TCP socket that listens on this device.
struct Listener {
  std::uint16_t port;
  std::string inode;  ///< inode number of the socket
  std::string scope;  ///< local address in hexadecimal, as in /proc/net/tcp and /proc/net/tcp6
};

/// All listening TCP sockets; no value if /proc/net/tcp can't be read.
std::optional<std::vector<Listener>> listListeners();

/// Returns whether a listener accepts connections to `address` (dotted decimal).
/// A listener for all IPv6 addresses may accept IPv4 or not, so its port is probed.
bool covers(const Listener& listener, const std::string& address);

/// The first listener that accepts connections to an address and port; null if there is none.
const Listener* findListener(const std::vector<Listener>& listeners, const std::string& address,
                             std::uint16_t port);

/// The process that holds a listener's socket; no value if this user may not see it.
std::optional<ProcessInfo> findOwner(const Listener& listener);

/// All processes named `name`; no value if /proc can't be read.
std::optional<std::vector<ProcessInfo>> findProcesses(std::string_view name);

/// How a TCP port of another device answers a probe.
enum class PortState : std::uint8_t {
  OPEN,
  REFUSED,       ///< answers with a reset: no process listens, or a firewall rejects
  REJECTED,      ///< the device or a firewall answers with ICMP
  SILENT,        ///< no answer, but the kernel knows the device's hardware address
  NO_NEIGHBOUR,  ///< no answer, and no device on the link has the address
  NO_ROUTE,      ///< this device has no route to the address
};

/// Probes ports of one IPv4 address at the same time, for at most `timeoutMs` milliseconds.
/// A probe never completes the handshake. Otherwise a server that serves only one client
/// would mistake the probe for its client.
/// Returns the states in the order of `ports`.
std::vector<PortState> probePorts(const std::string& address, const std::vector<std::uint16_t>& ports,
                                  int timeoutMs);

/// The source address of packets to `address`; empty if there is no route.
std::string sourceAddressFor(const std::string& address);

}  // namespace dorve

#endif  // DORVE_DOCTOR_PORTS_H_
