// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <cstring>
#include <memory>
#include <thread>

#include "dorve/util/sleep.h"
#include "test_access.h"

namespace {

/// What the kernel lets through while one test runs.
struct Kernel {
  int options = INT_MAX;            ///< setsockopt calls before one fails with EPERM
  std::size_t sendSize = SIZE_MAX;  ///< bytes that one send takes at most
  int interruptions = 0;            ///< of sends, before one goes through
} kernel;

}  // namespace

// These stand in for the functions of the C library.

int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept {
  if (kernel.options-- > 0) return static_cast<int>(syscall(SYS_setsockopt, fd, level, name, value, size));
  errno = EPERM;
  return -1;
}

ssize_t send(int fd, const void* data, std::size_t size, int flags) {
  if (kernel.interruptions-- > 0) {
    errno = EINTR;
    return -1;
  }
  return syscall(SYS_sendto, fd, data, std::min(size, kernel.sendSize), flags, nullptr, 0);
}

namespace dorve {
namespace {

using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

struct Socket : testing::Test {
  /// Bound to a loopback port of its own, which refuses connections until it listens.
  NqSocket bound{true};
  sockaddr_in address = makeAddress("127.0.0.1", 0);

  Socket() {
    bound.bind(address, 0, 0);
    socklen_t size = sizeof address;
    getsockname(TestAccess::descriptor(bound), reinterpret_cast<sockaddr*>(&address), &size);
  }
  ~Socket() override { kernel = {}; }
};

/// What a failing call throws.
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
  NqSocket none;
  EXPECT_EQ(failure([] { NqSocket(-1); }).find("Invalid file descriptor provided: "), 0u);
  EXPECT_EQ(failure([&] { none.listen(1); }), "Listen failed: Bad file descriptor");
  EXPECT_EQ(failure([&] { bound.accept(); }), "Accept failed: Invalid argument");
  EXPECT_EQ(failure([&] { none.sendAll("x"); }), "Send failed: Bad file descriptor");
  EXPECT_EQ(failure([&] { none.receive(nullptr, 0); }), "Receive failed: Bad file descriptor");
  EXPECT_EQ(failure([&] { bound.bindToInterface("no"); }), "Failed to bind to interface no: No such device");
  EXPECT_NO_THROW(none.sendAll(nullptr, 0));
}

TEST_F(Socket, PausesBetweenAttemptsOnly) {
  const auto start = Clock::now();
  EXPECT_EQ(failure([&] { NqSocket(true).connect(address, 0, 5000); }),
            "Connect failed after 1 attempts: Connection refused");
  EXPECT_LT(Clock::now() - start, Ms(4000));
  EXPECT_EQ(failure([&] { NqSocket(true).connect(address, 2, 60); }),
            "Connect failed after 3 attempts: Connection refused");
  EXPECT_GE(Clock::now() - start, Ms(120));
}

TEST_F(Socket, NamesTheErrorOfTheLastAttempt) {
  // A bound socket can't be bound again; the fresh one of the second attempt finds its port taken.
  NqSocket other(true);
  EXPECT_TRUE(other.bind(makeAddress("127.0.0.1", 0), 0, 0));
  EXPECT_EQ(failure([&] { other.bind(address, 1, 0); }),
            "Bind failed after 2 attempts: Address already in use");
}

TEST_F(Socket, MovesAndRetriesKeepTheOptionsAndCloseOldDescriptors) {
  NqSocket configured(true), socket(true);
  configured.setTimeout(1980);
  configured.setReuseAddr(true);
  configured.bindToInterface("lo");
  const int on = 1, first = TestAccess::descriptor(configured), replaced = TestAccess::descriptor(socket);
  setsockopt(first, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  NqSocket moved(std::move(configured));
  NqSocket& itself = socket = std::move(moved);
  itself = std::move(socket);
  EXPECT_EQ(TestAccess::descriptor(socket), first);
  EXPECT_EQ(TestAccess::descriptor(moved), -1);
  EXPECT_EQ(fcntl(replaced, F_GETFD), -1) << "the replaced descriptor is still open";

  std::jthread late([&] {
    sleepMs(60);
    bound.listen(1);
  });
  EXPECT_TRUE(socket.connect(address, 100, 20));
  EXPECT_EQ(TestAccess::descriptor(socket), first) << "the lowest free one, unless the first is still open";
  EXPECT_EQ(option<int>(socket, SO_KEEPALIVE), 0) << "set on the first descriptor only";
  EXPECT_EQ(option<int>(socket, SO_REUSEADDR), 1);
  EXPECT_STREQ((option<std::array<char, 16>>(socket, SO_BINDTODEVICE).data()), "lo");
  for (const int name : {SO_RCVTIMEO, SO_SNDTIMEO}) {
    EXPECT_EQ(option<timeval>(socket, name).tv_sec, 1) << name;
    EXPECT_EQ(option<timeval>(socket, name).tv_usec, 980'000) << name;
  }
}

TEST_F(Socket, OptionThatFailsEndsTheRetries) {
  const char* const failing[] = {"set receive timeout", "set send timeout", "set SO_REUSEADDR",
                                 "bind to interface lo"};
  for (int number = 0; number < 4; ++number) {
    NqSocket socket(true);
    socket.setTimeout(1000);
    socket.setReuseAddr(true);
    socket.bindToInterface("lo");
    kernel.options = number;
    EXPECT_EQ(failure([&] { socket.connect(address, 3, 1); }),
              std::string("Failed to ") + failing[number] + ": Operation not permitted");
    EXPECT_EQ(TestAccess::descriptor(socket), -1) << "still open";
    kernel = {};
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
  kernel = {.sendSize = 3, .interruptions = 1};
  client.sendAll("0123456789");
  char received[11] = {};
  recv(TestAccess::descriptor(server), received, 10, MSG_WAITALL);
  EXPECT_STREQ(received, "0123456789");
  kernel.sendSize = 0;
  EXPECT_EQ(failure([&] { client.sendAll("x"); }), "Send returned 0 - connection may be closed: Success");
}

TEST_F(Connection, TellsTheEndFromATimeoutAndABrokenPipe) {
  signal(SIGPIPE, SIG_DFL);  // so that one would end the test
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

TEST_F(Connection, SignalsEndNoWait) {
  struct sigaction action = {};
  action.sa_handler = [](int) {};  // and without SA_RESTART
  sigaction(SIGALRM, &action, nullptr);
  const itimerval often{{0, 5000}, {0, 5000}}, never{};
  setitimer(ITIMER_REAL, &often, nullptr);
  const auto start = Clock::now();
  std::jthread peer([this] {
    std::this_thread::sleep_for(Ms(60));
    client.sendAll("x");
    std::this_thread::sleep_for(Ms(60));
    NqSocket(true).connect(address, 0, 0);
  });
  EXPECT_EQ(server.receive(&byte, 1), 1u);
  EXPECT_NO_THROW(bound.accept());
  sleepMs(60);
  EXPECT_GE(Clock::now() - start, Ms(180));
  setitimer(ITIMER_REAL, &never, nullptr);
}

}  // namespace
}  // namespace dorve
