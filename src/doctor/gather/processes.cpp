// SPDX-License-Identifier: MIT
#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>

#include "dorve/facts/text.h"
#include "dorve/gather/files.h"
#include "dorve/gather/subjects.h"
#include "dorve/net/endpoints.h"

namespace dorve {
namespace {

constexpr std::string_view kListening = "0A";                     // the state TCP_LISTEN in /proc/net/tcp
constexpr std::string_view kMapped = "0000000000000000FFFF0000";  // the prefix of IPv4 in /proc/net/tcp6
constexpr int kSearchMs = 700;                                    // for the owners of sockets

struct Socket {
  Listener listener;
  std::string inode;
};

/// `accepts` holds the ports of the address that were already tried.
bool covers(const Listener& listener, const std::string& address, std::map<std::uint16_t, bool>& accepts) {
  if (listener.address.find_first_not_of('0') == std::string::npos) {
    if (listener.address.size() == 8) return true;
    // A listener for all IPv6 addresses may accept IPv4 or not.
    const auto [known, isNew] = accepts.try_emplace(listener.port, false);
    if (isNew) known->second = acceptsConnections(address, listener.port);
    return known->second;
  }
  in_addr binary = {};
  inet_pton(AF_INET, address.c_str(), &binary);
  char hex[9];
  std::snprintf(hex, sizeof hex, "%08X", binary.s_addr);
  return listener.address == hex || listener.address == std::string(kMapped) + hex;
}

/// Adds the listeners in a table of /proc/net. The first fields of a line are number, local ADDRESS:PORT,
/// remote ADDRESS:PORT and state; the tenth is the inode.
void readTable(const char* path, std::vector<Socket>& sockets) {
  std::ifstream table(path);
  for (std::string line; std::getline(table, line);) {
    const std::vector<std::string> fields = split(line, " \t");
    if (fields.size() < 10 || fields[3] != kListening) continue;
    const std::vector<std::string> local = split(fields[1], ":");
    Socket socket;
    if (local.size() != 2) continue;
    std::from_chars(local[1].data(), local[1].data() + local[1].size(), socket.listener.port, 16);
    socket.listener.address = local[0];
    socket.inode = fields[9];
    sockets.push_back(std::move(socket));
  }
}

/// The entries of a /proc directory whose names are numbers.
/// Empty if the directory has vanished or belongs to another user.
std::vector<std::filesystem::path> numberedEntries(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> entries;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename();
    if (name.find_first_not_of("0123456789") == std::string::npos) entries.push_back(entry->path());
  }
  return entries;
}

Process readProcess(const std::filesystem::path& folder) {
  Process process;
  const std::string id = folder.filename();
  std::from_chars(id.data(), id.data() + id.size(), process.pid);
  // The format of stat is: PID (NAME) STATE ... NAME may hold parentheses.
  std::ifstream file(folder / "stat");
  std::string stat;
  std::getline(file, stat, '\0');
  const std::size_t open = stat.find('(');
  const std::size_t close = stat.rfind(')');
  if (open == std::string::npos || close == std::string::npos || close + 2 >= stat.size()) return process;
  process.name = stat.substr(open + 1, close - open - 1);
  process.stopped = stat[close + 2] == 'T';
  std::error_code error;
  process.program = std::filesystem::read_symlink(folder / "exe", error);
  // An upgrade appends the word to the path. A layer that was mounted over /usr later has another file there.
  process.runsSshd = std::filesystem::equivalent(folder / "exe", "/usr/sbin/sshd", error) ||
                     process.program == "/usr/sbin/sshd" || process.program == "/usr/sbin/sshd (deleted)";
  // Once sshd listens, it calls itself "sshd: PATH ARGUMENTS [listener] ...", and a session "sshd:
  // USER@notty".
  std::string title;
  std::getline(std::ifstream(folder / "cmdline"), title, '\0');
  process.isSession = title.starts_with("sshd: ") && !contains(title, " [listener]");
  struct stat status = {};
  if (::stat(folder.c_str(), &status) == 0) {
    process.user = status.st_uid;
    process.ofRoot = status.st_uid == 0;
  }
  return process;
}

/// Finds the processes that hold the sockets. Processes of root come first, because the usual owners are
/// among them, and another user's process may have very many descriptors.
void findOwners(std::vector<Socket>& sockets, std::vector<Process>& candidates) {
  std::map<std::string, Socket*> wanted;
  for (Socket& socket : sockets) wanted["socket:[" + socket.inode + "]"] = &socket;
  std::stable_partition(candidates.begin(), candidates.end(),
                        [](const Process& each) { return each.ofRoot; });
  const Deadline deadline(kSearchMs);
  for (const Process& candidate : candidates) {
    std::error_code error;
    const std::filesystem::path folder = "/proc/" + std::to_string(candidate.pid) + "/fd";
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
      std::error_code vanished;
      const auto found = wanted.find(std::filesystem::read_symlink(entry->path(), vanished));
      if (found != wanted.end() && !found->second->listener.owner) {
        found->second->listener.owner = candidate;
      }
      if (deadline.leftMs(1) == 0) return;
    }
  }
}

}  // namespace

Fact<Processes> gatherProcesses(const User& user, const Side& side) {
  std::vector<Process> candidates;
  for (const std::filesystem::path& folder : numberedEntries("/proc")) {
    candidates.push_back(readProcess(folder));
  }
  if (candidates.empty()) return Fact<Processes>::unknown("/proc cannot be read");
  std::vector<Socket> sockets;
  readTable("/proc/net/tcp", sockets);
  readTable("/proc/net/tcp6", sockets);  // this table is missing without IPv6
  findOwners(sockets, candidates);

  Processes processes;
  std::map<std::uint16_t, bool> accepts;
  for (const Process& process : candidates) {
    const bool isOther = !process.program.empty() && !process.program.ends_with("/" + process.name);
    // A program of another user replaces no key of this one.
    if (isOther || process.user != user.id ||
        (process.name != "dorve-client" && process.name != "dorve-server"))
      continue;
    (process.name == side.program ? processes.programs : processes.misplaced).push_back(process);
  }
  for (const Socket& socket : sockets) {
    const bool isOurs = socket.listener.port == kSshPort || socket.listener.port == kPort;
    if (!isOurs && !(socket.listener.owner && socket.listener.owner->isSshd())) continue;
    // If a listener for IPv4 has the port, one for IPv6 cannot accept IPv4. The sockets for IPv4 come first.
    const bool isTaken = std::ranges::any_of(processes.listeners, [&](const Listener& each) {
      return each.port == socket.listener.port && each.coversOwn;
    });
    processes.listeners.push_back(socket.listener);
    Listener& listener = processes.listeners.back();
    listener.coversOwn = !isTaken && covers(listener, side.ownAddress, accepts);
    const bool isDoubtful = listener.port == kSshPort && listener.owner && !listener.owner->isSshd();
    listener.speaksSsh = isDoubtful && listener.coversOwn && greetsAsSsh(side.ownAddress);
  }
  return processes;
}

}  // namespace dorve
