// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include "test_access.h"

/// The largest number of bytes that one send() sends.
static std::size_t sendLimit = SIZE_MAX;

/// Replaces the function of the C library.
ssize_t send(int fd, const void* data, std::size_t size, int flags) {
  return syscall(SYS_sendto, fd, data, std::min(size, sendLimit), flags, nullptr, 0);
}

namespace dorve {
namespace {

using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

struct Socket : testing::Test {
  /// A socket on a free loopback port, which refuses connections until the socket listens.
  NqSocket bound{true};
  sockaddr_in address = makeAddress("127.0.0.1", 0);

  Socket() {
    bound.bind(address, 0, 0);
    socklen_t size = sizeof address;
    getsockname(TestAccess::descriptor(bound), reinterpret_cast<sockaddr*>(&address), &size);
  }
  ~Socket() override { sendLimit = SIZE_MAX; }
};

/// The text of the exception that a call throws.
template <typename Call>
std::string failure(Call call) {
  try {
    call();
    return "nothing was thrown";
  } catch (const NqSocketException& e) {
    EXPECT_TRUE(std::string(e.what()).ends_with(std::strerror(e.errorCode))) << e.what() << e.errorCode;
    return e.what();
  }
}

template <typename Value>
Value option(const NqSocket& socket, int name) {
  Value value{};
  socklen_t size = sizeof value;
  EXPECT_EQ(getsockopt(TestAccess::descriptor(socket), SOL_SOCKET, name, &value, &size), 0);
  return value;
}

TEST_F(Socket, FailureNamesItsCallAndTheReason) {
  NqSocket none(false);
  EXPECT_EQ(failure([] { NqSocket(-1); }).find("Invalid file descriptor provided: "), 0u);
  EXPECT_EQ(failure([&] { none.listen(1); }), "Listen failed: Bad file descriptor");
  EXPECT_EQ(failure([&] { bound.accept(); }), "Accept failed: Invalid argument");
  EXPECT_EQ(failure([&] { none.sendAll("x"); }), "Send failed: Bad file descriptor");
  EXPECT_EQ(failure([&] { none.receive(nullptr, 0); }), "Receive failed: Bad file descriptor");
  EXPECT_EQ(failure([&] { none.setTimeout(1); }), "Failed to set receive timeout: Bad file descriptor");
  EXPECT_EQ(failure([&] { none.setReuseAddr(true); }), "Failed to set SO_REUSEADDR: Bad file descriptor");
  EXPECT_EQ(failure([&] { bound.bindToInterface("no"); }), "Failed to bind to interface no: No such device");
  EXPECT_NO_THROW(none.sendAll(nullptr, 0));
}

TEST_F(Socket, MovesAndRetriesKeepTheOptionsAndCloseOldDescriptors) {
  NqSocket configured(true), socket(true);
  configured.setTimeout(19980);
  configured.setReuseAddr(true);
  configured.bindToInterface("lo");
  configured.bind(makeAddress("127.0.0.1", 0), 0, 0);
  const int first = TestAccess::descriptor(configured), replaced = TestAccess::descriptor(socket);
  NqSocket moved(std::move(configured));
  NqSocket& itself = socket = std::move(moved);
  itself = std::move(socket);
  EXPECT_EQ(TestAccess::descriptor(socket), first);
  EXPECT_EQ(TestAccess::descriptor(moved), -1);
  EXPECT_EQ(fcntl(replaced, F_GETFD), -1) << "the replaced descriptor is still open";

  // The first attempt fails because the socket is already bound. The second uses a new socket and fails
  // because `bound` holds the port.
  EXPECT_EQ(failure([&] { socket.bind(address, 1, 0); }),
            "Bind failed after 2 attempts: Address already in use");
  EXPECT_EQ(TestAccess::descriptor(socket), first)
      << "the old descriptor is still open, so the new socket did not get its number";
  EXPECT_EQ(option<int>(socket, SO_REUSEADDR), 1);
  EXPECT_STREQ((option<std::array<char, 16>>(socket, SO_BINDTODEVICE).data()), "lo");
  for (const int name : {SO_RCVTIMEO, SO_SNDTIMEO}) {
    EXPECT_EQ(option<timeval>(socket, name).tv_sec, 19) << name;
    EXPECT_EQ(option<timeval>(socket, name).tv_usec, 980'000) << name;
  }
}

struct Connection : Socket {
  NqSocket client{true};
  NqSocket server;
  char byte = 0;

  Connection() {
    bound.listen(1);
    client.connect(address, 0, 0);
    server = bound.accept();
  }
};

TEST_F(Connection, SendsTheRestOfAPartialSend) {
  client.setTimeout(1000);  // so that a send that never ends fails
  sendLimit = 3;
  client.sendAll("0123456789");
  char received[11] = {};
  recv(TestAccess::descriptor(server), received, 10, MSG_WAITALL);
  EXPECT_STREQ(received, "0123456789");
  sendLimit = 0;
  EXPECT_EQ(failure([&] { client.sendAll("x"); }), "Send returned 0 - connection may be closed: Success");
}

TEST_F(Connection, TellsTheEndFromATimeoutAndABrokenPipe) {
  signal(SIGPIPE, SIG_DFL);  // then a SIGPIPE would end the test
  client.setTimeout(60);
  const auto start = Clock::now();
  EXPECT_EQ(failure([&] { client.receive(&byte, 1); }), "Receive timeout: Resource temporarily unavailable");
  EXPECT_GE(Clock::now() - start, Ms(50));
  client.shutdown(SHUT_WR);
  EXPECT_EQ(failure([&] { client.sendAll("x"); }), "Send failed: Broken pipe");
  auto closing = std::make_unique<const NqSocket>(std::move(server));
  closing.reset();
  EXPECT_EQ(client.receive(&byte, 1), 0u) << "the peer has closed";
}

}  // namespace
}  // namespace dorve
