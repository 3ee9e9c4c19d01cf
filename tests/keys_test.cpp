#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <set>

#include "keys/file_text.h"
#include "keys/key_material.h"
#include "keys/ssh_files.h"

namespace dorve {
namespace {

namespace fs = std::filesystem;

const std::string kKey = "ssh-ed25519 NEW slice_key\n";

/// An SSH directory for one test.
struct Keys : testing::Test {
  std::string dir = testing::TempDir() + "dorve-keys-XXXXXX";

  Keys() { EXPECT_NE(mkdtemp(dir.data()), nullptr); }
  ~Keys() override { fs::remove_all(dir); }

  void write(const std::string& name, std::string_view text) { std::ofstream(dir + name) << text; }
  fs::perms mode(const std::string& name) { return fs::status(dir + name).permissions(); }
};

TEST_F(Keys, EditsLeaveTheseBytes) {
  const auto authorize = [this] { addAuthKey(dir, "slice_key", kKey.c_str()); };
  const auto know = [this] { addKnownHost(dir, "ssh-ed25519 HOST", "172.20.10.1"); };
  const auto configure = [this] { addSshConfig(dir, "slice_key", "172.20.10.1"); };
  const std::string host = "172.20.10.1 ssh-ed25519 HOST";
  const std::string block = "\nHost 172.20.10.1\n    IdentityFile " + dir +
                            "/slice_key\n    IdentitiesOnly yes\n"
                            "    StrictHostKeyChecking no\n    UserKnownHostsFile /dev/null\n";
  const std::tuple<const char*, std::function<void()>, const char*, std::string> rows[] = {
      {"/authorized_keys", authorize, nullptr, kKey},
      {"/authorized_keys", authorize, "ssh-rsa A\nssh-ed25519 OLD slice_key\n", "ssh-rsa A\n\n" + kKey},
      {"/authorized_keys", authorize, "\n\n# B\n\nx-slice_key-old y\n  A\n\n", "# B\n  A\n\n" + kKey},
      {"/authorized_keys", authorize, "OLD slice_key\nA", "A\n\n" + kKey},
      {"/authorized_keys", authorize, "A\r\n\r\nOLD slice_key", "A\r\n\r\n\n" + kKey},
      {"/known_hosts", know, nullptr, host},
      {"/known_hosts", know, "172.20.10.1 K1\n\n172.20.10.10 K2\n172.20.10.2 K3",
       "172.20.10.2 K3\n\n" + host},
      {"/config", configure, nullptr, block},
      {"/config", configure, "Host 172.20.10.2\n\n\n    User b", "Host 172.20.10.2\n\n\n    User b" + block},
      {"/config", configure, "# Host 172.20.10.10\n\n", "# Host 172.20.10.10\n\n"},
  };
  for (const auto& [file, edit, before, after] : rows) {
    SCOPED_TRACE(before == nullptr ? file : before);
    fs::remove(dir + file);
    if (before != nullptr) write(file, before);
    for (const char* run : {"first run", "second run"}) {
      edit();
      EXPECT_EQ(readFileText(dir + file), after) << run;
      EXPECT_EQ(mode(file), fs::perms{0600}) << run;
    }
  }
}

TEST_F(Keys, WhatCannotBeReadOrWrittenIsNoError) {
  for (const char* name : {"/authorized_keys", "/known_hosts", "/config", "/k.pub"})
    fs::create_directory(dir + name);
  for (const std::string& place : {dir, dir + "/missing"}) {
    EXPECT_EQ(readPublicKey(place, "k"), "");
    EXPECT_NO_THROW(addAuthKey(place, "k", nullptr));
    EXPECT_NO_THROW(addKnownHost(place, nullptr, "host"));
    EXPECT_NO_THROW(addSshConfig(place, "k", "host"));
  }
}

TEST_F(Keys, RegenerateMakesAFreshPairOrNone) {
  std::set<std::string> seen;
  for (const char* run : {"first run", "second run"}) {
    const std::string line = regenerateKeys(dir, "k");
    EXPECT_TRUE(line.starts_with("ssh-ed25519 ") && line.ends_with(" k\n")) << line;
    EXPECT_EQ(line, readFileText(dir + "/k.pub"));
    EXPECT_TRUE(seen.insert(line).second && seen.insert(*readFileText(dir + "/k")).second) << run;
    EXPECT_EQ(mode("/k"), fs::perms{0600});
  }
  fs::remove(dir + "/k");
  fs::create_directories(dir + "/k/in-the-way");
  testing::internal::CaptureStdout();  // ssh-keygen asks, and gets no answer
  EXPECT_EQ(regenerateKeys(dir, "k"), "") << "the old key";
  testing::internal::GetCapturedStdout();
}

TEST_F(Keys, TextIsReadAndJudgedAsHeld) {
  const std::string text = std::string(40'000, 'k') + " \r\n\n";
  write("/k.pub", text);
  EXPECT_EQ(readPublicKey(dir, "k"), text);
  EXPECT_EQ(calculateKeyHash(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(calculateKeyHash("k\n"), "19732980d68fbd00358a0a4d98246c960400b87e4fa2a2e155db98be2b42ed6c");
  EXPECT_TRUE(validateKeyFormat("ssh-" + std::string(97, 'x')));
  for (const char* start : {"ssh-", "ssh_x"}) EXPECT_FALSE(validateKeyFormat(start + std::string(96, 'x')));
}

}  // namespace
}  // namespace dorve
