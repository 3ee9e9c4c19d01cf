// SPDX-License-Identifier: MIT
// sshd's effective configuration for a login of this user from the other device.
#include <glob.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "dorve/facts/text.h"
#include "dorve/gather/files.h"
#include "dorve/gather/subjects.h"
#include "dorve/keys/key_material.h"

namespace dorve {
namespace {

constexpr const char* kSshd = "/usr/sbin/sshd";
constexpr const char* kSshdConfig = "/etc/ssh/sshd_config";
constexpr int kCommandMs = 4000;
constexpr std::size_t kMaxLines = 20000;

/// An ed25519 public key of zeros. Nobody has its private key.
constexpr const char* kNobodysKey =
    "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA";

std::vector<std::string> filesOf(const std::string& pattern) {
  glob_t found = {};
  const std::string path = pattern.starts_with('/') ? pattern : "/etc/ssh/" + pattern;
  std::vector<std::string> files;
  if (glob(path.c_str(), 0, nullptr, &found) == 0)
    files.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
  globfree(&found);
  return files;
}

/// Adds the lines of a file and of the files that it includes. A Match block ends with its file.
/// `open` holds the files that include this one.
void readConfig(const std::string& file, bool inMatch, std::vector<std::string> open,
                std::vector<ConfigLine>& lines) {
  if (std::ranges::find(open, file) != open.end() || lines.size() > kMaxLines) return;
  open.push_back(file);
  const std::string text = readText(file);
  int number = 0;
  for (std::size_t start = 0; start < text.size(); ++number) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    const std::vector<std::string> words = split(line, " \t\r=\"");
    if (words.empty() || words[0].starts_with('#')) continue;
    const std::string keyword = toLower(words[0]);
    if (keyword == "match") inMatch = true;
    lines.push_back({file, number + 1, keyword, line, inMatch});
    if (keyword != "include") continue;
    for (std::size_t i = 1; i < words.size(); ++i) {
      for (const std::string& each : filesOf(words[i])) readConfig(each, inMatch, open, lines);
    }
  }
}

/// The arguments in the title that a listening sshd gives itself: "sshd: PATH ARGUMENTS [listener] ...".
std::string argumentsOf(const Process& process) {
  std::ifstream file("/proc/" + std::to_string(process.pid) + "/cmdline");
  const std::string title((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  std::string text;
  for (const char c : title) text += c == '\0' ? ' ' : c;
  std::size_t start = text.find(kSshd);
  const std::size_t end = text.find(" [listener]");
  if (start == std::string::npos || end == std::string::npos) return "";
  start += std::string_view(kSshd).size();
  return start < end ? text.substr(start, end - start) : "";
}

/// The arguments that also make sense for `sshd -T` and `sshd -i`.
std::vector<std::string> reusable(const std::string& arguments) {
  std::vector<std::string> kept;
  const std::vector<std::string> words = split(arguments, " ");
  for (std::size_t i = 0; i < words.size(); ++i) {
    const bool takesValue = words[i] == "-f" || words[i] == "-o" || words[i] == "-h" || words[i] == "-c";
    if (!takesValue || i + 1 == words.size()) continue;
    kept.insert(kept.end(), {words[i], words[i + 1]});
    ++i;
  }
  return kept;
}

bool changedSinceStart(const Sshd& sshd) {
  const FileInfo started = inspect(sshd.settings.first("pidfile"));
  return started.type == FileInfo::Type::FILE && std::ranges::any_of(sshd.lines, [&](const ConfigLine& line) {
           return inspect(line.file).changed > started.changed;
         });
}

/// The path that a value of AuthorizedKeysFile names.
std::string expand(const std::string& value, const User& user) {
  std::string path;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '%' || i + 1 == value.size()) {
      path += value[i];
      continue;
    }
    const char token = value[++i];
    path += token == 'h'   ? user.home
            : token == 'u' ? user.name
            : token == 'U' ? std::to_string(user.id)
                           : std::string(1, token);
  }
  return path.starts_with('/') ? path : user.home + "/" + path;
}

bool readsAuthorizedKeys(const Settings& settings, const User& user, const Directory& directory) {
  if (directory.authorizedKeys.path.empty() || settings.all("authorizedkeysfile").empty()) return true;
  const std::vector<std::string> files = split(settings.first("authorizedkeysfile"), " \t");
  const std::filesystem::path ours = directory.authorizedKeys.path;
  return std::ranges::any_of(files, [&](const std::string& file) {
    std::error_code error;
    const std::filesystem::path path = expand(file, user);
    return path.lexically_normal() == ours || std::filesystem::equivalent(path, ours, error);
  });
}

/// The type and the text of the pairing key in authorized_keys; empty if there is none.
std::string pairingKey(const User& user, const Directory& directory) {
  // Root must not read for the user what the user can only link to.
  const FileInfo& file = directory.authorizedKeys;
  const bool mayRead = (file.mode & 04U) != 0 && file.real.starts_with(directory.canonicalHome + "/");
  if (!user.isRoot() && file.owner != user.id && !mayRead) return "";
  std::istringstream text(readText(directory.authorizedKeys.path));
  for (std::string line; std::getline(text, line);) {
    if (!contains(line, kPairingKeyName) || line.starts_with('#')) continue;
    const std::vector<std::string> words = split(line, " \t");
    const auto type = std::ranges::find(words, "ssh-ed25519");
    if (type != words.end() && type + 1 != words.end()) return *type + " " + *(type + 1);
  }
  return "";
}

}  // namespace

