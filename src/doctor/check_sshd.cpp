// SPDX-License-Identifier: MIT
// Checks whether sshd on this device lets the other device log in with its key.
// `sshd -T` prints sshd's effective configuration for this user and a connection over the link.
#include <shadow.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>

#include "dorve/doctor/access_lists.h"
#include "dorve/doctor/checks.h"
#include "dorve/doctor/command.h"
#include "dorve/doctor/ports.h"
#include "dorve/doctor/settings.h"
#include "dorve/doctor/text.h"

namespace dorve {
namespace {

constexpr const char* kSshdConfig = "/etc/ssh/sshd_config";
constexpr const char* kOwnConfig = "/etc/ssh/dorve.conf";  // written by the commands that the doctor prints
constexpr const char* kListenerNames[] = {"sshd", "systemd", "dropbear"};

bool hasSystemd() {
  return std::filesystem::exists("/run/systemd/system");
}

std::string reloadCommand(const Situation& situation) {
  // With socket activation, sshd may not be running. This command succeeds then, too.
  if (hasSystemd()) return situation.asRoot("systemctl try-reload-or-restart ssh");
  return situation.asRoot("pkill -HUP -o -x sshd");
}

/// The command that puts a line at the front of sshd's configuration,
/// because sshd uses the first value that it reads.
std::string configureFirst(const Situation& situation, const std::string& line) {
  return situation.asRoot("sed --follow-symlinks -i '1i " + line + "' " + kSshdConfig) + " && " +
         reloadCommand(situation);
}

/// The command that applies a line only to this user's logins from the other device.
/// It writes a Match block to a file of its own, because the end of a file ends its last block.
/// Then it makes sshd read this file first.
std::string configure(const Situation& situation, const std::string& line) {
  return "printf 'Match User " + situation.user + " Address " + situation.peerAddress + "\\n    " + line +
         "\\n' >>" + kOwnConfig + " && " + configureFirst(situation, std::string("Include ") + kOwnConfig);
}

std::string startCommand(const Situation& situation) {
  if (!std::filesystem::exists(kSshd)) {
    return situation.asRoot("apt-get install --yes openssh-server");
  }
  if (hasSystemd()) return situation.asRoot("systemctl enable --now ssh");
  return situation.asRoot("mkdir -p /run/sshd") + " && " + situation.asRoot(kSshd);
}

/// The path that a value of AuthorizedKeysFile names.
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
  return situation.authorizedKeys.empty() || std::ranges::any_of(files, [&](const std::string& file) {
           std::error_code error;
           const std::filesystem::path path = expand(file, situation);
           return path.lexically_normal() == situation.authorizedKeys ||
                  std::filesystem::equivalent(path, situation.authorizedKeys, error);
         });
}

/// Reports the first pattern of DenyUsers or DenyGroups (`name`) that matches this user.
/// The command removes only this pattern. If the line then has no pattern, the command comments it out.
std::optional<Check> judgeDenied(const std::string& name, const Settings& settings,
                                 const Situation& situation,
                                 const std::function<bool(const std::string&)>& matches) {
  const std::vector<std::string> patterns = settings.words(toLower(name));
  const auto found = std::ranges::find_if(patterns, matches);
  if (found == patterns.end()) return std::nullopt;
  std::string literal;
  for (const char c : *found) {
    if (std::string_view(".*[]^$/\\+?(){}|").find(c) != std::string_view::npos) literal += '\\';
    literal += c;
  }
  const std::string line = "^[[:blank:]]*" + name + "[[:blank:]]";
  return Check{Verdict::FAIL, "sshd-config", name + " keeps " + situation.user + " out",
               "sshd refuses this user",
               "sed -E --follow-symlinks -i '/" + line + "/I{s/[[:blank:]]+" + literal +
                   "([[:blank:]]|$)/\\1/;s/" + line + "*$/#&/I}' $(grep -rliE '" + line +
                   "' /etc/ssh/sshd_config*) && " + reloadCommand(situation)};
}

/// Reports the first setting that keeps the other device out; no value if there is none.
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
  const std::string forced = settings.first("forcecommand");
  if (!forced.empty() && forced != "none") {
    // A forced command may run what the user asked for, so it need not be the cause of a failure.
    return Check{Verdict::WARN, "sshd-config", "ForceCommand " + forced,
                 "sshd runs this in place of the command that a login asks for",
                 configure(situation, "ForceCommand none")};
  }
  if (!readsOurFile(settings, situation)) {
    std::vector<std::string> files = settings.words("authorizedkeysfile");
    std::erase(files, "none");
    files.insert(files.begin(), ".ssh/authorized_keys");
    return refused("AuthorizedKeysFile " + settings.first("authorizedkeysfile"),
                   "sshd does not read " + situation.authorizedKeys,
                   "AuthorizedKeysFile " + join(files, " "));
  }
  const std::vector<std::string> groups = groupsOf(situation.user);
  const std::vector<std::string> allowedUsers = settings.words("allowusers");
  const std::vector<std::string> allowedGroups = settings.words("allowgroups");
  if (auto check = judgeDenied("DenyUsers", settings, situation, [&](const std::string& pattern) {
        return listsUser({pattern}, situation.user, situation.peerAddress);
      })) {
    return check;
  }
  if (auto check = judgeDenied("DenyGroups", settings, situation,
                               [&](const std::string& pattern) { return listsGroup({pattern}, groups); })) {
    return check;
  }
  if (!allowedUsers.empty() && !listsUser(allowedUsers, situation.user, situation.peerAddress)) {
    return refused("AllowUsers does not name " + situation.user, "sshd refuses this user",
                   "AllowUsers " + situation.user);
  }
  if (!allowedGroups.empty() && !listsGroup(allowedGroups, groups)) {
    return refused("AllowGroups names no group of " + situation.user, "sshd refuses this user",
                   "AllowGroups " + (groups.empty() ? situation.user : groups.front()));
  }
  const std::vector<std::string> methods = settings.words("authenticationmethods");
  if (!methods.empty() && std::ranges::none_of(methods, [](const std::string& method) {
        return method == "any" || method == "publickey";
      })) {
    return refused("AuthenticationMethods " + methods.front(), "sshd requires more than a key",
                   "AuthenticationMethods any");
  }
  const std::vector<std::string> algorithms = split(settings.first("pubkeyacceptedalgorithms"), ",");
  if (!algorithms.empty() && std::ranges::find(algorithms, "ssh-ed25519") == algorithms.end()) {
    return refused("PubkeyAcceptedAlgorithms lacks ssh-ed25519", "sshd does not accept keys of this type",
                   "PubkeyAcceptedAlgorithms +ssh-ed25519");
  }
  if (settings.first("usepam") == "no" && situation.isRoot()) {
    const spwd* entry = getspnam(situation.user.c_str());
    if (entry != nullptr && entry->sp_pwdp[0] == '!') {
      return Check{Verdict::FAIL, "sshd-config", "the account " + situation.user + " is locked",
                   "sshd without PAM refuses a user whose password field begins with !",
                   situation.asRoot("usermod -p '*' " + situation.user)};
    }
  }
  return std::nullopt;
}

