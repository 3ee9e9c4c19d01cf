// SPDX-License-Identifier: MIT
#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

#include "dorve/facts/text.h"
#include "dorve/gather/files.h"
#include "dorve/gather/subjects.h"
#include "dorve/keys/key_material.h"

namespace dorve {
namespace {

constexpr long kSecondsPerDay = 86400;

/// Reads what only root can read of the user's password entry.
void readShadow(User& user) {
  const spwd* entry = getspnam(user.name.c_str());
  if (entry == nullptr) return;
  const long today = std::time(nullptr) / kSecondsPerDay;
  user.locked = entry->sp_pwdp[0] == '!';
  user.expired = entry->sp_expire >= 0 && entry->sp_expire < today;
  user.passwordOld = entry->sp_lstchg == 0 || (entry->sp_max >= 0 && entry->sp_lstchg >= 0 &&
                                               entry->sp_lstchg + entry->sp_max < today);
}

}  // namespace

User gatherUser(const std::string& name) {
  User user;
  user.rootHelps = geteuid() == 0;
  const char* caller = std::getenv("SUDO_USER");
  user.runBy = user.rootHelps && caller != nullptr ? caller : "";
  user.id = geteuid();
  const passwd* entry = name.empty() ? getpwuid(user.id) : getpwnam(name.c_str());
  if (entry == nullptr) return user;
  user.id = entry->pw_uid;
  user.name = entry->pw_name;
  user.home = entry->pw_dir;
  user.shell = entry->pw_shell[0] == '\0' ? "/bin/sh" : entry->pw_shell;
  if (const group* known = getgrgid(entry->pw_gid)) user.group = known->gr_name;
  user.hasSudo = !findProgram("sudo").empty();
  const FileInfo shell = inspect(user.shell);
  user.shellIsListed = contains(readText("/etc/shells") + "\n", user.shell + "\n");
  for (const char* file : {"/.bashrc", "/.zshenv", "/.cshrc", "/.tcshrc", "/.ssh/rc", "/.ssh/environment"}) {
    if (inspect(user.home + file).type == FileInfo::Type::FILE) user.startFiles.push_back(user.home + file);
  }
  if (inspect("/etc/ssh/sshrc").type == FileInfo::Type::FILE) user.startFiles.emplace_back("/etc/ssh/sshrc");
  user.shellWorks = shell.type == FileInfo::Type::FILE && (shell.mode & 0111U) != 0;
  readShadow(user);
  return user;
}

bool becomeUser(const User& user) {
  const passwd* entry = getpwnam(user.name.c_str());
  if (entry == nullptr || initgroups(entry->pw_name, entry->pw_gid) != 0) return false;
  if (setgid(entry->pw_gid) != 0 || setuid(entry->pw_uid) != 0) return false;
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // setuid(2) forgets it
  setenv("HOME", user.home.c_str(), 1);
  setenv("USER", user.name.c_str(), 1);
  setenv("LOGNAME", user.name.c_str(), 1);
  setenv("SHELL", user.shell.c_str(), 1);
  return chdir(user.home.c_str()) == 0 || chdir("/") == 0;
}

std::vector<std::string> pairedUsers(const User& user) {
  // inspect() also reads the password database, so it must wait until this loop over it has ended.
  std::vector<std::pair<std::string, std::string>> homes;
  setpwent();
  while (const passwd* entry = getpwent()) homes.emplace_back(entry->pw_name, entry->pw_dir);
  endpwent();
  std::vector<std::string> names;
  for (const auto& [name, home] : homes) {
    const std::string key = home + "/.ssh/" + kPairingKeyName;
    if (name != user.name && inspect(key).type == FileInfo::Type::FILE) names.push_back(name);
  }
  return names;
}

}  // namespace dorve
