// SPDX-License-Identifier: MIT
#ifndef DORVE_DOCTOR_CHECKS_H_
#define DORVE_DOCTOR_CHECKS_H_

#include "dorve/doctor/report.h"
#include "dorve/doctor/situation.h"

/// The checks of dorve-doctor. Each adds its findings to the report and changes nothing on the device.
namespace dorve {

/// Checks the SSH directory that the programs find, its file system and the files in it.
void checkDirectory(const Situation& situation, Report& report);

/// Checks that ssh-keygen is in PATH, runs and knows ed25519.
void checkKeygen(const Situation& situation, Report& report);

/// Checks the role of this device, the link's interface and address, and the route to the other device.
void checkLink(const Situation& situation, Report& report);

/// Checks how many processes of this device's program run and, on the server, which process holds port 8888.
void checkPort(const Situation& situation, Report& report);

/// Checks the user's shell, and whether sshd listens and its configuration lets the other device log in.
void checkSshd(const Situation& situation, Report& report);

/// Checks that the other device answers on the link. Returns whether its port 22 is open.
bool checkPeer(const Situation& situation, Report& report);

/// Returns whether the SSH directory contains traces of a pairing, complete or not.
bool isPaired(const Situation& situation);

/// Checks what a pairing leaves: keys, entries in authorized_keys and config.
/// If `sshIsOpen`, tries a login to the other device.
void checkPairing(const Situation& situation, bool sshIsOpen, Report& report);

}  // namespace dorve

#endif  // DORVE_DOCTOR_CHECKS_H_
