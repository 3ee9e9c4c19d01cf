// SPDX-License-Identifier: MIT
// What a pairing leaves on this device.
#include <algorithm>

#include "dorve/checks/checks.h"
#include "dorve/facts/text.h"
#include "dorve/net/endpoints.h"

namespace dorve {
namespace {

constexpr std::size_t kMaxKeyLine = 4095;  // bytes of a key that a message can hold

bool isRefused(const Login& login) {
  return std::ranges::any_of(login.words,
                             [](const std::string& line) { return contains(line, "Permission denied"); });
}

Finding judgeKeyPair(const Known& known) {
  const FileInfo& key = known.directory.privateKey;
  const Pairing& pairing = known.pairing;
  Finding finding = {Verdict::FAIL, "key-pair", "", "", known.commands.pairAgain(), Serves::LOGIN_THERE};
  if (key.type != FileInfo::Type::FILE) {
    finding.found = key.path + " is missing";
    finding.cause = "this device has no key to log in with";
  } else if ((key.mode & 077U) != 0 && (key.owner == known.user.id || known.user.isRoot())) {
    finding.found = "others may access " + key.path;
    finding.cause = "ssh ignores such a private key";
    finding.command = known.commands.changeMode(key, "600");
  } else if (!key.readable) {
    finding.found = key.path + " belongs to " + key.ownerName;
    finding.cause = known.user.name + " cannot read it";
    finding.command = known.commands.takeOwnership(key);
  } else if (pairing.derived.end != Outcome::End::EXITED) {
    return {Verdict::SKIP, "key-pair", "not checked: ssh-keygen: " + pairing.derived.message()};
  } else if (!pairing.derived.succeeded()) {
    finding.found = "ssh-keygen cannot read the private key: " + pairing.derived.message();
    finding.cause = "it is damaged or has a passphrase";
  } else if (!pairing.keysMatch && known.directory.publicKey.type == FileInfo::Type::FILE) {
    finding.found = "the private and the public key do not belong together";
    finding.cause = "the other device may have a key that does not match the private key";
  } else if (isRefused(known.login) && pairing.keyIsNewer) {
    finding.found = "the key is newer than the pairing";
    finding.cause = known.side.program + " ran again: the other device knows only the old key";
  } else {
    return {Verdict::OK, "key-pair", pairing.fingerprint};
  }
  return finding;
}

/// What precedes the type of the key in a line of authorized_keys, without blanks around it.
std::string optionsOf(const std::string& line) {
  const std::size_t type = line.find("ssh-ed25519 ");
  const std::vector<std::string> words = split(line.substr(0, type == std::string::npos ? 0 : type), " \t");
  return join(words, " ");
}

bool holdsSecondKey(const std::string& line) {
  const std::size_t first = line.find(" AAAA");
  return first != std::string::npos && line.find(" AAAA", first + 1) != std::string::npos;
}

Finding judgePeerKey(const Known& known) {
  if (known.pairing.keygen.end != Outcome::End::EXITED) {
    return {Verdict::SKIP, "peer-key", "not checked: ssh-keygen: " + known.pairing.keygen.message()};
  }
  const std::vector<KeyLine>& lines = known.pairing.lines;
  Finding finding = {Verdict::FAIL, "peer-key", "", "", known.commands.pairAgain(), Serves::LOGIN_HERE};
  if (lines.empty()) {
    finding.found = "authorized_keys holds no pairing key";
    finding.cause = "the other device sent no key, this device could not store it, or somebody removed it";
  } else if (holdsSecondKey(lines.front().text)) {
    finding.found = "line " + std::to_string(lines.front().number) + " of authorized_keys holds two keys";
    finding.cause = "a newline is missing between them; a pairing would remove both";
    finding.command = known.commands.splitKeyLine(lines.front().number);
  } else if (lines.size() > 1) {
    finding.found = "authorized_keys holds " + std::to_string(lines.size()) + " pairing keys";
    finding.cause = "a pairing leaves exactly one";
  } else if (lines.front().text.size() > kMaxKeyLine || lines.front().fingerprint.empty()) {
    finding.found =
        "the pairing key in authorized_keys is damaged (line " + std::to_string(lines.front().number) + ")";
    finding.cause = "sshd ignores such a line";
  } else if (const std::string options = optionsOf(lines.front().text); !options.empty()) {
    finding.verdict = known.login.backTried ? Verdict::FAIL : Verdict::WARN;
    finding.found = "the pairing key has options: " + options;
    finding.cause = "they limit what the other device may do; a new pairing writes the line without them";
  } else {
    return {Verdict::OK, "peer-key", lines.front().fingerprint};
  }
  return finding;
}

std::string interfaceName(const Known& known) {
  const Interface* interface = linkOf(known.link, known.side);
  return interface == nullptr ? kLinkInterface : interface->name;
}

/// The lines that make ssh use the pairing key, and the wanted value of each changed setting.
std::vector<std::string> wantedLines(const Known& known, const std::vector<ChangedSetting>& changed) {
  std::vector<std::string> lines = {"IdentityFile " + known.directory.privateKey.path};
  for (const ChangedSetting& setting : changed) {
    // The first three settings have no value that means "not set".
    const std::string wanted = setting.name == "bindaddress"                ? known.side.ownAddress
                               : setting.name == "bindinterface"            ? interfaceName(known)
                               : setting.name == "preferredauthentications" ? "publickey"
                                                                            : setting.wanted;
    lines.push_back(setting.name + " " + wanted);
  }
  return lines;
}

std::string describe(const std::vector<ChangedSetting>& changed, const Known& known) {
  std::vector<std::string> parts;
  if (!known.pairing.usesKey) parts.emplace_back("IdentityFile without the pairing key");
  for (const ChangedSetting& setting : changed) parts.push_back(setting.name + " " + setting.value);
  return "for " + known.side.peerAddress + " ssh uses " + join(parts, ", ");
}

/// Judges settings that the doctor's own login overrides: with them, the user's login can fail although the
/// doctor's works.
std::optional<Finding> judgeReplaced(const Known& known) {
  const Settings& settings = known.pairing.settings;
  const std::string bound = settings.first("bindinterface");
  const bool forwards = !settings.first("localforward").empty() || !settings.first("remoteforward").empty() ||
                        !settings.first("dynamicforward").empty();
  const auto say = [&](const std::string& found, const char* cause, const std::string& line) {
    return Finding{Verdict::FAIL, "ssh-config", "for " + known.side.peerAddress + " ssh uses " + found, cause,
                   known.commands.setForSsh("login", {line})};
  };
  if (!bound.empty() && bound != interfaceName(known)) {
    return say("BindInterface " + bound, "that is not the link", "BindInterface " + interfaceName(known));
  }
  if (known.pairing.masterHangs) {
    return say("ControlPath " + settings.first("controlpath"), "no ssh answers on this socket",
               "ControlPath none");
  }
  if (forwards && settings.first("exitonforwardfailure") == "yes") {
    Finding finding = say("ExitOnForwardFailure yes", "a login ends if a port cannot be forwarded; not tried",
                          "ExitOnForwardFailure no");
    finding.verdict = Verdict::WARN;
    return finding;
  }
  return std::nullopt;
}

Finding rejectedConfig(const Known& known) {
  if (known.pairing.fault.number == 0 && isReplaced("ssh", known.pairing.sshPath)) {
    return {Verdict::FAIL,
            "ssh-config",
            known.pairing.sshPath + ": " + known.pairing.ssh.message(),
            "PATH leads to this file, not to /usr/bin/ssh; move it away if it does not belong there",
            "",
            Serves::LOGIN_THERE};
  }
  const std::string command = known.commands.disableForSsh(known.pairing.fault);
  return {Verdict::FAIL,
          "ssh-config",
          known.pairing.ssh.message(),
          command.empty() ? "ssh does not run with this configuration: correct it"
                          : "ssh does not run with this configuration; the command disables the line",
          command,
          Serves::LOGIN_THERE};
}

Finding judgeConfig(const Known& known) {
  const Pairing& pairing = known.pairing;
  Finding finding = {Verdict::FAIL, "ssh-config", "", "", "", Serves::LOGIN_THERE};
  if (pairing.ssh.end == Outcome::End::NOT_FOUND) {
    return {Verdict::FAIL,
            "ssh-config",
            "ssh is missing or cannot be started",
            "this device cannot log in anywhere",
            known.commands.asRoot("apt-get install --yes openssh-client"),
            Serves::LOGIN_THERE};
  }
  if (pairing.ssh.end == Outcome::End::TIMED_OUT) {
    return {Verdict::SKIP, "ssh-config", "not checked: ssh: " + pairing.ssh.message()};
  }
  if (!pairing.ssh.succeeded()) return rejectedConfig(known);
  if (!pairing.hasHostLine && !known.login.proven) {
    finding.found = known.directory.config.path + " has no " + known.side.hostLine();
    finding.cause = "the pairing failed, could not store the block, or somebody removed it";
    finding.command = known.commands.pairAgain();
    return finding;
  }
  if (auto replaced = judgeReplaced(known)) return *replaced;
  const std::vector<ChangedSetting> changed = changedSettings(pairing);
  if (known.login.proven || (changed.empty() && pairing.usesKey)) {
    return {Verdict::OK, "ssh-config", "ssh uses the pairing's key for " + known.side.peerAddress};
  }
  finding.found = describe(changed, known);
  finding.verdict = known.login.worksWithoutConfig ? Verdict::FAIL : Verdict::WARN;
  finding.cause =
      known.login.worksWithoutConfig
          ? "without ssh's configuration the login works; the command sets this for the other device only"
          : "this may prevent the login; the command sets ssh's usual values for the other device only";
  finding.command = known.commands.setForSsh("settings", wantedLines(known, changed));
  return finding;
}

/// Before a pairing, warns if config already has a block for the other device,
/// because the pairing then adds no block.
std::optional<Finding> judgeOtherBlock(const Known& known) {
  const std::vector<ChangedSetting> changed = changedSettings(known.pairing);
  if (!known.pairing.hasHostLine || !known.pairing.ssh.succeeded()) return std::nullopt;
  if (changed.empty() && known.pairing.usesKey) return std::nullopt;
  return Finding{Verdict::WARN, "ssh-config", "config already contains " + known.side.hostLine(),
                 "the pairing then adds no block",
                 known.commands.setForSsh("settings", wantedLines(known, changed))};
}

Finding notPaired(const Known& known) {
  Finding finding = {Verdict::SKIP, "pairing", "this device is not paired yet", "",
                     known.commands.pairAgain()};
  const std::vector<std::string>& others = known.pairing.otherUsers;
  if (others.empty()) return finding;
  finding.verdict = Verdict::WARN;
  finding.found =
      known.user.name + " is not paired, but " + join(others, ", ") + (others.size() == 1 ? " is" : " are");
  finding.cause = "each user has their own pairing; the command examines that of " + others.front();
  finding.command = known.commands.asRoot("dorve-doctor --user " + quoted(others.front()));
  return finding;
}

}  // namespace

Findings checkPairing(const Known& known) {
  if (known.user.name.empty()) return {};
  if (!known.pairing.exists) {
    Findings findings;
    if (auto finding = judgeOtherBlock(known)) findings.push_back(*finding);
    findings.push_back(notPaired(known));
    return findings;
  }
  return {judgeKeyPair(known), judgePeerKey(known), judgeConfig(known)};
}

}  // namespace dorve
