// SPDX-License-Identifier: MIT
// Operations that act on a whole machine: the restart of sshd, mounts. They run on a lab host, which has its
// own processes, mounts, /run and kernel log; the tool that runs them refuses anywhere else.
#include <sstream>

#include "lab.h"

namespace dorve {
namespace {

constexpr const char* kOperation = "'" DORVE_BUILD "/tests/host-operation' ";

class HostTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!lab.unavailable.empty()) GTEST_SKIP() << lab.unavailable;
    const Outcome check = run("check");
    if (check.status != 0) GTEST_SKIP() << check.err;
  }

  Outcome run(const std::string& operation) { return lab.server.run(kOperation + operation); }

  /// What a shell command on the server's host prints, without its last line feed.
  std::string on(const std::string& command) {
    std::string out = lab.server.run(command).out;
    if (out.ends_with('\n')) out.pop_back();
    return out;
  }

  /// The result and the milliseconds of an operation on a process.
  std::pair<int, int> timed(const std::string& operation) {
    std::istringstream out(on(kOperation + operation));
    std::pair<int, int> result{-1, -1};
    out >> result.first >> result.second;
    return result;
  }

  /// Starts a shell command in the background; its PID as the host sees it.
  std::string start(const std::string& command) {
    return on("setsid sh -c 'echo $$; " + command + "' </dev/null 2>/dev/null & sleep 0.1");
  }

  Lab lab{"--sshd"};
};

TEST_F(HostTest, RestartPutsAFreshSshdInThePlaceOfTheOld) {
  lab.client.run("ssh-keygen -q -t ed25519 -N '' -f /root/.ssh/id_ed25519");
  writeFile(lab.server.path("/root/.ssh/authorized_keys"),
            readFile(lab.client.path("/root/.ssh/id_ed25519.pub")));
  const std::string ssh = "ssh -o BatchMode=yes -o StrictHostKeyChecking=no root@172.20.10.1 hostname";
  const std::string pid = "cat /run/sshd.pid";
  const std::string old = on(pid);
  ASSERT_NE(old, "");
  run("restart");
  ASSERT_TRUE(eventually([&] { return on(pid) != old && on(pid) != ""; }));
  EXPECT_EQ(on("ps -o pid= -p " + old), "");
  EXPECT_EQ(lab.client.run(ssh).out, "server\n");

  // With a fresh daemon that can't start, the PID file is what the restart left: gone with the sshd that it
  // named (one that tidies nothing up itself), or as it was.
  on("kill $(cat /run/sshd.pid); cp /bin/sleep /run/sshd-x; echo Nonsense >>/etc/ssh/sshd_config; sleep 0.2");
  for (const auto& [process, left] : {std::pair{"/run/sshd-x 1000", "0"}, {"sleep 1000", "1"}}) {
    const std::string named = start("exec " + std::string(process));
    on("echo " + named + " >/run/sshd.pid");
    run("restart");
    EXPECT_TRUE(eventually([&] { return on("cat /dev/kmsg").find("Nonsense") != std::string::npos; }));
    EXPECT_EQ(on("ls /run/sshd.pid 2>/dev/null | wc -l"), left) << process;
    EXPECT_EQ(on("ps -o pid= -p " + named + " | wc -l"), left) << process;
    on(": >/dev/kmsg");
  }
}

TEST_F(HostTest, RestartSparesWhateverIsNotSshd) {
  const std::string innocent = start("exec sleep 1000");
  std::string running = on("cat /run/sshd.pid");
  for (const std::string& named : {innocent, std::string(), std::string("0"), "-" + innocent}) {
    SCOPED_TRACE(named);
    on("kill " + running + "; sleep 0.2");
    on(named.empty() ? "rm -f /run/sshd.pid" : "echo " + named + " >/run/sshd.pid");
    run("restart");
    const auto started = [&] { return (running = on("cat /run/sshd.pid")) != named && !running.empty(); };
    ASSERT_TRUE(eventually(started));
    EXPECT_EQ(on("tr '\\0' ' ' </proc/" + running + "/cmdline"),
              "sshd: /usr/sbin/sshd [listener] 0 of 10-100 startups ");
    EXPECT_EQ(on("ps -o comm= -p " + innocent), "sleep");
  }
}

