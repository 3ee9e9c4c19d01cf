// SPDX-License-Identifier: MIT
// The login to the other device, and the login from there to this device.
#include <algorithm>

#include "dorve/checks/checks.h"
#include "dorve/facts/text.h"

namespace dorve {
namespace {

struct Explanation {
  const char* words;  ///< part of what ssh prints
  const char* cause;
};
constexpr Explanation kExplanations[] = {
    {"Host key verification failed", "ssh checks the other device's host key, and does not know it"},
    {"host key is known", "ssh checks the other device's host key, and does not know it"},
    {"Too many authentication failures", "sshd there allows fewer attempts than ssh made"},
    {"Unable to negotiate", "the ssh here and the sshd there have no such algorithm in common"},
    {"banner exchange", "ssh connected, but no sshd answered"},
    {"Connection refused", "no sshd listens there"},
    {"Connection closed", "sshd there ended the connection; dorve-doctor on that device says why"},
    {"Connection reset", "sshd there ended the connection; dorve-doctor on that device says why"},
    {"timed out",
     "packets are lost: by a firewall here or there, or because they are too large for the link"},
};

constexpr std::size_t kMaxQuoted = 300;  // bytes of what a shell of the other device prints

std::string allWords(const Login& login) {
  if (!login.words.empty()) return join(login.words, "; ");
  return login.outcome.message();
}

Finding failed(const std::string& found, const std::string& cause, const std::string& command) {
  return {Verdict::FAIL, "login", found, cause, command, Serves::LOGIN_THERE};
}

Finding explainRefusal(const Known& known) {
  const Login& login = known.login;
  const std::string& address = known.side.peerAddress;
  if (!login.otherUser.empty()) {
    return failed(address + " lets " + login.otherUser + " in, not " + login.user,
                  "the pairing there ran as " + login.otherUser,
                  known.commands.setForSsh("user", {"User " + login.otherUser}));
  }
  const std::string found = address + " refuses the key for " + login.user + ": " + allWords(login);
  if (known.pairing.fingerprint.empty()) {
    return failed(found, "this device has no key that ssh can use", known.commands.pairAgain());
  }
  return failed(found,
                "its sshd keeps " + login.user + " out, or it does not hold the key " +
                    known.pairing.fingerprint + "; in that case pair again",
                known.commands.doctorThere(login.user));
}

Finding explainFailure(const Known& known) {
  const Login& login = known.login;
  const std::string words = allWords(login);
  if (login.worksWithoutConfig) {
    return failed(words, "the line ssh-config says which settings prevent the login", "");
  }
  if (login.accepted) {
    const std::string printed = join(linesOf(login.outcome.err + "\n" + login.outcome.out), "; ");
    return failed(
        "the key is accepted, but no command runs: " +
            (printed.empty() ? login.outcome.message() : "it prints " + printed.substr(0, kMaxQuoted)),
        "the user's shell there, a start-up file (such as .bashrc or sshrc) or a forced command "
        "ends the login or hangs",
        known.commands.doctorThere());
  }
  if (contains(words, "Permission denied") || !login.otherUser.empty()) return explainRefusal(known);
  if (login.outcome.end == Outcome::End::TIMED_OUT) {
    return failed("ssh timed out" + (login.words.empty() ? "" : ": " + words),
                  "the other device is slow, or packets are lost, perhaps only large ones (MTU)",
                  "dorve-doctor --timeout 10");
  }
  const auto* const explanation = std::ranges::find_if(
      kExplanations, [&](const Explanation& each) { return contains(words, each.words); });
  return failed(words, explanation == std::end(kExplanations) ? "" : explanation->cause,
                known.commands.doctorThere());
}

Finding judgeLoginHere(const Known& known) {
  const Login& login = known.login;
  const std::string& peer = known.side.peerAddress;
  const bool accepted = known.sshd.rehearsal && known.sshd.rehearsal->accepted;
  if (login.backProven) return {Verdict::OK, "login-here", peer + " logs in here as " + known.user.name};
  if (!login.backTried) {
    return {Verdict::SKIP, "login-here",
            std::string(login.proven ? "not tried" : "not tried, because this device cannot log in there") +
                (accepted ? "; sshd on this device accepts the key in authorized_keys" : "")};
  }
  const std::string words = join(login.backWords, "; ");
  Finding finding = {Verdict::FAIL,     "login-here", peer + " cannot log in here: " + words, "", "",
                     Serves::LOGIN_HERE};
  if (contains(words, "Identity file")) {
    finding.cause = "the other device has no pairing key";
    finding.command = known.commands.pairAgain();
  } else if (contains(words, "Permission denied") && accepted &&
             checkSshdConfig(known).verdict == Verdict::OK && !known.sshd.changedSinceStart) {
    finding.cause = "sshd accepts the key in authorized_keys, so the other device has a different key";
    finding.command = known.commands.pairAgain();
  } else if (login.backAccepted) {
    finding.found = peer + " can log in here, but no command runs" + (words.empty() ? "" : ": " + words);
    finding.cause =
        "the shell " + known.user.shell + ", a forced command" +
        (known.user.startFiles.empty() ? ""
                                       : " or a start-up file (" + join(known.user.startFiles, ", ") + ")") +
        " ends the login or hangs";
  } else if (contains(words, "Connection closed") && accepted &&
             known.sshd.settings.first("usepam") == "yes") {
    finding.cause = "sshd accepts the key, so PAM refuses the account; the modules are in /etc/pam.d/sshd";
  } else if (contains(words, "timed out") || contains(words, "No route to host")) {
    finding.cause = "a firewall on this device or on the other one drops the packets";
  } else if (contains(words, "Permission denied")) {
    finding.cause = "sshd on this device refuses the key of the other one";
  }
  return finding;
}

}  // namespace

std::optional<Finding> checkLog(const Known& known) {
  if (!known.user.rootHelps || known.login.backProven || !known.pairing.exists) return std::nullopt;
  const Fact<std::vector<std::string>>& log = known.sshd.log;
  if (log) {
    if (log->empty()) return std::nullopt;
    return Finding{Verdict::SKIP, "sshd-log", "sshd's log about the last refused login: " + join(*log, "; ")};
  }
  if (!known.login.backTried || known.login.backAccepted) return std::nullopt;
  return Finding{Verdict::SKIP, "sshd-log", log.whyNot,
                 "run this second sshd, then on the other device: ssh -p 2222 " + known.side.ownAddress +
                     "; it prints why it refuses",
                 known.commands.showRefusal()};
}

Findings checkLogins(const Known& known) {
  if (known.user.name.empty() || !known.pairing.exists) return {};
  Findings findings;
  if (known.login.proven) {
    findings.push_back(
        {Verdict::OK, "login", "ssh " + known.side.peerAddress + " logs in as " + known.login.user});
  } else if (!known.login.tried) {
    findings.push_back({Verdict::SKIP, "login", "not tried, for the reasons above"});
  } else {
    findings.push_back(explainFailure(known));
  }
  findings.push_back(judgeLoginHere(known));
  return findings;
}

}  // namespace dorve
