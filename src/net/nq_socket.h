// SPDX-License-Identifier: MIT
#ifndef DORVE_NET_NQ_SOCKET_H_
#define DORVE_NET_NQ_SOCKET_H_

#include <netinet/in.h>

#include <cstdint>
#include <stdexcept>
#include <string>

namespace dorve {

/// The one exception of the system. Its text is `message`, ": " and strerror(`error`).
class NqSocketException : public std::runtime_error {
 public:
  NqSocketException(const std::string& message, int error);

  std::int32_t errorCode;  ///< the errno of the failing call, or 0
};

/// An IPv4 address and port (host order) as the socket calls want it. An address that is not dotted decimal
/// gives 0.0.0.0.
sockaddr_in makeAddress(const char* address, std::uint16_t port);

/// Owns one IPv4 TCP descriptor; movable, not copyable. Every failure but those of `close`, `shutdown` and
/// the moves is thrown as an NqSocketException with the errno of the failing call.
///
/// The options set on it are remembered, so that `bind` and `connect` can throw away a descriptor on which an
/// attempt failed and repeat the attempt on a fresh one that is set up alike.
class NqSocket {
 public:
  /// No descriptor.
  NqSocket() = default;

  /// A new TCP socket when `create` is true. Throws "Failed to create TCP socket".
  explicit NqSocket(bool create);

  /// Takes over a descriptor, with no remembered options. Throws "Invalid file descriptor provided" below 0.
  explicit NqSocket(int descriptor);

  /// The descriptor changes hands; the options are copied, so a moved-from socket still remembers them.
  NqSocket(NqSocket&& other) noexcept;
  NqSocket& operator=(NqSocket&& other) noexcept;
  NqSocket(const NqSocket&) = delete;
  NqSocket& operator=(const NqSocket&) = delete;
  ~NqSocket();

  /// Closes the descriptor, if there is one; the remembered options stay.
  void close() noexcept;

  /// Receive and send time-out in milliseconds; 0 waits without end. Throws "Failed to set receive timeout"
  /// or "Failed to set send timeout".
  void setTimeout(unsigned long ms);

  /// SO_REUSEADDR. Throws "Failed to set SO_REUSEADDR".
  void setReuseAddr(bool on);

  /// SO_BINDTODEVICE: all traffic goes through the interface `name`. Throws "Failed to bind to interface
  /// NAME".
  void bindToInterface(const std::string& name);

  /// listen(2), its result. Throws "Listen failed".
  int listen(int backlog);

  /// The next client, as a socket without remembered options; waits as long as the time-out lets it. Throws
  /// "Accept failed".
  NqSocket accept();

  /// Sends all `size` bytes; none at all makes no system call. Throws "Send failed", or "Send returned 0 -
  /// connection may be closed" with error 0. A broken connection raises no SIGPIPE.
  void sendAll(const void* data, unsigned long size);
  void sendAll(const std::string& data);

  /// One read of at most `size` bytes: the number read, or 0 once the peer has closed. Throws "Receive
  /// timeout" when the time-out passed first, "Receive failed" otherwise.
  unsigned long receive(void* buffer, unsigned long size);

  /// shutdown(2), its result; never throws.
  int shutdown(int how) noexcept;

  /// Puts the remembered options on the current descriptor: time-out, address reuse, interface. Throws what
  /// their setters throw.
  void reapplyOptions();

  /// bind(2) and connect(2), tried `retries` + 1 times in all, `delayMs` milliseconds apart. Both return true
  /// or throw "Bind failed after N attempts" or "Connect failed after N attempts", with N counting all
  /// attempts; also what `reapplyOptions` throws, and "Failed to create socket for bind retry" or "Failed to
  /// create socket for retry".
  bool bind(const sockaddr_in& address, int retries, unsigned int delayMs);
  bool connect(const sockaddr_in& address, int retries, unsigned int delayMs);

  /// Changes no signal disposition; `sendAll` keeps SIGPIPE away by itself.
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
