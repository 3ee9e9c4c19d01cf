// SPDX-License-Identifier: MIT
// The server as a user runs it, on one host of the lab, against a client that the test scripts on the other.
#include <sys/socket.h>

#include <algorithm>

#include "dorve/protocol/session_token.h"
#include "lab.h"
#include "messages.h"

namespace dorve {
namespace {

constexpr const char* kCompleted = "Starting DORVE Server (Base) v1.0\nServer completed successfully\n";

class ServerTest : public LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    if (IsSkipped()) return;
    server = std::make_unique<Process>(lab.server.command("exec '" DORVE_BUILD "/dorve-server'"));
    client = lab.client.socket(
        [](NqSocket& socket) { socket.connect(makeAddress("172.20.10.1", 8888), 100, 50); });
  }

  /// The answer to a message, which must be sound; a zeroed record when the server closed instead.
  template <typename Response>
  Response ask(const std::string& wire) {
    client.sendAll(wire);
    auto response = fromWire<Response>(receiveMessage(client));
    EXPECT_TRUE(MessageSerializer::validateChecksum(&response, sizeof response));
    constexpr auto kType = static_cast<std::uint16_t>(Response::kType);
    EXPECT_TRUE(MessageSerializer::validateHeader(&response, kType, sizeof response));
    EXPECT_EQ(response.header.sequence + 0, 0U);
    return response;
  }

  template <typename Response, typename Request>
  Response ask(const Request& request) {
    return ask<Response>(toWire(request));
  }

  /// Whether the server has told this many errors by now, and no more.
  bool errors(std::size_t count) {
    std::string expected;
    for (std::size_t i = 0; i < count; ++i) expected += "Error\n";
    return eventually([&] { return server->err().size() >= expected.size(); }) && server->err() == expected;
  }

  static std::string query(const std::string& id, const std::string& versions = "1.0", std::size_t size = 0) {
    auto record = makeRecord<VersionQuery>(id);
    writeText(record.supported_versions, versions);
    if (size == 0) return toWire(record);
    // Sealed over another size than the record's.
    record.header.length = static_cast<std::uint32_t>(size);
    std::string wire(reinterpret_cast<const char*>(&record), sizeof record);
    wire.resize(size);
    MessageSerializer::setChecksum(wire.data(), size);
    MessageSerializer::encodeHeader(wire.data());
    return wire;
  }

  std::string serverFile(const std::string& name) const { return lab.server.path("/root/.ssh/" + name); }

  std::unique_ptr<Process> server;
  NqSocket client;
};

// What no run changes of the answers is compared byte by byte in the test of the wire.
TEST_F(ServerTest, AnswersInAnyOrder) {
  auto version = ask<VersionResponse>(query("a", " 2.0,\t1.0 "));
  EXPECT_EQ(readText(version.request_id), "a");
  EXPECT_EQ(readText(version.selected_version), "1.0");
  version = ask<VersionResponse>(query("b", "2.0"));
  EXPECT_EQ(readText(version.selected_version), "");
  EXPECT_EQ(version.error_code + 0, 1U);
  EXPECT_EQ(readText(version.message), "No compatible version. Server supports: 1.0");

  // Nobody sent a key yet: an empty one is installed.
  ask<InstallKeysResponse>(makeRecord<InstallKeysRequest>("c"));
  EXPECT_EQ(readFile(serverFile("authorized_keys")), "");
  EXPECT_EQ(readFile(serverFile("config")),
            "\nHost 172.20.10.2\n    IdentityFile /root/.ssh/base_slice_exchange\n    IdentitiesOnly yes\n"
            "    StrictHostKeyChecking no\n    UserKnownHostsFile /dev/null\n");

  for (const std::string& key :
       {std::string(5000, 'k'), std::string("ssh-ed25519 K base_slice_exchange\n")}) {
    auto request = makeRecord<ExchangeKeysRequest>("d" + std::to_string(key.size()));
    // Without its NUL when it is long: read to its capacity, no further.
    std::memcpy(request.public_key, key.data(), std::min(key.size(), sizeof request.public_key));
    std::memset(request.reserved, 'x', sizeof request.reserved);
    const auto exchanged = ask<ExchangeKeysResponse>(request);
    EXPECT_EQ(readText(exchanged.public_key), readFile(serverFile("base_slice_exchange.pub")));
    EXPECT_TRUE(SessionToken::validateFormat(readText(exchanged.session_token)));
    EXPECT_NEAR(static_cast<double>(exchanged.token_expiry_us - exchanged.header.timestamp), 3.6e9, 1e6);
    ask<InstallKeysResponse>(makeRecord<InstallKeysRequest>("e" + std::to_string(key.size())));
    EXPECT_EQ(readFile(serverFile("authorized_keys")),
              key.size() > 4095 ? key.substr(0, 4095) : std::string(4095, 'k') + "\n\n" + key);
  }

  const auto confirmed = ask<ConfirmInstallResponse>(makeRecord<ConfirmInstallRequest>("g"));
  EXPECT_GE(confirmed.completed_at_us + 0, confirmed.header.timestamp + 0);

  const Outcome outcome = server->wait();
  EXPECT_EQ(outcome.out, kCompleted);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(client.receive(std::string(1, '\0').data(), 1), 0U);
}

