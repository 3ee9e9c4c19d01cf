// SPDX-License-Identifier: MIT
#include "dorve/checks/commands.h"

#include <algorithm>

#include "dorve/facts/text.h"

namespace dorve {
namespace {

constexpr const char* kSshd = "/usr/sbin/sshd";

}  // namespace

Commands::Commands(const User& whose, const Side& thisSide, const Directory& itsDirectory,
                   const Sshd& itsSshd, const Fact<Processes>& running)
    : user(whose), side(thisSide), directory(itsDirectory), sshd(itsSshd), processes(running) {}

std::string Commands::runner() const {
  if (!user.runBy.empty()) return user.runBy;
  return user.rootHelps ? "root" : user.name;
}

std::string Commands::asUser(const std::string& script) const {
  if (!isShowable(script) || !isShowable(user.name)) return "";
  const std::string runner = this->runner();
  if (runner == user.name || (user.isRoot() && runner == "root")) return script;
  if (user.isRoot()) return asRoot(script);
  // In a session of its own, a program of the user cannot type into root's terminal.
  const std::string prefix =
      (runner == "root" ? "setsid -w runuser -u " : "sudo -u ") + quoted(user.name) + " -- ";
  return prefix + (isOneCommand(script) ? script : "sh -c " + quoted(script));
}

std::string Commands::asRoot(const std::string& script) const {
  if (!isShowable(script)) return "";
  const bool isRoot = user.rootHelps && (user.runBy.empty() || user.runBy == "root");
  if (isRoot) return script;
  if (!user.hasSudo) return "su - -c " + quoted(script);
  return isOneCommand(script) ? "sudo " + script : "sudo sh -c " + quoted(script);
}

std::string Commands::onPeer(const std::string& command) const {
  return command + "  # on " + side.peerAddress;
}

std::string Commands::pairAgain() const {
  // The programs pass this path to a shell, which would run any command in it.
  if (!isSafeForShell(directory.path)) return "";
  const bool runs = processes && !processes->programs.empty();
  // A second dorve-server would replace the key of the first one and then wait for its port.
  if (side.role == Role::SERVER && runs) return onPeer("dorve-client");
  const std::string runner = this->runner();
  std::string command = side.program;
  if (user.isRoot() && runner != "root" && !user.runBy.empty()) {
    command = "sudo " + command;
  } else if (!user.isRoot() && runner != user.name) {
    command = (runner == "root" ? "runuser -l " : "sudo -i -u ") + quoted(user.name) +
              (runner == "root" ? " -c " : " ") + command;
  }
  if (!isShowable(command)) return "";
  if (side.role == Role::CLIENT) return command + "  # first start dorve-server on " + side.peerAddress;
  return command + "  # then dorve-client on " + side.peerAddress;
}

std::string Commands::doctorThere(const std::string& name) const {
  const std::string whose = name.empty() ? user.name : name;
  const bool needsName = whose != "root" && isPlainName(whose);
  const bool needsSudo = !user.isRoot() || (!user.runBy.empty() && user.runBy != "root");
  const std::string command = std::string("dorve-doctor ") + (needsName ? "--user " + whose + " " : "") +
                              (side.role == Role::CLIENT ? "server" : "client");
  if (!needsSudo) return onPeer(command);
  return onPeer(user.hasSudo ? "sudo " + command : "su - -c " + quoted(command));
}

bool Commands::isInHome(const std::string& path) const {
  const std::string& home = directory.canonicalHome;
  return home.size() > 1 && (path == home || path.starts_with(home + "/"));
}

std::string Commands::asRootAt(const FileInfo& file, const std::string& change) const {
  if (!isInHome(file.real) || !isPlainName(user.name)) return "";
  if (user.isRoot()) return asRoot(change + " " + quoted(file.real));
  // By another name, it may be a file of the system that the user linked into the home.
  if (file.hasOtherNames) return "";
  // The user could put a link in the place of a directory before root runs the command.
  const std::size_t slash = file.real.rfind('/');
  const std::string folder = quoted(file.real.substr(0, slash));
  return asRoot("(cd -P " + folder + " && [ \"$(pwd -P)\" = " + folder + " ] && " + change + " " +
                quoted("./" + file.real.substr(slash + 1)) + ")");
}

std::string Commands::changeMode(const FileInfo& file, const std::string& mode) const {
  if (file.owner != user.id && !user.isRoot()) return takeOwnership(file);
  return isInHome(file.real) ? asUser("chmod " + mode + " " + quoted(file.real)) : "";
}

std::string Commands::takeOwnership(const FileInfo& file) const {
  // It may hold what the user must not read. The user can give any file in the home this name.
  const unsigned int access = file.type == FileInfo::Type::DIRECTORY ? 05U : 04U;
  if (!user.isRoot() && (file.mode & access) != access) return "";
  return asRootAt(file, "chown -h " + user.name + ":");
}

std::string Commands::removeFlag(const FileInfo& file) const {
  return asRootAt(file, std::string("chattr -") + file.flag);
}

std::string Commands::remount(const FileInfo& file) const {
  // An interactive shell expands ! even inside these quotes.
  if (!isInHome(file.real) || contains(file.real, "!")) return "";
  // The user could put a link in the place of a directory before root runs the command.
  if (!user.isRoot()) return "";
  return asRoot("mount -o remount,rw \"$(findmnt -n -o TARGET -T " + quoted(file.real) + ")\"");
}

std::string Commands::useHome() const {
  const std::string command = "export HOME=" + quoted(user.home);
  return isShowable(command) ? command : "";
}

std::string Commands::moveAway(const std::string& path) const {
  return asUser("mv -nT " + quoted(path) + " " + quoted(path + ".old"));
}

std::string Commands::testSshd() const {
  return withArguments(std::string(kSshd) + " -t", sshd.testArguments);
}

bool Commands::isSetByArgument(const std::string& keyword) const {
  return std::ranges::any_of(sshd.testArguments, [&](const std::string& word) {
    const std::string name = toLower(word.substr(0, keyword.size()));
    return name == toLower(keyword) && word.find_first_of("= ") == keyword.size();
  });
}

std::string Commands::reloadScript() const {
  if (sshd.systemd) return testSshd() + " && systemctl try-reload-or-restart ssh";
  const Process* running = processes ? processes->sshd() : nullptr;
  if (running != nullptr) return testSshd() + " && " + signalScript(*running, "HUP");
  // sshd does not run, and it reads its configuration when it starts.
  return testSshd();
}

std::string Commands::reloadSshd() const {
  return asRoot(reloadScript());
}

std::string Commands::writeScript(const std::string& name, const std::vector<std::string>& lines) const {
  return printLines(lines) + " >/etc/ssh/dorve-" + toLower(name) + ".conf && " +
         putFirst("Include /etc/ssh/dorve-*.conf", sshd.configFile) + " && " + reloadScript();
}

std::string Commands::setForLogin(const std::string& keyword, const std::string& value) const {
  // The value can be the name of a group. In a list of sshd, a name with blanks, quotes or wildcards has
  // another meaning.
  const bool isPattern = keyword == "AllowGroups" && !isPlainName(value);
  if (!isPlainName(user.name) || isPattern || isSetByArgument(keyword)) return "";
  return asRoot(writeScript(
      keyword + "-" + user.name,
      {"Match User " + user.name + " Address " + side.peerAddress, "    " + keyword + " " + value}));
}

std::string Commands::setForAll(const std::string& keyword, const std::string& value) const {
  if (isSetByArgument(keyword)) return "";
  return asRoot(writeScript(keyword, {keyword + " " + value}));
}

std::string Commands::disableForSsh(const FaultyLine& line) const {
  // The user's configuration can make ssh print any words, so root edits only what ssh rejects without it.
  const std::string script = disableScript(line);
  return script.empty() ? "" : line.isSystems ? asRoot(script) : asUser(script);
}

std::string Commands::disableForSshd(const FaultyLine& line) const {
  const bool isKnown =
      std::ranges::any_of(sshd.lines, [&](const ConfigLine& each) { return each.file == line.file; });
  const std::string script = disableScript(line);
  return isKnown && !script.empty() ? asRoot(script) : "";
}

std::string Commands::splitKeyLine(int number) const {
  const std::string script = "sed --follow-symlinks -i '" + std::to_string(number) +
                             R"(s/^\(.*[^ \t]\)\(ssh-ed25519 AAAA\)/\1\n\2/' )" +
                             quoted(directory.authorizedKeys.path);
  return asUser(script);
}

std::string Commands::disableKeyword(const std::string& keyword) const {
  const auto line = std::ranges::find_if(
      sshd.lines, [&](const ConfigLine& each) { return each.keyword == toLower(keyword) && !each.inMatch; });
  if (line == sshd.lines.end()) return "";
  return asRoot(editScript(line->file, line->number, line->text, "s/^/#/") + " && " + reloadScript());
}

std::string Commands::setForSsh(const std::string& name, const std::vector<std::string>& lines) const {
  std::vector<std::string> block = {side.hostLine()};
  for (const std::string& line : lines) block.push_back("    " + line);
  return asUser(printLines(block) + " >" + quoted(directory.path + "/dorve-" + name + ".conf") + " && " +
                putFirst("Include dorve-*.conf", directory.config.path));
}

std::string Commands::allowInHosts() const {
  return asRoot(putFirst("sshd: " + side.peerAddress, "/etc/hosts.allow"));
}

std::string Commands::allowPackets(const Chain& chain, const std::string& rule) {
  // nft reads its arguments as one text, so a name could hold commands.
  if (!isPlainName(chain.table) || !isPlainName(chain.name)) return "";
  const std::string place = chain.family + " " + quoted(chain.table) + " " + quoted(chain.name);
  const std::string mark = contains(rule, "established") ? "dorve-answers" : "dorve";
  return "{ nft list chain " + place + " | grep -qF " + quoted("\"" + mark + "\"") + " || nft insert rule " +
         place + " " + rule + " accept comment " + mark + "; }";
}

std::string Commands::makeHostKeys() const {
  const bool hasHostKeyLine =
      std::ranges::any_of(sshd.lines, [](const ConfigLine& line) { return line.keyword == "hostkey"; });
  const std::string make = "ssh-keygen -A";
  return hasHostKeyLine
             ? asRoot(make + " && " + writeScript("HostKey", {"HostKey /etc/ssh/ssh_host_ed25519_key"}))
             : asRoot(make);
}

std::string Commands::reinstallSshd() const {
  return asRoot("apt-get install --reinstall --yes -o Dpkg::Options::=--force-confmiss openssh-server");
}

std::string Commands::resume(const Process& process) const {
  return asRoot(signalScript(process, "CONT"));
}

std::string Commands::showRefusal() const {
  return asRoot(withArguments(std::string(kSshd) + " -d -o ListenAddress=" + side.ownAddress + ":2222",
                              sshd.testArguments));
}

std::string Commands::startSshd() const {
  if (!sshd.installed) return asRoot("apt-get install --yes openssh-server");
  if (sshd.systemd) return asRoot(testSshd() + " && systemctl enable --now ssh");
  return asRoot(std::string("mkdir -p -m 755 /run/sshd && ") + testSshd() + " && " + kSshd);
}

std::string Commands::terminate(const std::vector<Process>& targets) const {
  std::vector<std::string> scripts;
  for (const Process& process : targets) {
    if (process.program.empty() || contains(process.program, "/sshd") || process.pid <= 1) return "";
    scripts.push_back(signalScript(process, ""));
  }
  return scripts.empty() ? "" : asRoot(join(scripts, "; "));
}

}  // namespace dorve
