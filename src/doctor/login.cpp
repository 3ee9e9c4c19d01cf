// SPDX-License-Identifier: MIT
#include "dorve/doctor/login.h"

#include <pwd.h>

#include <algorithm>
#include <vector>

#include "dorve/doctor/text.h"

namespace dorve {
namespace {

constexpr uid_t kFirstUserId = 1000;  // the first user ID of ordinary users on Debian
constexpr uid_t kNobody = 65534;

/// The most likely name, other than `tried`, of the user who paired on the other device:
/// this user's, root, or that of the first ordinary user here.
/// The doctor tries only one name, because sshd from OpenSSH 9.8 on blocks an address
/// after several failures.
std::string likelyUser(const std::string& tried, const Situation& situation) {
  if (tried != situation.user) return situation.user;
  if (!situation.isRoot()) return "root";
  std::string name;
  setpwent();
  while (const passwd* entry = getpwent()) {
    if (name.empty() && entry->pw_uid >= kFirstUserId && entry->pw_uid < kNobody) name = entry->pw_name;
  }
  endpwent();
  return name;
}

struct Explanation {
  const char* words;  ///< part of what ssh prints
  const char* cause;
};
constexpr Explanation kExplanations[] = {
    {"banner exchange", "ssh connected, but no sshd answered"},
    {"Host key verification failed", "ssh checks host keys, and does not know this one"},
    {"host key is known", "ssh checks host keys, and does not know this one"},
    {"Too many authentication failures", "ssh offers other keys first; IdentitiesOnly is not in force"},
    {"Connection closed", "sshd there ended the connection; its log says why"},
    {"Connection reset", "sshd there ended the connection; its log says why"},
};

Check explainRefusal(const Situation& situation, const Settings& settings) {
  const std::string user = likelyUser(settings.first("user"), situation);
  if (!user.empty() && tryLogin(situation, settings, user).succeeded()) {
    return {Verdict::FAIL, "login",
            situation.peerAddress + " lets " + user + " in, not " + settings.first("user"),
            "the pairing there ran as " + user,
            "sed --follow-symlinks -i '1i " + situation.hostLine() + "\\n    User " + user + "\\nHost *' " +
                shellWord(situation.config)};
  }
  return {Verdict::FAIL, "login", situation.peerAddress + " refuses the key for " + settings.first("user"),
          "it may hold another key; dorve-doctor on that device says more", situation.pairAgain()};
}

}  // namespace

CommandResult tryLogin(const Situation& situation, const Settings& settings, const std::string& user) {
  const std::string checking = settings.first("stricthostkeychecking");
  const bool checks =
      checking != "no" && checking != "false" && checking != "off" && checking != "accept-new";
  std::vector<std::string> words = {"ssh", "-n", "-T"};
  for (const char* option :
       {"BatchMode=yes", "ControlMaster=no", "ControlPath=none", "ClearAllForwardings=yes", "ForwardX11=no",
        "ForwardAgent=no", "AddKeysToAgent=no", "PermitLocalCommand=no", "RemoteCommand=none",
        "SessionType=default", "Tunnel=no", "UpdateHostKeys=no", "LogLevel=ERROR"}) {
    words.insert(words.end(), {"-o", option});
  }
  words.insert(words.end(),
               {"-o", "ConnectTimeout=" + std::to_string(std::max(1, situation.timeoutMs / 1000))});
  words.insert(words.end(), {"-o", checks ? "StrictHostKeyChecking=yes" : "StrictHostKeyChecking=no"});
  if (!checks) words.insert(words.end(), {"-o", "UserKnownHostsFile=/dev/null"});
  if (!user.empty()) words.insert(words.end(), {"-l", user});
  words.insert(words.end(), {situation.peerAddress, "true"});
  return runCommand(words, situation.commandMs());
}

bool isRefusal(const CommandResult& login) {
  return login.err.find("Permission denied") != std::string::npos;
}

Check explainFailure(const CommandResult& login, const Situation& situation, const Settings& settings) {
  if (isRefusal(login)) return explainRefusal(situation, settings);
  if (login.end == CommandResult::End::EXITED && login.status != 255) {
    return {Verdict::FAIL, "login", "the key is accepted, but no command runs: " + login.message(),
            "the user's shell there, or a forced command, ends every login", situation.doctorThere()};
  }
  if (login.end == CommandResult::End::TIMED_OUT) {
    return {Verdict::FAIL, "login", "ssh timed out", "the other device is slow, or packets are lost",
            "dorve-doctor --timeout 10"};
  }
  const auto* const known = std::ranges::find_if(
      kExplanations, [&](const Explanation& e) { return login.err.find(e.words) != std::string::npos; });
  return {Verdict::FAIL, "login", login.message(), known == std::end(kExplanations) ? "" : known->cause,
          situation.doctorThere()};
}

}  // namespace dorve
