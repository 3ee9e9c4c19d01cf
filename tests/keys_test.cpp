// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "dorve/keys/file_text.h"
#include "dorve/keys/key_material.h"
#include "dorve/keys/ssh_files.h"

namespace dorve {

namespace fs = std::filesystem;

/// An SSH directory for one test.
struct Keys : testing::Test {
  std::string dir = testing::TempDir() + "dorve-keys-XXXXXX";

  Keys() { EXPECT_NE(mkdtemp(dir.data()), nullptr); }
  ~Keys() override { fs::remove_all(dir); }
};

TEST_F(Keys, EditsLeaveTheseBytes) {
  const std::string key = "ssh-ed25519 NEW slice\n", host = "10.0.0.1 ssh-ed25519 HOST";
  const std::string block = "\nHost 10.0.0.1\n    IdentityFile " + dir +
                            "/slice\n    IdentitiesOnly yes\n"
                            "    StrictHostKeyChecking no\n    UserKnownHostsFile /dev/null\n";
  const auto authorize = [&] { addAuthKey(dir, "slice", key.c_str()); };
  const auto know = [&] { addKnownHost(dir, "ssh-ed25519 HOST", "10.0.0.1"); };
  const auto configure = [&] { addSshConfig(dir, "slice", "10.0.0.1"); };
  const std::tuple<const char*, std::function<void()>, const char*, std::string> rows[] = {
      {"/authorized_keys", authorize, nullptr, key},
      {"/authorized_keys", authorize, "\nA\nOLD slice\n\n# x-slice-y z\n  B\n\n", "A\n  B\n\n" + key},
      {"/authorized_keys", authorize, "OLD slice\r\nA\r\n\r\nB", "A\r\n\r\nB\n\n" + key},
      {"/known_hosts", know, nullptr, host},
      {"/known_hosts", know, "10.0.0.1 K1\n\n10.0.0.10 K2\n10.0.0.2 K3", "10.0.0.2 K3\n\n" + host},
      {"/config", configure, nullptr, block},
      {"/config", configure, "Host 10.0.0.2\n\n\n    User b", "Host 10.0.0.2\n\n\n    User b" + block},
      {"/config", configure, "# Host 10.0.0.10\n\n", "# Host 10.0.0.10\n\n"},
  };
  for (const auto& [file, edit, before, after] : rows) {
    SCOPED_TRACE(before == nullptr ? file : before);
    fs::remove(dir + file);
    if (before != nullptr) std::ofstream(dir + file) << before;
    for (const char* run : {"first run", "second run"}) {
      edit();
      EXPECT_EQ(readFileText(dir + file), after) << run;
      EXPECT_EQ(fs::status(dir + file).permissions(), fs::perms{0600}) << run;
    }
  }
}

TEST_F(Keys, ABlockThatDidNotFitIsTakenBack) {
  const std::string before = "Host 10.0.0.2\n";
  std::ofstream(dir + "/config") << before;
  signal(SIGXFSZ, SIG_IGN);  // a file that is too large is an error, as on a full disk
  rlimit all{};
  getrlimit(RLIMIT_FSIZE, &all);
  const rlimit few{60, all.rlim_max};
  // Nor is a file that may be written but not read taken for an empty one, and cut to that.
  const auto owned = [&](const std::string& path) { return chown(path.c_str(), 65534, 65534) == 0; };
  if (owned(dir) && owned(dir + "/config")) {
    EXPECT_EQ(chmod((dir + "/config").c_str(), 0200) + seteuid(65534), 0);
  }
  for (const rlimit* limit : {&few, const_cast<const rlimit*>(&all)}) {
    setrlimit(RLIMIT_FSIZE, limit);
    addSshConfig(dir, "slice", "10.0.0.1");
    EXPECT_EQ(readFileText(dir + "/config") == before, limit == &few);
  }
  EXPECT_EQ(seteuid(getuid()), 0);
}

TEST_F(Keys, WhatCannotBeReadOrWrittenIsNoError) {
  for (auto name : {"/authorized_keys", "/known_hosts", "/config", "/k.pub"})
    fs::create_directory(dir + name);
  for (const std::string& place : {dir, dir + "/missing"}) {
    EXPECT_EQ(readPublicKey(place, "k"), "");
    EXPECT_NO_THROW(addAuthKey(place, "k", nullptr));
    EXPECT_NO_THROW(addKnownHost(place, nullptr, "host"));
    EXPECT_NO_THROW(addSshConfig(place, "k", "host"));
  }
}

TEST_F(Keys, RegenerateMakesAFreshPairOrNone) {
  const std::string old = regenerateKeys(dir, "k"), line = regenerateKeys(dir, "k");
  EXPECT_TRUE(line != old && line.starts_with("ssh-ed25519 ") && line.ends_with(" k\n")) << line;
  EXPECT_EQ(line, readFileText(dir + "/k.pub"));
  EXPECT_EQ(fs::status(dir + "/k").permissions(), fs::perms{0600});
  fs::remove(dir + "/k");
  fs::create_directories(dir + "/k/in-the-way");  // ssh-keygen asks, and gets no answer
  EXPECT_EQ(regenerateKeys(dir, "k"), "") << "the old key";
}

TEST_F(Keys, TextIsReadAndJudgedAsHeld) {
  const std::string text = std::string(40'000, 'k') + " \r\n\n";
  std::ofstream(dir + "/k.pub") << text;
  EXPECT_EQ(readPublicKey(dir, "k"), text);
  EXPECT_EQ(calculateKeyHash(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(calculateKeyHash("k\n"), "19732980d68fbd00358a0a4d98246c960400b87e4fa2a2e155db98be2b42ed6c");
  EXPECT_TRUE(validateKeyFormat("ssh-" + std::string(97, 'x')));
  for (const char* start : {"ssh-", "ssh_x"}) EXPECT_FALSE(validateKeyFormat(start + std::string(96, 'x')));
}

}  // namespace dorve
