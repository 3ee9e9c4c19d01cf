// SPDX-License-Identifier: MIT
#ifndef DORVE_FACTS_ACCESS_H_
#define DORVE_FACTS_ACCESS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "dorve/facts/fact.h"
#include "dorve/facts/outcome.h"

/// sshd, the pairing and the logins.
namespace dorve {

/// A line of a configuration that ssh or sshd rejects. Without one, `number` is 0.
struct FaultyLine {
  std::string file;
  int number = 0;
  std::string text;
  bool isSystems = false;  ///< ssh rejects it without the user's configuration too
};

/// The place that a message of ssh or sshd names as "FILE: line N:" or "FILE line N:". The text stays empty.
FaultyLine findFault(const std::string& message);

/// A line of sshd's configuration.
struct ConfigLine {
  std::string file;
  int number = 0;
  std::string keyword;  ///< in lower case
  std::string text;     ///< the whole line
  bool inMatch = false;
};

/// A login of this user from the other device's address that the doctor acts out with this device's sshd,
/// in a network of its own. It offers the pairing key but cannot prove to own it, so it always ends early.
struct Rehearsal {
  bool accepted = false;           ///< sshd would accept the key
  bool offersPairingKey = false;   ///< else a key that nobody owns
  std::vector<std::string> words;  ///< what sshd reported, without debugging messages
};

struct Sshd {
  bool installed = false;
  bool systemd = false;                    ///< systemd runs this device
  std::string arguments;                   ///< with which the listening sshd was started
  std::vector<std::string> testArguments;  ///< those that name or change its configuration
  std::string configFile;
  FaultyLine fault;                 ///< that sshd names when it rejects its configuration
  Outcome test;                     ///< `sshd -T` for a login of this user from the other device
  Settings settings;                ///< the output of `test`
  std::vector<ConfigLine> lines;    ///< of sshd_config and the files that it includes
  bool changedSinceStart = false;   ///< a file of the configuration is newer than the running sshd
  bool loginsForbidden = false;     ///< /etc/nologin exists
  bool readsAuthorizedKeys = true;  ///< the user's authorized_keys is among the files of AuthorizedKeysFile
  Fact<Rehearsal> rehearsal;        ///< only root can act it out
  Fact<std::vector<std::string>>
      log;  ///< sshd's words about its last refusal of the other device; maybe none
};

/// A line of authorized_keys that holds the name of the pairing key.
struct KeyLine {
  int number = 0;
  std::string text;
  std::string fingerprint;  ///< empty if ssh-keygen can't read the line
};

/// What a pairing leaves on this device.
struct Pairing {
  bool exists = false;         ///< there are traces of a pairing, complete or not
  std::vector<KeyLine> lines;  ///< without comment lines
  bool hasHostLine = false;    ///< config contains "Host ADDRESS" somewhere, so a pairing adds no block
  bool includesOurs = false;   ///< config begins with the line that a printed command adds
  std::string keygenPath;      ///< where PATH finds ssh-keygen; empty if it does not
  std::string sshPath;         ///< the same of ssh
  Outcome keygen;              ///< ssh-keygen, which reads a sample key
  Outcome derived;             ///< the public key that ssh-keygen derives from the private key
  std::string fingerprint;     ///< of the key in the .pub file
  bool keysMatch = false;      ///< the .pub file holds the derived key
  bool keyIsNewer = false;     ///< the private key is newer than authorized_keys
  Outcome ssh;                 ///< `ssh -G` for the other device
  FaultyLine fault;            ///< that ssh names when it rejects its configuration
  Settings settings;           ///< the output of `ssh`
  Settings defaults;           ///< the same without any configuration
  bool masterHangs = false;    ///< ssh would share a connection over a socket on which nothing answers
  bool usesKey = false;        ///< one of ssh's identity files is the pairing key
  std::vector<std::string> otherUsers;  ///< users of this device who are paired, without this one
};

/// Returns whether PATH leads to another file than the system's program of that name. `found` is empty if it
/// leads to none.
bool isReplaced(const std::string& program, const std::string& found);

/// A setting for which ssh has another value for the other device than a login after a pairing needs.
struct ChangedSetting {
  std::string name;    ///< in lower case
  std::string value;   ///< "none" if it is not set
  std::string wanted;  ///< the value of the pairing's block, else ssh's default
};

/// The settings of ssh's configuration that could prevent a login, whether or not they do.
std::vector<ChangedSetting> changedSettings(const Pairing& pairing);

/// How a TCP port of another device answers a probe.
enum class PortState : std::uint8_t {
  OPEN,
  REFUSED,   ///< answers with a reset: no process listens, or a firewall rejects
  REJECTED,  ///< the device or a firewall answers with ICMP
  SILENT,    ///< no answer
  NO_ROUTE,  ///< this device does not send the packets
};

struct Peer {
  PortState ssh = PortState::NO_ROUTE;
  PortState dorve = PortState::NO_ROUTE;
};

/// A login to the other device, and a login from there back to this device through it.
struct Login {
  bool tried = false;
  bool proven = false;  ///< the other device printed the token
  std::string user;     ///< as whom ssh logs in
  Outcome outcome;
  std::vector<std::string> words;   ///< ssh's own words, without those of the other device
  bool accepted = false;            ///< the other device accepted the key
  bool worksWithoutConfig = false;  ///< the login works if ssh reads no configuration
  std::string otherUser;            ///< a user whom the other device lets in instead; empty if none was found
  bool backTried = false;
  bool backProven = false;
  bool backAccepted = false;           ///< this device accepted the other one's key
  std::vector<std::string> backWords;  ///< what ssh there reported
};

}  // namespace dorve

#endif  // DORVE_FACTS_ACCESS_H_
