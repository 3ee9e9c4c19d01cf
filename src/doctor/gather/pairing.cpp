// SPDX-License-Identifier: MIT
// What a pairing leaves on this device. ssh parses its configuration, and ssh-keygen parses the keys.
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "dorve/facts/text.h"
#include "dorve/gather/files.h"
#include "dorve/gather/subjects.h"
#include "dorve/keys/key_material.h"

namespace dorve {
namespace {

constexpr int kCommandMs = 4000;
constexpr int kMasterMs = 1000;
constexpr const char* kSample =
    "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA sample\n";

/// Runs ssh-keygen to get the fingerprint of a public key line.
Outcome askFingerprint(const std::string& line, const Deadline& deadline) {
  return runCommand({"ssh-keygen", "-l", "-f", "-"}, deadline.leftMs(kCommandMs), line + "\n");
}

std::string fingerprintOf(const std::string& line, const Deadline& deadline) {
  const Outcome outcome = askFingerprint(line, deadline);
  const std::vector<std::string> words = split(outcome.out, " ");
  return outcome.succeeded() && words.size() > 1 ? words[1] : "";
}

/// The type and the key of a public key line, without its comment.
std::vector<std::string> keyPart(const std::string& line) {
  std::vector<std::string> words = split(line, " \n");
  words.resize(std::min<std::size_t>(words.size(), 2));
  return words;
}

std::vector<KeyLine> pairingLines(const std::string& text, const Deadline& deadline) {
  constexpr std::size_t kMaxLines = 5;
  std::vector<KeyLine> lines;
  int number = 0;
  for (std::size_t start = 0; start < text.size() && lines.size() < kMaxLines;) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    ++number;
    const std::size_t first = line.find_first_not_of(" \t");
    if (!contains(line, kPairingKeyName) || line[first] == '#') continue;
    lines.push_back({number, line, fingerprintOf(line, deadline)});
  }
  return lines;
}

/// Returns whether one of ssh's identity files is the pairing key. ssh may print ~ or %d for the home
/// directory.
bool usesKey(const std::vector<std::string>& files, const std::string& key, const std::string& home) {
  return std::ranges::any_of(files, [&](std::string file) {
    if (file.starts_with("~/")) file.replace(0, 1, home);
    if (file.starts_with("%d/")) file.replace(0, 2, home);
    std::error_code error;
    return file == key || std::filesystem::equivalent(file, key, error);
  });
}

}  // namespace

FaultyLine findSystemFault(const Side& side, const Deadline& deadline) {
  return faultIn(runCommand({"ssh", "-F", "/etc/ssh/ssh_config", "-G", "--", side.peerAddress},
                            deadline.leftMs(kCommandMs)));
}

Pairing gatherPairing(const User& user, const Side& side, const Directory& directory,
                      const FaultyLine& systemFault, const Deadline& deadline) {
  const auto ask = [&](const std::vector<std::string>& words) {
    return runCommand(words, deadline.leftMs(kCommandMs));
  };
  Pairing pairing;
  pairing.keygenPath = findProgram("ssh-keygen");
  pairing.sshPath = findProgram("ssh");
  pairing.keygen = runCommand({"ssh-keygen", "-l", "-f", "-"}, deadline.leftMs(kCommandMs), kSample);
  pairing.ssh = ask({"ssh", "-G", "--", side.peerAddress});
  if (!pairing.ssh.succeeded()) {
    // ForkAfterAuthentication needs a command, and RemoteCommand rejects one.
    const Outcome withCommand = ask({"ssh", "-G", "--", side.peerAddress, "true"});
    if (withCommand.succeeded()) pairing.ssh = withCommand;
  }
  pairing.settings = Settings(pairing.ssh.out);
  pairing.fault = faultIn(pairing.ssh);
  pairing.fault.isSystems =
      pairing.fault.file == systemFault.file && pairing.fault.number == systemFault.number;
  const std::string master = pairing.settings.first("controlpath");
  if (master.starts_with('/') && inspect(master).type == FileInfo::Type::OTHER) {
    pairing.masterHangs =
        runCommand({"ssh", "-O", "check", "--", side.peerAddress}, deadline.leftMs(kMasterMs)).end ==
        Outcome::End::TIMED_OUT;
  }
  pairing.defaults = Settings(ask({"ssh", "-F", "none", "-G", "--", side.peerAddress}).out);
  if (directory.path.empty()) return pairing;

  const std::string& key = directory.privateKey.path;
  const std::string config = readText(directory.config.path);
  const std::string block = side.hostLine() + "\n    IdentityFile " + key + "\n";
  pairing.hasHostLine = contains(config, side.hostLine());
  pairing.lines = pairingLines(readText(directory.authorizedKeys.path), deadline);
  pairing.exists = !pairing.lines.empty() ||
                   (directory.privateKey.type == FileInfo::Type::FILE && contains(config, block));
  pairing.usesKey = usesKey(pairing.settings.all("identityfile"), key, user.home);
  if (directory.privateKey.type != FileInfo::Type::FILE) return pairing;

  const std::string publicLine = readText(directory.publicKey.path);
  pairing.derived = ask({"ssh-keygen", "-y", "-P", "", "-f", key});
  pairing.fingerprint = fingerprintOf(pairing.derived.out, deadline);
  pairing.keysMatch = keyPart(pairing.derived.out) == keyPart(publicLine);
  pairing.keyIsNewer = directory.authorizedKeys.type == FileInfo::Type::FILE &&
                       directory.privateKey.changed > directory.authorizedKeys.changed;
  return pairing;
}

}  // namespace dorve
