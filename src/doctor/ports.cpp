// SPDX-License-Identifier: MIT
#include "dorve/doctor/ports.h"

#include <arpa/inet.h>
#include <linux/errqueue.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include "dorve/doctor/text.h"

namespace dorve {
namespace {

constexpr std::string_view kListening = "0A";                     // the state TCP_LISTEN in /proc/net/tcp
constexpr std::string_view kMapped = "0000000000000000FFFF0000";  // the prefix of IPv4 in /proc/net/tcp6

sockaddr_in endpoint(const std::string& address, std::uint16_t port) {
  sockaddr_in result = {};
  result.sin_family = AF_INET;
  result.sin_port = htons(port);
  inet_pton(AF_INET, address.c_str(), &result.sin_addr);
  return result;
}

/// Adds the listeners in a table of /proc/net. The first fields of a line are number, local ADDRESS:PORT,
/// remote ADDRESS:PORT and state; the tenth is the inode. Returns false if the table can't be read.
bool readTable(const char* path, std::vector<Listener>& listeners) {
  std::ifstream table(path);
  if (!table) return false;
  for (std::string line; std::getline(table, line);) {
    const std::vector<std::string> fields = split(line, " \t");
    if (fields.size() < 10 || fields[3] != kListening) continue;
    const std::vector<std::string> local = split(fields[1], ":");
    std::uint16_t port = 0;
    if (local.size() != 2) continue;
    std::from_chars(local[1].data(), local[1].data() + local[1].size(), port, 16);
    listeners.push_back({port, fields[9], local[0]});
  }
  return true;
}

/// The entries of a /proc directory whose names are numbers.
/// Empty if the directory has vanished or belongs to another user.
std::vector<std::filesystem::path> numberedEntries(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> entries;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename();
    if (name.find_first_not_of("0123456789") == std::string::npos) entries.push_back(entry->path());
  }
  return entries;
}

ProcessInfo describeProcess(const std::filesystem::path& folder) {
  ProcessInfo process;
  process.pid = std::stoi(folder.filename());
  std::ifstream comm(folder / "comm");
  std::getline(comm, process.name);
  return process;
}

/// A TCP connection attempt that never completes the handshake. The destructor closes the socket.
class Probe {
 public:
  Probe(const std::string& address, std::uint16_t port)
      : fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    if (fd < 0) {
      error = errno;
      return;
    }
    // Without TCP_QUICKACK, the kernel delays the last packet of the handshake to send it with data.
    // A close with a linger time of 0 then sends a reset instead.
    const int off = 0;
    setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &off, sizeof off);
    const linger abort = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    const sockaddr_in peer = endpoint(address, port);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) error = errno;
    if (error != EINPROGRESS) finish();
  }
  Probe(const Probe&) = delete;
  Probe& operator=(const Probe&) = delete;
  ~Probe() { finish(); }

  int descriptor() const { return fd; }

  /// 0 if the port is open, EINPROGRESS while it has not answered, else the errno of the failure.
  int result() const { return error; }

  void readResult() {
    socklen_t size = sizeof error;
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
    // A closed port answers with a reset, a firewall perhaps with ICMP. Both answers give this error.
    if (error == ECONNREFUSED && isFromIcmp()) error = EHOSTUNREACH;
    finish();
  }

 private:
  /// The kernel queues the ICMP errors of a connection attempt even without the option IP_RECVERR.
  bool isFromIcmp() const {
    alignas(cmsghdr) char control[512];
    char data[64];
    iovec part = {data, sizeof data};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    if (recvmsg(fd, &message, MSG_ERRQUEUE) < 0) return false;
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (header == nullptr || header->cmsg_level != IPPROTO_IP || header->cmsg_type != IP_RECVERR)
      return false;
    sock_extended_err details = {};
    std::memcpy(&details, CMSG_DATA(header), sizeof details);
    return details.ee_origin == SO_EE_ORIGIN_ICMP;
  }

  void finish() {
    if (fd >= 0) close(fd);
    fd = -1;
  }

  int fd;
  int error = 0;
};

/// Returns whether the kernel knows the hardware address of a neighbour; true if /proc/net/arp can't be read.
bool isResolved(const std::string& address) {
  std::ifstream table("/proc/net/arp");
  if (!table) return true;
  for (std::string line; std::getline(table, line);) {
    const std::vector<std::string> fields = split(line, " ");
    if (fields.size() > 2 && fields[0] == address) return fields[2] != "0x0";
  }
  return false;
}

