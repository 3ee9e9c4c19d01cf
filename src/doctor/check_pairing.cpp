// SPDX-License-Identifier: MIT
// Checks what a pairing leaves on this device, and the login to the other device.
// ssh parses its configuration, and ssh-keygen parses the keys. This file only searches and compares lines.
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <optional>

#include "dorve/doctor/checks.h"
#include "dorve/doctor/command.h"
#include "dorve/doctor/login.h"
#include "dorve/doctor/settings.h"
#include "dorve/doctor/text.h"
#include "dorve/keys/key_material.h"
#include "dorve/protocol/messages.h"

namespace dorve {
namespace {

constexpr std::size_t kMaxKeyLine = kPublicKeyCapacity - 1;  // bytes of a key that a message can hold

std::vector<std::string> pairingLines(const Situation& situation) {
  std::vector<std::string> lines = split(readRegularFile(situation.authorizedKeys), "\n");
  std::erase_if(lines,
                [](const std::string& line) { return line.find(kPairingKeyName) == std::string::npos; });
  return lines;
}

bool isNewer(const std::string& path, const std::string& other) {
  std::error_code first;
  std::error_code second;
  const auto time = std::filesystem::last_write_time(path, first);
  const auto otherTime = std::filesystem::last_write_time(other, second);
  return !first && !second && time > otherTime;
}

/// Runs ssh-keygen to get the fingerprint of a public key line.
CommandResult askFingerprint(const std::string& line, const Situation& situation) {
  return runCommand({"ssh-keygen", "-l", "-f", "-"}, situation.commandMs(), line + "\n");
}

/// The fingerprint in the output of `askFingerprint`; empty if there is none.
std::string fingerprint(const CommandResult& result) {
  const std::vector<std::string> words = split(result.out, " ");
  return result.succeeded() && words.size() > 1 ? words[1] : "";
}

/// The type and the key of a public key line, without its comment.
std::vector<std::string> keyPart(const std::string& line) {
  std::vector<std::string> words = split(line, " \n");
  words.resize(std::min<std::size_t>(words.size(), 2));
  return words;
}

Check judgeKeyPair(const Situation& situation, bool loginRefused) {
  constexpr const char* kName = "key-pair";
  struct stat status = {};
  if (stat(situation.privateKey.c_str(), &status) != 0) {
    return {Verdict::FAIL, kName, situation.privateKey + " is missing",
            "this device has no key to log in with", situation.pairAgain()};
  }
  if ((status.st_mode & 077U) != 0) {
    return {Verdict::FAIL, kName, "others may access " + situation.privateKey,
            "ssh ignores such a private key",
            situation.asRoot("chmod 600 " + shellWord(situation.privateKey))};
  }
  const std::string publicLine = readRegularFile(situation.privateKey + ".pub");
  const CommandResult derived =
      runCommand({"ssh-keygen", "-y", "-P", "", "-f", situation.privateKey}, situation.commandMs());
  if (derived.end != CommandResult::End::EXITED) {
    return {Verdict::SKIP, kName, "not checked: ssh-keygen: " + derived.message()};
  }
  if (!derived.succeeded()) {
    return {Verdict::FAIL, kName, "ssh-keygen cannot read the private key",
            "it is damaged, has a passphrase or belongs to another user", situation.pairAgain()};
  }
  if (keyPart(derived.out) != keyPart(publicLine)) {
    return {Verdict::FAIL, kName, "the private and the public key do not belong together",
            "the other device may have a key that does not match the private key", situation.pairAgain()};
  }
  if (loginRefused && isNewer(situation.privateKey, situation.authorizedKeys)) {
    return {Verdict::FAIL, kName, "the key is newer than the pairing",
            situation.program + " ran again: the other device knows only the old key", situation.pairAgain()};
  }
  return {Verdict::OK, kName, fingerprint(askFingerprint(publicLine, situation))};
}

Check judgePeerKey(const Situation& situation) {
  constexpr const char* kName = "peer-key";
  const std::vector<std::string> lines = pairingLines(situation);
  if (lines.size() != 1) {
    return {Verdict::FAIL, kName,
            "authorized_keys holds " + (lines.empty() ? "no" : std::to_string(lines.size())) +
                " pairing key" + (lines.empty() ? "" : "s"),
            lines.empty() ? "the other device sent no key, or this device could not store it"
                          : "a pairing leaves exactly one",
            situation.pairAgain()};
  }
  const CommandResult result = askFingerprint(lines.front(), situation);
  if (result.end != CommandResult::End::EXITED) {
    return {Verdict::SKIP, kName, "not checked: ssh-keygen: " + result.message()};
  }
  if (lines.front().size() > kMaxKeyLine || fingerprint(result).empty()) {
    return {Verdict::FAIL, kName, "the pairing key in authorized_keys is damaged", "sshd ignores such a line",
            situation.pairAgain()};
  }
  return {Verdict::OK, kName, fingerprint(result)};
}

/// A setting of ssh that the pairing's block sets or relies on.
struct Setting {
  const char* name;  ///< as in ssh_config(5)
  std::string value;
  std::vector<std::string> accepted;  ///< the right values as `ssh -G` prints them
};

/// Returns whether one of ssh's identity files is the pairing key.
/// ssh may print ~ or %d for the home directory.
bool usesKey(const std::vector<std::string>& files, const Situation& situation) {
  return std::ranges::any_of(files, [&](std::string file) {
    if (file.starts_with("~/")) file.replace(0, 1, situation.home);
    if (file.starts_with("%d/")) file.replace(0, 2, situation.home);
    std::error_code error;
    return file == situation.privateKey || std::filesystem::equivalent(file, situation.privateKey, error);
  });
}

/// The settings for which ssh has a wrong value for the other device.
std::vector<Setting> findOverridden(const Settings& settings, const Situation& situation) {
  std::vector<Setting> all = {
      {"IdentitiesOnly", "yes", {"yes"}},
      {"StrictHostKeyChecking", "no", {"no", "false", "off"}},
      {"UserKnownHostsFile", "/dev/null", {"/dev/null"}},
      {"HostName", situation.peerAddress, {situation.peerAddress}},
      {"Port", "22", {"22"}},
      {"PubkeyAuthentication", "yes", {"yes", "true", "unbound", "host-bound"}},
      {"ProxyCommand", "none", {"", "none"}},
      {"ProxyJump", "none", {"", "none"}},
  };
  std::erase_if(all, [&](const Setting& setting) {
    const std::string value = settings.first(toLower(setting.name));
    return std::ranges::find(setting.accepted, value) != setting.accepted.end();
  });
  if (!usesKey(settings.all("identityfile"), situation)) {
    all.insert(all.begin(), {"IdentityFile", situation.privateKey, {}});
  }
  return all;
}

/// The command that puts the settings at the front of config, because ssh uses the first value that it reads.
/// "Host *" then makes the old first lines apply to all hosts again.
std::string preferCommand(const std::vector<Setting>& settings, const Situation& situation) {
  std::string lines = situation.hostLine();
  for (const Setting& setting : settings)
    lines += std::string("\\n    ") + setting.name + " " + setting.value;
  return "sed --follow-symlinks -i '1i " + lines + "\\nHost *' " + shellWord(situation.config);
}

Check judgeConfig(const CommandResult& result, bool loginWorks, const Situation& situation) {
  constexpr const char* kName = "ssh-config";
  if (result.end == CommandResult::End::NOT_FOUND) {
    return {Verdict::FAIL, kName, "there is no ssh", "this device cannot log in anywhere",
            situation.asRoot("apt-get install --yes openssh-client")};
  }
  if (!result.succeeded()) {
    const std::string repair = disableLine(result.message());
    return {Verdict::FAIL, kName, result.message(), "ssh does not run with this configuration",
            repair.empty() ? "ssh -G " + situation.peerAddress : repair};
  }
  if (!loginWorks && readRegularFile(situation.config).find(situation.hostLine()) == std::string::npos) {
    return {Verdict::FAIL, kName, situation.config + " has no " + situation.hostLine(),
            "the pairing failed, or could not store the block", situation.pairAgain()};
  }
  const Settings settings(result.out);
  const std::vector<Setting> wrong = findOverridden(settings, situation);
  // If the login works, other values are no fault: with a known host key, StrictHostKeyChecking may be yes.
  if (wrong.empty() || loginWorks) {
    return {Verdict::OK, kName, "ssh uses the pairing's key for " + situation.peerAddress};
  }
  const std::string name = wrong.front().name;
  return {Verdict::FAIL, kName,
          "for " + situation.peerAddress + " ssh uses " + name + " " + settings.first(toLower(name)),
          "other lines of ssh's configuration conflict with the pairing's block",
          preferCommand(wrong, situation)};
}

/// Before a pairing, warns if config already has a block for the other device,
/// because the pairing then adds no block.
/// No value if there is no such block, if ssh's settings are right or if `ssh -G` fails.
std::optional<Check> judgeOtherBlock(const Situation& situation) {
  if (readRegularFile(situation.config).find(situation.hostLine()) == std::string::npos) return std::nullopt;
  const CommandResult config = runCommand({"ssh", "-G", situation.peerAddress}, situation.commandMs());
  if (!config.succeeded()) return std::nullopt;
  const std::vector<Setting> wrong = findOverridden(Settings(config.out), situation);
  if (wrong.empty()) return std::nullopt;
  return Check{Verdict::WARN, "ssh-config", "config already contains " + situation.hostLine(),
               "the pairing then adds no block", preferCommand(wrong, situation)};
}

}  // namespace

bool isPaired(const Situation& situation) {
  if (situation.sshDir.empty()) return false;
  const std::string block = situation.hostLine() + "\n    IdentityFile " + situation.privateKey + "\n";
  return !pairingLines(situation).empty() ||
         (isRegularFile(situation.privateKey) &&
          readRegularFile(situation.config).find(block) != std::string::npos);
}

void checkPairing(const Situation& situation, bool sshIsOpen, Report& report) {
  if (!isPaired(situation)) {
    if (const auto check = judgeOtherBlock(situation)) report.add(*check);
    report.add({Verdict::SKIP, "pairing", "this device is not paired yet", "", situation.pairAgain()});
    return;
  }
  const CommandResult config = runCommand({"ssh", "-G", situation.peerAddress}, situation.commandMs());
  const Settings settings(config.out);
  CommandResult login;
  if (sshIsOpen && config.succeeded()) login = tryLogin(situation, settings, "");

  report.add(judgeKeyPair(situation, isRefusal(login)));
  report.add(judgePeerKey(situation));
  report.add(judgeConfig(config, login.succeeded(), situation));
  if (login.succeeded()) {
    report.add(
        {Verdict::OK, "login", "ssh " + situation.peerAddress + " logs in as " + settings.first("user")});
  } else if (!sshIsOpen || !config.succeeded()) {
    report.add({Verdict::SKIP, "login", "not tried, for the reasons above"});
  } else {
    report.add(explainFailure(login, situation, settings));
  }
}

}  // namespace dorve
