// SPDX-License-Identifier: MIT
#ifndef DORVE_GATHER_SUBJECTS_H_
#define DORVE_GATHER_SUBJECTS_H_

#include <string>
#include <vector>

#include "dorve/facts/facts.h"
#include "dorve/gather/command.h"

/// Each function gathers the facts of one subject. They change nothing on this device.
namespace dorve {

/// The user of this name, or this process's user if `name` is empty. Without the user, `name` stays empty.
User gatherUser(const std::string& name);

/// Gives this process the rights of that user, for good, and the environment of a login.
/// Returns false if that fails.
bool becomeUser(const User& user);

/// Users of this device who have a pairing key, without `user`.
std::vector<std::string> pairedUsers(const User& user);

/// The SSH directory that the programs find with the environment of this process.
Directory gatherDirectory(const User& user);

/// The side of this device, by its addresses, else by ssh's config.
/// If neither tells, guesses that it is the client.
Side findSide(const std::vector<Interface>& interfaces, const Directory& directory);

/// That side, with everything that follows from it.
Side makeSide(Role role, std::string reason);

/// All interfaces of this device, from getifaddrs(3) and /proc/net/route.
std::vector<Interface> gatherInterfaces();

/// Whether packets for the other device may leave through an interface. A client pairs only through that of
/// the link.
bool mayBeAsked(const Interface* interface, const Side& side);

/// The link: the kernel's route to the other device, its neighbour entry and, as root, who answers to ARP.
Link gatherLink(std::vector<Interface> interfaces, const Side& side, const Deadline& deadline);

/// Asks on an interface who has two addresses, for at most `timeoutMs` milliseconds.
Fact<Answers> askForAddresses(const std::string& interface, const Side& side, int timeoutMs);

/// The programs that run, and who listens. No value without /proc.
Fact<Processes> gatherProcesses(const User& user, const Side& side);

/// Probes ports 22 and 8888 of the other device at the same time, through the interface of the link.
/// Never completes a handshake. Otherwise a server that serves only one client would mistake the probe for
/// its client.
Peer gatherPeer(const Side& side, const std::string& interface, int timeoutMs);

/// Returns whether what listens on port 22 of this device's address greets as an SSH server does.
bool greetsAsSsh(const std::string& address);

/// Returns whether something on this device accepts connections to this address and port.
bool acceptsConnections(const std::string& address, std::uint16_t port);

/// The packet filter. Only root can see it.
Fact<Firewall> gatherFirewall(const Deadline& deadline);

/// sshd on this device, and its view of this user.
Sshd gatherSshd(const User& user, const Side& side, const Directory& directory,
                const Fact<Processes>& processes, const Deadline& deadline);

/// Acts out a login with this device's sshd. Only root can.
/// `key` is a public key, as type and base64 text.
Fact<Rehearsal> rehearse(const User& user, const Side& side, const std::string& key,
                         const std::vector<std::string>& sshdArguments, const Deadline& deadline);

/// What sshd's log says about its last refusal of the other device. No value if there is no log.
Fact<std::vector<std::string>> lastRefusal(const Side& side, const Sshd& sshd, const Deadline& deadline);

/// The line that ssh rejects in the system's configuration. Asked before this process becomes the user.
FaultyLine findSystemFault(const Side& side, const Deadline& deadline);

/// The keys, the entries and ssh's configuration.
Pairing gatherPairing(const User& user, const Side& side, const Directory& directory,
                      const FaultyLine& systemFault, const Deadline& deadline);

/// Tries to log in to the other device over the interface of the link, and from there back.
Login gatherLogin(const User& user, const Side& side, const Directory& directory, const Pairing& pairing,
                  const std::string& interface, const Deadline& deadline);

}  // namespace dorve

#endif  // DORVE_GATHER_SUBJECTS_H_
