// SPDX-License-Identifier: MIT
#ifndef DORVE_TESTS_DOCTOR_FACTS_H_
#define DORVE_TESTS_DOCTOR_FACTS_H_

#include <string>
#include <utility>

#include "dorve/facts/facts.h"

namespace dorve {

/// The facts about a paired client on which nothing is wrong. Root asks about its own pairing.
/// No login was tried, because a login that works would disprove all problems.
struct Device {
  Facts facts;
  User& user = facts.user.value.emplace();
  Side& side = facts.side.value.emplace();
  Link& link = facts.link.value.emplace();
  Directory& dir = facts.directory.value.emplace();
  Processes& processes = facts.processes.value.emplace();
  Firewall& firewall = facts.firewall.value.emplace();
  Sshd& sshd = facts.sshd.value.emplace();
  Pairing& pairing = facts.pairing.value.emplace();
  Login& login = facts.login.value.emplace();
  Peer& peer = facts.peer.value.emplace();
  FileInfo& config = dir.config;
  FileInfo& key = dir.privateKey;
  Route& route = link.route.value.emplace();
  Answers& answers = link.answers.value.emplace();

  Device() {
    using enum FileInfo::Type;
    user.name = user.group = login.user = "root";
    user.home = dir.canonicalHome = "/h";
    user.shell = "/bin/bash";
    user.rootHelps = true;
    side = {Role::CLIENT, false, 3000, "as given", "dorve-client", "1.0.0.2", "1.0.0.1"};
    link.interfaces = {interface("lo", "127.0.0.1", 8), interface("eth0", "10.0.0.5", 24),
                       interface("bsab", "1.0.0.2", 30)};
    link.interfaces[0].loopback = link.interfaces[1].uplink = true;
    route = {"bsab", "1.0.0.2", "", "", 254, false};
    link.neighbour = "02::1";
    answers.peer = {"02::1"};
    dir.path = "/h/.ssh";
    dir.parents = {file("/h/.ssh", DIRECTORY), file("/h", DIRECTORY)};
    dir.ofHome = folder();
    dir.candidates = {folder()};
    dir.isOfHome = true;
    dir.authorizedKeys = file("/h/.ssh/authorized_keys", FILE);
    config = file("/h/.ssh/config", FILE);
    key = file("/h/.ssh/key", FILE);
    dir.publicKey = file("/h/.ssh/key.pub", FILE);
    dir.keysParents = {dir.authorizedKeys, folder(), home()};
    dir.bytesFree = 65536;
    processes.listeners = {{22, "", true, false, Process{700, "sshd", "", false, true}}};
    firewall = {{"ip", "f", "in", "input", "accept", {}}};
    sshd.installed = sshd.systemd = true;
    sshd.configFile = "/etc/ssh/sshd_config";
    sshd.test = exited(0);
    sshd.settings = Settings("usepam yes");
    sshd.rehearsal = Rehearsal{true, true, {}};
    sshd.log = std::vector<std::string>{};
    pairing.exists = pairing.hasHostLine = pairing.keysMatch = pairing.usesKey = true;
    pairing.lines = {{3, "ssh-ed25519 AAAA base", "SHA256:peer"}};
    pairing.keygen = pairing.derived = pairing.ssh = exited(0);
    pairing.fingerprint = "SHA256:own";
    pairing.settings = Settings("identitiesonly yes\nuserknownhostsfile /dev/null\nstricthostkeychecking no");
    peer = {PortState::OPEN, PortState::REFUSED};
  }

  static Outcome exited(int status, std::string err = "") { return {Outcome::End::EXITED, status, "", err}; }

  static FileInfo file(std::string path, FileInfo::Type type) {
    FileInfo info;
    info.path = info.real = std::move(path);
    info.type = type;
    info.ownerName = "root";
    info.mode = 0600;
    info.readable = info.writable = true;
    return info;
  }

  static Interface interface(const char* name, const char* address, int prefix) {
    return {name, true, true, false, true, false, 1500, "", {{address, prefix}}};
  }

  Interface& eth0() { return link.interfaces[1]; }
  Interface& bsab() { return link.interfaces[2]; }
  FileInfo& folder() { return dir.parents[0]; }
  FileInfo& home() { return dir.parents[1]; }
  Listener& listener() { return processes.listeners[0]; }

  void proveLogins() { login.tried = login.proven = login.backTried = login.backProven = true; }
};

}  // namespace dorve

#endif  // DORVE_TESTS_DOCTOR_FACTS_H_
