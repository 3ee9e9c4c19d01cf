// SPDX-License-Identifier: MIT
#include "dorve/keys/ssh_files.h"

#include <sys/stat.h>

#include <algorithm>
#include <string_view>

#include "dorve/keys/file_text.h"
#include "dorve/keys/pairing_lines.h"

namespace dorve {
namespace {

constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr std::size_t kEntryReserve = 8192;  // bytes to reserve for the new last line

std::string_view textOrNothing(const char* text) {
  return text == nullptr ? "" : text;
}

/// The edit that removes every empty line and every line that contains `marker`.
/// If the last line of the result lacks its newline, the edit adds it.
TextTail eraseLinesContaining(std::string_view text, std::string_view marker) {
  TextTail tail{std::string_view::npos, ""};
  // Matches are rare, so one search for each match is faster than one for each line.
  std::size_t match = text.find(marker);
  std::size_t kept = 0;  // start of the lines that stay and are not in `tail` yet
  for (std::size_t line = 0, next = 0; line < text.size(); line = next) {
    next = std::min(text.find('\n', line), text.size() - 1) + 1;
    const bool holdsMarker = match < next;
    if (holdsMarker) match = text.find(marker, next);
    if (!holdsMarker && text[line] != '\n') continue;
    if (tail.from == std::string_view::npos) {
      tail.from = line;
      tail.text.reserve(text.size() - line + kEntryReserve);
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

/// Removes the lines that contain `marker` from authorized_keys or known_hosts, and adds `entry` at the end.
void replaceEntry(const std::string& path, std::string_view marker, std::string_view entry) {
  replaceFileTail(path, [&](std::string_view text) {
    TextTail tail = eraseLinesContaining(text, marker);
    if (tail.from > 0 || !tail.text.empty()) tail.text += '\n';
    tail.text += entry;
    return tail;
  });
  chmod(path.c_str(), kFileMode);
}

/// The first line of the block for `host`. It marks the block in every edit and search.
std::string hostLineOf(const char* host) {
  return std::string("Host ") + host;
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
  const std::string hostLine = hostLineOf(host);
  const auto text = readFileText(path);
  if (text && text->find(hostLine) == std::string::npos) {
    // The leading newline also ends a last line that lacks its newline.
    // A later edit would mistake a partial block for a whole one, so the edit appends all of it or nothing.
    appendAllOrNothing(path, "\n" + hostBlock(sshDir, keyName, host));
  }
  chmod(path.c_str(), kFileMode);
}

bool hasAuthKey(const std::string& sshDir, std::string_view publicKey) {
  if (publicKey.ends_with('\n')) publicKey.remove_suffix(1);
  if (publicKey.empty()) return false;
  // With a newline on both sides of text and key, a match covers whole lines.
  const auto betweenNewlines = [](std::string_view text) {
    return std::string("\n").append(text).append("\n");
  };
  const std::string lines = betweenNewlines(readFileText(sshDir + "/authorized_keys").value_or(""));
  return lines.find(betweenNewlines(publicKey)) != std::string::npos;
}

bool hasSshConfig(const std::string& sshDir, const char* host) {
  return readFileText(sshDir + "/config").value_or("").find(hostLineOf(host)) != std::string::npos;
}

}  // namespace dorve
