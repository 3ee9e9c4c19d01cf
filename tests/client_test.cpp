// SPDX-License-Identifier: MIT
// The client as a user runs it, on one host of the lab, against a peer that the test scripts on the other.
#include <sys/socket.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <thread>

#include "dorve/client/dorve_client.h"
#include "dorve/keys/key_material.h"
#include "lab.h"
#include "messages.h"
#include "test_access.h"

namespace dorve {
namespace {

/// What a good run prints, as the documentation has it.
const std::string kRun = readFile(DORVE_DOCS "/client-run.txt");

/// What a good run prints up to the line that ends in `end`, and that line.
std::string runUntil(const std::string& end) {
  return kRun.substr(0, kRun.find(end + "\n") + end.size() + 1);
}

const struct {
  const char* title;
  const char* response;
  const char* sent;
} kPhases[] = {
    {"Phase 0 (VERSION_NEGOTIATION)", "VERSION_RESPONSE", "-> VERSION_QUERY_SENT"},
    {"Phase 1 (EXCHANGE_KEYS)", "EXCHANGE_KEYS_RESPONSE", "-> EXCHANGE_KEYS_SENT"},
    {"Phase 2 (VERIFY_KEYS)", "VERIFY_KEYS_RESPONSE", "-> VERIFY_KEYS_SENT"},
    {"Phase 3 (INSTALL_KEYS)", "INSTALL_KEYS_RESPONSE", "-> INSTALL_KEYS_SENT"},
    {"Phase 4 (CONFIRM)", "CONFIRM_INSTALL_RESPONSE", "-> CONFIRM_SENT"},
};

const std::string kServerKey = "ssh-ed25519 " + std::string(100, 'S') + " base_slice_exchange\n";
const std::string kToken(64, 'a');

/// What a good server answers.
std::string goodAnswer(int phase, const std::string& request) {
  const auto query = fromWire<VersionQuery>(request);
  const auto answer = [&]<typename Response>(void (*fill)(Response&)) {
    auto response = makeRecord<Response>(readText(query.request_id));
    fill(response);
    return toWire(response);
  };
  switch (phase) {
    case 0:
      return answer(+[](VersionResponse& r) { writeText(r.selected_version, "1.0"); });
    case 1:
      return answer(+[](ExchangeKeysResponse& r) {
        writeText(r.public_key, kServerKey);
        writeText(r.session_token, kToken);
      });
    case 2:
      return answer(+[](VerifyKeysResponse& r) { writeText(r.status, "VERIFIED"); });
    case 3:
      return answer(+[](InstallKeysResponse& r) { writeText(r.install_status, "COMPLETED"); });
    default:
      return answer(+[](ConfirmInstallResponse& r) {
        writeText(r.status, "COMPLETE");
        r.keys_active = 1;
      });
  }
}

class ClientTest : public LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    if (IsSkipped()) return;
    listener = lab.server.socket([](NqSocket& socket) {
      socket.bind(makeAddress("172.20.10.1", 8888), 0, 0);
      socket.listen(1);
    });
  }

  /// A run of the client against a good server up to `phase`, where `script` takes over with the request.
  Outcome runAgainst(int phase, const std::function<void(NqSocket&, std::string&)>& script) {
    Process client(lab.client.command("exec '" DORVE_BUILD "/dorve-client'"));
    NqSocket connection = listener.accept();
    for (int good = 0; good < phase; ++good) {
      connection.sendAll(goodAnswer(good, receiveMessage(connection)));
    }
    std::string request = receiveMessage(connection);
    script(connection, request);
    return client.wait();
  }

  NqSocket listener;
};

TEST_F(ClientTest, RunsFivePhasesAgainstAGoodServer) {
  std::vector<std::string> requests;
  const Outcome outcome = runAgainst(0, [&](NqSocket& connection, std::string& request) {
    for (int phase = 0; phase < 5; ++phase) {
      if (phase > 0) request = receiveMessage(connection);
      requests.push_back(request);
      const std::string answer = goodAnswer(phase, request);
      // In pieces: the header, a few bytes, the rest.
      for (const auto& [from, size] : {std::pair{0, 32}, {32, 10}, {42, 9999}}) {
        connection.sendAll(answer.substr(static_cast<std::size_t>(from), static_cast<std::size_t>(size)));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
    }
  });
  EXPECT_EQ(outcome.out, kRun);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.status, 0);

  // What no run changes of the requests is compared byte by byte in the test of the wire.
  std::set<std::string> ids;
  for (const std::string& request : requests) {
    const auto query = fromWire<VersionQuery>(request);
    EXPECT_TRUE(readText(query.request_id).starts_with("REQ-base-"));
    ids.emplace(readText(query.request_id));
  }
  EXPECT_EQ(ids.size(), 5U);
  const std::string key = readFile(lab.client.path("/root/.ssh/base_slice_exchange.pub"));
  EXPECT_TRUE(validateKeyFormat(key));
  const auto exchange = fromWire<ExchangeKeysRequest>(requests[1]);
  EXPECT_EQ(readText(exchange.public_key), key);
  const auto verify = fromWire<VerifyKeysRequest>(requests[2]);
  EXPECT_EQ(readText(verify.session_token), kToken);
  EXPECT_EQ(readText(verify.local_key_hash), calculateKeyHash(key));
  EXPECT_EQ(readText(verify.peer_key_hash), calculateKeyHash(kServerKey));
  const auto install = fromWire<InstallKeysRequest>(requests[3]);
  EXPECT_EQ(readText(install.session_token), kToken);
  const auto confirm = fromWire<ConfirmInstallRequest>(requests[4]);
  EXPECT_EQ(readText(confirm.session_token), kToken);
}

