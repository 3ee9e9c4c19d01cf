// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>

#include "dorve/keys/file_text.h"
#include "dorve/keys/key_material.h"
#include "dorve/keys/ssh_files.h"
#include "dorve/keys/unpair.h"

namespace fs = std::filesystem;

namespace {

/// Counts the file calls of an edit while `watched`.
struct Calls {
  bool watched = false;
  int failing = -1;  ///< index of the call that fails with `error`; but with EIO a write stores half
  int error = 0;
  int count = 0;
  std::string changes = "";  ///< names of the write, sync and truncate calls
} calls;

bool failsNow(const char* change = "") {
  if (!calls.watched) return false;
  calls.changes += change;
  if (calls.count++ != calls.failing) return false;
  errno = calls.error;
  return true;
}

}  // namespace

// These replace the functions of the C library.

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return failsNow() ? -1 : static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

ssize_t read(int fd, void* buffer, std::size_t size) {
  return failsNow() ? -1 : syscall(SYS_read, fd, buffer, size);
}

ssize_t pwrite(int fd, const void* data, std::size_t size, off_t offset) {
  if (failsNow("write")) {
    if (errno == EINTR) return -1;
    size /= 2;
    errno = 0;
  }
  return syscall(SYS_pwrite64, fd, data, size, offset);
}

int fdatasync(int fd) {
  return failsNow(" sync") ? -1 : static_cast<int>(syscall(SYS_fdatasync, fd));
}

int ftruncate(int fd, off_t size) noexcept {
  return failsNow(" truncate") ? -1 : static_cast<int>(syscall(SYS_ftruncate, fd, size));
}

namespace dorve {

struct Edit {
  std::string file;
  std::function<void()> run;
  std::string before;  ///< empty where there is no file
  std::string after;
  /// An edit syncs before it truncates the file, and when it writes more than one disk block.
  std::string changes = "write";
};

/// An SSH directory for one test.
struct Keys : testing::Test {
  std::string dir = testing::TempDir() + "dorve-keys-XXXXXX";

  Keys() { EXPECT_NE(mkdtemp(dir.data()), nullptr); }
  ~Keys() override { fs::remove_all(dir); }

  std::string text(const std::string& file) const {
    return readFileText(dir + file).value_or("not readable");
  }

  void put(const std::string& file, const std::string& text) const {
    fs::remove(dir + file);
    if (!text.empty()) std::ofstream(dir + file) << text;
  }

