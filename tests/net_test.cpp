#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <thread>

#include "test_access.h"
#include "util/sleep.h"

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
  expectFailure("Accept failed", EINVAL, [&] { open.accept(); });
  expectFailure("Failed to set receive timeout", EBADF, [&] { none.setTimeout(1); });
  expectFailure("Failed to bind to interface nosuchif", ENODEV, [&] { open.bindToInterface("nosuchif"); });
  expectFailure("Invalid file descriptor provided", EMFILE, [] { errno = EMFILE, NqSocket(-1); });
  EXPECT_NO_THROW(none.sendAll(nullptr, 0));
}

TEST(NqSocket, RetriesOnAFreshDescriptorThatIsSetUpAlike) {
  Port port;
  NqSocket configured(true);
  configured.setTimeout(1500);
  configured.setReuseAddr(true);
  configured.bindToInterface("lo");
  const int on = 1;  // an option that nobody remembers tells the old descriptor from the new one
  setsockopt(TestAccess::descriptor(configured), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  NqSocket socket(std::move(configured));
  std::jthread late([&] { sleepMs(60), port.socket.listen(1); });
  EXPECT_TRUE(socket.connect(port.address, 100, 20));

  const auto expectOption = [&](int name, const auto& expected) {
    auto value = expected;
    socklen_t size = sizeof value;
    getsockopt(TestAccess::descriptor(socket), SOL_SOCKET, name, &value, &size);
    EXPECT_EQ(std::memcmp(&value, &expected, size), 0) << name;
  };
  expectOption(SO_KEEPALIVE, 0);
  expectOption(SO_REUSEADDR, 1);
  expectOption(SO_BINDTODEVICE, std::array<char, 16>{"lo"});
  expectOption(SO_RCVTIMEO, timeval{1, 500'000});
}

TEST(NqSocket, StreamsSurviveSignalsAndTellTheirEnd) {
  struct sigaction noRestart = {};
  noRestart.sa_handler = [](int) {};
  sigaction(SIGUSR1, &noRestart, nullptr);
  signal(SIGPIPE, SIG_DFL);  // so that one would end the test
  const auto afterSignals = [self = pthread_self()](std::function<void()> act) {
    return std::jthread([=] {
      for (int i = 0; i < 5; ++i) sleepMs(10), pthread_kill(self, SIGUSR1);
      act();
    });
  };
  Port port;
  NqSocket client(true), server;
  // More than both ends buffer: the first signal cuts a send short, the next ones hit one that has not begun.
  std::string sent;
  for (int i = 0; i < 2'000'000; ++i) sent += std::to_string(i);
  std::string received(sent.size(), ' ');

  std::jthread helper = afterSignals([] {});
  const auto connect = [&] { client.connect(port.address, 1, 100); };
  EXPECT_GE(expectFailure("Connect failed after 2 attempts", ECONNREFUSED, connect), 100);
  port.socket.listen(1);
  helper = afterSignals(connect);
  server = port.socket.accept();
  helper = afterSignals([&] { client.sendAll("x", 1); });
  EXPECT_EQ(server.receive(received.data(), 9), 1u);
  helper =
      afterSignals([&] { recv(TestAccess::descriptor(server), received.data(), sent.size(), MSG_WAITALL); });
  client.sendAll(sent);
  client.shutdown(SHUT_WR);
  helper.join();
  EXPECT_TRUE(sent == received);
  EXPECT_EQ(server.receive(received.data(), 1), 0u);
  expectFailure("Send failed", EPIPE, [&] { client.sendAll("x"); });
  client.setTimeout(60);
  EXPECT_GE(expectFailure("Receive timeout", EAGAIN, [&] { client.receive(received.data(), 1); }), 50);
}

TEST(NqSocket, MovesHandOverTheOneDescriptor) {
  NqSocket source(true), target(true);
  const int moved = TestAccess::descriptor(source), replaced = TestAccess::descriptor(target);
  NqSocket& itself = target = std::move(source);
  itself = std::move(target);
  EXPECT_EQ(TestAccess::descriptor(source), -1);
  EXPECT_EQ(TestAccess::descriptor(target), moved);
  EXPECT_TRUE(fcntl(moved, F_GETFD) != -1 && fcntl(replaced, F_GETFD) == -1);
}

}  // namespace
}  // namespace dorve