TEST_F(ClientTest, RefusesWhatDoesNotCheck) {
  using Spoil = std::function<void(std::string&)>;
  struct Row {
    int phase;
    Spoil spoil;
    std::string err;  // before the failure of the phase and the run
  };
  const auto errorState = [](const char* code) {
    return "ERROR: Transitioning to ERROR state, code=0x" + std::string(code) + "\n";
  };
  const Spoil flippedBit = [](std::string& wire) { wire[200] = static_cast<char>(wire[200] ^ 4); };
  // Sealed again over its own size, whatever the record.
  const Spoil otherType = [](std::string& wire) {
    wire[7] = static_cast<char>(wire[7] ^ 0x10);
    MessageSerializer::decodeHeader(wire.data());
    MessageSerializer::setChecksum(wire.data(), wire.size());
    MessageSerializer::encodeHeader(wire.data());
  };
  std::vector<Row> rows = {
      // The checksum is looked at first, over what came and not over what should have come.
      {0, [&](std::string& wire) { otherType(wire), flippedBit(wire); }, ""},
      {1, [](std::string& wire) { wire.resize(20); }, ""},
      {0, edited<VersionResponse>([](auto& r) { r.request_id[4] = 'X'; }),
       "Error\n" + errorState("ffffffff")},
      {0, edited<VersionResponse>([](auto& r) { r.error_code = 1; }), "Error\n" + errorState("3011")},
      {2, edited<VerifyKeysResponse>([](auto& r) { std::memset(r.status, 'V', sizeof r.status); }),
       "Key verification failed: " + std::string(32, 'V') + "\n" + errorState("5002")},
      {3, edited<InstallKeysResponse>([](auto& r) {
         writeText(r.status, "COMPLETED");
         writeText(r.install_status, "");
       }),
       "Server installation failed: \n" + errorState("7001")},
      {4, edited<ConfirmInstallResponse>([](auto& r) { writeText(r.status, "COMPLETED"); }),
       "Confirmation failed: COMPLETED\n"},
  };
  const auto invalid = [&](int phase, const char* what, const char* code) {
    return std::string(kPhases[phase].response) + " validation failed: Invalid " + what + "\n" +
           errorState(code);
  };
  rows[0].err = invalid(0, "checksum", "3002");
  rows[1].err = invalid(1, "checksum", "3002");
  for (int phase = 0; phase < 5; ++phase) {
    rows.push_back({phase, flippedBit, invalid(phase, "checksum", "3002")});
    rows.push_back({phase, otherType, invalid(phase, "header", phase == 0 ? "3012" : "3002")});
  }
  for (const Row& row : rows) {
    SCOPED_TRACE(row.err);
    std::size_t size = 0;
    const Outcome outcome = runAgainst(row.phase, [&](NqSocket& connection, std::string& request) {
      std::string answer = goodAnswer(row.phase, request);
      row.spoil(answer);
      size = answer.size();
      connection.sendAll(answer);
    });
    const auto& phase = kPhases[row.phase];
    EXPECT_EQ(outcome.out,
              runUntil(phase.sent) + "Received response, size=" + std::to_string(size) + " bytes\n");
    EXPECT_EQ(outcome.err, row.err + phase.title + " failed\nClient failed\n");
    EXPECT_EQ(outcome.status, 1);
    if (row.phase == 3) {
      EXPECT_EQ(readFile(lab.client.path("/root/.ssh/authorized_keys")), kServerKey);
    }
  }
}

TEST_F(ClientTest, TellsWhatBecameOfTheConnection) {
  const auto row = [&](int phase, std::string out, std::string err, const auto& script) {
    SCOPED_TRACE(err);
    const Outcome outcome = runAgainst(phase, script);
    EXPECT_EQ(outcome.out, runUntil(kPhases[phase].sent) + out);
    EXPECT_EQ(outcome.err, err + kPhases[phase].title + " failed\nClient failed\n");
    EXPECT_EQ(outcome.status, 1);
  };
  for (int phase = 0; phase < 5; ++phase) {
    row(phase, "", "Connection closed by server\n", [](NqSocket& peer, std::string&) { peer.close(); });
  }
  row(2, "", "Connection closed while reading fragmented message\n",
      [](NqSocket& peer, std::string& request) {
        peer.sendAll(goodAnswer(2, request).substr(0, 353));
        peer.close();
      });
  row(0, "", "Message too large: 513 bytes exceeds buffer size 512\n",
      [](NqSocket& peer, std::string& request) {
        std::string answer = goodAnswer(0, request);
        edited<VersionResponse>([](auto& r) { r.header.length = 513; })(answer);
        peer.sendAll(answer);
      });
  row(0, "Retry 1/3 after 200ms backoff\n",
      "Receive failed: Receive timeout: Resource temporarily unavailable\n", [](NqSocket&, std::string&) {});
}