TEST_F(ServerTest, RepeatsTheFirstAnswerToAnId) {
  const auto install = toWire(makeRecord<InstallKeysRequest>("same"));
  client.sendAll(install);
  const std::string first = receiveMessage(client);
  writeFile(serverFile("authorized_keys"), "touched\n");
  client.sendAll(install);
  EXPECT_EQ(receiveMessage(client), first);
  // Whatever is asked under it, and it ends nothing.
  client.sendAll(toWire(makeRecord<ConfirmInstallRequest>("same")));
  EXPECT_EQ(receiveMessage(client), first);
  EXPECT_EQ(readFile(serverFile("authorized_keys")), "touched\n");

  // Nine more ids leave it in its slot, the tenth takes that.
  for (int i = 0; i < 9; ++i) ask<VersionResponse>(query("other" + std::to_string(i)));
  client.sendAll(install);
  EXPECT_EQ(receiveMessage(client), first);
  ask<VersionResponse>(query("last"));
  EXPECT_NE(ask<InstallKeysResponse>(install).header.timestamp + 0,
            fromWire<InstallKeysResponse>(first).header.timestamp + 0);
  EXPECT_EQ(readFile(serverFile("authorized_keys")), "touched\n\n");
}

TEST_F(ServerTest, IgnoresWhatIsNoSoundRequest) {
  std::string flipped = query("flipped");
  flipped[300] = static_cast<char>(flipped[300] ^ 1);
  std::vector<std::string> noise = {std::string(31, 'x'),
                                    std::string(32, '\0'),
                                    std::string(9000, 'x').substr(0, 8192),
                                    flipped,
                                    query("a") + query("b"),
                                    query("shorter").substr(0, 40) + std::string(444, '\0')};
  const auto changed = [&](auto edit) {
    auto record = fromWire<VersionQuery>(query("unsound"));
    edit(record);
    noise.push_back(toWire(record));
  };
  changed([](VersionQuery& r) { r.header.magic ^= 1; });
  changed([](VersionQuery& r) { r.header.version = 0x0101; });
  changed([](VersionQuery& r) { r.header.length = 483; });
  changed([](VersionQuery& r) { r.header.length = 8193; });
  for (const std::uint16_t type : std::initializer_list<std::uint16_t>{1, 3, 5, 7, 9, 10, 256}) {
    changed([type](VersionQuery& r) { r.header.type = type; });
  }
  for (std::size_t i = 0; i < noise.size(); ++i) {
    client.sendAll(noise[i]);
    ASSERT_TRUE(errors(i + 1)) << i << ": " << server->err();
  }
  // Nothing of it was answered or kept, and the connection still serves, up to the largest size.
  EXPECT_EQ(readText(ask<VersionResponse>(query("unsound")).request_id), "unsound");
  EXPECT_EQ(readText(ask<VersionResponse>(query("largest", "1.0", 8192)).selected_version), "1.0");
  // A message without its list sees none, not the one before.
  EXPECT_EQ(ask<VersionResponse>(query("short", "1.0", 192)).error_code + 0, 1U);

  // In pieces it is whole; cut, it is told twice.
  const std::string pieces = query("pieces");
  client.sendAll(pieces.substr(0, 32));
  EXPECT_TRUE(errors(noise.size()));
  EXPECT_EQ(readText(ask<VersionResponse>(pieces.substr(32)).request_id), "pieces");
  client.sendAll(pieces.substr(0, 400));
  client.shutdown(SHUT_WR);
  EXPECT_TRUE(errors(noise.size() + 2));
  const Outcome outcome = server->wait();
  EXPECT_EQ(outcome.out, kCompleted);
  EXPECT_EQ(outcome.status, 0);
}

TEST_F(ServerTest, ServesOneClientForFiveSilentSeconds) {
  NqSocket second =
      lab.client.socket([](NqSocket& socket) { socket.connect(makeAddress("172.20.10.1", 8888), 0, 0); });
  second.sendAll(query("second"));
  const Outcome outcome = server->wait();
  EXPECT_EQ(outcome.out, kCompleted);
  EXPECT_EQ(outcome.err, "Exception\n");
  EXPECT_EQ(outcome.status, 0);
  char byte;
  EXPECT_THROW(second.receive(&byte, 1), NqSocketException);
}

}  // namespace
}  // namespace dorve
