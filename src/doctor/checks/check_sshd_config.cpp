// SPDX-License-Identifier: MIT
// Whether sshd on this device lets the other device log in. Where sshd itself said why not, its words decide.
#include <algorithm>

#include "dorve/checks/checks.h"
#include "dorve/facts/text.h"

namespace dorve {
namespace {

constexpr const char* kConfig = "sshd-config";

/// A reason for which sshd refuses a login, by a part of its words, and what lets this user in from the other
/// device.
struct Reason {
  const char* words;
  const char* cause;
  const char* keyword = "";  ///< the setting to make; empty if no setting helps
  const char* value = "";    ///< USER and GROUP stand for this user and the user's group
};

constexpr const char* kAllows = "the command lets this user in, from the other device only";

constexpr Reason kReasons[] = {
    {"not listed in AllowUsers", kAllows, "AllowUsers", "USER"},
    {"listed in DenyUsers", "the command makes DenyUsers ignore this user, from the other device only",
     "DenyUsers", "-"},
    {"listed in DenyGroups", "the command makes DenyGroups ignore this user, from the other device only",
     "DenyGroups", "-"},
    {"listed in AllowGroups", kAllows, "AllowGroups", "GROUP"},
    {"not in any group", kAllows, "AllowGroups", "GROUP"},
    {"ROOT LOGIN REFUSED", "the command lets root in with a key, from the other device only",
     "PermitRootLogin", "prohibit-password"},
    {"not in PubkeyAcceptedAlgorithms", "sshd does not accept keys of this type", "PubkeyAcceptedAlgorithms",
     "+ssh-ed25519"},
    {"revoked keys file",
     "the command makes sshd ignore the list of revoked keys, for this user from the other device",
     "RevokedKeys", "/dev/null"},
    {"maximum authentication attempts exceeded", "sshd allows too few attempts", "MaxAuthTries", "6"},
};

/// Settings for which sshd refuses a login after it has accepted the key, or before it looks at one.
struct Setting {
  const char* name;  ///< as in sshd_config(5)
  bool (*isWrong)(const std::string& value, const User& user);
  const char* cause;
  const char* wanted;
};

bool isNo(const std::string& value, const User&) {
  return value == "no";
}
bool isZero(const std::string& value, const User&) {
  return value == "0";
}
bool isSet(const std::string& value, const User&) {
  return !value.empty() && value != "none";
}
bool keepsRootOut(const std::string& value, const User& user) {
  return user.isRoot() && (value == "no" || value == "forced-commands-only");
}
bool wantsMore(const std::string& value, const User&) {
  const std::vector<std::string> methods = split(value, " ");
  return !methods.empty() && std::ranges::none_of(methods, [](const std::string& method) {
    return method == "any" || method == "publickey";
  });
}
bool lacksType(const std::string& value, const User&) {
  const std::vector<std::string> types = split(value, ",");
  return !types.empty() && std::ranges::find(types, "ssh-ed25519") == types.end();
}

constexpr Setting kSettings[] = {
    {"PubkeyAuthentication", isNo, "sshd accepts no keys at all", "yes"},
    {"PermitRootLogin", keepsRootOut, "sshd does not let root in with the new key", "prohibit-password"},
    {"PubkeyAcceptedAlgorithms", lacksType, "sshd does not accept keys of this type", "+ssh-ed25519"},
    {"AuthenticationMethods", wantsMore, "sshd requires more than a key", "publickey"},
    {"MaxAuthTries", isZero, "sshd allows no attempt", "6"},
    {"MaxSessions", isZero, "sshd allows no session", "10"},
    {"ForceCommand", isSet, "sshd runs this in place of the command that a login asks for", "none"},
    {"ChrootDirectory", isSet, "a login sees only this directory, and needs a shell in it", "none"},
};

Finding configFinding(const std::string& found, const std::string& cause, const std::string& command) {
  return {Verdict::FAIL, kConfig, found, cause, command, Serves::LOGIN_HERE};
}

std::string replaced(const std::string& value, const User& user) {
  return value == "USER" ? user.name : value == "GROUP" ? user.group : value;
}

/// The command that makes a setting for this login. Lists of users and groups to deny add up, so that a
/// second block can't take back what the first one denies.
std::string commandFor(const Reason& reason, const Known& known) {
  const bool addsUp = std::string_view(reason.keyword).starts_with("Deny");
  const bool isInBlock = std::ranges::any_of(known.sshd.lines, [&](const ConfigLine& line) {
    return line.inMatch && line.keyword == toLower(reason.keyword);
  });
  return addsUp && isInBlock ? ""
                             : known.commands.setForLogin(reason.keyword, replaced(reason.value, known.user));
}

/// The setting whose algorithms ssh and sshd could not agree on.
std::string disputedKeyword(const std::string& words) {
  if (contains(words, "host key")) return "HostKeyAlgorithms";
  if (contains(words, "key exchange")) return "KexAlgorithms";
  return contains(words, "MAC") ? "MACs" : "Ciphers";
}

/// What sshd said while the doctor acted out a login, in the words of sshd, if they are known ones.
std::optional<Finding> judgeRehearsal(const Known& known) {
  if (!known.sshd.rehearsal) return std::nullopt;
  const Rehearsal& rehearsal = *known.sshd.rehearsal;
  for (const std::string& line : rehearsal.words) {
    // What follows this word is the option from="..." of authorized_keys, so the user wrote it.
    const std::string words = line.substr(0, line.find("required="));
    for (const Reason& reason : kReasons) {
      // A key that nobody owns uses up attempts.
      const bool isOwnFault =
          !rehearsal.offersPairingKey && contains(words, "maximum authentication attempts");
      if (!contains(words, reason.words) || isOwnFault) continue;
      Finding finding = configFinding("sshd: " + line, reason.cause, commandFor(reason, known));
      if (finding.command.empty())
        finding.cause = "no command changes this for one user: edit sshd's configuration";
      return finding;
    }
    if (contains(words, "No supported key exchange algorithms")) {
      return configFinding(
          "sshd: " + line,
          "HostKeyAlgorithms fits none of the host keys; the command makes sshd use its defaults",
          known.commands.disableKeyword("HostKeyAlgorithms"));
    }
    if (contains(words, "revoked by file")) {
      return configFinding("sshd: " + line, "a new pairing makes a new key", known.commands.pairAgain());
    }
    if (contains(words, "tcp wrapper")) {
      return configFinding("sshd: " + line, "hosts_access(5) keeps the other device out",
                           known.commands.allowInHosts());
    }
    if (line.starts_with("Unable to negotiate")) {
      const std::string keyword = disputedKeyword(words);
      return configFinding(
          "sshd: " + line,
          keyword + " leaves nothing that ssh knows; the command makes sshd use its defaults",
          known.commands.disableKeyword(keyword));
    }
  }
  return std::nullopt;
}

/// sshd refused the login that the doctor acted out, for a reason that the doctor does not know.
std::optional<Finding> judgeRefusal(const Known& known) {
  if (!known.sshd.rehearsal) return std::nullopt;
  const Rehearsal& rehearsal = *known.sshd.rehearsal;
  if (rehearsal.accepted || (!rehearsal.offersPairingKey)) return std::nullopt;
  if (!known.sshd.readsAuthorizedKeys || known.pairing.lines.empty()) return std::nullopt;
  const std::string words = join(rehearsal.words, "; ");
  return configFinding(
      words.empty() ? "sshd does not accept the key in authorized_keys" : "sshd: " + words,
      words.empty() ? "sshd gives no reason" : "for this reason sshd refuses the other device's key", "");
}

std::optional<Finding> judgeSettings(const Known& known) {
  const Settings& settings = known.sshd.settings;
  for (const Setting& setting : kSettings) {
    const std::string value = settings.first(toLower(setting.name));
    if (!setting.isWrong(value, known.user)) continue;
    Finding finding = configFinding(std::string(setting.name) + " " + value, setting.cause,
                                    known.commands.setForLogin(setting.name, setting.wanted));
    finding.cause += finding.command.empty() ? "; no command changes this for one user"
                                             : "; the command lifts this for " + known.user.name +
                                                   "'s logins from the other device";
    // These may still run what a login asks for.
    if (setting.isWrong == isSet && !known.login.backTried) finding.verdict = Verdict::WARN;
    return finding;
  }
  if (!known.sshd.readsAuthorizedKeys) {
    std::vector<std::string> files = split(settings.first("authorizedkeysfile"), " ");
    std::erase(files, "none");
    files.insert(files.begin(), ".ssh/authorized_keys");
    return configFinding("AuthorizedKeysFile " + settings.first("authorizedkeysfile"),
                         "sshd does not read " + known.directory.authorizedKeys.path,
                         known.commands.setForLogin("AuthorizedKeysFile", join(files, " ")));
  }
  return std::nullopt;
}

/// sshd accepts the key, but the running one ends connections before it looks at keys.
std::optional<Finding> judgeDaemon(const Known& known) {
  constexpr std::pair<const char*, const char*> kLimits[] = {
      {"MaxStartups", "10:30:100"}, {"PerSourceMaxStartups", "none"}, {"LoginGraceTime", "120"}};
  if (!known.login.backTried || known.login.backProven) return std::nullopt;
  for (const auto& [name, usual] : kLimits) {
    const std::string value = known.sshd.settings.first(toLower(name));
    if (value.empty() || value == usual) continue;
    return configFinding(
        std::string(name) + " " + value,
        "with this value sshd may close connections immediately; the command makes sshd use its default",
        known.commands.disableKeyword(name));
  }
  return std::nullopt;
}

/// The directory that sshd needs at run time. It is missing until sshd first starts after a boot.
std::optional<Finding> judgeRunDirectory(const Outcome& test, const Commands& commands) {
  const char* cause = "sshd refuses every connection";
  if (contains(test.err, "Missing privilege separation directory")) {
    return configFinding(test.message(), cause, commands.asRoot("mkdir -p -m 755 /run/sshd"));
  }
  if (!contains(test.err, "must be owned by root and not group or world-writable")) return std::nullopt;
  return configFinding(test.message(), cause,
                       commands.asRoot("chown -h root:root /run/sshd && chmod 755 /run/sshd"));
}

/// sshd rejects its configuration, or can't start.
Finding judgeFailedTest(const Known& known) {
  const Outcome& test = known.sshd.test;
  const Commands& commands = known.commands;
  if (test.end == Outcome::End::NOT_FOUND && known.sshd.installed) {
    return configFinding("/usr/sbin/sshd cannot be started", "its file or its permissions are damaged",
                         commands.reinstallSshd());
  }
  if (test.end != Outcome::End::EXITED) {
    return {Verdict::SKIP, kConfig, "not checked: /usr/sbin/sshd: " + test.message()};
  }
  if (!known.user.rootHelps) {
    return {Verdict::SKIP, kConfig, "not checked: only root can read the whole configuration"};
  }
  if (contains(test.err, "UNPROTECTED PRIVATE KEY FILE")) {
    return configFinding("others may read sshd's host keys", "sshd does not use such keys",
                         commands.asRoot("chmod 600 /etc/ssh/ssh_host_*_key"));
  }
  if (contains(test.err, "no hostkeys")) {
    return configFinding("sshd has no host keys", "it cannot start without them", commands.makeHostKeys());
  }
  if (auto finding = judgeRunDirectory(test, commands)) return *finding;
  if (contains(test.err, "Privilege separation user") ||
      contains(test.err, known.sshd.configFile + ": No such file")) {
    return configFinding(test.message(), "the installation of sshd is damaged", commands.reinstallSshd());
  }
  std::string repair = commands.disableForSshd(known.sshd.fault);
  // Without a line number, sshd's message may begin with the keyword.
  const std::vector<std::string> words = split(test.message(), " ");
  if (repair.empty() && !words.empty()) repair = commands.disableKeyword(words.front());
  return configFinding(test.message(),
                       repair.empty()
                           ? "sshd does not start with this configuration: correct it"
                           : "sshd does not start with this configuration; the command disables the line",
                       repair);
}

}  // namespace

Finding checkSshdConfig(const Known& known) {
  if (known.user.name.empty()) return {Verdict::SKIP, kConfig, "not checked: the user has no name"};
  if (auto finding = checkAccount(known)) return *finding;
  if (!known.sshd.test.succeeded()) return judgeFailedTest(known);
  for (auto* judgement : {judgeRehearsal, judgeSettings, judgeRefusal, judgeDaemon}) {
    if (auto finding = judgement(known)) return *finding;
  }
  if (known.sshd.changedSinceStart) {
    return {Verdict::WARN,
            kConfig,
            "its files changed after sshd started",
            "the running sshd still uses the old ones",
            known.commands.reloadSshd(),
            Serves::LOGIN_HERE};
  }
  const bool accepted = known.sshd.rehearsal && known.sshd.rehearsal->accepted;
  return {Verdict::OK, kConfig,
          accepted ? "sshd accepts the pairing key for " + known.user.name
                   : "its settings let " + known.user.name + " log in with a key"};
}

}  // namespace dorve
