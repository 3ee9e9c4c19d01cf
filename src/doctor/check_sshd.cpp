// SPDX-License-Identifier: MIT
// sshd on this device, as far as it decides whether the other side's key logs in. Its effective configuration
// comes from sshd itself (`sshd -T`), for this user and a connection over the link.
#include <fnmatch.h>
#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "dorve/doctor/checks.h"
#include "dorve/doctor/command.h"
#include "dorve/doctor/ports.h"
#include "dorve/doctor/settings.h"
#include "dorve/doctor/text.h"

namespace dorve {
namespace {

constexpr const char* kSshd = "/usr/sbin/sshd";
constexpr const char* kSshdConfig = "/etc/ssh/sshd_config";

bool hasSystemd() {
  return std::filesystem::exists("/run/systemd/system");
}

std::string reloadCommand(const Situation& situation) {
  if (hasSystemd()) return situation.asRoot("systemctl reload ssh");
  return situation.asRoot("pkill -HUP -o -x sshd");
}

/// Puts a line at the front of sshd's configuration, where it counts: sshd takes the first value that it
/// reads.
std::string configure(const Situation& situation, const std::string& line) {
  return situation.asRoot("sed -i '1i " + line + "' " + kSshdConfig) + " && " + reloadCommand(situation);
}

std::string startCommand(const Situation& situation) {
  if (!std::filesystem::exists(kSshd)) {
    return situation.asRoot("apt-get install --yes openssh-server");
  }
  if (hasSystemd()) return situation.asRoot("systemctl enable --now ssh");
  return situation.asRoot("mkdir -p /run/sshd") + " && " + situation.asRoot(kSshd);
}

/// Whether `user` matches a pattern of AllowUsers and its relatives: USER or USER@HOST, with * and ?.
bool matchesUser(const std::string& pattern, const Situation& situation) {
  const std::size_t at = pattern.rfind('@');
  const std::string host = at == std::string::npos ? "*" : pattern.substr(at + 1);
  return fnmatch(pattern.substr(0, at).c_str(), situation.user.c_str(), 0) == 0 &&
         fnmatch(host.c_str(), situation.peerAddress.c_str(), 0) == 0;
}

std::vector<std::string> groupsOf(const Situation& situation) {
  std::vector<std::string> names;
  const passwd* entry = getpwuid(situation.userId);
  if (entry == nullptr) return names;
  gid_t groups[256];
  int count = 256;
  getgrouplist(entry->pw_name, entry->pw_gid, groups, &count);
  for (int i = 0; i < std::min(count, 256); ++i) {
    if (const group* known = getgrgid(groups[i])) names.emplace_back(known->gr_name);
  }
  return names;
}

bool listsUser(const std::vector<std::string>& patterns, const Situation& situation) {
  return std::any_of(patterns.begin(), patterns.end(),
                     [&](const std::string& pattern) { return matchesUser(pattern, situation); });
}

bool listsGroup(const std::vector<std::string>& patterns, const std::vector<std::string>& groups) {
  return std::any_of(patterns.begin(), patterns.end(), [&](const std::string& pattern) {
    return std::any_of(groups.begin(), groups.end(), [&](const std::string& group) {
      return fnmatch(pattern.c_str(), group.c_str(), 0) == 0;
    });
  });
}

/// A value of AuthorizedKeysFile as a path.
std::string expand(const std::string& value, const Situation& situation) {
  std::string path;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '%' || i + 1 == value.size()) {
      path += value[i];
      continue;
    }
    const char token = value[++i];
    path += token == 'h'   ? situation.home
            : token == 'u' ? situation.user
            : token == 'U' ? std::to_string(situation.userId)
                           : std::string(1, token);
  }
  return path.starts_with('/') ? path : situation.home + "/" + path;
}

