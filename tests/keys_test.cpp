// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
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

/// Nothing, where the file was opened to write only.
std::string contents(int fd) {
  std::string text(1 << 16, '\0');
  text.resize(static_cast<std::size_t>(std::max<ssize_t>(0, pread(fd, text.data(), text.size(), 0))));
  return text;
}

}  // namespace

// These stand in for the functions of the C library.

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
  if (failsNow()) {
    if (errno == EINTR) return -1;
    size /= 2;
  }
  if (!calls.watched) return syscall(SYS_pwrite64, fd, data, size, offset);
  // A block at a time, as the kernel copies it.
  std::size_t done = 0;
  while (done < size) {
    const off_t at = offset + static_cast<off_t>(done);
    const std::size_t part = std::min(size - done, kBlockSize - static_cast<std::size_t>(at) % kBlockSize);
    syscall(SYS_pwrite64, fd, static_cast<const char*>(data) + done, part, at);
    calls.states.push_back(contents(fd));
    done += part;
  }
  return static_cast<ssize_t>(done);
}

int fdatasync(int fd) {
  if (failsNow()) return -1;
  calls.stored = contents(fd);
  return 0;
}

int ftruncate(int fd, off_t size) noexcept {
  if (failsNow()) return -1;
  // The new size may be stored before what was written since the last sync.
  calls.states.push_back(calls.stored.substr(0, static_cast<std::size_t>(size)));
  return static_cast<int>(syscall(SYS_ftruncate, fd, size));
}

namespace dorve {

std::set<std::string> linesOf(const std::string& text) {
  std::set<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.insert(line);
  return lines;
}

/// Lines that an edit must keep, each with its beginning: a key that lost it has lost its restrictions.
std::string foreignLines(int count) {
  std::string text;
  for (int number = 0; number < count; ++number) {
    text += "restrict ssh-rsa FOREIGN-" + std::to_string(number) + "-" + std::string(40, 'k') + "\n";
  }
  return text;
}

struct Edit {
  std::string file;
  std::function<void()> run;
  std::string before;  ///< empty where there is no file
  std::string after;
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
    const std::string few = foreignLines(3), many = foreignLines(100);
    const std::string block = "\nHost 10.0.0.1\n    IdentityFile " + dir +
                              "/slice\n    IdentitiesOnly yes\n"
                              "    StrictHostKeyChecking no\n    UserKnownHostsFile /dev/null\n";
    const auto authorize = [this, key] { addAuthKey(dir, "slice", key.c_str()); };
    const auto know = [this] { addKnownHost(dir, "ssh-ed25519 HOST", "10.0.0.1"); };
    const auto configure = [this] { addSshConfig(dir, "slice", "10.0.0.1"); };
    return {
        {"/authorized_keys", authorize, "", key},
        {"/authorized_keys", authorize, "\nA\nslice OLD\n\n# x-slice-y z\n  B\n\n", "A\n  B\n\n" + key},
        {"/authorized_keys", authorize, "OLD slice\r\nA\r\n\r\nB", "A\r\n\r\nB\n\n" + key},
        {"/authorized_keys", authorize, few + "OLD slice\n" + many, few + many + "\n" + key},
        {"/authorized_keys", authorize, "slice\n" + many, many + "\n" + key},
        {"/known_hosts", know, "", host},
        {"/known_hosts", know, "10.0.0.1 K1\n\n10.0.0.10 K2\n10.0.0.2 K3", "10.0.0.2 K3\n\n" + host},
        {"/config", configure, "", block},
        {"/config", configure, "Host 10.0.0.2\n\n\n    User b", "Host 10.0.0.2\n\n\n    User b" + block},
        {"/config", configure, "# Host 10.0.0.10\n\n", "# Host 10.0.0.10\n\n"},
    };
  }
};

TEST_F(Keys, EditsLeaveTheseBytes) {
  for (const Edit& edit : edits()) {
    SCOPED_TRACE(edit.file + " was: " + edit.before);
    put(edit.file, edit.before);
    for (const char* run : {"first run", "second run"}) {
      edit.run();
      EXPECT_EQ(text(edit.file), edit.after) << run;
      EXPECT_EQ(fs::status(dir + edit.file).permissions(), fs::perms{0600}) << run;
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
      EXPECT_GT(failing, 2) << "calls of " << edit.file << ": an open and a read can fail at least";
    }
  }
}

TEST_F(Keys, AFileThatMayNotBeReadCountsAsEmpty) {
  for (const Edit& edit : edits()) {
    if (!edit.before.empty()) continue;
    put(edit.file, "foreign\n");
    calls = {.watched = true, .failing = 0, .error = EACCES};
    edit.run();
    calls.watched = false;
    const std::string kept = edit.file == "/config" ? "foreign\n" : "";  // the one that is only appended to
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

TEST_F(Keys, ASuddenEndLeavesEveryForeignLineWhole) {
  const std::string old = "OLD slice " + std::string(300, 'o') + "\n", entry = "NEW slice";
  const std::string many = foreignLines(200);  // more than three blocks
  const std::pair<const char*, std::string> rows[] = {
      {"no entry yet", many},
      {"no end of the last line", many + "restrict ssh-rsa FOREIGN-end"},
      {"an entry at the end", many + "\n" + old},
      {"lines of less than a block after the entry", old + foreignLines(40)},
  };
  for (const auto& [what, before] : rows) {
    put("/authorized_keys", before);
    calls = {.watched = true, .stored = before};
    addAuthKey(dir, "slice", (entry + "\n").c_str());
    calls.watched = false;
    EXPECT_FALSE(calls.states.empty()) << what;
    std::set<std::string> foreign = linesOf(before), allowed = foreign;
    std::erase_if(foreign, [](const std::string& line) { return line.find("FOREIGN") == line.npos; });
    allowed.insert({"", entry});
    for (const std::string& state : calls.states) {
      const std::set<std::string> left = linesOf(state);
      EXPECT_TRUE(std::ranges::includes(left, foreign)) << what << ": a foreign line is lost in\n" << state;
      EXPECT_TRUE(std::ranges::includes(allowed, left)) << what << ": a part of a line is in\n" << state;
    }
  }
}

TEST_F(Keys, ANullKeyIsAnEmptyOne) {
  addKnownHost(dir, nullptr, "host");
  EXPECT_EQ(text("/known_hosts"), "host ");
}

TEST_F(Keys, TheDirectoryAndNewFilesAreTheirUsersAlone) {
  fs::permissions(dir, fs::perms{0775});
  for (const std::string& path : {dir, dir + "/missing"}) {
    makeSshDirectory(path);
    EXPECT_EQ(fs::status(path).permissions(), fs::perms{0700}) << path;
  }
  appendFileText(dir + "/new", "text");
  EXPECT_EQ(fs::status(dir + "/new").permissions(), fs::perms{0600});
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
  EXPECT_EQ(regenerateKeys(dir, "k"), "") << "the old key";
}

TEST_F(Keys, KeysAreHashedAsHeldAndJudgedByStartAndLength) {
  EXPECT_EQ(calculateKeyHash("k\n"), "19732980d68fbd00358a0a4d98246c960400b87e4fa2a2e155db98be2b42ed6c");
  EXPECT_TRUE(validateKeyFormat("ssh-" + std::string(97, 'x')));
  EXPECT_FALSE(validateKeyFormat("ssh-" + std::string(96, 'x'))) << "100 characters";
  EXPECT_FALSE(validateKeyFormat("ssh_" + std::string(97, 'x')));
}

}  // namespace dorve
