// SPDX-License-Identifier: MIT
#ifndef DORVE_NET_NQ_SOCKET_H_
#define DORVE_NET_NQ_SOCKET_H_

#include <netinet/in.h>

#include <cstdint>
#include <stdexcept>
#include <string>

namespace dorve {

/// The exception of the socket operations. Its text is `message`, ": " and strerror(`error`).
class NqSocketException : public std::runtime_error {
 public:
  NqSocketException(const std::string& message, int error);

  std::int32_t errorCode;  ///< the errno of the failed call, or 0 if no call failed
};

/// The socket address of an IPv4 `address` in dotted decimal and a `port` in host byte order.
/// An `address` of any other form gives 0.0.0.0.
sockaddr_in makeAddress(const char* address, std::uint16_t port);

/// Owns the descriptor of one IPv4 TCP socket; movable, not copyable. An operation that fails throws an
/// NqSocketException with the errno of the failed call and the message that is documented at the operation.
/// `close`, `shutdown` and the moves throw nothing.
///
/// The socket remembers the options that are set on it. `bind` and `connect` make each attempt after the
/// first on a new descriptor with the same options.
class NqSocket {
 public:
  /// Owns no descriptor.
  NqSocket() = default;

  /// Creates a TCP socket if `create` is true. Throws "Failed to create TCP socket".
  explicit NqSocket(bool create);

  /// Takes ownership of `descriptor` and remembers no options for it.
  /// Throws "Invalid file descriptor provided", with the current errno, if `descriptor` is negative.
  explicit NqSocket(int descriptor);

  /// Both move the descriptor and copy the remembered options: a moved-from socket still has them.
  NqSocket(NqSocket&& other) noexcept;
  NqSocket& operator=(NqSocket&& other) noexcept;
  NqSocket(const NqSocket&) = delete;
  NqSocket& operator=(const NqSocket&) = delete;
  ~NqSocket();

  /// Closes the descriptor, if there is one. The remembered options stay.
  void close() noexcept;

  /// Sets the timeout in milliseconds of each accept, connect, receive and send; 0 means no timeout.
  /// Throws "Failed to set receive timeout" or "Failed to set send timeout".
  void setTimeout(unsigned long ms);

  /// Sets SO_REUSEADDR. Throws "Failed to set SO_REUSEADDR".
  void setReuseAddr(bool on);

  /// Sets SO_BINDTODEVICE: the socket sends and receives only through the interface `name`.
  /// Throws "Failed to bind to interface NAME".
  void bindToInterface(const std::string& name);

  /// Calls listen(2) and returns its result, which is 0. Throws "Listen failed".
  int listen(int backlog);

  /// Waits for the next client, at most for the timeout.
  /// Returns its connection as a socket without remembered options. Throws "Accept failed".
  NqSocket accept();

  /// Sends all `size` bytes; 0 bytes need no system call. A broken connection raises no SIGPIPE.
  /// Throws "Send failed", or "Send returned 0 - connection may be closed" with error code 0.
  void sendAll(const void* data, unsigned long size);
  void sendAll(const std::string& data);

  /// Reads once, at most `size` bytes. Returns the number of bytes, or 0 if the peer closed the connection.
  /// Throws "Receive timeout" if the timeout passes first, "Receive failed" for any other error.
  unsigned long receive(void* buffer, unsigned long size);

  /// Calls shutdown(2) and returns its result.
  int shutdown(int how) noexcept;

  /// Sets the remembered options (timeout, address reuse, interface) on the current descriptor.
  /// Throws what the setters of these options throw.
  void reapplyOptions();

  /// Call bind(2) or connect(2) at most `retries` + 1 times, `delayMs` milliseconds apart, and return true
  /// once a call succeeds. With N for `retries` + 1, they throw:
  /// - "Bind failed after N attempts" or "Connect failed after N attempts"
  /// - "Failed to create socket for bind retry" or "Failed to create socket for retry"
  /// - what `reapplyOptions` throws
  bool bind(const sockaddr_in& address, int retries, unsigned int delayMs);
  bool connect(const sockaddr_in& address, int retries, unsigned int delayMs);

  /// Does nothing, because `sendAll` raises no SIGPIPE.
  void initializeSignalHandling();

 private:
  friend struct TestAccess;

  using AddressCall = int (*)(int, const sockaddr*, socklen_t);

  void repeatOnFreshSockets(AddressCall call, const sockaddr_in& address, int retries, unsigned int delayMs,
                            const char* createFailure, const char* name);
  void setOption(int option, const void* value, unsigned long size, const std::string& failure);

  bool timeoutSet = false;
  std::uint64_t timeoutMs = 0;
  bool interfaceSet = false;
  std::string interfaceName;
  bool reuseAddrSet = false;
  bool reuseAddr = false;
  std::int32_t fd = -1;
};

}  // namespace dorve

#endif  // DORVE_NET_NQ_SOCKET_H_
