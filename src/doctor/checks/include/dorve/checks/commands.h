// SPDX-License-Identifier: MIT
#ifndef DORVE_CHECKS_COMMANDS_H_
#define DORVE_CHECKS_COMMANDS_H_

#include <string>
#include <string_view>
#include <vector>

#include "dorve/checks/script.h"
#include "dorve/facts/facts.h"

namespace dorve {

/// Builds all commands that the doctor prints. A user may paste them as they are:
///
/// - Every word from outside is quoted. A command with a character that a terminal would not show as it is
///   becomes empty.
/// - A command gets the rights that it needs, by sudo or su, or by runuser if root works for another
///   user.
/// - A setting of sshd applies only to this user's logins from the other device, or to all logins if sshd has
///   no narrower form. sshd is reloaded only if `sshd -t` passes.
/// - Owners and modes change only inside this user's home.
/// - A command terminates a process by its ID, only if it still runs the same program, and never sshd.
/// - Pasting a command twice does no more than pasting it once.
class Commands {
 public:
  Commands(const User& whose, const Side& thisSide, const Directory& itsDirectory, const Sshd& itsSshd,
           const Fact<Processes>& running);

  /// The script, with this user's rights. Its words must be quoted.
  std::string asUser(const std::string& script) const;

  /// The script, with root's rights.
  std::string asRoot(const std::string& script) const;

  /// The command with a remark that it is for the other device.
  std::string onPeer(const std::string& command) const;

  /// Starts a new pairing, with a remark about the other device. Empty if the path of the SSH directory
  /// contains a special character.
  std::string pairAgain() const;

  /// Runs dorve-doctor on the other device, as root. It examines the pairing of the user of that name,
  /// or of this user's name.
  std::string doctorThere(const std::string& name = "") const;

  /// Changes a mode, or makes this user the owner if that must come first;
  /// empty if the file is outside this user's home.
  std::string changeMode(const FileInfo& file, const std::string& mode) const;

  /// Makes this user the owner; empty if the file is outside this user's home.
  std::string takeOwnership(const FileInfo& file) const;

  /// Removes a flag of chattr(1); empty if the file is outside this user's home.
  std::string removeFlag(const FileInfo& file) const;

  /// Makes the file system of a file writable; empty if the file is outside this user's home.
  std::string remount(const FileInfo& file) const;

  /// Sets HOME to the home directory of the password database.
  std::string useHome() const;

  /// Moves a file of this user out of the way.
  std::string moveAway(const std::string& path) const;

  /// Applies a setting to logins of this user from the other device. Empty if the name of the user
  /// contains a special character.
  std::string setForLogin(const std::string& keyword, const std::string& value) const;

  /// Adds a line to the front of sshd's configuration, for all logins.
  std::string setForAll(const std::string& keyword, const std::string& value) const;

  /// Lets the other device through hosts_access(5).
  std::string allowInHosts() const;

  /// Inserts a rule that accepts packets at the front of a chain, unless it is already there. Does not
  /// add sudo: the caller passes the result to `asRoot`.
  static std::string allowPackets(const Chain& chain, const std::string& rule);

  /// Turns a line that ssh rejects into a comment, or removes a byte order mark before it.
  /// Empty if the line begins a block.
  std::string disableForSsh(const FaultyLine& line) const;

  /// The same for a line that sshd rejects.
  std::string disableForSshd(const FaultyLine& line) const;

  /// Turns the line of sshd's configuration that sets a keyword for all logins into a comment; empty if there
  /// is none.
  std::string disableKeyword(const std::string& keyword) const;

  /// Makes ssh use settings for the other device before all others. Writes them to
  /// ~/.ssh/dorve-NAME.conf.
  std::string setForSsh(const std::string& name, const std::vector<std::string>& lines) const;

  /// Gives the second key in a line of authorized_keys a line of its own.
  std::string splitKeyLine(int number) const;

  /// Makes host keys where sshd expects them.
  std::string makeHostKeys() const;

  /// Reinstalls sshd and restores its missing files.
  std::string reinstallSshd() const;

  /// Continues a stopped process.
  std::string resume(const Process& process) const;

  /// Starts a second sshd on port 2222 of this device's address, which prints why it refuses a login.
  std::string showRefusal() const;

  /// Starts sshd.
  std::string startSshd() const;

  /// Makes the running sshd read its configuration again.
  std::string reloadSshd() const;

  /// Terminates processes. Empty if this user may not see their programs, and for sshd.
  std::string terminate(const std::vector<Process>& targets) const;

 private:
  /// The user whose shell runs the printed commands.
  std::string runner() const;

  /// Returns whether sshd was started with this setting, so that no file can change it.
  bool isSetByArgument(const std::string& keyword) const;

  bool isInHome(const std::string& path) const;
  std::string testSshd() const;
  std::string reloadScript() const;
  std::string asRootAt(const FileInfo& file, const std::string& change) const;
  std::string writeScript(const std::string& name, const std::vector<std::string>& lines) const;

  const User& user;
  const Side& side;
  const Directory& directory;
  const Sshd& sshd;
  const Fact<Processes>& processes;
};

}  // namespace dorve

#endif  // DORVE_CHECKS_COMMANDS_H_
