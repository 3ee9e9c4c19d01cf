// SPDX-License-Identifier: MIT
#include "dorve/keys/ssh_files.h"

#include <sys/stat.h>

#include <algorithm>
#include <string_view>

#include "dorve/keys/file_text.h"

namespace dorve {
namespace {

constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr std::size_t kEntryRoom = 8192;  // bytes, for the entry that ends a file

std::string_view textOrNothing(const char* text) {
  return text == nullptr ? "" : text;
}

/// What follows the lines of `text` that stay in place: without every empty line and every line that holds
/// `obsolete`, the last line ended if it was not.
TextTail keepForeignLines(std::string_view text, std::string_view obsolete) {
  TextTail tail{std::string_view::npos, ""};
  // One search that runs ahead of the lines, not one in each: the rare match decides about its line alone.
  std::size_t match = text.find(obsolete);
  std::size_t kept = 0;  // where the lines begin that stay and are not in the tail yet
  for (std::size_t line = 0, next = 0; line < text.size(); line = next) {
    next = std::min(text.find('\n', line), text.size() - 1) + 1;
    const bool isObsolete = match < next;
    if (isObsolete) match = text.find(obsolete, next);
    if (!isObsolete && text[line] != '\n') continue;
    if (tail.from == std::string_view::npos) {
      tail.from = line;
      tail.text.reserve(text.size() - line + kEntryRoom);
    } else {
      tail.text += text.substr(kept, line - kept);
    }
    kept = next;
  }
  if (tail.from == std::string_view::npos) {
    tail.from = text.size();
  } else {
    tail.text += text.substr(kept);
  }
  const std::string_view last = tail.text.empty() ? text.substr(0, tail.from) : tail.text;
  if (!last.empty() && last.back() != '\n') tail.text += '\n';
  return tail;
}

/// The edit that authorized_keys and known_hosts share: lines that hold `obsolete` go, `entry` ends the file.
void replaceEntry(const std::string& path, std::string_view obsolete, std::string_view entry) {
  replaceFileTail(path, [&](std::string_view text) {
    TextTail tail = keepForeignLines(text, obsolete);
    if (tail.from > 0 || !tail.text.empty()) tail.text += '\n';
    tail.text += entry;
    return tail;
  });
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
    // Half a block would be taken for a whole one by every later edit, so it is all or nothing.
    appendFileText(
        path,
        "\n" + hostLine + "\n    IdentityFile " + sshDir + "/" + keyName +
            "\n    IdentitiesOnly yes\n    StrictHostKeyChecking no\n    UserKnownHostsFile /dev/null\n");
  }
  chmod(path.c_str(), kFileMode);
}

}  // namespace dorve
