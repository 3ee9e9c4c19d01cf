// SPDX-License-Identifier: MIT
#include "dorve/checks/checks.h"

#include <algorithm>
#include <iterator>

namespace dorve {
namespace {

/// Lowers the verdict of a problem that a working login disproves.
void temper(Finding& finding, const Login& login) {
  const bool isProblem = finding.verdict == Verdict::FAIL || finding.verdict == Verdict::WARN;
  if (!isProblem) return;
  const bool both = login.proven && login.backProven;
  if (finding.serves == Serves::PAIRING && both) finding.verdict = Verdict::WARN;
  const bool disproved = (finding.serves == Serves::LOGIN_THERE && login.proven) ||
                         (finding.serves == Serves::LOGIN_HERE && login.backProven);
  if (disproved) finding = {Verdict::OK, finding.name, finding.found + ", but the login works"};
}

Finding unexamined(const char* name, const std::string& reason) {
  return {Verdict::SKIP, name, "not checked: " + reason};
}

void add(Findings& all, Findings more) {
  all.insert(all.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
}

}  // namespace

std::vector<Finding> judge(const Facts& facts) {
  if (facts.user && facts.user->name.empty() && !facts.side) {
    return {{Verdict::FAIL, "user", "there is no such user", "the password database does not know the name"}};
  }
  if (!facts.user || !facts.side) return {unexamined("user", facts.user.whyNot)};
  // A subject that was not examined in time is judged as if there were nothing to say about it,
  // and its line says so.
  const Directory directory = facts.directory.value.value_or(Directory());
  const Sshd sshd = facts.sshd.value.value_or(Sshd());
  const Link link = facts.link.value.value_or(Link());
  const Pairing pairing = facts.pairing.value.value_or(Pairing());
  const Login login = facts.login.value.value_or(Login());
  const Commands commands(*facts.user, *facts.side, directory, sshd, facts.processes);
  const Known known = {*facts.user, *facts.side, link,  directory,  facts.processes,
                       sshd,        pairing,     login, facts.peer, commands};

  Findings all = checkUser(known.user, known.side, directory, commands);
  add(all, facts.link ? checkLink(known.user, known.side, link, commands)
                      : Findings{unexamined("interface", facts.link.whyNot)});
  const bool strictModes = sshd.settings.first("strictmodes") != "no";
  add(all, facts.directory ? checkDirectory(known.user, known.side, directory, strictModes, commands)
                           : Findings{unexamined("ssh-dir", facts.directory.whyNot)});
  if (facts.pairing) add(all, checkKeygen(known.user, pairing, commands));
  add(all, checkPrograms(known.side, facts.processes, commands));
  if (facts.firewall) add(all, checkFirewall(*facts.firewall, known));
  add(all, facts.sshd ? checkSshd(known) : Findings{unexamined("sshd", facts.sshd.whyNot)});
  if (facts.login) add(all, checkPeer(known));
  add(all, facts.pairing ? checkPairing(known) : Findings{unexamined("pairing", facts.pairing.whyNot)});
  add(all, facts.login ? checkLogins(known) : Findings{unexamined("login", facts.login.whyNot)});
  for (Finding& finding : all) temper(finding, login);
  const bool isExplained = std::ranges::any_of(all, [](const Finding& finding) {
    return finding.verdict == Verdict::FAIL && finding.serves == Serves::LOGIN_HERE &&
           finding.name != "login-here";
  });
  if (const auto log = checkLog(known); log && !isExplained) all.push_back(*log);
  return all;
}

}  // namespace dorve
