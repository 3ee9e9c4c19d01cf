// SPDX-License-Identifier: MIT
#include "dorve/keys/ssh_files.h"

#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "dorve/keys/file_text.h"

namespace dorve {
namespace {

constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kFileMode = 0600;

std::string_view textOrNothing(const char* text) {
  return text == nullptr ? "" : text;
}

/// Removes from `text` every empty line and every line that holds `obsolete`; the last line is ended if it
/// was not.
void keepForeignLines(std::string& text, std::string_view obsolete) {
  if (!text.empty() && text.back() != '\n') text += '\n';
  std::size_t kept = 0;
  // One search that runs ahead of the lines, not one in each: the rare match decides about its line alone.
  std::size_t match = text.find(obsolete);
  for (std::size_t line = 0, next = 0; line < text.size(); line = next) {
    next = text.find('\n', line) + 1;
    if (match < next) {
      match = text.find(obsolete, next);
    } else if (const std::size_t size = next - line; size > 1) {
      if (kept != line) std::memmove(&text[kept], &text[line], size);
      kept += size;
    }
  }
  text.resize(kept);
}

/// Appends `text` whole or not at all: half a block that a full disk left would be taken for a whole one ever
/// after. Goes back to the size that the file had, not to what could be read of it.
void append(const std::string& path, std::string_view text) {
  std::ofstream file(path, std::ios::binary | std::ios::app);
  if (!file) return;
  std::error_code failure;
  const auto size = std::filesystem::file_size(path, failure);
  file << text;
  file.close();
  if (!file && !failure) std::filesystem::resize_file(path, size, failure);
}

/// The edit that authorized_keys and known_hosts share: lines that hold `obsolete` go, `entry` ends the file.
void replaceEntry(const std::string& path, std::string_view obsolete, std::string_view entry) {
  if (auto text = readFileText(path)) {
    keepForeignLines(*text, obsolete);
    if (!text->empty()) *text += '\n';
    *text += entry;
    // In place, so links and owners stay; in one write, so the file is cut for as short a time as can be.
    std::ofstream(path, std::ios::binary | std::ios::trunc) << *text;
  }
  chmod(path.c_str(), kFileMode);
}

}  // namespace

void makeSshDirectory(const std::string& sshDir) {
  mkdir(sshDir.c_str(), kDirectoryMode);
  chmod(sshDir.c_str(), kDirectoryMode);
}

void addAuthKey(const std::string& sshDir, const std::string& keyName, const char* publicKey) {
  replaceEntry(sshDir + "/authorized_keys", keyName, textOrNothing(publicKey));
}

void addKnownHost(const std::string& sshDir, const char* publicKey, const char* host) {
  std::string entry = host;
  entry += ' ';
  entry += textOrNothing(publicKey);
  replaceEntry(sshDir + "/known_hosts", host, entry);
}

void addSshConfig(const std::string& sshDir, const std::string& keyName, const char* host) {
  const std::string path = sshDir + "/config";
  const std::string hostLine = std::string("Host ") + host;
  const auto text = readFileText(path);
  if (text && text->find(hostLine) == std::string::npos) {
    // The block's own first, empty line also ends a last line that had no end.
    append(path,
           "\n" + hostLine + "\n    IdentityFile " + sshDir + "/" + keyName +
               "\n    IdentitiesOnly yes\n    StrictHostKeyChecking no\n    UserKnownHostsFile /dev/null\n");
  }
  chmod(path.c_str(), kFileMode);
}

}  // namespace dorve