/// Checks the user's shell.
/// sshd rejects a user whose shell is missing, and a shell such as nologin ends every login.
std::optional<Check> judgeShell(const Situation& situation) {
  const std::string shell = situation.shell.empty() ? "/bin/sh" : situation.shell;
  const bool refuses = shell.ends_with("/nologin") || shell.ends_with("/false");
  if (!refuses && access(shell.c_str(), X_OK) == 0) return std::nullopt;
  return Check{Verdict::FAIL, "shell", "the shell of " + situation.user + " is " + shell,
               "every login ends at once", situation.asRoot("chsh -s /bin/sh " + situation.user)};
}

Check judgeConfiguration(const Situation& situation) {
  constexpr const char* kName = "sshd-config";
  const CommandResult& result = situation.sshdTest;
  if (result.succeeded()) {
    return judgeSettings(Settings(result.out), situation)
        .value_or(Check{Verdict::OK, kName, "its settings let " + situation.user + " log in with a key"});
  }
  if (result.end != CommandResult::End::EXITED) {
    return {Verdict::SKIP, kName, "not checked: " + std::string(kSshd) + ": " + result.message()};
  }
  if (!situation.isRoot()) {
    return {Verdict::SKIP, kName, "not checked: only root can read the whole configuration"};
  }
  if (result.err.find("UNPROTECTED PRIVATE KEY FILE") != std::string::npos) {
    return {Verdict::FAIL, kName, "others may read sshd's host keys", "sshd does not use such keys",
            "chmod 600 /etc/ssh/ssh_host_*_key"};
  }
  if (result.err.find("no hostkeys") != std::string::npos) {
    return {Verdict::FAIL, kName, "sshd has no host keys", "it cannot start without them", "ssh-keygen -A"};
  }
  // The directory is missing until sshd first starts after a boot.
  if (result.err.find("privilege separation directory") != std::string::npos) {
    return {Verdict::SKIP, kName, "not checked: sshd has not run since the last boot"};
  }
  const std::string repair = disableLine(result.message());
  return {Verdict::FAIL, kName, result.message(), "sshd does not start with this configuration",
          repair.empty() ? std::string(kSshd) + " -t" : repair};
}

