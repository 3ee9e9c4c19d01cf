// SPDX-License-Identifier: MIT
#ifndef DORVE_FACTS_DEVICE_H_
#define DORVE_FACTS_DEVICE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "dorve/facts/fact.h"
#include "dorve/facts/outcome.h"

/// The user, the files, the link and the processes of this device.
namespace dorve {

constexpr std::uint16_t kSshPort = 22;

/// The side of a pairing.
enum class Role : std::uint8_t { CLIENT, SERVER };

/// Whose pairing is examined, and by whom.
struct User {
  unsigned int id = 0;
  std::string name;        ///< empty if the password database does not know the user
  std::string home;        ///< from the password database; ssh and sshd use it instead of HOME
  std::string shell;       ///< from the password database
  std::string runBy;       ///< the user whose shell runs the printed commands: before sudo, if sudo was used
  bool rootHelps = false;  ///< the doctor was started by root, so it knows what only root can see
  bool hasSudo = true;     ///< sudo is installed
  bool shellWorks = true;  ///< the shell exists and may be executed
  bool shellIsListed = true;            ///< /etc/shells lists it
  std::vector<std::string> startFiles;  ///< files that a login reads before it runs a command
  bool locked = false;                  ///< the password field begins with '!'; false if it can't be read
  bool expired = false;                 ///< the account has expired; false if that is not known
  bool passwordOld = false;  ///< the password must be changed before a login; false if that is not known
  std::string group;         ///< the name of the primary group

  bool isRoot() const { return id == 0; }
};

/// What stat(2) and the flags of chattr(1) say about a path.
struct FileInfo {
  enum class Type : std::uint8_t { MISSING, FILE, DIRECTORY, OTHER, UNKNOWN };
  std::string path;
  std::string real;  ///< the path without links; empty if there is nothing
  Type type = Type::UNKNOWN;
  std::string error;      ///< why the type is UNKNOWN, or why the user may not write or read the file
  bool dangling = false;  ///< it is a link to a file that cannot be created
  unsigned int owner = 0;
  std::string ownerName;
  unsigned int mode = 0;
  bool groupIsPrivate = false;  ///< its owner is the only member of its group
  bool hasOtherNames = false;   ///< it is a file with hard links, perhaps outside this directory
  char flag = '\0';             ///< 'i' or 'a' if chattr(1) made it immutable or append-only
  bool readable = false;        ///< by the user
  bool writable = false;        ///< by the user
  std::int64_t changed = 0;     ///< time of the last write, in nanoseconds; comparable only with other files'
};

/// The SSH directory that the two programs use, its file system and its files.
struct Directory {
  std::string path;                  ///< empty if there is none
  std::vector<FileInfo> candidates;  ///< where the programs look, in order
  FileInfo ofHome;                   ///< `~/.ssh`, which ssh and sshd use
  std::string closed;                ///< the first directory above `ofHome` that the user may not enter
  bool isOfHome = false;             ///< `path` is the directory of `ofHome`
  std::vector<FileInfo> parents;     ///< `path` and the directories above it up to the home, without links
  std::string canonicalHome;         ///< the home directory without links
  FileInfo authorizedKeys;
  FileInfo config;
  FileInfo privateKey;
  FileInfo publicKey;
  std::vector<FileInfo> keysParents;       ///< authorized_keys and the directories above it, without links
  bool readOnly = false;                   ///< its file system is mounted read-only
  bool noFilesLeft = false;                ///< its file system can hold no more files
  std::optional<std::uint64_t> bytesFree;  ///< without a value, the file system has no limit
  std::string spaceError;                  ///< why the file system could not be examined
};

/// A network interface with its IPv4 addresses.
struct Interface {
  struct Address {
    std::string text;  ///< dotted decimal
    int prefix;        ///< length in bits
  };

  std::string name;
  bool up = false;
  bool carrier = false;  ///< the cable is plugged in, and the other end is up
  bool loopback = false;
  bool arp = true;
  bool uplink = false;  ///< a default route uses this interface
  int mtu = 0;          ///< in bytes
  std::string master;   ///< the bridge or the like that takes its packets; empty if there is none
  std::vector<Address> addresses;
  bool ignoresArp = false;  ///< it answers to no ARP request, although it sends some

  /// Returns whether the interface has this address (dotted decimal).
  bool has(const std::string& address) const;

  /// The state in words: "down", "up" or "up, no carrier".
  std::string state() const;
};

/// The kernel's route to the other device.
struct Route {
  std::string interface;   ///< empty if there is none
  std::string source;      ///< dotted decimal
  std::string gateway;     ///< empty if the other device is a neighbour
  std::string error;       ///< why there is none
  unsigned int table = 0;  ///< the routing table that it comes from; 254 is the main table
  bool local = false;      ///< this device itself has the address
};

/// Who answers for an address on the link. Each list holds hardware addresses.
struct Answers {
  std::vector<std::string> own;   ///< other devices that answer for this device's address
  std::vector<std::string> peer;  ///< devices that answer for the other device's address
};

struct Link {
  std::vector<Interface> interfaces;
  Fact<Route> route;
  std::string neighbour;  ///< the hardware address that the kernel has for the other device; may be empty
  bool neighbourIsFixed = false;  ///< somebody set it by hand
  Fact<Answers> answers;          ///< only root may ask
};

struct Process {
  int pid = -1;
  std::string name;     ///< from /proc/PID/comm, at most 15 bytes
  std::string program;  ///< the path of the executable; empty if this user may not see it
  bool stopped = false;
  bool ofRoot = false;
  unsigned int user = ~0U;  ///< ID of the user who runs it
  bool isSession = false;   ///< an sshd that serves a login, and may listen for forwarded ports
  bool runsSshd = false;    ///< its executable is the installed sshd; false if this user may not see it

  /// Returns whether it is a real sshd. Any user may start a program that calls itself sshd.
  bool isSshd() const;
};

/// A TCP socket that listens on this device.
struct Listener {
  std::uint16_t port = 0;
  std::string address;           ///< as in /proc/net/tcp and /proc/net/tcp6
  bool coversOwn = false;        ///< it accepts connections to this device's address on the link
  bool speaksSsh = false;        ///< it greets as an SSH server does; asked only of processes of other names
  std::optional<Process> owner;  ///< no value if this user may not see it
};

struct Processes {
  /// The process sshd that listens on port 22 of this device's address, else any sshd that listens; null if
  /// none does.
  const Process* sshd() const;

  std::vector<Process> programs;    ///< of this device's side: dorve-client or dorve-server
  std::vector<Process> misplaced;   ///< of the other side
  std::vector<Listener> listeners;  ///< on the ports 22 and 8888, and all of sshd
};

}  // namespace dorve

#endif  // DORVE_FACTS_DEVICE_H_
