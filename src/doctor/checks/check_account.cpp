// SPDX-License-Identifier: MIT
// Whether the account itself allows a login. sshd or PAM refuses it otherwise.
#include "dorve/checks/checks.h"

namespace dorve {
namespace {

Finding shellFinding(const Known& known, const std::string& cause) {
  return {Verdict::FAIL,
          "shell",
          "the shell of " + known.user.name + " is " + known.user.shell,
          cause,
          known.commands.asRoot("usermod --shell /bin/sh " + quoted(known.user.name)),
          Serves::LOGIN_HERE};
}

}  // namespace

std::optional<Finding> checkAccount(const Known& known) {
  const User& user = known.user;
  const bool pam = known.sshd.settings.first("usepam") == "yes";
  const auto say = [&](const std::string& found, const std::string& cause, const std::string& change) {
    return Finding{Verdict::FAIL,
                   "sshd-config",
                   found,
                   cause,
                   change.empty() ? "" : known.commands.asRoot(change + " " + quoted(user.name)),
                   Serves::LOGIN_HERE};
  };
  if (!user.shellWorks || user.shell.ends_with("/nologin") || user.shell.ends_with("/false")) {
    return shellFinding(known, "every login ends at once");
  }
  if (known.login.backAccepted && !known.login.backProven && !user.shellIsListed) {
    return shellFinding(known, "it does not run the command of a login, and /etc/shells does not list it");
  }
  if (user.locked && !pam) {
    return say("the account " + user.name + " is locked",
               "sshd without PAM refuses a user whose password field begins with !; the command allows keys, "
               "no password",
               "usermod -p '*'");
  }
  if (user.expired) {
    return say("the account " + user.name + " has expired", "the command removes the date",
               "usermod --expiredate ''");
  }
  if (user.passwordOld && pam) {
    return say("the password of " + user.name + " has expired",
               "PAM asks for a new one at each login; the command ends its ageing",
               "chage --lastday -1 --maxdays -1");
  }
  if (known.sshd.loginsForbidden && !user.isRoot()) {
    return say("/etc/nologin exists", "only root may log in until it is deleted", "");
  }
  return std::nullopt;
}

}  // namespace dorve
