// SPDX-License-Identifier: MIT
// Both programs against each other, and what is then true of both hosts.
#include <filesystem>

#include "lab.h"

namespace dorve {
namespace {

/// Foreign lines that an edit must keep, and blank ones that it must not.
constexpr const char* kForeignKeys = "# mine\n\nssh-rsa AAAA me@home\nno-pty ssh-rsa BBBB";
constexpr const char* kForeignConfig = "Host elsewhere\n    User me";

TEST(Pairing, LetsBothHostsLogInToEachOther) {
  const Lab lab("--sshd");
  if (!lab.unavailable.empty()) GTEST_SKIP() << lab.unavailable;
  const struct Side {
    const Lab::Host& host;
    const Lab::Host& peer;
    std::string peerAddress;
    std::string peerName;
  } sides[] = {{lab.client, lab.server, "172.20.10.1", "server"},
               {lab.server, lab.client, "172.20.10.2", "client"}};
  const std::string ssh = "ssh -o BatchMode=yes -o ConnectTimeout=5 root@";
  for (const Side& side : sides) {
    writeFile(side.host.path("/root/.ssh/authorized_keys"), kForeignKeys);
    writeFile(side.host.path("/root/.ssh/config"), kForeignConfig);
    EXPECT_EQ(side.host.run(ssh + side.peerAddress + " hostname").status, 255);
  }

  for (int run = 0; run < 2; ++run) {
    Process server(lab.server.command("exec '" DORVE_BUILD "/dorve-server'"));
    const Outcome client = lab.client.run("exec '" DORVE_BUILD "/dorve-client'");
    EXPECT_TRUE(
        client.out.ends_with("DORVE Protocol completed successfully\nClient completed successfully\n"));
    EXPECT_EQ(client.err, "");
    EXPECT_EQ(client.status, 0);
    const Outcome served = server.wait();
    EXPECT_EQ(served.out, "Starting DORVE Server (Base) v1.0\nServer completed successfully\n");
    EXPECT_EQ(served.err, "");
    EXPECT_EQ(served.status, 0);

    for (const Side& side : sides) {
      SCOPED_TRACE(side.peerName);
      const auto path = [&](const std::string& name) { return side.host.path("/root/.ssh/" + name); };
      const std::string key = readFile(side.peer.path("/root/.ssh/base_slice_exchange.pub"));
      EXPECT_EQ(readFile(path("authorized_keys")),
                "# mine\nssh-rsa AAAA me@home\nno-pty ssh-rsa BBBB\n\n" + key);
      EXPECT_EQ(readFile(path("config")),
                std::string(kForeignConfig) + "\nHost " + side.peerAddress +
                    "\n    IdentityFile /root/.ssh/base_slice_exchange\n    IdentitiesOnly yes\n"
                    "    StrictHostKeyChecking no\n    UserKnownHostsFile /dev/null\n");
      for (const char* name : {"authorized_keys", "config", "base_slice_exchange"}) {
        EXPECT_EQ(static_cast<int>(std::filesystem::status(path(name)).permissions()), 0600) << name;
      }
      EXPECT_FALSE(std::filesystem::exists(path("known_hosts")));
      const Outcome login = side.host.run(ssh + side.peerAddress + " hostname");
      EXPECT_EQ(login.out, side.peerName + "\n") << login.err;
    }
  }
}

}  // namespace
}  // namespace dorve
