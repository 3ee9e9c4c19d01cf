// SPDX-License-Identifier: MIT
// Logs in to the other device as the user's ssh would, and from there back to this device.
#include <pwd.h>

#include <algorithm>

#include "dorve/facts/text.h"
#include "dorve/gather/subjects.h"

namespace dorve {
namespace {

constexpr uid_t kFirstUserId = 1000;  // the first user ID of ordinary users on Debian
constexpr uid_t kNobody = 65534;
constexpr const char* kToken = "dorve-doctor-there";
constexpr const char* kBackToken = "dorve-doctor-and-back";
constexpr int kLoginMs = 8000;
constexpr int kBackSeconds = 2;

/// One login. ssh's own words are apart from those of the other device.
struct Attempt {
  Outcome outcome;
  std::vector<std::string> words;
  bool accepted = false;  ///< the other device accepted the key
};

bool saysAccepted(const std::string& line) {
  return line.starts_with("Authenticated to ");
}

/// Returns whether a line of ssh accompanies a login that works.
bool isRoutine(const std::string& line) {
  constexpr const char* kRoutine[] = {"Warning: Permanently added", "Authenticated to ",
                                      "Transferred: ", "Bytes per second: "};
  return std::ranges::any_of(kRoutine, [&](const char* start) { return line.starts_with(start); });
}

bool printsLine(const std::string& text, const std::string& line) {
  const std::vector<std::string> lines = linesOf(text);
  return std::ranges::find(lines, line) != lines.end();
}

/// The command for the other device: prints the token, then logs in here with its pairing key.
std::string remoteCommand(const User& user, const Side& side) {
  std::string command = std::string("echo ") + kToken;
  if (!isPlainName(user.name)) return command;
  return command +
         "; ssh -F none -n -T -i ~/.ssh/base_slice_exchange -o IdentitiesOnly=yes -o IdentityAgent=none"
         " -o BatchMode=yes -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null -o LogLevel=VERBOSE"
         " -o ConnectTimeout=" +
         std::to_string(kBackSeconds) + " -l " + user.name + " " + side.ownAddress + " echo " + kBackToken;
}

/// Runs ssh with `options`, those that keep a login from asking, storing or forwarding anything, and a
/// command.
Attempt attempt(std::vector<std::string> options, const std::string& command, const Side& side,
                const std::string& interface, const Deadline& deadline) {
  std::vector<std::string> words = {"ssh", "-n", "-T", "-E", "/dev/stdin"};
  words.insert(words.end(), options.begin(), options.end());
  const int seconds = std::max(1, side.timeoutMs / 1000);
  for (const std::string& option :
       {std::string("BatchMode=yes"), std::string("ControlMaster=no"), std::string("ControlPath=none"),
        std::string("ClearAllForwardings=yes"), std::string("ForwardX11=no"), std::string("ForwardAgent=no"),
        std::string("AddKeysToAgent=no"), std::string("PermitLocalCommand=no"), std::string("Tunnel=no"),
        std::string("UpdateHostKeys=no"), std::string("VerifyHostKeyDNS=no"),
        std::string("GSSAPIAuthentication=no"), std::string("LogLevel=VERBOSE"), "BindInterface=" + interface,
        "ConnectTimeout=" + std::to_string(seconds)}) {
    words.insert(words.end(), {"-o", option});
  }
  words.insert(words.end(), {"--", side.peerAddress, command});
  Attempt result;
  Command ssh(words, {"", -1, true});
  result.outcome = ssh.finish(deadline.leftMs(std::max(kLoginMs, side.timeoutMs)));
  result.words = spokenLines(ssh.log());
  result.accepted = std::ranges::any_of(result.words, saysAccepted);
  std::erase_if(result.words, isRoutine);
  return result;
}

/// The most likely name, other than `tried`, of the user who paired on the other device:
/// this user's, root, or that of the first ordinary user here.
/// The doctor tries only one name, because sshd from OpenSSH 9.8 on blocks an address
/// after several failures.
std::string likelyUser(const std::string& tried, const User& user) {
  if (tried != user.name) return user.name;
  if (!user.isRoot()) return "root";
  std::string name;
  setpwent();
  while (const passwd* entry = getpwent()) {
    if (name.empty() && entry->pw_uid >= kFirstUserId && entry->pw_uid < kNobody) name = entry->pw_name;
  }
  endpwent();
  return name;
}

/// What the login needs besides the user's configuration, so that ssh neither asks nor leaves before the end.
std::vector<std::string> ownOptions(const Settings& settings) {
  std::vector<std::string> options;
  if (settings.first("forkafterauthentication") == "yes") options = {"-o", "ForkAfterAuthentication=no"};
  const std::string checking = settings.first("stricthostkeychecking");
  const bool checks =
      checking != "no" && checking != "false" && checking != "off" && checking != "accept-new";
  options.insert(options.end(), {"-o", checks ? "StrictHostKeyChecking=yes" : "StrictHostKeyChecking=no"});
  if (!checks) options.insert(options.end(), {"-o", "UserKnownHostsFile=/dev/null"});
  return options;
}

/// The setting that makes ssh connect elsewhere or by a proxy; empty if there is none.
std::string detourOf(const Settings& settings, const Side& side) {
  const std::string host = settings.first("hostname");
  if (host != side.peerAddress) return "hostname " + host;
  for (const char* name : {"proxyjump", "proxycommand"}) {
    const std::string value = settings.first(name);
    if (!value.empty() && value != "none") return std::string(name) + " " + value;
  }
  return "";
}

}  // namespace

Login gatherLogin(const User& user, const Side& side, const Directory& directory, const Pairing& pairing,
                  const std::string& interface, const Deadline& deadline) {
  const std::vector<std::string> plain = {"-F", "none",
                                          "-i", directory.privateKey.path,
                                          "-o", "IdentitiesOnly=yes",
                                          "-o", "IdentityAgent=none",
                                          "-o", "StrictHostKeyChecking=no",
                                          "-o", "UserKnownHostsFile=/dev/null"};
  const auto loginAs = [&](const std::string& name) {
    std::vector<std::string> options = plain;
    options.insert(options.end(), {"-l", name});
    return printsLine(attempt(options, std::string("echo ") + kToken, side, interface, deadline).outcome.out,
                      kToken);
  };
  Login login;
  login.tried = true;
  login.user = pairing.settings.first("user");
  Attempt first;
  const std::string detour = detourOf(pairing.settings, side);
  if (detour.empty()) {
    first = attempt(ownOptions(pairing.settings), remoteCommand(user, side), side, interface, deadline);
  } else {
    // A proxy or a name server could be in any network.
    first.words = {"not tried with ssh's configuration, which uses " + detour};
    first.outcome.end = Outcome::End::EXITED;
  }
  login.outcome = first.outcome;
  login.words = first.words;
  login.accepted = first.accepted;
  login.proven = printsLine(first.outcome.out, kToken);
  if (login.proven) {
    login.backTried = isPlainName(user.name);
    login.backProven = printsLine(first.outcome.out, kBackToken);
    login.backWords = spokenLines(first.outcome.err);
    login.backAccepted = std::ranges::any_of(login.backWords, saysAccepted);
    std::erase_if(login.backWords, isRoutine);
    return login;
  }
  if (login.accepted || first.outcome.end == Outcome::End::NOT_FOUND) return login;
  const bool isChanged = !changedSettings(pairing).empty();
  if (isChanged) login.worksWithoutConfig = loginAs(login.user);
  const bool refused = std::ranges::any_of(
      first.words, [](const std::string& line) { return contains(line, "Permission denied"); });
  const std::string other = likelyUser(login.user, user);
  if ((refused || isChanged) && !login.worksWithoutConfig && !other.empty() && loginAs(other)) {
    login.otherUser = other;
  }
  return login;
}

}  // namespace dorve
