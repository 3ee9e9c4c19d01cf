// SPDX-License-Identifier: MIT
// DorveServer::serve: a client, the stop and the embedder's socket.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <future>

#include "test_access.h"

namespace dorve {
namespace {

using namespace std::chrono_literals;

constexpr const char* kKey = "ssh-ed25519 K base_slice_exchange\n";
int stopOfHandler = -1;

/// Stops the server if `stopOfHandler` is set, and otherwise only interrupts it.
void onSignal(int /*signal*/) {
  if (stopOfHandler >= 0) eventfd_write(stopOfHandler, 1);
}

class Serve : public testing::Test {
 protected:
  Serve()
      : directory(testing::TempDir() + "dorve-serve-" + std::to_string(getpid())), server("", 0, directory) {
    address = makeAddress("127.0.0.1", 0);
    listener.bind(address, 0, 0);
    listener.listen(1);
    socklen_t size = sizeof address;
    getsockname(TestAccess::descriptor(listener), reinterpret_cast<sockaddr*>(&address), &size);
  }
  ~Serve() override {
    close(stop);
    std::filesystem::remove_all(directory);
  }

  /// Serves in a thread of its own. `thread` is then that thread.
  std::future<ServeResult> serve() {
    std::promise<pthread_t> started;
    auto id = started.get_future();
    auto result = std::async(std::launch::async, [this, started = std::move(started)]() mutable {
      started.set_value(pthread_self());
      return server.serve(TestAccess::descriptor(listener), stop);
    });
    thread = id.get();
    return result;
  }

  NqSocket connect() const {
    NqSocket client(true);
    client.setTimeout(9000);
    client.connect(address, 0, 0);
    return client;
  }

  /// Sends one request. Returns whether the server responds.
  template <typename Request>
  static bool ask(NqSocket& client, Request request) {
    seal(request);
    client.sendAll(&request, sizeof request);
    char response[8192];
    return client.receive(response, sizeof response) > 0;
  }

  /// Phases 0 to 2 of a pairing, but for phase 0, which the server does not need.
  static void exchangeAndVerify(NqSocket& client) {
    auto exchange = makeRecord<ExchangeKeysRequest>("a");
    writeText(exchange.public_key, kKey);
    EXPECT_TRUE(ask(client, exchange));
    EXPECT_TRUE(ask(client, makeRecord<VerifyKeysRequest>("b")));
  }

  bool exists(const char* name) const { return std::filesystem::exists(directory + "/" + name); }

  const std::string directory;
  DorveServer server;
  NqSocket listener{true};
  sockaddr_in address{};
  const int stop = eventfd(0, EFD_NONBLOCK);
  pthread_t thread{};
};

TEST_F(Serve, StopsAWaitWithoutAnyChangeToTheDeviceOrTheSocket) {
  struct sigaction action = {};
  action.sa_handler = onSignal;
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  const int fd = TestAccess::descriptor(listener);
  for (const int flags : {0, O_NONBLOCK}) {
    SCOPED_TRACE(flags);
    fcntl(fd, F_SETFL, flags);
    auto result = serve();
    stopOfHandler = -1;
    pthread_kill(thread, SIGUSR1);
    EXPECT_EQ(result.wait_for(200ms), std::future_status::timeout) << "a signal alone ended the wait";
    stopOfHandler = stop;
    pthread_kill(thread, SIGUSR1);
    ASSERT_EQ(result.wait_for(2s), std::future_status::ready);
    EXPECT_EQ(result.get(), ServeResult::STOPPED);

    eventfd_write(stop, 1);  // a second stop, which is also the one before the next run
    const NqSocket waiting = connect();
    EXPECT_EQ(server.serve(fd, stop), ServeResult::STOPPED);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, flags);
    EXPECT_NO_THROW(listener.accept()) << "the waiting client is lost";
    eventfd_t stops = 0;
    EXPECT_EQ(eventfd_read(stop, &stops), 0);
    EXPECT_EQ(stops, 2);
  }
  EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST_F(Serve, StopsInsideARequestBeforeTheClientInstalls) {
  auto result = serve();
  NqSocket client = connect();
  EXPECT_TRUE(ask(client, makeRecord<ExchangeKeysRequest>("a")));
  auto request = makeRecord<VerifyKeysRequest>("b");
  seal(request);
  client.sendAll(&request, 100);
  EXPECT_EQ(result.wait_for(100ms),
            std::future_status::timeout);  // the server reads these bytes and wants more
  eventfd_write(stop, 1);
  ASSERT_EQ(result.wait_for(2s), std::future_status::ready);
  EXPECT_EQ(result.get(), ServeResult::STOPPED);
  EXPECT_FALSE(server.keysInstalled());
  EXPECT_FALSE(exists("authorized_keys"));
}

TEST_F(Serve, LetsAClientFinishThatMayHaveInstalled) {
  auto result = serve();
  NqSocket client = connect();
  exchangeAndVerify(client);
  EXPECT_FALSE(server.keysInstalled());
  eventfd_write(stop, 1);
  EXPECT_EQ(result.wait_for(200ms), std::future_status::timeout) << "half a pairing is left";
  EXPECT_TRUE(ask(client, makeRecord<InstallKeysRequest>("c")));
  EXPECT_TRUE(ask(client, makeRecord<ConfirmInstallRequest>("d")));
  EXPECT_EQ(result.get(), ServeResult::SERVED);
  EXPECT_TRUE(server.keysInstalled());
  std::filesystem::remove(directory + "/config");
  EXPECT_FALSE(server.keysInstalled());
}

TEST_F(Serve, GivesAClientThatNeverFinishesFiveSeconds) {
  auto result = serve();
  NqSocket client = connect();
  exchangeAndVerify(client);
  eventfd_write(stop, 1);
  const auto began = std::chrono::steady_clock::now();
  auto request = makeRecord<InstallKeysRequest>("c");
  seal(request);
  const char* next = reinterpret_cast<const char*>(&request) + 40;
  client.sendAll(&request, 40);  // one byte at a time is then a message that does not end
  while (result.wait_for(500ms) == std::future_status::timeout) {
    ASSERT_LT(std::chrono::steady_clock::now() - began, 8s);
    client.sendAll(next++, 1);
  }
  EXPECT_EQ(result.get(), ServeResult::STOPPED);
  EXPECT_GT(std::chrono::steady_clock::now() - began, 4s);
  EXPECT_FALSE(exists("authorized_keys"));
}

TEST_F(Serve, FailsOnASocketThatDoesNotListen) {
  const NqSocket idle(true);
  for (const int bad : {-1, 999, TestAccess::descriptor(idle)}) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(server.serve(bad, stop), ServeResult::FAILED) << bad;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Exception\n");
  }
}

}  // namespace
}  // namespace dorve