TEST_F(HostTest, TerminationIsPoliteFirstAndWaitsInGrowingSteps) {
  const auto within = [](int ms, int least, int most) { return ms >= least && ms < most; };
  for (const auto& [process, least, most] :
       {std::tuple{"exec sleep 1000", 0, 200}, {"trap \"\" TERM; while :; do sleep 1; done", 5000, 5600}}) {
    const std::string pid = start(process);
    const Outcome outcome = run("terminate " + pid);
    EXPECT_EQ(outcome.err, "");
    EXPECT_TRUE(outcome.out[0] == '1' && within(std::stoi(outcome.out.substr(1)), least, most))
        << outcome.out;
    EXPECT_EQ(on("ps -o state= -p " + pid).find_first_not_of("Z"), std::string::npos) << process;
  }

  // The child of a process that never waits for it; and a living one that the kernel shows as "(x) Z) S".
  const std::string zombie =
      on("setsid sh -c 'sleep 0 & echo $!; exec sleep 1000' </dev/null 2>/dev/null & sleep 0.3");
  EXPECT_EQ(on("ps -o state= -p " + zombie), "Z");
  const auto [ended, endedMs] = timed("wait " + zombie + " 1000");
  EXPECT_TRUE(ended == 1 && within(endedMs, 0, 20)) << endedMs;
  const std::string odd = start("cp /bin/sleep \"/run/x) Z\"; exec \"/run/x) Z\" 1000");
  const int sums[] = {0, 20, 60, 140, 300, 500, 700};  // of pauses of 20, 40, 80, 160, 200 and 200 ms
  for (std::size_t i = 1; i < std::size(sums); ++i) {
    // A busy machine makes pauses longer, never shorter: one undisturbed try of a few will do.
    std::pair<int, int> waited;
    for (int tries = 0; tries < 5; ++tries) {
      waited = timed("wait " + odd + " " + std::to_string(sums[i - 1] + (i > 1 ? 8 : 0)));
      if (within(waited.second, sums[i], sums[i] + 19)) break;
    }
    EXPECT_TRUE(waited.first == 0 && within(waited.second, sums[i], sums[i] + 19)) << waited.second;
  }
}

TEST_F(HostTest, TmpfsIsMountedOnceWithItsOptions) {
  const auto mount = [&](const std::string& path) {
    const Outcome outcome = run("mount " + path + " size=64k,mode=0700");
    return std::to_string(outcome.status) + outcome.out + "|" + outcome.err;
  };
  const auto mounts = [&] { return on("grep -c ' /run/m ' /proc/mounts"); };
  EXPECT_EQ(mount("/run/m"), "1|Error\n");  // there is no such directory
  on("mkdir /run/m");
  EXPECT_EQ(mount("/run/m"), "0Successful\n|");
  EXPECT_EQ(on("grep ' /run/m ' /proc/mounts | cut -d ' ' -f 1-4 | sed s/,inode64//"),
            "tmpfs /run/m tmpfs rw,nosuid,nodev,noexec,relatime,size=64k,mode=700");
  EXPECT_EQ(mount("/run/m"), "0|");
  EXPECT_EQ(mounts(), "1");
  EXPECT_EQ(mount("/run/m/"), "0Successful\n|");
  EXPECT_EQ(mounts(), "2");
  EXPECT_EQ(mount("/proc"), "0|");  // mounted, whatever it is
  const Outcome denied = lab.server.run("mkdir /run/n; setpriv --bounding-set -all --inh-caps -all " +
                                        std::string(kOperation) + "mount /run/n mode=0700");
  EXPECT_EQ(std::to_string(denied.status) + denied.out + "|" + denied.err, "1|Error\n");
}

}  // namespace
}  // namespace dorve
