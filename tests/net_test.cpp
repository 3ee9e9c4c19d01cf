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

/// A loopback port that refuses connections until it listens, and the two ends of a connection that is to be.
struct Port {
  NqSocket listener{true}, client{true}, server;
  sockaddr_in address = makeAddress("127.0.0.1", 0);

  Port() {
    listener.bind(address, 0, 0);
    socklen_t size = sizeof address;
    getsockname(TestAccess::descriptor(listener), reinterpret_cast<sockaddr*>(&address), &size);
  }

  void join() {
    listener.listen(1);
    client.connect(address, 0, 0);
    server = listener.accept();
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
  signal(SIGPIPE, SIG_DFL);  // so that one would end the test
  Port port, silent;
  NqSocket none, open(true);
  char byte;
  port.join();
  port.client.shutdown(SHUT_WR);
  port.client.setTimeout(60);
  EXPECT_EQ(port.server.receive(&byte, 1), 0u);
  EXPECT_NO_THROW(none.sendAll(&byte, 0));
  EXPECT_GE(expectFailure("Receive timeout", EAGAIN, [&] { port.client.receive(&byte, 1); }), 50);
  expectFailure("Send failed", EPIPE, [&] { port.client.sendAll("x"); });
  expectFailure("Receive failed", ENOTCONN, [&] { open.receive(&byte, 1); });
  expectFailure("Accept failed", EINVAL, [&] { open.accept(); });
  expectFailure("Listen failed", EBADF, [&] { none.listen(1); });
  expectFailure("Failed to set receive timeout", EBADF, [&] { none.setTimeout(1); });
  expectFailure("Failed to bind to interface nosuchif", ENODEV, [&] { open.bindToInterface("nosuchif"); });
  expectFailure("Invalid file descriptor provided", EMFILE, [] { errno = EMFILE, NqSocket(-1); });
  expectFailure("Bind failed after 2 attempts", EADDRINUSE, [&] { open.bind(silent.address, 1, 1); });
  const auto connect = [&](int retries, unsigned int ms) {
    return expectFailure("Connect failed after " + std::to_string(retries + 1) + " attempts", ECONNREFUSED,
                         [&] { open.connect(silent.address, retries, ms); });
  };
  EXPECT_LT(connect(0, 5000), 4000);
  EXPECT_GE(connect(2, 60), 120);
}

TEST(NqSocket, RetriesOnAFreshDescriptorThatIsSetUpAlike) {
  Port port;
  port.client.setTimeout(1500);
  port.client.setReuseAddr(true);
  port.client.bindToInterface("lo");
  EXPECT_THROW(port.client.bindToInterface("nosuchif"), NqSocketException);
  const int on = 1;  // an option that nobody remembers tells the old descriptor from the new one
  setsockopt(TestAccess::descriptor(port.client), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  NqSocket socket(std::move(port.client));
  std::jthread late([&] { sleepMs(60), port.listener.listen(1); });
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
  expectOption(SO_SNDTIMEO, timeval{1, 500'000});
}

TEST(NqSocket, SignalsEndNoCallEarly) {
  struct sigaction noRestart = {};
  noRestart.sa_handler = [](int) {};
  sigaction(SIGUSR1, &noRestart, nullptr);
  const auto afterSignals = [self = pthread_self()](std::function<void()> act) {
    return std::jthread([=] {
      for (int i = 0; i < 5; ++i) sleepMs(10), pthread_kill(self, SIGUSR1);
      act();
    });
  };
  Port port, silent;
  char byte;
  std::jthread helper = afterSignals([&] { port.client.connect(port.address, 0, 0); });
  port.listener.listen(1);
  port.server = port.listener.accept();
  helper = afterSignals([&] { port.client.sendAll("x", 1); });
  EXPECT_EQ(port.server.receive(&byte, 1), 1u);

  // More than both ends buffer: the first signal cuts a send short, the next ones hit one that has not begun.
  std::string sent(16 << 20, '\0'), received = sent;
  for (std::size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i / 251);
  helper = afterSignals([&, from = TestAccess::descriptor(port.server)] {
    recv(from, received.data(), received.size(), MSG_WAITALL);
  });
  port.client.sendAll(sent);
  port.client.close();
  helper.join();
  EXPECT_TRUE(sent == received);

  helper = afterSignals([] {});
  EXPECT_GE(expectFailure("Connect failed after 2 attempts", ECONNREFUSED,
                          [&] { port.client.connect(silent.address, 1, 100); }),
            100);
}

TEST(NqSocket, MovesHandOverTheOneDescriptor) {
  Port replaced, kept;
  char byte;
  replaced.join();
  kept.join();
  NqSocket& itself = replaced.client = std::move(kept.client);
  itself = std::move(replaced.client);
  EXPECT_EQ(TestAccess::descriptor(kept.client), -1);
  EXPECT_EQ(replaced.server.receive(&byte, 1), 0u) << "the replaced descriptor is still open";
  replaced.client.sendAll("x");
  EXPECT_EQ(kept.server.receive(&byte, 1), 1u);
}

}  // namespace
}  // namespace dorve