TEST_F(ClientTest, WaitsForItsInterface) {
  const std::string away = "ip link set bsab down; ip link set bsab name away; ";
  const std::string back = "ip link set away name bsab; ip link set bsab up; ";
  const std::string waiting = "Waiting for interface 'bsab' to be ready...";
  const auto hasPrinted = [](const Process& client, const std::string& end) {
    return eventually([&] { return client.out() == runUntil(end); });
  };
  lab.client.run(away);
  const auto begin = std::chrono::steady_clock::now();
  const Outcome absent = lab.client.run("exec '" DORVE_BUILD "/dorve-client'");
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(absent.out, runUntil(waiting));
  EXPECT_EQ(absent.err, "ERROR: Interface 'bsab' not available after 10 seconds\nClient failed\n");
  EXPECT_EQ(absent.status, 1);
  EXPECT_GE(took, std::chrono::milliseconds(9800));
  EXPECT_LT(took, std::chrono::milliseconds(11000));

  // A name in /sys that is no interface: setting the connection up fails, which ends the process abnormally.
  const Outcome unbound =
      lab.client.run("mount -t tmpfs none /sys; mkdir -p /sys/class/net/bsab; '" DORVE_BUILD
                     "/dorve-client'; status=$?; umount /sys; exit $status");
  EXPECT_EQ(unbound.out, runUntil("Interface 'bsab' is ready"));
  EXPECT_NE(unbound.err.find("Failed to bind to interface bsab: No such device"), std::string::npos);
  EXPECT_EQ(unbound.status, 128 + SIGABRT);

  Process late(lab.client.command("exec '" DORVE_BUILD "/dorve-client'"));
  ASSERT_TRUE(hasPrinted(late, waiting));
  lab.client.run(back);
  NqSocket connection = listener.accept();
  EXPECT_TRUE(hasPrinted(late, kPhases[0].sent));
}

TEST_F(ClientTest, FindsTheSshDirectory) {
  const struct {
    const char* prepare;
    const char* directory;
  } rows[] = {
      {"mkdir -p /home/user/.ssh; export HOME=/home/user", "/home/user/.ssh"},
      {"mkdir -p /home/empty; export HOME=/home/empty", "/root/.ssh"},
      {"touch /home/file; export HOME=/home/file", "/root/.ssh"},
      {"unset HOME", "/root/.ssh"},
      {"rm -r /root/.ssh; mkdir -p /home/root/.ssh", "/home/root/.ssh"},
  };
  for (const auto& [prepare, directory] : rows) {
    SCOPED_TRACE(prepare);
    const std::string key = lab.client.path(std::string(directory) + "/base_slice_exchange");
    std::filesystem::remove(key);
    Process client(lab.client.command(std::string(prepare) + "; exec '" DORVE_BUILD "/dorve-client'"));
    NqSocket connection = listener.accept();
    EXPECT_TRUE(std::filesystem::exists(key));
  }
  for (const char* program : {"'" DORVE_BUILD "/dorve-client'", "'" DORVE_BUILD "/dorve-server'"}) {
    const Outcome none = lab.client.run(std::string("rm -rf /home/root; export HOME=/nowhere; ") + program);
    EXPECT_EQ(none.out, "");
    EXPECT_EQ(none.err, "Error\n");
    EXPECT_EQ(none.status, 1);
  }
}

TEST(ClientTransport, PausesThreeTimesARun) {
  std::string directory = testing::TempDir() + "dorve-XXXXXX";
  ASSERT_NE(mkdtemp(directory.data()), nullptr);
  DorveClient client("127.0.0.1", 8888, directory);
  std::filesystem::remove_all(directory);
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const NqSocket peer(ends[1]);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  bool received = TestAccess::receive(client, NqSocket(ends[0]), 1);
  for (int i = 0; i < 3; ++i) received |= TestAccess::receive(client, NqSocket(), 1);
  std::string failures;
  for (int i = 0; i < 4; ++i)
    failures += "Receive failed: Receive timeout: Resource temporarily unavailable\n";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), failures);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Retry 1/3 after 200ms backoff\nRetry 2/3 after 400ms backoff\nRetry 3/3 after 800ms backoff\n");
  EXPECT_FALSE(received);

  const std::pair<std::uint32_t, unsigned int> backoffs[] = {{0, 100},   {1, 200},   {5, 3200}, {6, 5000},
                                                             {29, 5000}, {30, 0},    {31, 0},   {32, 100},
                                                             {37, 3200}, {38, 5000}, {62, 0}};
  for (const auto& [count, ms] : backoffs) EXPECT_EQ(TestAccess::backoffMs(client, count), ms) << count;

  testing::internal::CaptureStdout();
  TestAccess::transition(client, 16);
  TestAccess::transition(client, 15);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "State transition: INIT -> UNKNOWN\nState transition: UNKNOWN -> ERROR\n");
}

}  // namespace
}  // namespace dorve