/// Reports an sshd that listens, but not on port 22 of the link's address; no value if there is none.
std::optional<Check> judgeMisplaced(const std::vector<Listener>& listeners, const Situation& situation) {
  for (const Listener& listener : listeners) {
    const auto owner = findOwner(listener);
    if (!owner || owner->name != "sshd") continue;
    if (covers(listener, situation.ownAddress)) {
      return Check{Verdict::FAIL, "sshd",
                   "sshd listens on port " + std::to_string(listener.port) + ", not on 22",
                   "the other device's ssh connects to port 22", configureFirst(situation, "Port 22")};
    }
    return Check{Verdict::FAIL, "sshd", "sshd listens on other addresses than " + situation.ownAddress,
                 "the other device cannot reach those",
                 configureFirst(situation, "ListenAddress " + situation.ownAddress)};
  }
  return std::nullopt;
}

/// Checks that an SSH server, or systemd for it, listens on port 22 of the link's address.
Check judgeListening(const Situation& situation) {
  const auto listeners = listListeners();
  if (!listeners) return {Verdict::SKIP, "sshd", "not checked: /proc cannot be read"};
  if (const Listener* listener = findListener(*listeners, situation.ownAddress, kSshPort)) {
    const auto owner = findOwner(*listener);
    const std::string name = owner ? owner->name : "a process of another user";
    if (owner && std::ranges::find(kListenerNames, name) == std::end(kListenerNames)) {
      return {Verdict::FAIL, "sshd",
              "port 22 is held by " + name + " (process " + std::to_string(owner->pid) + ")",
              "sshd cannot listen on it",
              situation.asRoot("kill " + std::to_string(owner->pid)) + " && " + startCommand(situation)};
    }
    return {Verdict::OK, "sshd", name + " listens on port 22"};
  }
  return judgeMisplaced(*listeners, situation)
      .value_or(Check{Verdict::FAIL, "sshd", "nothing listens on port 22 of " + situation.ownAddress,
                      "without sshd the other device cannot log in here", startCommand(situation)});
}

}  // namespace

void checkSshd(const Situation& situation, Report& report) {
  if (situation.user.empty()) {
    report.add(judgeListening(situation));
    return;
  }
  if (const auto check = judgeShell(situation)) report.add(*check);
  // A wrong configuration may be why sshd does not listen, so it is reported first.
  const Check configuration = judgeConfiguration(situation);
  const bool wrong = configuration.verdict == Verdict::FAIL || configuration.verdict == Verdict::WARN;
  if (wrong) report.add(configuration);
  report.add(judgeListening(situation));
  if (!wrong) report.add(configuration);
}

}  // namespace dorve
