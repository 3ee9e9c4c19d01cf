#include "keys/ssh_files.h"

#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <string_view>

#include "keys/file_text.h"

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
  auto kept = text.begin();
  for (auto line = text.cbegin(); line != text.cend();) {
    const auto next = std::find(line, text.cend(), '\n') + 1;
    const std::string_view content(line, next - 1);
    if (!content.empty() && content.find(obsolete) == std::string_view::npos) {
      if (kept != line) std::copy(line, next, kept);
      kept += next - line;
    }
    line = next;
  }
  text.erase(kept, text.end());
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
    std::ofstream(path, std::ios::binary | std::ios::app) << "\n" + hostLine + "\n" + "    IdentityFile " +
                                                                 sshDir + "/" + keyName + "\n" +
                                                                 "    IdentitiesOnly yes\n"
                                                                 "    StrictHostKeyChecking no\n"
                                                                 "    UserKnownHostsFile /dev/null\n";
  }
  chmod(path.c_str(), kFileMode);
}

}  // namespace dorve