PortState stateOf(int error, const std::string& address) {
  switch (error) {
    case 0:
      return PortState::OPEN;
    case ECONNREFUSED:
    case ECONNRESET:
      return PortState::REFUSED;
    case ENETUNREACH:
    case EINVAL:
    case EADDRNOTAVAIL:
      return PortState::NO_ROUTE;
    case EINPROGRESS:
    case ETIMEDOUT:
      return isResolved(address) ? PortState::SILENT : PortState::NO_NEIGHBOUR;
    default:
      return isResolved(address) ? PortState::REJECTED : PortState::NO_NEIGHBOUR;
  }
}

}  // namespace

std::optional<std::vector<Listener>> listListeners() {
  std::vector<Listener> listeners;
  if (!readTable("/proc/net/tcp", listeners)) return std::nullopt;
  readTable("/proc/net/tcp6", listeners);  // this table is missing without IPv6
  return listeners;
}

bool covers(const Listener& listener, const std::string& address) {
  constexpr int kOwnAddressMs = 200;
  if (listener.scope.find_first_not_of('0') == std::string::npos) {
    const bool isIpv4 = listener.scope.size() == 8;
    return isIpv4 || probePorts(address, {listener.port}, kOwnAddressMs).front() != PortState::REFUSED;
  }
  in_addr binary = {};
  inet_pton(AF_INET, address.c_str(), &binary);
  char hex[9];
  std::snprintf(hex, sizeof hex, "%08X", binary.s_addr);
  return listener.scope == hex || listener.scope == std::string(kMapped) + hex;
}

const Listener* findListener(const std::vector<Listener>& listeners, const std::string& address,
                             std::uint16_t port) {
  const auto found = std::ranges::find_if(listeners, [&](const Listener& listener) {
    return listener.port == port && covers(listener, address);
  });
  return found == listeners.end() ? nullptr : &*found;
}

std::optional<ProcessInfo> findOwner(const Listener& listener) {
  const std::string wanted = "socket:[" + listener.inode + "]";
  for (const std::filesystem::path& process : numberedEntries("/proc")) {
    for (const std::filesystem::path& descriptor : numberedEntries(process / "fd")) {
      std::error_code error;
      if (std::filesystem::read_symlink(descriptor, error) == wanted) return describeProcess(process);
    }
  }
  return std::nullopt;
}

std::optional<std::vector<ProcessInfo>> findProcesses(std::string_view name) {
  const std::vector<std::filesystem::path> folders = numberedEntries("/proc");
  if (folders.empty()) return std::nullopt;
  std::vector<ProcessInfo> found;
  for (const std::filesystem::path& folder : folders) {
    ProcessInfo process = describeProcess(folder);
    if (process.name == name) found.push_back(std::move(process));
  }
  return found;
}

std::vector<PortState> probePorts(const std::string& address, const std::vector<std::uint16_t>& ports,
                                  int timeoutMs) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  std::vector<std::unique_ptr<Probe>> probes;
  probes.reserve(ports.size());
  for (const std::uint16_t port : ports) probes.push_back(std::make_unique<Probe>(address, port));
  while (true) {
    std::vector<pollfd> waiting;
    for (const auto& probe : probes) {
      if (probe->result() == EINPROGRESS) waiting.push_back({probe->descriptor(), POLLOUT, 0});
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (waiting.empty() || left <= 0 || poll(waiting.data(), waiting.size(), static_cast<int>(left)) == 0)
      break;
    for (const pollfd& ready : waiting) {
      if (ready.revents == 0) continue;
      for (const auto& probe : probes) {
        if (probe->descriptor() == ready.fd) probe->readResult();
      }
    }
  }
  std::vector<PortState> states;
  states.reserve(probes.size());
  for (const auto& probe : probes) states.push_back(stateOf(probe->result(), address));
  return states;
}

std::string sourceAddressFor(const std::string& address) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return "";
  const sockaddr_in peer = endpoint(address, 9);  // any port: connecting a datagram socket sends nothing
  sockaddr_in own = {};
  socklen_t size = sizeof own;
  const bool routed = connect(fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) == 0 &&
                      getsockname(fd, reinterpret_cast<sockaddr*>(&own), &size) == 0;
  close(fd);
  char text[INET_ADDRSTRLEN] = "";
  if (routed) inet_ntop(AF_INET, &own.sin_addr, text, sizeof text);
  return text;
}

}  // namespace dorve
