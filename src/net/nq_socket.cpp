// SPDX-License-Identifier: MIT
#include "dorve/net/nq_socket.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "dorve/util/sleep.h"

namespace dorve {

NqSocketException::NqSocketException(const std::string& message, int error)
    : std::runtime_error(message + ": " + std::strerror(error)), errorCode(error) {}

sockaddr_in makeAddress(const char* address, std::uint16_t port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_port = htons(port);
  inet_pton(AF_INET, address, &result.sin_addr);
  return result;
}

NqSocket::NqSocket(bool create) {
  if (!create) return;
  fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) throw NqSocketException("Failed to create TCP socket", errno);
}

NqSocket::NqSocket(int descriptor) : fd(descriptor) {
  if (fd < 0) throw NqSocketException("Invalid file descriptor provided", errno);
}

NqSocket::NqSocket(NqSocket&& other) noexcept {
  *this = std::move(other);
}

NqSocket& NqSocket::operator=(NqSocket&& other) noexcept {
  if (this == &other) return *this;
  close();
  timeoutSet = other.timeoutSet;
  timeoutMs = other.timeoutMs;
  interfaceSet = other.interfaceSet;
  interfaceName = other.interfaceName;
  reuseAddrSet = other.reuseAddrSet;
  reuseAddr = other.reuseAddr;
  fd = std::exchange(other.fd, -1);
  return *this;
}

NqSocket::~NqSocket() {
  close();
}

void NqSocket::close() noexcept {
  if (fd < 0) return;
  while (::close(fd) != 0 && errno == EINTR) {
  }
  fd = -1;
}

void NqSocket::setOption(int option, const void* value, unsigned long size, const std::string& failure) {
  if (::setsockopt(fd, SOL_SOCKET, option, value, static_cast<socklen_t>(size)) != 0) {
    throw NqSocketException(failure, errno);
  }
}

void NqSocket::setTimeout(unsigned long ms) {
  const timeval time{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>((ms % 1000) * 1000)};
  setOption(SO_RCVTIMEO, &time, sizeof time, "Failed to set receive timeout");
  setOption(SO_SNDTIMEO, &time, sizeof time, "Failed to set send timeout");
  timeoutSet = true;
  timeoutMs = ms;
}

void NqSocket::setReuseAddr(bool on) {
  const int value = on ? 1 : 0;
  setOption(SO_REUSEADDR, &value, sizeof value, "Failed to set SO_REUSEADDR");
  reuseAddrSet = true;
  reuseAddr = on;
}

void NqSocket::bindToInterface(const std::string& name) {
  setOption(SO_BINDTODEVICE, name.c_str(), name.size() + 1, "Failed to bind to interface " + name);
  interfaceSet = true;
  interfaceName = name;
}

int NqSocket::listen(int backlog) {
  const int result = ::listen(fd, backlog);
  if (result != 0) throw NqSocketException("Listen failed", errno);
  return result;
}

NqSocket NqSocket::accept() {
  sockaddr_in peer{};
  int client = -1;
  do {
    socklen_t size = sizeof peer;
    client = ::accept(fd, reinterpret_cast<sockaddr*>(&peer), &size);
  } while (client < 0 && errno == EINTR);
  if (client < 0) throw NqSocketException("Accept failed", errno);
  return NqSocket(client);
}

void NqSocket::sendAll(const void* data, unsigned long size) {
  const char* next = static_cast<const char*>(data);
  unsigned long remaining = size;
  while (remaining > 0) {
    const ssize_t sent = ::send(fd, next, remaining, MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) continue;
      throw NqSocketException("Send failed", errno);
    }
    if (sent == 0) throw NqSocketException("Send returned 0 - connection may be closed", 0);
    next += sent;
    remaining -= static_cast<unsigned long>(sent);
  }
}

void NqSocket::sendAll(const std::string& data) {
  sendAll(data.data(), data.size());
}

unsigned long NqSocket::receive(void* buffer, unsigned long size) {
  ssize_t received = -1;
  do {
    received = ::recv(fd, buffer, size, 0);
  } while (received < 0 && errno == EINTR);
  if (received >= 0) return static_cast<unsigned long>(received);
  throw NqSocketException(errno == EAGAIN ? "Receive timeout" : "Receive failed", errno);
}

int NqSocket::shutdown(int how) noexcept {
  return ::shutdown(fd, how);
}

void NqSocket::reapplyOptions() {
  if (timeoutSet) setTimeout(static_cast<unsigned long>(timeoutMs));
  if (reuseAddrSet) setReuseAddr(reuseAddr);
  if (interfaceSet) bindToInterface(interfaceName);
}

bool NqSocket::bind(const sockaddr_in& address, int retries, unsigned int delayMs) {
  repeatOnFreshSockets(::bind, address, retries, delayMs, "Failed to create socket for bind retry", "Bind");
  return true;
}

bool NqSocket::connect(const sockaddr_in& address, int retries, unsigned int delayMs) {
  repeatOnFreshSockets(::connect, address, retries, delayMs, "Failed to create socket for retry", "Connect");
  return true;
}

void NqSocket::repeatOnFreshSockets(AddressCall call, const sockaddr_in& address, int retries,
                                    unsigned int delayMs, const char* createFailure, const char* name) {
  const auto tryOnce = [&] {
    return call(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  };

  if (tryOnce()) return;
  int error = errno;
  int attempt = 1;
  for (; attempt != retries + 1; ++attempt) {
    close();
    fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) throw NqSocketException(createFailure, errno);
    try {
      reapplyOptions();
    } catch (...) {
      ::close(std::exchange(fd, -1));
      throw;
    }
    sleepMs(delayMs);
    if (tryOnce()) return;
    error = errno;
  }
  throw NqSocketException(std::string(name) + " failed after " + std::to_string(attempt) + " attempts",
                          error);
}

void NqSocket::initializeSignalHandling() {}

}  // namespace dorve