Sshd gatherSshd(const User& user, const Side& side, const Directory& directory,
                const Fact<Processes>& processes, const Deadline& deadline) {
  Sshd sshd;
  sshd.installed = inspect(kSshd).type == FileInfo::Type::FILE;
  sshd.systemd = inspect("/run/systemd/system").type == FileInfo::Type::DIRECTORY;
  sshd.loginsForbidden = inspect("/etc/nologin").type != FileInfo::Type::MISSING;
  const Process* running = processes ? processes->sshd() : nullptr;
  if (running != nullptr) sshd.arguments = argumentsOf(*running);
  sshd.testArguments = reusable(sshd.arguments);
  const std::vector<std::string>& arguments = sshd.testArguments;
  std::vector<std::string> test = {kSshd};
  test.insert(test.end(), arguments.begin(), arguments.end());
  test.insert(test.end(), {"-T", "-C",
                           "user=" + user.name + ",host=" + side.peerAddress + ",addr=" + side.peerAddress +
                               ",laddr=" + side.ownAddress + ",lport=22"});
  sshd.test = runCommand(test, deadline.leftMs(kCommandMs));
  sshd.settings = Settings(sshd.test.out);
  const auto other = std::ranges::find(arguments, "-f");
  sshd.configFile = other == arguments.end() || other + 1 == arguments.end() ? kSshdConfig : *(other + 1);
  sshd.fault = faultIn(sshd.test);
  readConfig(sshd.configFile, false, {}, sshd.lines);
  sshd.changedSinceStart = changedSinceStart(sshd);
  sshd.readsAuthorizedKeys = readsAuthorizedKeys(sshd.settings, user, directory);
  if (!user.rootHelps || user.name.empty() || !sshd.installed) {
    sshd.rehearsal = Fact<Rehearsal>::unknown("only root can ask sshd");
    sshd.log = Fact<std::vector<std::string>>::unknown("only root can read the log");
    return sshd;
  }
  const std::string key = pairingKey(user, directory);
  sshd.rehearsal = rehearse(user, side, key.empty() ? kNobodysKey : key, arguments, deadline);
  if (sshd.rehearsal.value) sshd.rehearsal.value->offersPairingKey = !key.empty();
  sshd.log = lastRefusal(side, sshd, deadline);
  return sshd;
}

}  // namespace dorve
