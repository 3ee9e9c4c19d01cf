// SPDX-License-Identifier: MIT
// Acts out a login with this device's own sshd, to hear why it refuses one.
//
// sshd and ssh run in a network namespace of their own, whose loopback interface has both addresses of the
// link. So sshd sees the addresses of a real login, no packet leaves this device, and the running sshd
// notices nothing. ssh has only the public key: sshd says whether it would accept the key, and the login ends
// there.
#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "dorve/facts/text.h"
#include "dorve/gather/subjects.h"
#include "dorve/net/nq_socket.h"

namespace dorve {
namespace {

constexpr const char* kSshd = "/usr/sbin/sshd";
constexpr int kRehearsalMs = 3000;

/// Moves this thread to an empty network. The destructor moves it back.
class PrivateNetwork {
 public:
  PrivateNetwork() : former(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
    entered = former && unshare(CLONE_NEWNET) == 0;
  }
  PrivateNetwork(const PrivateNetwork&) = delete;
  PrivateNetwork& operator=(const PrivateNetwork&) = delete;
  ~PrivateNetwork() {
    if (entered) setns(former.get(), CLONE_NEWNET);
  }

  bool entered = false;

 private:
  Descriptor former;
};

/// Gives the loopback interface both addresses of the link, as aliases, and sets it up.
bool prepareLoopback(const Side& side) {
  const Descriptor any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq loopback = {};
  std::strncpy(loopback.ifr_name, "lo", IFNAMSIZ - 1);
  loopback.ifr_flags = IFF_UP | IFF_RUNNING;
  bool done = ioctl(any.get(), SIOCSIFFLAGS, &loopback) == 0;
  const std::pair<const char*, std::string> aliases[] = {{"lo:1", side.ownAddress},
                                                         {"lo:2", side.peerAddress}};
  for (const auto& [alias, address] : aliases) {
    ifreq request = {};
    std::strncpy(request.ifr_name, alias, IFNAMSIZ - 1);
    const sockaddr_in binary = makeAddress(address.c_str(), kSshPort);
    std::memcpy(&request.ifr_addr, &binary, sizeof binary);
    done = done && ioctl(any.get(), SIOCSIFADDR, &request) == 0;
  }
  return done;
}

Descriptor listenOn(const std::string& address) {
  Descriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in local = makeAddress(address.c_str(), kSshPort);
  if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0 ||
      listen(listener.get(), 1) != 0) {
    listener.close();
  }
  return listener;
}

/// Waits for one connection.
Descriptor acceptFrom(const Descriptor& listener, int timeoutMs) {
  pollfd waiting = {listener.get(), POLLIN, 0};
  if (poll(&waiting, 1, timeoutMs) <= 0) return Descriptor();
  return Descriptor(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

/// A file in memory that holds a public key. ssh opens it by the path of this process's descriptor.
Descriptor keyFile(const std::string& key) {
  Descriptor file(memfd_create("key", MFD_CLOEXEC));
  const std::string line = key + "\n";
  if (fchmod(file.get(), 0600) != 0 || write(file.get(), line.data(), line.size()) < 0) file.close();
  return file;
}

/// Returns whether a line of sshd only accompanies a login, or is for debugging.
bool isRoutine(const std::string& line) {
  constexpr const char* kRoutine[] = {"Connection from ",  "Connection closed by ", "Connection reset by ",
                                      "Failed publickey ", "Failed none ",          "Postponed publickey ",
                                      "Accepted key ",     "Disconnected from ",    "Received disconnect "};
  if (line.starts_with("debug1: /") && !contains(line, "matching key found")) return false;
  if ((line.starts_with("debug1: Could not open") && !contains(line, "No such file")) ||
      contains(line, "tcp wrapper"))
    return false;
  return line.starts_with("debug") ||
         std::ranges::any_of(kRoutine, [&](const char* start) { return line.starts_with(start); });
}

Rehearsal understand(const std::string& err) {
  Rehearsal rehearsal;
  for (std::string line : linesOf(err)) {
    rehearsal.accepted |= line.starts_with("Postponed publickey");
    if (isRoutine(line)) continue;
    if (line.starts_with("debug1: ")) line.erase(0, 8);
    if (line.ends_with(" [preauth]")) line.erase(line.size() - 10);
    rehearsal.words.push_back(line);
  }
  return rehearsal;
}

}  // namespace

Fact<Rehearsal> rehearse(const User& user, const Side& side, const std::string& key,
                         const std::vector<std::string>& sshdArguments, const Deadline& deadline) {
  const auto failed = [] { return Fact<Rehearsal>::unknown(std::strerror(errno)); };
  const PrivateNetwork network;
  if (!network.entered) return failed();
  if (!prepareLoopback(side)) return failed();
  const Descriptor listener = listenOn(side.ownAddress);
  const Descriptor file = keyFile(key);
  if (!listener || !file) return failed();

  const std::string path = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(file.get());
  std::vector<std::string> words = {"/usr/bin/ssh", "-F", "none", "-n", "-T"};
  for (const std::string& option :
       {"BindAddress=" + side.peerAddress, "IdentityFile=" + path, std::string("IdentitiesOnly=yes"),
        std::string("IdentityAgent=none"), std::string("BatchMode=yes"),
        std::string("StrictHostKeyChecking=no"), std::string("UserKnownHostsFile=/dev/null"),
        std::string("PreferredAuthentications=publickey")}) {
    words.insert(words.end(), {"-o", option});
  }
  words.insert(words.end(), {"-l", user.name, "--", side.ownAddress, "true"});
  Command ssh(words, {});
  Descriptor connection = acceptFrom(listener, deadline.leftMs(kRehearsalMs));
  if (!connection) return Fact<Rehearsal>::unknown("there is no ssh to ask with");

  std::vector<std::string> server = {kSshd, "-i", "-e", "-o", "LogLevel=DEBUG1"};
  server.insert(server.end(), sshdArguments.begin(), sshdArguments.end());
  Command sshd(server, {"", connection.get()});
  connection.close();
  const Outcome outcome = sshd.finish(deadline.leftMs(kRehearsalMs));
  if (outcome.end == Outcome::End::NOT_FOUND) return Fact<Rehearsal>::unknown("sshd cannot be started");
  Rehearsal rehearsal = understand(outcome.err);
  const std::string clientWords = ssh.finish(deadline.leftMs(kRehearsalMs)).err;
  if (contains(clientWords, "Unable to negotiate")) rehearsal.words.push_back(linesOf(clientWords).back());
  return rehearsal;
}

}  // namespace dorve
