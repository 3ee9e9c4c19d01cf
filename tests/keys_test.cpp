// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>

#include "dorve/keys/file_text.h"
#include "dorve/keys/key_material.h"
#include "dorve/keys/ssh_files.h"

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kBlockSize = 4096;

/// The calls that edit a file, while they are watched.
struct Calls {
  bool watched = false;
  int failing = -1;  ///< the number of the one that fails, with `error`; a write then stores the half
  int error = 0;
  std::string stored = "";  ///< what the disk holds for certain
  int count = 0;
  std::vector<std::string> states = {};  ///< what a sudden end could leave
} calls;

bool failsNow() {
  if (!calls.watched || calls.count++ != calls.failing) return false;
  errno = calls.error;
  return true;
}

std::string contents(int fd) {
  struct stat status = {};
  std::string text(fstat(fd, &status) == 0 ? static_cast<std::size_t>(status.st_size) : 0, ' ');
  const int own = static_cast<int>(
      syscall(SYS_openat, AT_FDCWD, ("/proc/self/fd/" + std::to_string(fd)).c_str(), O_RDONLY));
  EXPECT_EQ(read(own, text.data(), text.size()), std::ssize(text));
  close(own);
  return text;
}

}  // namespace

// These stand in for the functions of the C library.

int open(const char* path, int flags, ...) {
  return failsNow() ? -1 : static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, 0600));
}

ssize_t pwrite(int fd, const void* data, std::size_t size, off_t offset) {
  if (failsNow()) {
    if (errno == EINTR) return -1;
    size /= 2;
  }
  // A block at a time, as the kernel copies it.
  for (std::size_t done = 0; calls.watched && done < size;) {
    const std::size_t at = static_cast<std::size_t>(offset) + done;
    done = std::min(size, done + kBlockSize - at % kBlockSize);
    syscall(SYS_pwrite64, fd, data, done, offset);
    calls.states.push_back(contents(fd));
  }
  return syscall(SYS_pwrite64, fd, data, size, offset);
}

int fdatasync(int fd) {
  if (failsNow()) return -1;
  if (calls.watched) calls.stored = contents(fd);
  return 0;
}

int ftruncate(int fd, off_t size) noexcept {
  if (failsNow()) return -1;
  // The new size may be stored before what was written since the last sync.
  calls.states.push_back(calls.stored.substr(0, static_cast<std::size_t>(size)));
  return static_cast<int>(syscall(SYS_ftruncate, fd, size));
}

