// SPDX-License-Identifier: MIT
// Operations of DorveClient and DorveServer, some of which the programs do not call.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <filesystem>
#include <fstream>

#include "test_access.h"

namespace dorve {
namespace {

class Drivers : public testing::Test {
 protected:
  Drivers() { std::filesystem::create_directory(directory); }
  ~Drivers() override { std::filesystem::remove_all(directory); }

  std::string file(const char* name) const {
    std::ifstream stream(directory + "/" + name);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  /// Runs the operations that both classes have. Returns what they print on standard output.
  template <typename Driver>
  std::string editFiles(Driver& driver) {
    testing::internal::CaptureStdout();
    driver.regenerateKeys();
    const std::string key = driver.readPublicKey();
    EXPECT_EQ(key, file("base_slice_exchange.pub"));
    EXPECT_TRUE(driver.validateKeyFormat(key.c_str()));
    EXPECT_FALSE(driver.validateKeyFormat("no key"));
    EXPECT_EQ(driver.calculateKeyHash("abc"),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    driver.addKnownHost("ssh-ed25519 H", "10.0.0.9");
    EXPECT_EQ(file("known_hosts"), "10.0.0.9 ssh-ed25519 H");
    return testing::internal::GetCapturedStdout();
  }

  const std::string directory = testing::TempDir() + "dorve-drivers-" + std::to_string(getpid());
};

TEST_F(Drivers, ClientReportsItsEditsOfTheFiles) {
  DorveClient client("127.0.0.1", 8888, directory);
  EXPECT_EQ(editFiles(client),
            "Regenerating SSH keys...\nAdding key to known_hosts for host: 10.0.0.9\n"
            "Known host successfully added\n");
}

TEST_F(Drivers, ServerEditsTheFilesSilently) {
  DorveServer server("", 0, directory);
  EXPECT_EQ(editFiles(server), "");
}

TEST_F(Drivers, ServerChecksTheFormOfTokensAndInstallsInHandlersOnly) {
  DorveServer server("", 0, directory);
  EXPECT_TRUE(server.validateSessionToken(std::string(64, 'a').c_str()));
  EXPECT_FALSE(server.validateSessionToken(std::string(63, 'a').c_str()));
  EXPECT_TRUE(server.installKeysLocally("ssh-ed25519 K"));
  EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST_F(Drivers, ClientKnowsWhetherBothFilesHoldWhatItInstalled) {
  DorveClient client("127.0.0.1", 8888, directory);
  const auto rewrite = [&](const char* name, const char* text) {
    std::ofstream(directory + "/" + name) << text;
    return client.keysInstalled();
  };
  client.addAuthKey("");
  client.addSshConfig("172.20.10.1");
  EXPECT_FALSE(client.keysInstalled()) << "without a key from the server";
  TestAccess::setPeerKey(client, "ssh-ed25519 K base_slice_exchange\n");
  EXPECT_FALSE(client.keysInstalled()) << "before the installation";
  client.installKeysLocally();
  EXPECT_TRUE(client.keysInstalled());
  EXPECT_FALSE(rewrite("authorized_keys", "#ssh-ed25519 K base_slice_exchange\n"));
  EXPECT_FALSE(rewrite("authorized_keys", "ssh-ed25519 K base_slice_exchange2\n"));
  EXPECT_TRUE(rewrite("authorized_keys", "a\nssh-ed25519 K base_slice_exchange"));
  EXPECT_FALSE(rewrite("config", "Host 172.20.10.2\n"));
}

TEST_F(Drivers, ClientPausesForTheFirstThreeFailuresOnly) {
  DorveClient client("127.0.0.1", 8888, directory);
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const NqSocket silentPeer(ends[1]);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  EXPECT_FALSE(TestAccess::receive(client, NqSocket(ends[0]), 1));
  for (int more = 0; more < 3; ++more) EXPECT_FALSE(TestAccess::receive(client, NqSocket(), 1));
  const std::string failure = "Receive failed: Receive timeout: Resource temporarily unavailable\n";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), failure + failure + failure + failure);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Retry 1/3 after 200ms backoff\nRetry 2/3 after 400ms backoff\nRetry 3/3 after 800ms backoff\n");
}

TEST_F(Drivers, ClientsPauseDoublesToALimitAndStartsAgainAt32) {
  DorveClient client("127.0.0.1", 8888, directory);
  const std::pair<std::uint32_t, unsigned int> pauses[] = {{0, 100},   {1, 200},   {5, 3200}, {6, 5000},
                                                           {29, 5000}, {30, 0},    {31, 0},   {32, 100},
                                                           {37, 3200}, {38, 5000}, {62, 0}};
  for (const auto& [count, ms] : pauses) EXPECT_EQ(TestAccess::backoffMs(client, count), ms) << count;
}

TEST(ClientState, HasANameThatNoRunPrints) {
  EXPECT_STREQ(stateName(ClientState::ERROR), "ERROR");
  EXPECT_STREQ(stateName(static_cast<ClientState>(16)), "UNKNOWN");
}

}  // namespace
}  // namespace dorve