bool readsOurFile(const Settings& settings, const Situation& situation) {
  const std::vector<std::string> files = settings.words("authorizedkeysfile");
  return situation.authorizedKeys.empty() ||
         std::any_of(files.begin(), files.end(), [&](const std::string& file) {
           std::error_code error;
           const std::filesystem::path path = expand(file, situation);
           return path.lexically_normal() == situation.authorizedKeys ||
                  std::filesystem::equivalent(path, situation.authorizedKeys, error);
         });
}

/// The first setting that keeps the other side out; nothing if all let it in.
std::optional<Check> judgeSettings(const Settings& settings, const Situation& situation) {
  const auto refused = [&](const std::string& found, const std::string& cause, const std::string& line) {
    return Check{Verdict::FAIL, "sshd-config", found, cause, configure(situation, line)};
  };
  if (settings.first("pubkeyauthentication") == "no") {
    return refused("PubkeyAuthentication no", "sshd accepts no keys at all", "PubkeyAuthentication yes");
  }
  const std::string root = settings.first("permitrootlogin");
  if (situation.isRoot() && (root == "no" || root == "forced-commands-only")) {
    return refused("PermitRootLogin " + root, "sshd does not let root in with the new key",
                   "PermitRootLogin prohibit-password");
  }
  if (!readsOurFile(settings, situation)) {
    return refused("AuthorizedKeysFile " + settings.first("authorizedkeysfile"),
                   "sshd does not read " + situation.authorizedKeys,
                   "AuthorizedKeysFile .ssh/authorized_keys");
  }
  const std::vector<std::string> groups = groupsOf(situation);
  const std::vector<std::string> allowedUsers = settings.words("allowusers");
  const std::vector<std::string> allowedGroups = settings.words("allowgroups");
  for (const char* name : {"DenyUsers", "DenyGroups"}) {
    const std::vector<std::string> denied =
        settings.words(std::string(name) == "DenyUsers" ? "denyusers" : "denygroups");
    if (std::string(name) == "DenyUsers" ? listsUser(denied, situation) : listsGroup(denied, groups)) {
      return Check{Verdict::FAIL, "sshd-config", std::string(name) + " keeps " + situation.user + " out",
                   "sshd refuses the user who pairs",
                   situation.asRoot(std::string("sed -i -E '/^ *") + name + " /Id' " + kSshdConfig) + " && " +
                       reloadCommand(situation)};
    }
  }
  if (!allowedUsers.empty() && !listsUser(allowedUsers, situation)) {
    return refused("AllowUsers does not name " + situation.user, "sshd refuses the user who pairs",
                   "AllowUsers " + situation.user);
  }
  if (!allowedGroups.empty() && !listsGroup(allowedGroups, groups)) {
    return refused("AllowGroups names no group of " + situation.user, "sshd refuses the user who pairs",
                   "AllowGroups " + (groups.empty() ? situation.user : groups.front()));
  }
  const std::vector<std::string> methods = settings.words("authenticationmethods");
  if (!methods.empty() && std::none_of(methods.begin(), methods.end(), [](const std::string& method) {
        return method == "any" || method == "publickey";
      })) {
    return refused("AuthenticationMethods " + methods.front(), "sshd wants more than a key",
                   "AuthenticationMethods any");
  }
  const std::string algorithms = settings.first("pubkeyacceptedalgorithms");
  if (!algorithms.empty() && algorithms.find("ssh-ed25519") == std::string::npos) {
    return refused("PubkeyAcceptedAlgorithms lacks ssh-ed25519", "sshd does not accept keys of this type",
                   "PubkeyAcceptedAlgorithms +ssh-ed25519");
  }
  if (settings.first("usepam") == "no" && situation.isRoot()) {
    const spwd* entry = getspnam(situation.user.c_str());
    if (entry != nullptr && entry->sp_pwdp[0] == '!') {
      return Check{Verdict::FAIL, "sshd-config", "the account " + situation.user + " is locked",
                   "sshd without PAM refuses a user whose password begins with !",
                   situation.asRoot("usermod -p '*' " + situation.user)};
    }
  }
  return std::nullopt;
}

