// SPDX-License-Identifier: MIT
// Fuzzes the edits of authorized_keys, known_hosts and config, and the removal of a pairing.
// The files may hold arbitrary text, and the disk may be full.
#include "dorve/keys/ssh_files.h"

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "dorve/keys/file_text.h"
#include "dorve/keys/unpair.h"
#include "fuzz.h"

using namespace dorve;

static const std::string kName = "base_slice_exchange", kHost = "172.20.10.1", kHostLine = "Host " + kHost;
static const std::string kBlock =
    "\n" + kHostLine + "\n    IdentityFile " + kSshDir + "/" + kName +
    "\n    IdentitiesOnly yes\n    StrictHostKeyChecking no\n    UserKnownHostsFile /dev/null\n";

/// A seed has the words of the key up to a backslash and a newline, then the old text of the file, and in its
/// last three bytes the limit of the disk, the number of repetitions and the choice of the edit.
const std::vector<std::string> dorve::kSeeds = {
    "key\\\nssh-rsa B me@laptop\n# 172.20.10.10\n\n\r\n172.20.10.1 ssh-ed25519 C "
    "base_slice_exchange\nend\xFF\1c",
    "\\\n172.20.10.1 C\n172.20.10.10 D base_slice_exchange\nssh-rsa B\n\xFF\xF0y",
    "\\\n172.20.10.1 C\nno end\1\1a",
    "\\\n# Host 172.20.10.1\nHost x\xFF\1b",
    "\\\n\n\nHost 172.20.10.3\n  User y\n\4\xF0z",
    "\\\nHOST 172.20.10.1\nIdentityFile base_slice_exchange\n\xFF\1b"};

static constexpr std::size_t kUnlimited = SIZE_MAX;

/// The largest number of bytes that a write can store. The first larger write stores only this many bytes
/// and removes the limit, so that the edit can restore the file.
static std::size_t freeBytes = kUnlimited;

/// pwrite(2) and its replacement. The linker's option --wrap=pwrite64 gives them these names.
ssize_t realWrite(int descriptor, const void* data, std::size_t size, off_t offset) asm("__real_pwrite64");
ssize_t limitedWrite(int descriptor, const void* data, std::size_t size, off_t offset) asm("__wrap_pwrite64");

ssize_t limitedWrite(int descriptor, const void* data, std::size_t size, off_t offset) {
  const std::size_t stored = std::min(size, freeBytes);
  if (stored < size) freeBytes = kUnlimited;
  if (stored == 0 && size > 0) {
    errno = ENOSPC;
    return -1;
  }
  return realWrite(descriptor, data, stored, offset);
}

/// The text that an edit must give: all lines that are not empty and lack `marker`, in order, and the entry.
/// A blank line separates the entry from these lines.
static std::string withEntry(const std::string& text, const std::string& marker, const std::string& entry) {
  std::istringstream lines(text);
  std::string kept;
  for (std::string line; std::getline(lines, line);)
    if (!line.empty() && line.find(marker) == std::string::npos) kept += line + "\n";
  return kept + (kept.empty() ? "" : "\n") + entry;
}

/// The lines of a text that lack `marker`, blank lines included.
static std::string without(const std::string& text, const std::string& marker) {
  std::string kept;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t newline = text.find('\n', start);
    const std::size_t end = newline == std::string::npos ? text.size() : newline + 1;
    const std::string line = text.substr(start, end - start);
    if (line.find(marker) == std::string::npos) kept += line;
    start = end;
  }
  return kept;
}

/// Removes the pairing from the edited file, at first on a disk that may be full.
static void checkRemoval(const std::string& path, const std::string& edited, const std::string& unpaired,
                         std::size_t limit) {
  freeBytes = limit;
  removeRemnants(kSshDir, kName, {kHost});
  const std::optional<std::string> left = readFileText(path);
  check(left == unpaired || (limit != kUnlimited && left == edited),
        "a full disk leaves the old or the new text");
  freeBytes = kUnlimited;
  // Each call finds a changed block and keeps it.
  const std::vector<Remnant> found = removeRemnants(kSshDir, kName, {kHost});
  const bool hasRemoved = std::ranges::any_of(found, [](const Remnant& it) { return it.obstacle.empty(); });
  check(hasRemoved == (left != unpaired), "a line is removed once");
  check(readFileText(path) == unpaired, "a removal leaves all other bytes as they were");
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  const int edited = input.ConsumeIntegral<std::uint8_t>() % 3;
  const int times = input.ConsumeIntegral<std::uint8_t>();
  const std::size_t blocks = input.ConsumeIntegral<std::uint8_t>();
  const std::size_t limit = blocks == 255 ? kUnlimited : 16 * blocks;
  const std::string words = input.ConsumeRandomLengthString(), text = input.ConsumeRemainingBytesAsString();
  const std::string key = "ssh-ed25519 " + words.substr(0, words.find_first_of(std::string("\n\0", 2))) +
                          kName + (times % 2 == 0 ? "" : "\n");
  std::string before;  // repeats the text, because a file longer than 16384 bytes needs several reads
  for (int i = 0; i < times && before.size() + text.size() < 20000; ++i) before += text;
  const bool hasBlock = before.find(kHostLine) != std::string::npos;
  const std::tuple<const char*, std::function<void()>, std::string> edits[] = {
      {"/authorized_keys", [&] { addAuthKey(kSshDir, kName, key.c_str()); }, withEntry(before, kName, key)},
      {"/known_hosts", [&] { addKnownHost(kSshDir, key.c_str(), kHost.c_str()); },
       withEntry(before, kHost, kHost + " " + key)},
      {"/config", [&] { addSshConfig(kSshDir, kName, kHost.c_str()); }, hasBlock ? before : before + kBlock}};
  const auto& [name, edit, expected] = edits[edited];
  const std::string path = kSshDir + name;
  makeSshDirectory(kSshDir);
  std::remove(path.c_str());
  if (!before.empty()) std::ofstream(path, std::ios::binary) << before;
  freeBytes = limit;
  edit();
  const bool wasFull = freeBytes != limit;
  check(readFileText(path) == (wasFull ? before : expected),
        "a full disk leaves the old text, otherwise the file has the new text");
  freeBytes = kUnlimited;
  for (int run = 0; run < 2; ++run) {
    edit();
    check(readFileText(path) == expected, "a repeated edit gives the same text");
    check(std::filesystem::status(path).permissions() == std::filesystem::perms{0600}, "the mode is 0600");
  }
  if (edited == 0) checkRemoval(path, expected, without(expected, kName), limit);
  if (edited == 2 && !hasBlock) checkRemoval(path, expected, before, limit);
  return 0;
}
