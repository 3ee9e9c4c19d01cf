// SPDX-License-Identifier: MIT
#include "dorve/keys/unpair.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string_view>
#include <system_error>

#include "dorve/keys/file_text.h"
#include "dorve/keys/pairing_lines.h"

namespace dorve {
namespace {

constexpr const char* kChangedBlock = "somebody changed this block, so remove it by hand";

using Finder = std::function<std::vector<FoundLines>(std::string_view text)>;

void append(std::vector<Remnant>& remnants, const std::string& path, const std::vector<FoundLines>& found,
            bool changedOnes, const std::string& obstacle) {
  for (const FoundLines& lines : found) {
    if (lines.isChanged() == changedOnes)
      remnants.push_back({path, lines.firstLine, lines.lastLine, obstacle});
  }
}

/// Appends what `find` finds in a text file. Removes it if `remove` is set.
void handleText(std::vector<Remnant>& remnants, const std::string& path, const Finder& find, bool remove) {
  std::string text;
  std::error_code error = loadRegularFile(path, text);
  if (error) {
    remnants.push_back({path, 0, 0, "cannot be read: " + error.message()});
    return;
  }
  std::vector<FoundLines> found = find(text);
  if (remove && !std::ranges::all_of(found, &FoundLines::isChanged)) {
    error = editExistingFile(path, [&](std::string_view current) {
      found = find(current);
      TextTail tail = eraseFound(current, found);
      text = std::string(current.substr(0, tail.from)) + tail.text;
      return tail;
    });
  }
  append(remnants, path, found, false, error ? "cannot be written: " + error.message() : "");
  // After an edit, the numbers of the lines that stay are those of the new text.
  append(remnants, path, error ? found : find(text), true, kChangedBlock);
}

void handleKeyFile(std::vector<Remnant>& remnants, const std::string& path, bool remove) {
  struct stat status = {};
  const bool exists = lstat(path.c_str(), &status) == 0;
  const bool isFolder = exists && S_ISDIR(status.st_mode);
  const bool failed = !exists || (!isFolder && remove && unlink(path.c_str()) != 0);
  const int error = failed ? errno : 0;
  if (error == ENOENT || error == ENOTDIR) return;
  std::string obstacle = isFolder ? "is a directory, which no pairing makes" : "";
  if (failed) obstacle = "cannot be removed: " + std::generic_category().message(error);
  remnants.push_back({path, 0, 0, obstacle});
}

std::vector<Remnant> handleAll(const std::string& sshDir, const std::string& keyName,
                               const std::vector<std::string>& hosts, bool remove) {
  std::vector<Remnant> remnants;
  // The line that lets the other device log in goes first.
  const auto findKeys = [&](std::string_view text) { return findKeyLines(text, keyName); };
  const auto findBlocks = [&](std::string_view text) { return findHostBlocks(text, sshDir, keyName, hosts); };
  handleText(remnants, sshDir + "/authorized_keys", findKeys, remove);
  handleText(remnants, sshDir + "/config", findBlocks, remove);
  handleKeyFile(remnants, sshDir + "/" + keyName, remove);
  handleKeyFile(remnants, sshDir + "/" + keyName + ".pub", remove);
  return remnants;
}

}  // namespace

std::vector<Remnant> findRemnants(const std::string& sshDir, const std::string& keyName,
                                  const std::vector<std::string>& hosts) {
  return handleAll(sshDir, keyName, hosts, false);
}

std::vector<Remnant> removeRemnants(const std::string& sshDir, const std::string& keyName,
                                    const std::vector<std::string>& hosts) {
  return handleAll(sshDir, keyName, hosts, true);
}

}  // namespace dorve
