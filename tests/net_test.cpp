// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <array>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>

#include "dorve/util/sleep.h"
#include "test_access.h"

namespace dorve {
namespace {

/// Bound to a loopback port of its own, which refuses connections until it listens.
struct Port {
  NqSocket socket{true};
  sockaddr_in address = makeAddress("127.0.0.1", 0);

  Port() {
    socket.bind(address, 0, 0);
    socklen_t size = sizeof address;
    getsockname(TestAccess::descriptor(socket), reinterpret_cast<sockaddr*>(&address), &size);
  }
};

/// Expects `call` to throw exactly this; returns the milliseconds that it took.
long expectFailure(const std::string& text, int error, const std::function<void()>& call) {
  const auto start = std::chrono::steady_clock::now();
  try {
    call();
    ADD_FAILURE() << "not thrown: " << text;
  } catch (const NqSocketException& e) {
    EXPECT_EQ(e.what(), text + ": " + std::strerror(error));
    EXPECT_EQ(e.errorCode, error) << text;
  }
  return (std::chrono::steady_clock::now() - start) / std::chrono::milliseconds(1);
}

TEST(NqSocket, FailuresNameTheCallTheErrorAndTheAttempts) {
  Port port;
  NqSocket none, open(true);
  const auto attempts = [&](int retries, unsigned int ms) {
    const std::string text = " failed after " + std::to_string(retries + 1) + " attempts";
    expectFailure("Bind" + text, EADDRINUSE, [&] { open.bind(port.address, retries, 1); });
    return expectFailure("Connect" + text, ECONNREFUSED, [&] { open.connect(port.address, retries, ms); });
  };
  EXPECT_LT(attempts(0, 5000), 4000);
  EXPECT_GE(attempts(2, 60), 120);
  expectFailure("Failed to bind to interface nosuchif", ENODEV, [&] { open.bindToInterface("nosuchif"); });
  expectFailure("Invalid file descriptor provided", EMFILE, [] { errno = EMFILE, NqSocket(-1); });
  EXPECT_NO_THROW(none.sendAll(nullptr, 0));
}

TEST(NqSocket, MovesAndRetriesKeepTheOptions) {
  Port port;
  NqSocket configured(true), socket(true);
  configured.setTimeout(1500);
  configured.setReuseAddr(true);
  configured.bindToInterface("lo");
  const int on = 1, moved = TestAccess::descriptor(configured), replaced = TestAccess::descriptor(socket);
  setsockopt(moved, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);  // remembered by nobody: tells old from new
  NqSocket& itself = socket = std::move(configured);
  itself = std::move(socket);
  EXPECT_EQ(TestAccess::descriptor(configured), -1);
  EXPECT_TRUE(TestAccess::descriptor(socket) == moved && fcntl(replaced, F_GETFD) == -1);

  std::jthread late([&] { sleepMs(60), port.socket.listen(1); });
  EXPECT_TRUE(socket.connect(port.address, 100, 20));
  const auto option = [&](int name) {
    std::array<char, 16> value{};
    socklen_t size = sizeof value;
    EXPECT_EQ(getsockopt(TestAccess::descriptor(socket), SOL_SOCKET, name, value.data(), &size), 0);
    return value;
  };
  EXPECT_TRUE(option(SO_KEEPALIVE)[0] == 0 && option(SO_REUSEADDR)[0] == 1);
  EXPECT_STREQ(option(SO_BINDTODEVICE).data(), "lo");
  for (const int name : {SO_RCVTIMEO, SO_SNDTIMEO}) EXPECT_EQ(option(name)[0], 1) << name;
}

TEST(NqSocket, SendsAllAndTellsTheEnd) {
  signal(SIGPIPE, SIG_DFL);  // so that one would end the test
  Port port;
  NqSocket client(true);
  port.socket.listen(1);
  client.connect(port.address, 0, 0);
  NqSocket server = port.socket.accept();
  // More than both ends buffer.
  std::string sent;
  for (int i = 0; i < 2'000'000; ++i) sent += std::to_string(i);
  std::string received(sent.size(), ' ');
  std::jthread peer(
      [&] { recv(TestAccess::descriptor(server), received.data(), received.size(), MSG_WAITALL); });
  client.sendAll(sent);
  peer.join();
  EXPECT_TRUE(sent == received);

  client.shutdown(SHUT_WR);
  EXPECT_EQ(server.receive(received.data(), 9), 0u);
  expectFailure("Send failed", EPIPE, [&] { client.sendAll("x"); });
  client.setTimeout(60);
  EXPECT_GE(expectFailure("Receive timeout", EAGAIN, [&] { client.receive(received.data(), 1); }), 50);
}

}  // namespace
}  // namespace dorve
