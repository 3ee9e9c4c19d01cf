// SPDX-License-Identifier: MIT
#ifndef DORVE_CHECKS_CHECKS_H_
#define DORVE_CHECKS_CHECKS_H_

#include <optional>
#include <vector>

#include "dorve/checks/commands.h"
#include "dorve/checks/finding.h"
#include "dorve/facts/facts.h"

/// The judgements of dorve-doctor. They are pure functions: the same facts give the same findings.
namespace dorve {

/// All findings, in the order in which they are printed.
/// A problem in a direction in which a login works is no failure: it becomes ok, or warn if it would prevent
/// another pairing.
std::vector<Finding> judge(const Facts& facts);

/// The facts of a complete examination, for the checks of each subject.
struct Known {
  const User& user;
  const Side& side;
  const Link& link;
  const Directory& directory;
  const Fact<Processes>& processes;
  const Sshd& sshd;
  const Pairing& pairing;
  const Login& login;
  const Fact<Peer>& peer;
  const Commands& commands;
};

using Findings = std::vector<Finding>;

/// Whose pairing is examined, on which side.
Findings checkUser(const User& user, const Side& side, const Directory& directory, const Commands& commands);

/// The link's interface and address, and the route to the other device.
Findings checkLink(const User& user, const Side& side, const Link& link, const Commands& commands);

/// The SSH directory, its file system and the files in it. `strictModes` is sshd's setting.
Findings checkDirectory(const User& user, const Side& side, const Directory& directory, bool strictModes,
                        const Commands& commands);

/// ssh-keygen.
Findings checkKeygen(const User& user, const Pairing& pairing, const Commands& commands);

/// How many programs run and, on the server, who holds port 8888.
Findings checkPrograms(const Side& side, const Fact<Processes>& processes, const Commands& commands);

/// Whether this device's packet filter lets the packets of the link pass.
Findings checkFirewall(const Firewall& firewall, const Known& known);

/// Whether an SSH server listens, and the finding of `checkSshdConfig`.
Findings checkSshd(const Known& known);

/// Why the account itself refuses every login with a key. No finding if it does not.
std::optional<Finding> checkAccount(const Known& known);

/// Whether sshd's configuration and the account let the other device log in.
Finding checkSshdConfig(const Known& known);

/// Whether the other device answers.
Findings checkPeer(const Known& known);

/// What a pairing left: the keys, the entries and ssh's configuration.
Findings checkPairing(const Known& known);

/// What sshd's log says about the last refusal, or how to see what it would say.
/// No finding if there is nothing to add, or if the user may not see it.
std::optional<Finding> checkLog(const Known& known);

/// The login to the other device, and the one from there.
Findings checkLogins(const Known& known);

}  // namespace dorve

#endif  // DORVE_CHECKS_CHECKS_H_
