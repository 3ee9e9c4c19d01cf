// SPDX-License-Identifier: MIT
#include "dorve/gather/gather.h"

#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>

#include "dorve/gather/subjects.h"

namespace dorve {
namespace {

constexpr int kTotalMs = 9500;
constexpr int kReserveMs = 700;  // to judge and print, and for what a hanging command leaves
constexpr int kProbeAfterLoginMs = 1000;

template <typename T>
using Subject = Fact<T> Facts::*;

/// Where the gathering thread leaves its facts.
struct Board {
  std::mutex mutex;
  std::condition_variable finished;
  Facts facts;
  bool isComplete = false;
  bool hasEnded = false;

  template <typename T>
  void publish(Subject<T> subject, Fact<T> value) {
    const std::scoped_lock lock(mutex);
    facts.*subject = std::move(value);
  }
};

/// The interface for probes and the login; null if packets to the other device might go elsewhere.
const Interface* usableLink(const Facts& facts) {
  const Link& link = *facts.link;
  const Side& side = *facts.side;
  const Interface* interface = linkOf(link, side);
  if (side.isGuess || !mayBeAsked(interface, side) || !interface->carrier ||
      !interface->has(side.ownAddress)) {
    return nullptr;
  }
  const bool routed = link.route && !link.route->local && link.route->interface == interface->name;
  return routed ? interface : nullptr;
}

class Gatherer {
 public:
  Gatherer(Question asked, int totalMs, std::shared_ptr<Board> target)
      : question(std::move(asked)), deadline(totalMs), board(std::move(target)) {}

  void run() {
    bool isComplete = true;
    try {
      if (gatherAsStarted()) gatherAsUser();
    } catch (const std::exception&) {
      isComplete = false;  // for example, there is no memory left
    }
    const std::scoped_lock lock(board->mutex);
    board->isComplete = isComplete;
    board->hasEnded = true;
    board->finished.notify_all();
  }

 private:
  /// What needs root, if the doctor has it. Returns false if there is no such user.
  bool gatherAsStarted() {
    const User user = gatherUser(question.user);
    publish(&Facts::user, Fact<User>(user));
    if (user.name.empty() && !question.user.empty()) return false;
    if (!question.user.empty()) setenv("HOME", user.home.c_str(), 1);
    std::vector<Interface> interfaces = gatherInterfaces();
    const Directory directory = gatherDirectory(user);
    Side side = question.role ? makeSide(*question.role, "as given on the command line")
                              : findSide(interfaces, directory);
    side.timeoutMs = question.timeoutMs;
    publish(&Facts::side, Fact<Side>(side));
    publish(&Facts::link, Fact<Link>(gatherLink(std::move(interfaces), side, deadline)));
    publish(&Facts::processes, gatherProcesses(user, side));
    publish(&Facts::firewall, gatherFirewall(deadline));
    publish(&Facts::sshd, Fact<Sshd>(gatherSshd(user, side, directory, facts.processes, deadline)));
    others = pairedUsers(user);
    systemFault = findSystemFault(side, deadline);
    return user.id == geteuid() || becomeUser(user);
  }

  void gatherAsUser() {
    const User& user = *facts.user;
    const Side& side = *facts.side;
    const Directory directory = gatherDirectory(user);
    publish(&Facts::directory, Fact<Directory>(directory));
    Pairing pairing = gatherPairing(user, side, directory, systemFault, deadline);
    pairing.otherUsers = others;
    publish(&Facts::pairing, Fact<Pairing>(pairing));
    const Interface* interface = usableLink(facts);
    Login login;
    if (interface != nullptr && pairing.exists && pairing.ssh.succeeded()) {
      login = gatherLogin(user, side, directory, pairing, interface->name, deadline);
    }
    publish(&Facts::login, Fact<Login>(login));
    if (interface != nullptr && !login.proven) {
      const int limit = login.tried ? kProbeAfterLoginMs : side.timeoutMs;
      publish(&Facts::peer, Fact<Peer>(gatherPeer(side, interface->name, deadline.leftMs(limit))));
    } else {
      publish(&Facts::peer, Fact<Peer>::unknown("not probed"));
    }
  }

  template <typename T>
  void publish(Subject<T> subject, Fact<T> value) {
    facts.*subject = value;
    board->publish(subject, std::move(value));
  }

  Question question;
  Deadline deadline;
  std::shared_ptr<Board> board;
  Facts facts;  ///< the same as on the board
  std::vector<std::string> others;
  FaultyLine systemFault;
};

}  // namespace

int totalMs(const Question& question) {
  return std::max(kTotalMs, 3 * question.timeoutMs + 500);
}

Gathered gatherFacts(const Question& question) {
  const int limitMs = totalMs(question);
  adoptChildren();
  const auto board = std::make_shared<Board>();
  std::thread thread([=] { Gatherer(question, limitMs - kReserveMs, board).run(); });
  std::unique_lock lock(board->mutex);
  board->finished.wait_for(lock, std::chrono::milliseconds(limitMs), [&] { return board->hasEnded; });
  const bool hasEnded = board->hasEnded;
  lock.unlock();
  if (hasEnded) {
    thread.join();
  } else {
    thread.detach();
  }
  const std::scoped_lock again(board->mutex);
  return {board->facts, board->isComplete};
}

void cleanEnvironment() {
  if (geteuid() != 0) return;
  const auto value = [](const char* name) {
    const char* text = std::getenv(name);
    return text == nullptr ? std::optional<std::string>() : text;
  };
  const std::pair<const char*, std::optional<std::string>> kept[] = {{"HOME", value("HOME")},
                                                                     {"SUDO_USER", value("SUDO_USER")}};
  clearenv();
  setenv("PATH", "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", 1);
  for (const auto& [name, text] : kept) {
    if (text) setenv(name, text->c_str(), 1);
  }
}

}  // namespace dorve