namespace dorve {

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
      {"/authorized_keys", authorize, "\nA\nslice OLD\n\n# x-slice-y z\n  B\n\n", "A\n  B\n\n" + key},
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

/// A foreign line whose beginning must never be lost.
std::string foreignLine(int number) {
  return "restrict ssh-rsa FOREIGN-" + std::to_string(number) + "-" + std::string(40, 'k') + "\n";
}

std::string foreignLines(int count) {
  std::string text;
  for (int number = 0; number < count; ++number) text += foreignLine(number);
  return text;
}

TEST_F(Keys, TakeBackWhatDoesNotFit) {
  // Nearly a page, with the old entry in front, so that all of it has moved by the time that the page is
  // full.
  const std::string keys = "OLD slice\n" + foreignLines(58),
                    hosts = "Host 10.0.0.2\n" + std::string(4000, '#');
  const auto editBoth = [&] {
    std::ofstream(dir + "/authorized_keys") << keys;
    std::ofstream(dir + "/config") << hosts;
    addAuthKey(dir, "slice", ("NEW slice " + std::string(200, 'n')).c_str());
    addSshConfig(dir, "slice", "10.0.0.1");
    return readFileText(dir + "/authorized_keys") == keys && readFileText(dir + "/config") == hosts;
  };
  const std::string size = "size=" + std::to_string(2 * sysconf(_SC_PAGESIZE));
  const std::pair<const char*, std::function<bool()>> limits[] = {
      {"a limit of file sizes",
       [] {
         const rlimit limit{kBlockSize, kBlockSize};
         return setrlimit(RLIMIT_FSIZE, &limit) == 0;
       }},
      {"a full file system",
       [&] {
         return unshare(CLONE_NEWNS) == 0 && mount("", "/", "", MS_REC | MS_PRIVATE, "") == 0 &&
                mount("", dir.c_str(), "tmpfs", 0, size.c_str()) == 0;
       }},
  };
  for (const auto& [name, confine] : limits) {
    const pid_t child = fork();
    if (child == 0) _exit(!confine() ? 77 : editBoth() ? 0 : 1);
    int status = 0;
    waitpid(child, &status, 0);
    if (status == 77 << 8) GTEST_SKIP() << "no right to mount a file system";
    EXPECT_EQ(status, 0) << name;
  }
}

TEST_F(Keys, AFailingCallLeavesTheOldTextOrTheNew) {
  const std::string path = dir + "/authorized_keys", entry = "NEW slice\n", few = foreignLines(3);
  const std::string old = "OLD slice " + std::string(200, 'o') + "\n", many = foreignLines(100);
  const std::pair<std::string, std::string> rows[] = {
      {few, few + "\n" + entry},
      {few + "\n" + old, few + "\n" + entry},
      {few + old + many, few + many + "\n" + entry},
      {"slice\n" + many, many + "\n" + entry},
  };
  for (const auto& [before, after] : rows) {
    for (const int error : {EIO, EMFILE, EINTR, EACCES}) {
      int failing = 0;
      for (bool failed = true; failed; ++failing) {
        std::ofstream(path) << before;
        calls = {.watched = true, .failing = failing, .error = error};
        addAuthKey(dir, "slice", entry.c_str());
        calls.watched = false;
        failed = calls.count > failing;
        const std::string text = *readFileText(path);
        SCOPED_TRACE(std::to_string(error) + " at call " + std::to_string(failing));
        if (error == EACCES && failing == 0) {
          EXPECT_EQ(text, entry) << "a file that may not be read counts as empty";
        } else if (error == EINTR || !failed) {
          EXPECT_EQ(text, after);
        } else {
          EXPECT_EQ(text, text == after ? after : before);
        }
      }
      EXPECT_GT(failing, 2) << "an open and a write can fail, and a run without a failure comes last";
    }
  }
}

TEST_F(Keys, ASuddenEndLosesNoForeignLine) {
  const int many = 200;  // more than three blocks
  const std::string entry = "NEW slice\n", longOld = "OLD slice " + std::string(300, 'o') + "\n";
  const struct {
    const char* what;
    std::string before;
    std::ptrdiff_t damaged;  // lines at most, where the kernel can be stopped between two blocks
  } rows[] = {
      {"no entry yet", foreignLines(many), 0},
      {"no end of the last line", foreignLines(many) + "restrict ssh-rsa FOREIGN-end", 0},
      {"an entry at the end", foreignLines(many) + "\n" + longOld, 0},
      {"lines of less than a block behind the entry", longOld + foreignLines(40), 0},
      {"lines of many blocks behind the entry", longOld + foreignLines(many), 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    std::set<std::string> foreign;
    std::istringstream beforeLines(row.before);
    for (std::string line; std::getline(beforeLines, line);) {
      if (line.find("FOREIGN") != std::string::npos) foreign.insert(line);
    }
    std::ofstream(dir + "/authorized_keys") << row.before;
    calls = {.watched = true, .stored = row.before};
    addAuthKey(dir, "slice", entry.c_str());
    calls.watched = false;
    EXPECT_FALSE(calls.states.empty());
    for (const std::string& state : calls.states) {
      std::set<std::string> whole;
      std::ptrdiff_t halves = 0;
      std::istringstream lines(state);
      for (std::string line; std::getline(lines, line);) {
        if (foreign.contains(line)) {
          whole.insert(line);
        } else if (!line.empty() && line + "\n" != entry && line + "\n" != longOld) {
          ++halves;
        }
      }
      EXPECT_LE(std::ssize(foreign) - std::ssize(whole), row.damaged) << "lost lines";
      EXPECT_LE(halves, row.damaged) << "half lines";
    }
  }
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