/// The user's shell: sshd refuses a user without one, and one that only says no ends every login.
std::optional<Check> judgeShell(const Situation& situation) {
  const std::string shell = situation.shell.empty() ? "/bin/sh" : situation.shell;
  const bool refuses = shell.ends_with("/nologin") || shell.ends_with("/false");
  if (!refuses && access(shell.c_str(), X_OK) == 0) return std::nullopt;
  return Check{Verdict::FAIL, "sshd-config", "the shell of " + situation.user + " is " + shell,
               "a login ends there at once", situation.asRoot("chsh -s /bin/sh " + situation.user)};
}

void judgeConfiguration(const Situation& situation, Report& report) {
  if (const auto check = judgeShell(situation)) report.add(*check);
  const std::string connection = "user=" + situation.user + ",host=" + situation.peerAddress +
                                 ",addr=" + situation.peerAddress + ",laddr=" + situation.ownAddress +
                                 ",lport=22";
  const CommandResult result = runCommand({kSshd, "-T", "-C", connection}, situation.commandMs());
  constexpr const char* kName = "sshd-config";
  if (result.end == CommandResult::End::NOT_FOUND) {
    report.add({Verdict::SKIP, kName, "not checked: there is no " + std::string(kSshd)});
  } else if (result.succeeded()) {
    const auto check = judgeSettings(Settings(result.out), situation);
    report.add(check.value_or(Check{Verdict::OK, kName, "lets " + situation.user + " in by key"}));
  } else if (!situation.isRoot()) {
    report.add({Verdict::SKIP, kName, "not checked: only root can read the whole configuration"});
  } else if (result.err.find("no hostkeys") != std::string::npos) {
    report.add(
        {Verdict::FAIL, kName, "sshd has no host keys", "it cannot start without them", "ssh-keygen -A"});
  } else {
    const std::string repair = disableLine(result.message());
    report.add({Verdict::FAIL, kName, result.message(), "sshd does not start with this configuration",
                repair.empty() ? std::string(kSshd) + " -t" : repair});
  }
}

/// An sshd that listens, but not on port 22 of the link's address.
std::optional<Check> judgeMisplaced(const std::vector<Listener>& listeners, const Situation& situation) {
  for (const Listener& listener : listeners) {
    const auto owner = findOwner(listener);
    if (!owner || owner->name != "sshd") continue;
    if (covers(listener, situation.ownAddress)) {
      return Check{Verdict::FAIL, "sshd",
                   "sshd listens on port " + std::to_string(listener.port) + ", not on 22",
                   "the other device's ssh goes to port 22", configure(situation, "Port 22")};
    }
    return Check{Verdict::FAIL, "sshd", "sshd listens on other addresses than " + situation.ownAddress,
                 "the other device cannot reach those",
                 configure(situation, "ListenAddress " + situation.ownAddress)};
  }
  return std::nullopt;
}

/// Whether something listens on port 22 of the link's address.
Check judgeListening(const Situation& situation) {
  const auto listeners = listListeners();
  if (!listeners) return {Verdict::SKIP, "sshd", "not checked: /proc does not tell"};
  const auto expected = std::find_if(listeners->begin(), listeners->end(), [&](const Listener& listener) {
    return listener.port == kSshPort && covers(listener, situation.ownAddress);
  });
  if (expected != listeners->end()) {
    const auto owner = findOwner(*expected);
    return {Verdict::OK, "sshd", (owner ? owner->name : "a process of another user") + " listens on port 22"};
  }
  return judgeMisplaced(*listeners, situation)
      .value_or(Check{Verdict::FAIL, "sshd", "nothing listens on port 22 of " + situation.ownAddress,
                      "without sshd the other device cannot log in here", startCommand(situation)});
}

}  // namespace

void checkSshd(const Situation& situation, Report& report) {
  if (!situation.user.empty()) judgeConfiguration(situation, report);
  report.add(judgeListening(situation));
}

}  // namespace dorve