  std::vector<Edit> edits() const {
    const std::string key = "ssh-ed25519 NEW slice\n", host = "10.0.0.1 ssh-ed25519 HOST";
    std::string many;  // foreign lines in more than one block of the disk
    for (int number = 0; number < 100; ++number)
      many += "ssh-rsa " + std::string(40, 'k') + std::to_string(number) + "\n";
    const std::string block = "\nHost 10.0.0.1\n    IdentityFile " + dir +
                              "/slice\n    IdentitiesOnly yes\n"
                              "    StrictHostKeyChecking no\n    UserKnownHostsFile /dev/null\n";
    const auto authorize = [this, key] { addAuthKey(dir, "slice", key.c_str()); };
    const auto know = [this] { addKnownHost(dir, "ssh-ed25519 HOST", "10.0.0.1"); };
    const auto configure = [this] { addSshConfig(dir, "slice", "10.0.0.1"); };
    const std::string filler = std::string(4096 - block.size(), 'x');  // makes 4096 bytes with the block
    return {
        {"/authorized_keys", authorize, "", key},
        {"/authorized_keys", authorize, "\nA\nslice OLD\n\n# x-slice-y z\n  B\n\n", "A\n  B\n\n" + key,
         "write sync truncate"},
        {"/authorized_keys", authorize, "OLD slice\r\nA\r\n\r\nB", "A\r\n\r\nB\n\n" + key},
        {"/authorized_keys", authorize, "A\n\nslice OLD\n" + many, "A\n" + many + "\n" + key, "write sync"},
        {"/authorized_keys", authorize, "slice\n" + many, many + "\n" + key, "write sync"},
        {"/known_hosts", know, "", host},
        {"/known_hosts", know, "10.0.0.1 K1\n\n10.0.0.10 K2\n10.0.0.2 K3", "10.0.0.2 K3\n\n" + host},
        {"/config", configure, "", block},
        {"/config", configure, "Host 10.0.0.2\n\n\n    User b", "Host 10.0.0.2\n\n\n    User b" + block},
        {"/config", configure, filler, filler + block},
        {"/config", configure, filler + "x", filler + "x" + block, "write sync"},
        {"/config", configure, "# Host 10.0.0.10\n\n", "# Host 10.0.0.10\n\n", ""},
    };
  }
};

TEST_F(Keys, EditsLeaveTheseBytes) {
  for (const Edit& edit : edits()) {
    SCOPED_TRACE(edit.file + " was: " + edit.before);
    put(edit.file, edit.before);
    calls = {.watched = true};
    edit.run();
    calls.watched = false;
    EXPECT_EQ(calls.changes, edit.changes);
    for (const char* run : {"first run", "second run"}) {
      EXPECT_EQ(text(edit.file), edit.after) << run;
      EXPECT_EQ(fs::status(dir + edit.file).permissions(), fs::perms{0600}) << run;
      edit.run();
    }
  }
}

TEST_F(Keys, AFailingCallLeavesTheOldTextOrTheNew) {
  for (const Edit& edit : edits()) {
    for (const int error : {EIO, EINTR}) {
      int failing = 0;
      for (bool failed = true; failed; ++failing) {
        put(edit.file, edit.before);
        calls = {.watched = true, .failing = failing, .error = error};
        edit.run();
        calls.watched = false;
        failed = calls.count > failing;
        const std::string found = text(edit.file);
        const bool mayBeOld = failed && error == EIO && found != edit.after;
        EXPECT_EQ(found, mayBeOld ? edit.before : edit.after)
            << edit.file << ", " << std::strerror(error) << " at call " << failing;
      }
      EXPECT_GT(failing, 2) << edit.file << ": each edit makes at least two calls";
    }
  }
}

TEST_F(Keys, AFailingCallOfAnUnpairingIsReported) {
  for (const std::size_t size : {10U, 10'000U}) {
    const std::string foreign = std::string(size, 'f') + "\n\n";
    const std::string before = "A\nno-pty K slice\n" + foreign + "K slice", kept = "A\n" + foreign;
    for (const int error : {EIO, EINTR, EACCES}) {
      int failing = 0;
      for (bool failed = true; failed; ++failing) {
        put("/authorized_keys", before);
        calls = {.watched = true, .failing = failing, .error = error};
        const std::vector<Remnant> remnants = removeRemnants(dir, "slice", {});
        calls.watched = false;
        failed = calls.count > failing;
        if (!failed) {
          EXPECT_EQ(calls.changes, "write sync truncate");
        }
        const bool isOld = text("/authorized_keys") == before;
        EXPECT_EQ(text("/authorized_keys"), isOld ? before : kept)
            << std::strerror(error) << " at " << failing;
        EXPECT_EQ(isOld, !remnants.empty() && !remnants.front().obstacle.empty()) << failing;
        EXPECT_EQ(isOld, failed && error != EINTR) << failing;
      }
      EXPECT_GT(failing, 7);
    }
  }
}

TEST_F(Keys, AFileThatMayNotBeReadCountsAsEmpty) {
  for (const Edit& edit : edits()) {
    if (!edit.before.empty()) continue;
    const std::string foreign(1000, 'f');
    put(edit.file, foreign);
    calls = {.watched = true, .failing = 0, .error = EACCES};
    edit.run();
    calls.watched = false;
    const std::string kept = edit.file == "/config" ? foreign : "";  // edits only append to config
    EXPECT_EQ(text(edit.file), kept + edit.after) << edit.file;
  }
}

TEST_F(Keys, APartOfAFileIsNeverTakenForTheWhole) {
  put("/k.pub", std::string(40'000, 'k'));
  for (int failing = 0; failing < 5; ++failing) {
    calls = {.watched = true, .failing = failing, .error = EIO};
    EXPECT_EQ(readFileText(dir + "/k.pub"), std::nullopt)
        << "the open or read number " << failing << " fails";
    calls.watched = false;
  }
  EXPECT_EQ(readFileText(dir), std::nullopt) << "a directory";
  EXPECT_EQ(readFileText(dir + "/k.pub/x"), "") << "a path through a file is a missing file";
}

TEST_F(Keys, ANullKeyIsAnEmptyOne) {
  addKnownHost(dir, nullptr, "host");
  EXPECT_EQ(text("/known_hosts"), "host ");
}

TEST_F(Keys, RegenerateMakesAFreshPairOrNone) {
  const std::string old = regenerateKeys(dir, "k"), line = regenerateKeys(dir, "k");
  EXPECT_NE(line, old);
  EXPECT_TRUE(line.starts_with("ssh-ed25519 ")) << line;
  EXPECT_TRUE(line.ends_with(" k\n")) << line;
  EXPECT_EQ(line, text("/k.pub"));
  EXPECT_EQ(fs::status(dir + "/k").permissions(), fs::perms{0600});
  fs::remove(dir + "/k");
  fs::create_directories(dir + "/k/in-the-way");  // ssh-keygen asks, and gets no answer
  EXPECT_EQ(regenerateKeys(dir, "k"), "") << "a key, although ssh-keygen made none";
}

TEST_F(Keys, KeysAreHashedWithTheirNewlineAndCheckedByStartAndLength) {
  EXPECT_EQ(calculateKeyHash("k\n"), "19732980d68fbd00358a0a4d98246c960400b87e4fa2a2e155db98be2b42ed6c");
  EXPECT_TRUE(validateKeyFormat("ssh-" + std::string(97, 'x')));
  EXPECT_FALSE(validateKeyFormat("ssh-" + std::string(96, 'x'))) << "100 characters";
  EXPECT_FALSE(validateKeyFormat("ssh_" + std::string(97, 'x')));
}

}  // namespace dorve
