// SPDX-License-Identifier: MIT
#ifndef DORVE_DOCTOR_CHECKS_H_
#define DORVE_DOCTOR_CHECKS_H_

#include "dorve/doctor/report.h"
#include "dorve/doctor/situation.h"

/// The checks, in the order in which they run. Each adds what it finds to the report and changes nothing.
namespace dorve {

/// The SSH directory as the programs find it: its path, owner, modes, file system, and the files in it.
void checkDirectory(const Situation& situation, Report& report);

/// ssh-keygen: found by PATH, runs, knows ed25519.
void checkKeygen(const Situation& situation, Report& report);

/// The interface of the link: there, up, with a carrier and its address, and the route to the other device.
void checkLink(const Situation& situation, Report& report);

/// Programs of ours that run already, and on the server who holds port 8888.
void checkPort(const Situation& situation, Report& report);

/// sshd on this device: whether it listens, and whether its effective configuration lets the other side in.
void checkSshd(const Situation& situation, Report& report);

/// How the other device answers on the link. Returns whether its port 22 is open.
bool checkPeer(const Situation& situation, Report& report);

/// Whether the SSH directory shows a pairing, finished or not.
bool isPaired(const Situation& situation);

/// What a pairing leaves: keys, the entries in ssh's files, and the login itself if port 22 is open there.
void checkPairing(const Situation& situation, bool sshIsOpen, Report& report);

}  // namespace dorve

#endif  // DORVE_DOCTOR_CHECKS_H_
