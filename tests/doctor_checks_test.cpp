// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "doctor_facts.h"
#include "dorve/checks/checks.h"
#include "dorve/facts/text.h"

namespace dorve {
namespace {

using enum PortState;
using Type = FileInfo::Type;
using Change = std::function<void(Device&)>;

constexpr const char* kVerdicts[] = {"ok: ", "warn: ", "", "skip: "};

Findings judged(const std::vector<Change>& changes) {
  Device device;
  for (const Change& change : changes) change(device);
  return judge(device.facts);
}

/// "VERDICT: FOUND | CAUSE $ COMMAND", without the verdict of a failure. The cause and the command are there
/// only if `like` has them. Leaves out the remark in a command, and what writes settings and reloads sshd.
/// The tests of Commands compare it.
std::string show(const Finding& finding, const std::string& like) {
  std::string command = finding.command.substr(0, finding.command.find("  # "));
  command = command.substr(0, command.find(" && /usr/sbin/sshd -t && systemctl try"));
  if (const std::size_t end = command.find(" >/"); end != std::string::npos) {
    const std::size_t block = command.find("' '    ");
    const std::size_t start = block == std::string::npos ? 0 : block + 7;
    command = command.substr(start, end - start);
  }
  return kVerdicts[static_cast<int>(finding.verdict)] + finding.found +
         (contains(like, " | ") ? " | " + finding.cause : "") +
         (contains(like, " $ ") ? " $ " + command : "");
}

#define WITH(...) [](Device& d) { __VA_ARGS__; }

struct Row {
  Change change;
  std::string found;
};

/// What a check finds on a prepared device after a change.
struct Check {
  const char* name;
  Change prepare;

  void finds(const std::vector<Row>& rows) const {
    for (const Row& row : rows) {
      std::string found;
      for (const Finding& finding : judged({prepare, row.change})) {
        const bool explains =
            !finding.cause.empty() || finding.verdict == Verdict::OK || finding.verdict == Verdict::SKIP;
        EXPECT_TRUE(explains || finding.name.starts_with("login") || contains(finding.found, "expired"))
            << finding.found << " has no cause";
        if (finding.name == name) found += (found.empty() ? "" : "\n") + show(finding, row.found);
      }
      EXPECT_EQ(found, row.found) << name;
      for (const Finding& finding : judged({prepare, row.change, &Device::proveLogins}))
        EXPECT_NE(finding.verdict, Verdict::FAIL) << "two logins that work disprove " << finding.found;
    }
  }
};

void paired(Device&) {}
void unpaired(Device& d) {
  d.pairing.exists = d.pairing.hasHostLine = false;
  d.pairing.lines.clear();
}
void server(Device& d) {
  d.side = {Role::SERVER, false, 3000, "as given", "dorve-server", "1.0.0.1", "1.0.0.2"};
  d.bsab().addresses[0].text = "1.0.0.1";
}
void robo(Device& d) {
  d.user.id = d.folder().owner = 1000;
  d.user.name = "robo";
}
void refused(Device& d) {
  d.login.tried = d.login.backTried = true;
  d.login.outcome = Device::exited(255);
  d.login.words = d.login.backWords = {"Permission denied"};
}
void rename(Device& d) {
  d.bsab().name = "eth1";
}
void swap(Device& d) {
  std::swap(d.bsab().addresses, d.eth0().addresses);
}
void setSshd(Device& d, const char* text) {
  d.sshd.settings = Settings(text);
}
void setLines(Device& d, const char* keyword, bool inMatch) {
  d.sshd.lines = {{"/c", 2, keyword, "", true}, {"/d e", 4, keyword, "", inMatch}};
}

TEST(DoctorReport, OfAHealthyDeviceIsInThisOrder) {
  std::string text;
  for (const Finding& finding : judged({&Device::proveLogins}))
    text += finding.name + ' ' + show(finding, "") + '\n';
  EXPECT_EQ(
      text,
      "user ok: root, with the SSH files in /h/.ssh\nrole ok: client: as given\ninterface ok: bsab is "
      "up\naddress ok: 1.0.0.2/30 on bsab\nssh-dir ok: /h/.ssh\nssh-dir-modes ok: owner root, mode "
      "0600\nssh-dir-space ok: 64 KiB free\nssh-files ok: authorized_keys, config and keys are "
      "usable\nssh-keygen ok: runs and knows ed25519\nprograms ok: no dorve-client runs\nfirewall ok: lets "
      "the other device through\nsshd ok: sshd listens on port 22\nsshd-config ok: sshd accepts the pairing "
      "key for root\npeer ok: 1.0.0.1 answers on the link\npeer-22 ok: port 22 of 1.0.0.1 is open\nkey-pair "
      "ok: SHA256:own\npeer-key ok: SHA256:peer\nssh-config ok: ssh uses the pairing's key for "
      "1.0.0.1\nlogin ok: ssh 1.0.0.1 logs in as root\nlogin-here ok: 1.0.0.1 logs in here as root\n");
}

TEST(DoctorReport, DoesNotMindWhatIsHarmless) {
  const auto oddities = [](Device& d) {
    d.user.runBy = "root";
    d.user.locked = d.sshd.loginsForbidden = d.link.neighbourIsFixed = d.pairing.keyIsNewer = true;
    d.user.shellIsListed = d.key.writable = d.pairing.keysMatch = false;
    d.bsab().mtu = 576;
    d.home().groupIsPrivate = true;
    d.home().mode = 0775;
    d.dir.keysParents[1].mode = 0777;
    d.dir.publicKey.type = Type::MISSING;
    d.pairing.lines[0].text.resize(4095, 'x');
    setSshd(d,
            "usepam yes\npermitrootlogin without-password\nforcecommand none\nmaxstartups 1:1:1\n"
            "authenticationmethods password publickey\npubkeyacceptedalgorithms ssh-rsa,ssh-ed25519");
    d.sshd.log = {};
  };
  const Findings usual = judged({});
  const Findings found = judged({oddities});
  ASSERT_EQ(found.size(), usual.size());
  for (std::size_t i = 0; i < usual.size(); ++i) EXPECT_EQ(show(found[i], ""), show(usual[i], ""));
}

TEST(DoctorReport, LowersProblemsThatALoginDisproves) {
  const auto problems = WITH(d.bsab().mtu = 100, d.config.mode = 0666, d.folder().mode = 0777);
  const auto verdicts = [&](const Change& prepare) {
    std::string text;
    for (const Finding& finding : judged({prepare, problems}))
      if (contains(finding.found, "0 bytes") || contains(finding.found, "written by"))
        text += kVerdicts[static_cast<int>(finding.verdict)] + finding.name + '\n';
    return text;
  };
  EXPECT_EQ(verdicts(WITH(d.login.tried = d.login.proven = true)),
            "interface\nssh-dir-modes\nok: ssh-files\n");
  EXPECT_EQ(verdicts(WITH(d.login.backTried = d.login.backProven = true)),
            "interface\nok: ssh-dir-modes\nssh-files\n");
  EXPECT_EQ(verdicts(&Device::proveLogins), "warn: interface\nok: ssh-dir-modes\nok: ssh-files\n");
  Check{"ssh-dir-modes", &Device::proveLogins}.finds(
      {{WITH(d.folder().mode = 0777),
        "ok: /h/.ssh may be written by others (mode 0777), but the login works"}});
}

TEST(DoctorReport, SaysWhatWasNotExaminedInTime) {
  Device d;
  const auto skipped = [&d] {
    std::string names;
    for (const Finding& finding : judge(d.facts)) {
      EXPECT_NE(finding.verdict, Verdict::FAIL) << finding.name;
      if (finding.found == "not checked: not finished in time") names += finding.name + " ";
    }
    return names;
  };
  d.facts.processes.value.reset();
  EXPECT_EQ(skipped(), "programs sshd ");
  d.facts.login.value.reset();
  d.facts.pairing.value.reset();
  d.facts.directory.value.reset();
  d.facts.sshd.value.reset();
  d.facts.firewall.value.reset();
  d.facts.link.value.reset();
  EXPECT_EQ(skipped(), "interface ssh-dir programs sshd pairing login ");
  d.facts.side.value.reset();
  EXPECT_EQ(skipped(), "user ");
  d.user.name = "";
  EXPECT_EQ(judge(d.facts)[0].found, "there is no such user");
}

TEST(DoctorUser, IsNamedWithTheSideAndItsPrograms) {
  static const auto hold = [](Device& d, const char* name) {
    d.processes.listeners.push_back({8888, "", true, false, Process{9, name, "/n"}});
    if (name[0] == '\0') d.processes.listeners.back().owner.reset();
  };
  Check{"role", paired}.finds(
      {{WITH(d.side.isGuess = true),
        "warn: cannot tell whether this device is the client or the server $ dorve-doctor server"},
       {server, "ok: server: as given"}});
  Check{"address", paired}.finds({{WITH(d.side.isGuess = true), "skip: not checked: the side is not known"}});
  Check{"programs", paired}.finds({
      {WITH(d.processes.programs.resize(1)), "ok: dorve-client runs (process -1)"},
      {WITH(d.processes.programs = {{7, "", "/a", true}}),
       "dorve-client (process 7) is stopped $ [ /proc/7/exe -ef /a ] && kill -CONT 7"},
      {WITH(d.processes.programs = {{7, "", "/a"}, {8, "", "/a"}}), "dorve-client runs 2 times"},
      {WITH(d.processes.misplaced = {{7, "dorve-server", "/a"}}),
       "warn: dorve-server runs (process 7) $ [ /proc/7/exe -ef /a ] && kill 7"},
  });
  Check{"port-8888", server}.finds({
      {WITH(hold(d, "nc")), "held by nc (process 9) $ [ /proc/9/exe -ef /n ] && kill 9"},
      {WITH(hold(d, "")), "held by a process of another user"},
      {WITH(d.processes.programs.resize(1), hold(d, "")), "ok: dorve-server waits for a client"},
      {WITH(hold(d, "nc"), d.processes.listeners[1].coversOwn = false), "ok: free"},
  });
}

TEST(DoctorLink, HasItsInterface) {
  static const auto lose = WITH(rename(d), d.bsab().addresses.clear());
  static const auto two = WITH(lose(d), d.link.interfaces.push_back(d.bsab()));
  Check{"interface", paired}.finds({
      {lose,
       "no bsab; this device has: eth0 (up, default route), eth1 (up) $ ip link set dev eth1 down && { ip "
       "link set dev eth1 name bsab && ip link set dev bsab up || ip link set dev eth1 up; }"},
      {WITH(rename(d), swap(d)), "no bsab; this device has: eth0 (up, default route), eth1 (up) $ "},
      {two, "no bsab; this device has: eth0 (up, default route), eth1 (up), eth1 (up) $ "},
      {WITH(two(d), d.link.interfaces[3].carrier = false, d.bsab().name = "eth2"),
       "no bsab; this device has: eth0 (up, default route), eth2 (up), eth1 (up, no carrier)"},
      {WITH(d.bsab().up = false), "bsab is down $ ip link set dev bsab up"},
      {WITH(d.bsab().carrier = false), "bsab is up, no carrier $ dorve-doctor server"},
      {WITH(d.link.interfaces.push_back(Device::interface("eth1", "", 0)),
            d.link.interfaces[3].addresses.clear(), d.bsab().carrier = false),
       "bsab is up, no carrier $ "},
      {WITH(d.bsab().ignoresArp = true),
       "bsab does not answer to ARP (arp_ignore) $ sysctl -w net.ipv4.conf.all.arp_ignore=0 "
       "net/ipv4/conf/bsab/arp_ignore=0"},
      {WITH(d.bsab().arp = false), "bsab does not use ARP $ ip link set dev bsab arp on"},
      {WITH(d.bsab().master = "br0"), "bsab is a port of br0 $ ip link set dev bsab nomaster"},
      {WITH(d.bsab().mtu = 575), "bsab has an MTU of only 575 bytes $ ip link set dev bsab mtu 1500"},
  });
  Check{"interface", server}.finds({{WITH(d.link.interfaces.resize(1)), "this device has: none $ "}});
}

TEST(DoctorLink, HasAnAddressAndARoute) {
  static const auto fail = [](Device& d, const char* why) {
    d.link.route = Route{"", "", "", why, 0, false};
  };
  static const auto give = [](Device& d, Interface& to) {
    d.route.local = true;
    to.addresses.push_back({"1.0.0.1", 30});
  };
  static const auto fix = WITH(d.link.neighbourIsFixed = true, d.link.neighbour = "02::9");
  Check{"address", paired}.finds({
      {WITH(d.bsab().addresses.clear()), "1.0.0.2 is on no interface"},
      {WITH(d.bsab().addresses[0].text = "1.0.0.1"),
       "1.0.0.2 is on no interface, but bsab has the other device's address $ ip address flush dev bsab to "
       "1.0.0.1/32 && ip address replace 1.0.0.2/30 dev bsab"},
      {swap, "1.0.0.2/30 is on eth0, not on bsab $ "},
      {WITH(swap(d), d.eth0().uplink = false),
       "1.0.0.2/30 is on eth0, not on bsab $ ip address flush dev eth0 to 1.0.0.2/32 && ip address replace "
       "1.0.0.2/30 dev bsab"},
      {WITH(d.bsab().addresses[0].prefix = 31, d.link.route = {}),
       "1.0.0.2/31 is on bsab $ ip address flush dev bsab to 1.0.0.2/32 && ip address replace 1.0.0.2/30 dev "
       "bsab"},
      {WITH(d.bsab().addresses[0].prefix = 32), "ok: 1.0.0.2/32 on bsab"},
      {WITH(give(d, d.eth0())), "1.0.0.1 is on this device too, on eth0 $ "},
      {WITH(give(d, d.bsab())),
       "1.0.0.1 is on this device too, on bsab $ ip address flush dev bsab to 1.0.0.1/32"},
      {WITH(d.answers.own = {"02::2", "02::3"}),
       "another device on the link also has 1.0.0.2 (hardware address 02::2, 02::3)"},
      {WITH(d.answers.peer.push_back("02::2")),
       "warn: several devices on the link have 1.0.0.1 (hardware addresses 02::1, 02::2)"},
      {fix, "a fixed neighbour entry says that 1.0.0.1 is 02::9 $ ip neighbour del 1.0.0.1 dev bsab"},
      {WITH(fail(d, "Invalid argument")),
       "packets to 1.0.0.1 do not leave: there is a blackhole route $ ip route replace 1.0.0.1/32 dev bsab "
       "src 1.0.0.2 && { ip rule add priority 1 to 1.0.0.1 lookup main || true; }"},
      {WITH(fail(d, "No route to host")), "packets to 1.0.0.1 do not leave: there is an unreachable route"},
      {WITH(fail(d, "Permission denied")), "packets to 1.0.0.1 do not leave: there is a prohibit route"},
      {WITH(d.route.gateway = "9.9.9.9"), "packets to 1.0.0.1 leave over the gateway 9.9.9.9"},
      {WITH(d.route.interface = "eth0"), "packets to 1.0.0.1 leave over eth0, not bsab"},
  });
}

TEST(DoctorPeer, IsOnTheLinkAndAnswers) {
  static const auto hush = WITH(d.peer.ssh = d.peer.dorve = SILENT);
  Check{"peer", paired}.finds({
      {WITH(d.facts.peer = {}), "skip: not probed, for the reasons above"},
      {WITH(hush(d), d.answers.peer.clear()), "1.0.0.1 does not answer on the link $ dorve-doctor server"},
      {WITH(hush(d), d.link.answers = {}, d.link.neighbour = "02::7"),
       "ok: 1.0.0.1 is on the link (hardware address 02::7)"},
  });
  Check{"peer-22", paired}.finds({
      {WITH(d.peer.ssh = SILENT), "port 22 of 1.0.0.1 does not answer $ dorve-doctor server"},
      {WITH(d.peer.ssh = REJECTED), "port 22 of 1.0.0.1 is rejected"},
      {WITH(d.peer.ssh = NO_ROUTE), "this device does not send packets to port 22 of 1.0.0.1"},
      {WITH(d.peer.ssh = REFUSED), "port 22 of 1.0.0.1 refuses connections $ dorve-doctor server"},
  });
  Check{"peer-8888", unpaired}.finds({{paired, "skip: no dorve-server waits on 1.0.0.1 $ dorve-server"},
                                      {WITH(d.peer.dorve = SILENT), "port 8888 of 1.0.0.1 does not answer"},
                                      {WITH(d.peer.dorve = OPEN), "ok: port 8888 of 1.0.0.1 is open"},
                                      {server, ""}});
}

TEST(DoctorDirectory, IsThatOfTheHomeDirectory) {
  static const auto lose = [](Device& d, Type type) {
    d.dir.path = "";
    d.dir.candidates[0].type = d.dir.ofHome.type = type;
  };
  static const auto move = [](Device& d, const char* path) {
    d.dir.path = path;
    d.dir.isOfHome = false;
  };
  Check{"ssh-dir", paired}.finds({
      {WITH(lose(d, Type::MISSING)), "none: /h/.ssh (missing) $ mkdir -m 700 /h/.ssh"},
      {WITH(lose(d, Type::FILE)),
       "none: /h/.ssh (a file) $ mv -nT /h/.ssh /h/.ssh.old && mkdir -m 700 /h/.ssh"},
      {WITH(lose(d, Type::MISSING), d.dir.canonicalHome = ""), "none: /h/.ssh (missing) $ "},
      {WITH(lose(d, Type::UNKNOWN), d.dir.ofHome.error = "Permission denied", d.dir.closed = "/h"),
       "/h/.ssh: Permission denied | root may not enter /h; root must permit it"},
      {WITH(lose(d, Type::DIRECTORY)), "none: /h/.ssh (a file) $ export HOME=/h"},
      {WITH(move(d, "/s")), "/s, not /h/.ssh (a file) $ export HOME=/h"},
      {WITH(move(d, "/s"), d.dir.ofHome.type = Type::MISSING),
       "/s, not /h/.ssh (a file) $ mkdir -m 700 /h/.ssh"},
      {WITH(move(d, "/a b")), "/a b contains a blank or a special character $ export HOME=/h"},
      {WITH(move(d, "/a$b"), d.dir.ofHome.path = "/a$b"), "/a$b contains a blank or a special character $ "},
  });
}

TEST(DoctorDirectory, CanBeWrittenOnlyByItsUser) {
  Check{"ssh-dir-modes", paired}.finds({
      {WITH(d.home().mode = 01702),
       "/h may be written by others (mode 1702) | ssh and sshd reject files that others could have written $ "
       "chmod go-w /h"},
      {WITH(d.home().owner = 7), "/h belongs to root, not to root $ chown -h root: /h"},
      {WITH(d.home().mode = 0666, setSshd(d, "strictmodes no")), "ok: owner root, mode 0600"},
      {WITH(d.dir.parents.clear()), "skip: not checked"},
      {WITH(d.folder().flag = 'i'), "/h/.ssh cannot be changed (chattr +i) $ chattr -i /h/.ssh"},
  });
  Check{"ssh-dir-modes", robo}.finds(
      {{paired, "ok: owner root, mode 0600"},
       {WITH(d.folder().owner = 0, d.folder().mode = 0600), "/h/.ssh belongs to root $ "},
       {WITH(d.folder().owner = 0, d.folder().mode = 0705),
        "/h/.ssh belongs to root $ (cd -P /h && [ \"$(pwd -P)\" = /h ] && chown -h robo: ./.ssh)"}});
  Check{"ssh-dir-space", paired}.finds({
      {WITH(d.dir.spaceError = "Stale file handle"), "skip: Stale file handle"},
      {WITH(d.dir.readOnly = true), "the file system of /h/.ssh is read-only"},
      {WITH(d.dir.bytesFree = 65535), "the file system of /h/.ssh is full"},
      {WITH(d.dir.noFilesLeft = true), "the file system of /h/.ssh can hold no more files"},
      {WITH(d.dir.bytesFree.reset()), "ok: its file system has no limit"},
  });
}

TEST(DoctorDirectory, HoldsUsableFiles) {
  static const auto deny = [](Device& d, const char* why) {
    d.config.writable = false;
    d.config.error = why;
  };
  Check{"ssh-files", paired}.finds({
      {WITH(d.dir.keysParents[0].mode = 0620, d.config.mode = 0602),
       "/h/.ssh/authorized_keys may be written by others (mode 0620)\n/h/.ssh/config may be written by "
       "others (mode 0602)"},
      {WITH(d.dir.keysParents[0].path = "/k", d.dir.keysParents[1].mode = 0722),
       "/h/.ssh may be written by others (mode 0722)"},
      {WITH(d.dir.keysParents[0].mode = 0620, d.dir.authorizedKeys.type = Type::MISSING),
       "ok: authorized_keys, config and keys are usable"},
      {WITH(d.dir.keysParents[0].mode = 0620, setSshd(d, "strictmodes no")),
       "ok: authorized_keys, config and keys are usable"},
      {WITH(d.config.dangling = true), "/h/.ssh/config is a symbolic link, and its target cannot be created"},
      {WITH(deny(d, "Not a directory"), d.config.type = Type::UNKNOWN), "/h/.ssh/config: Not a directory"},
      {WITH(d.dir.publicKey.type = Type::DIRECTORY), "/h/.ssh/key.pub is not a regular file"},
      {WITH(d.key.flag = 'a'), "/h/.ssh/key cannot be changed (chattr +a) $ chattr -a /h/.ssh/key"},
      {WITH(deny(d, "Permission denied")), "/h/.ssh/config: Permission denied $ chmod u+rw /h/.ssh/config"},
      {WITH(deny(d, "Read-only file system")), "/h/.ssh/config: Read-only file system"},
      {WITH(d.dir.authorizedKeys.readable = false, d.dir.authorizedKeys.owner = 7),
       "/h/.ssh/authorized_keys: "},
  });
  Check{"ssh-keygen", paired}.finds(
      {{WITH(d.pairing.keygen = {}), "not found $ apt-get install --reinstall --yes openssh-client"},
       {WITH(d.pairing.keygen = Device::exited(1, "no"), d.pairing.keygenPath = "/opt/ssh-keygen"),
        "/opt/ssh-keygen: no $ "}});
}

/// "ok: ", "warn: " or "": what becomes of the packets of the link with these rules in the chain "in".
std::string fate(const std::vector<Rule>& rules, const Change& change = paired) {
  for (const Finding& finding : judged({[&](Device& d) { d.firewall[0].rules = rules; }, change}))
    if (finding.name == "firewall") return kVerdicts[static_cast<int>(finding.verdict)];
  return "none";
}

const Rule kAccept = {{}, true, "accept", ""};
const Rule kDrop = {{}, true, "drop", ""};
const Rule kPerhapsDrop = {{}, false, "drop", ""};

TEST(DoctorFirewall, NamesTheRuleThatIsMissing) {
  static const auto drop = WITH(d.firewall[0].rules = {kDrop});
  static const auto outwards = WITH(d.firewall[0].hook = "output");
  Check{"firewall", paired}.finds({
      {drop, "this device drops packets of the link in chain ip f in"},
      {WITH(d.firewall[0].rules = {kPerhapsDrop}),
       "warn: packets of the link may be dropped in chain ip f in"},
      {WITH(drop(d), d.firewall.push_back(d.firewall[0]), d.firewall[1].table = "g"),
       "this device drops packets of the link in chain ip f in, ip g in"},
  });
  Check{"firewall", unpaired}.finds(
      {{WITH(drop(d), outwards(d)),
        "this device drops packets of the link in chain ip f in | the command lets only 1.0.0.1 through, "
        "only on bsab, until the next boot $ { nft list chain ip f in | grep -qF "
        "'\"dorve\"' || nft insert rule ip f in oifname '\"bsab\"' ip daddr 1.0.0.1 tcp dport '{ 22, 8888 }' "
        "accept comment dorve; } && { nft list chain ip f in | grep -qF '\"dorve-answers\"' || nft insert "
        "rule ip f in oifname '\"bsab\"' ip daddr 1.0.0.1 tcp sport '{ 22, 8888 }' ct state established "
        "accept comment dorve-answers; }"}});
  const Rule dropPairing = {{{"tcp dport", false, {"8888"}}}, true, "drop", ""};
  EXPECT_EQ(fate({dropPairing}, outwards), "ok: ");
  EXPECT_EQ(fate({dropPairing}, WITH(unpaired(d), outwards(d))), "");
  EXPECT_EQ(fate({dropPairing}, WITH(unpaired(d), server(d))), "");
}

TEST(DoctorFirewall, IsFollowedAsTheKernelDoes) {
  const Rule jump = {{}, true, "jump", "x"}, perhapsJump = {{}, false, "jump", "x"},
             go = {{}, true, "goto", "x"};
  const auto target = [](const std::vector<Rule>& rules, const char* table = "f") {
    return [=](Device& d) { d.firewall.push_back({"ip", table, "x", "", "", rules}); };
  };
  const auto drops = WITH(d.firewall[0].policy = "drop");
  EXPECT_EQ(fate({{{}, true, "reject", ""}}), "");
  EXPECT_EQ(fate({{{}, true, "", ""}}), "ok: ");
  EXPECT_EQ(fate({kAccept, kDrop}), "ok: ");
  EXPECT_EQ(fate({{{{"tcp dport", false, {"22"}}}, true, "accept", ""}, kDrop}), "") << "answers";
  EXPECT_EQ(fate({kAccept}, drops), "ok: ");
  EXPECT_EQ(fate({{{}, true, "return", ""}, kAccept}, drops), "");
  EXPECT_EQ(fate({{{}, false, "return", ""}, kAccept}, drops), "warn: ");
  EXPECT_EQ(fate({{{}, false, "accept", ""}}), "ok: ");
  EXPECT_EQ(fate({{{}, false, "accept", ""}, kDrop}), "warn: ");
  EXPECT_EQ(fate({kPerhapsDrop, kAccept}), "warn: ");
  EXPECT_EQ(fate({kPerhapsDrop}, WITH(d.peer.ssh = SILENT)), "");
  EXPECT_EQ(fate({kPerhapsDrop}, WITH(d.peer.dorve = REJECTED)), "");
  EXPECT_EQ(fate({kPerhapsDrop}, refused), "");
  EXPECT_EQ(fate({jump, kDrop}, target({})), "");
  EXPECT_EQ(fate({jump, kDrop}, target({kAccept})), "ok: ");
  EXPECT_EQ(fate({jump, kDrop}, target({jump})), "warn: ") << "a circle";
  EXPECT_EQ(fate({jump, kDrop}, target({}, "g")), "warn: ") << "no such chain";
  EXPECT_EQ(fate({go, kDrop}, target({})), "ok: ");
  EXPECT_EQ(fate({go}, target({kDrop})), "");
  EXPECT_EQ(fate({perhapsJump, kDrop}, target({})), "");
  EXPECT_EQ(fate({perhapsJump, kDrop}, target({kAccept})), "warn: ");
  const auto manyJumps = [](Device& d) {
    for (char from = 'a'; from <= 'z'; ++from) {
      const Rule toNext = {{}, false, "jump", std::string(1, static_cast<char>(from + 1))};
      d.firewall.push_back({"ip", "f", {from}, "", "", std::vector<Rule>(30, toNext)});
    }
  };
  EXPECT_EQ(fate({{{}, false, "jump", "a"}}, manyJumps), "warn: ")
      << "would take years if followed each time";
  EXPECT_EQ(fate({kDrop}, WITH(d.firewall[0].hook = "prerouting")), "");
  EXPECT_EQ(fate({kDrop}, WITH(d.firewall[0].hook = "ingress")), "");
  EXPECT_EQ(fate({kDrop}, WITH(d.firewall[0].hook = "forward")), "ok: ");
  EXPECT_EQ(fate({kDrop}, WITH(d.firewall[0].family = "ip6")), "ok: ");
  EXPECT_EQ(fate({kDrop}, WITH(d.firewall[0].family = "arp")), "ok: ");
  EXPECT_EQ(fate({kDrop}, WITH(d.link.interfaces.clear())), "none");
}

TEST(DoctorFirewall, MatchesPacketsByTheirFields) {
  const auto expectFate = [](const char* expected, const char* matches) {
    for (const std::string& match : split(matches, ";")) {
      const std::size_t end = match.find(" = ");
      const bool negated = match[end - 1] == '!';
      const Condition condition = {match.substr(0, end - (negated ? 1 : 0)), negated,
                                   split(match.substr(end + 3), ",")};
      EXPECT_EQ(fate({{{condition}, true, "drop", ""}}), expected) << match;
    }
  };
  expectFate("",
             "iifname = eth0,bs*;iif! = eth0;tcp dport = 20-22;tcp dport = 22-30;tcp sport = 22;tcp dport = "
             "50000;tcp sport = 50000;ip saddr = 1.0.0.0/30;ip saddr = 0.0.0.0/0;ip saddr = 1.0.0.1/32;ip "
             "saddr = 0.255.255.255-1.0.0.1;ip saddr = 1.0.0.1-1.1.0.0;ip daddr = 1.0.0.2;ct state = new;ct "
             "state = established;nfproto = ipv4;l4proto = tcp;protocol = ip;ip protocol = tcp; = x");
  expectFate("ok: ",
             "iifname = e*,bsa,a-c;iif! = bsab;oifname = bsab;oif = bsab;tcp dport = 1-21,23-9999;ip saddr = "
             "1.0.0.2/31;ip saddr = 1.0.0.2-1.0.0.9;ip daddr = 1.0.0.1;ct state = invalid;udp dport! = 1;ip6 "
             "saddr! = 1;icmpv6 type! = 1;ether type! = 1");
  expectFate("warn: ", "mark! = 1");
}

TEST(DoctorSshd, LetsTheAccountIn) {
  Check{"shell", refused}.finds({
      {WITH(d.user.shellWorks = false), "the shell of root is /bin/bash $ usermod --shell /bin/sh root"},
      {WITH(d.user.shell = "/usr/sbin/nologin"), "the shell of root is /usr/sbin/nologin"},
      {WITH(d.user.shell = "/bin/false"), "the shell of root is /bin/false"},
      {WITH(d.user.shellIsListed = false), ""},
      {WITH(d.user.shellIsListed = false, d.login.backAccepted = true), "the shell of root is /bin/bash"},
  });
  Check{"sshd-config", robo}.finds({
      {WITH(d.user.locked = true, setSshd(d, "usepam no")), "the account robo is locked"},
      {WITH(d.user.expired = true), "the account robo has expired $ usermod --expiredate '' robo"},
      {WITH(d.user.passwordOld = true),
       "the password of robo has expired $ chage --lastday -1 --maxdays -1 robo"},
      {WITH(d.user.passwordOld = true, setSshd(d, "usepam no")), "ok: sshd accepts the pairing key for robo"},
      {WITH(d.sshd.loginsForbidden = true), "/etc/nologin exists"},
      {WITH(setSshd(d, "permitrootlogin no")), "ok: sshd accepts the pairing key for robo"},
  });
}

TEST(DoctorSshd, SaysWhyItRefuses) {
  static const auto say = [](Device& d, const std::string& words, bool ours = true) {
    d.user.group = "staff";
    d.sshd.rehearsal = Rehearsal{false, ours, split(words, "\n")};
  };
  Check{"sshd-config", paired}.finds({
      {WITH(say(d, "not listed in AllowUsers")), "sshd: not listed in AllowUsers $ AllowUsers root'"},
      {WITH(say(d, "listed in DenyUsers")), "sshd: listed in DenyUsers $ DenyUsers -'"},
      {WITH(say(d, "listed in DenyUsers"), setLines(d, "denyusers", true)),
       "sshd: listed in DenyUsers | no command changes this for one user: edit sshd's configuration $ "},
      {WITH(say(d, "x\nlisted in AllowGroups")), "sshd: listed in AllowGroups $ AllowGroups staff'"},
      {WITH(say(d, "listed in DenyGroups")), "sshd: listed in DenyGroups $ DenyGroups -'"},
      {WITH(say(d, "ROOT LOGIN REFUSED")), "sshd: ROOT LOGIN REFUSED $ PermitRootLogin prohibit-password'"},
      {WITH(say(d, "revoked keys file")), "sshd: revoked keys file $ RevokedKeys /dev/null'"},
      {WITH(say(d, "revoked by file")), "sshd: revoked by file $ dorve-client"},
      {WITH(say(d, "a tcp wrapper")),
       "sshd: a tcp wrapper | hosts_access(5) keeps the other device out $ { grep -sqxF 'sshd: 1.0.0.1' "
       "/etc/hosts.allow || { [ -s /etc/hosts.allow ] || echo >>/etc/hosts.allow; sed --follow-symlinks -i "
       "'1i "
       "sshd: 1.0.0.1' /etc/hosts.allow; }; }"},
      {WITH(say(d, "No supported key exchange algorithms"), setLines(d, "hostkeyalgorithms", false)),
       "sshd: No supported key exchange algorithms $ sed --follow-symlinks -i '4{/^$/s/^/#/}' '/d e'"},
      {WITH(say(d, "Unable to negotiate: no key exchange"), setLines(d, "kexalgorithms", false)),
       "sshd: Unable to negotiate: no key exchange $ sed --follow-symlinks -i '4{/^$/s/^/#/}' '/d e'"},
      {WITH(say(d, "another\nreason")), "sshd: another; reason $ "},
      {WITH(say(d, "required=a tcp wrapper")), "sshd: required=a tcp wrapper $ "},
      {WITH(say(d, "")), "sshd does not accept the key in authorized_keys"},
      {WITH(say(d, "", false)), "ok: its settings let root log in with a key"},
      {WITH(say(d, "maximum authentication attempts", false)), "ok: its settings let root log in with a key"},
      {WITH(say(d, "x"), d.pairing.lines.clear()), "ok: its settings let root log in with a key"},
      {WITH(d.sshd.rehearsal = {}), "ok: its settings let root log in with a key"},
  });
}

TEST(DoctorSshd, HasSettingsThatLetThisUserIn) {
  const std::pair<const char*, std::string> settings[] = {
      {"pubkeyauthentication no", "PubkeyAuthentication no $ PubkeyAuthentication yes'"},
      {"permitrootlogin forced-commands-only", "PermitRootLogin forced-commands-only"},
      {"pubkeyacceptedalgorithms ssh-rsa", "PubkeyAcceptedAlgorithms ssh-rsa"},
      {"authenticationmethods publickey,password", "AuthenticationMethods publickey,password"},
      {"maxauthtries 0", "MaxAuthTries 0 $ MaxAuthTries 6'"},
      {"maxsessions 0", "MaxSessions 0 $ MaxSessions 10'"},
      {"chrootdirectory /srv", "warn: ChrootDirectory /srv $ ChrootDirectory none'"},
      {"forcecommand false", "warn: ForceCommand false $ ForceCommand none'"},
  };
  for (const auto& [text, found] : settings)
    Check{"sshd-config", paired}.finds({{[setting = text](Device& d) { setSshd(d, setting); }, found}});
  Check{"sshd-config", refused}.finds({
      {WITH(setSshd(d, "forcecommand false")), "ForceCommand false"},
      {WITH(setSshd(d, "maxstartups 10:30:100\npersourcemaxstartups none\nlogingracetime 120")),
       "ok: sshd accepts the pairing key for root"},
      {WITH(setSshd(d, "maxstartups 1:1:1"), setLines(d, "maxstartups", false)), "MaxStartups 1:1:1"},
      {WITH(setSshd(d, "persourcemaxstartups 1"), setLines(d, "persourcemaxstartups", false)),
       "PerSourceMaxStartups 1"},
      {WITH(setSshd(d, "logingracetime 1")), "LoginGraceTime 1"},
      {WITH(d.sshd.readsAuthorizedKeys = false, setSshd(d, "authorizedkeysfile none /a /b")),
       "AuthorizedKeysFile none /a /b $ AuthorizedKeysFile .ssh/authorized_keys /a /b'"},
      {WITH(d.sshd.changedSinceStart = true), "warn: its files changed after sshd started"},
  });
}

TEST(DoctorSshd, AcceptsItsConfiguration) {
  static const auto fail = [](Device& d, const char* words) { d.sshd.test = Device::exited(255, words); };
  Check{"sshd-config", paired}.finds({
      {WITH(d.sshd.test = {}), "/usr/sbin/sshd cannot be started"},
      {WITH(d.sshd.test = {}, d.sshd.installed = false), "skip: not checked: /usr/sbin/sshd: not found"},
      {WITH(fail(d, "x"), d.user.rootHelps = false),
       "skip: not checked: only root can read the whole configuration"},
      {WITH(fail(d, "UNPROTECTED PRIVATE KEY FILE\nno hostkeys")), "others may read sshd's host keys"},
      {WITH(fail(d, "no hostkeys available")), "sshd has no host keys $ ssh-keygen -A"},
      {WITH(fail(d, "Missing privilege separation directory")),
       "Missing privilege separation directory $ mkdir -p -m 755 /run/sshd"},
      {WITH(fail(d, "/r must be owned by root and not group or world-writable")),
       "/r must be owned by root and not group or world-writable | sshd refuses every connection"},
      {WITH(fail(d, "Privilege separation user")),
       "Privilege separation user | the installation of sshd is damaged"},
      {WITH(fail(d, "/c line 3: x"), d.sshd.fault = {"/c", 3, "x"}), "/c line 3: x $ "},
      {WITH(fail(d, "Port is bad"), setLines(d, "port", false)),
       "Port is bad $ sed --follow-symlinks -i '4{/^$/s/^/#/}' '/d e'"},
  });
}

TEST(DoctorSshd, ListensOnTheLink) {
  static const auto hold = [](Device& d, const char* name) { d.listener().owner = Process{9, name, "/n"}; };
  static const auto move = [](Device& d, std::uint16_t port) {
    d.listener().port = port, d.listener().coversOwn = false;
  };
  static const auto close = [](Device& d, const char* text) {
    d.processes.listeners.clear(), setSshd(d, text);
  };
  Check{"sshd", paired}.finds({
      {WITH(d.listener().owner.reset()), "ok: a process of another user listens on port 22"},
      {WITH(d.listener().owner->stopped = true), "sshd (process 700) is stopped $ kill -CONT 700"},
      {WITH(hold(d, "nc"), d.listener().owner->ofRoot = true), "port 22 is held by nc (process 9)"},
      {WITH(hold(d, "sshd")), "port 22 is held by sshd (process 9)"},
      {WITH(hold(d, "other"), d.listener().speaksSsh = true), "ok: other listens on port 22"},
      {WITH(move(d, 2222), d.listener().coversOwn = true),
       "sshd listens on port 2222, not on 22 $ printf '%s\\n' 'Port 22'"},
      {WITH(move(d, 22), setLines(d, "listenaddress", false)),
       "sshd listens on other addresses than 1.0.0.2 $ printf '%s\\n' 'ListenAddress 1.0.0.2:22'"},
      {WITH(move(d, 22), setLines(d, "addressfamily", false), setSshd(d, "addressfamily inet6")),
       "sshd listens on other addresses than 1.0.0.2 $ sed --follow-symlinks -i '4{/^$/s/^/#/}' '/d e'"},
      {WITH(move(d, 2222), d.sshd.arguments = " -D -p 2222"), "sshd listens on port 2222, not on 22 $ "},
      {WITH(move(d, 22), hold(d, "nc")), "nothing listens on port 22 of 1.0.0.2"},
      {WITH(move(d, 9000), d.listener().owner->isSession = true), "nothing listens on port 22 of 1.0.0.2"},
      {WITH(hold(d, "sshd"), d.listener().owner->ofRoot = d.listener().owner->isSession = true),
       "port 22 is held by sshd (process 9)"},
      {WITH(close(d, "listenaddress 1.0.0.1:22\nlistenaddress 1.0.0.2:23")),
       "sshd would listen only on 1.0.0.1:22, 1.0.0.2:23 (ListenAddress)"},
      {WITH(close(d, "listenaddress 1.0.0.2:22")), "nothing listens on port 22 of 1.0.0.2"},
      {WITH(close(d, "listenaddress [::]:22")), "nothing listens on port 22 of 1.0.0.2"},
  });
  EXPECT_EQ(judged({WITH(close(d, ""), d.user.expired = true)})[11].name, "sshd-config")
      << "may be why sshd does not listen";
}

TEST(DoctorPairing, LeavesKeys) {
  static const auto write = [](Device& d, const char* text) { d.pairing.lines[0].text = text; };
  Check{"key-pair", refused}.finds({
      {WITH(d.key.type = Type::MISSING), "/h/.ssh/key is missing $ dorve-client"},
      {WITH(d.key.mode = 0640), "others may access /h/.ssh/key $ chmod 600 /h/.ssh/key"},
      {WITH(d.key.readable = false), "/h/.ssh/key belongs to root $ chown -h root: /h/.ssh/key"},
      {WITH(d.pairing.derived.end = Outcome::End::TIMED_OUT), "skip: not checked: ssh-keygen: timed out"},
      {WITH(d.pairing.derived.status = 255), "ssh-keygen cannot read the private key: exit status 255"},
      {WITH(d.pairing.keysMatch = false), "the private and the public key do not belong together"},
      {WITH(d.pairing.keyIsNewer = true), "the key is newer than the pairing"},
  });
  Check{"peer-key", paired}.finds({
      {WITH(d.pairing.lines.clear()), "authorized_keys holds no pairing key $ dorve-client"},
      {WITH(d.pairing.lines.resize(2)), "authorized_keys holds 2 pairing keys"},
      {WITH(d.pairing.lines[0].fingerprint = ""), "the pairing key in authorized_keys is damaged (line 3)"},
      {WITH(d.pairing.lines[0].text.resize(4096, 'x')),
       "the pairing key in authorized_keys is damaged (line 3)"},
      {WITH(write(d, " no-pty,\tfrom=x ssh-ed25519 A")), "warn: the pairing key has options: no-pty, from=x"},
      {WITH(write(d, "no-pty ssh-ed25519 A"), refused(d)), "the pairing key has options: no-pty"},
      {WITH(write(d, "ssh-ed25519 AAAA xssh-ed25519 AAAA y")), "line 3 of authorized_keys holds two keys"},
  });
  Check{"pairing", unpaired}.finds({
      {paired, "skip: this device is not paired yet $ dorve-client"},
      {WITH(d.pairing.otherUsers = {"a b"}),
       "warn: root is not paired, but a b is $ dorve-doctor --user 'a b'"},
  });
}

TEST(DoctorPairing, IsWhatSshUses) {
  static const auto set = [](Device& d, const std::string& text) {
    d.pairing.settings =
        Settings("identitiesonly yes\nuserknownhostsfile /dev/null\nstricthostkeychecking no\n" + text);
  };
  static const auto fail = [](Device& d, const char* file, int line) {
    d.pairing.ssh = Device::exited(255, "bad");
    d.pairing.fault = {file, line, "x"};
  };
  Check{"ssh-config", paired}.finds({
      {WITH(d.pairing.ssh = {}), "ssh is missing or cannot be started"},
      {WITH(fail(d, "/h/.ssh/config", 2)), "bad $ sed --follow-symlinks -i '2{/^x$/s/^/#/}' /h/.ssh/config"},
      {WITH(fail(d, "", 0)), "bad $ "},
      {WITH(fail(d, "", 0), d.pairing.sshPath = "/bin/ssh"), "bad $ "},
      {WITH(fail(d, "", 0), d.pairing.sshPath = "/opt/ssh"), "/opt/ssh: bad $ "},
      {WITH(d.pairing.hasHostLine = false), "/h/.ssh/config has no Host 1.0.0.1 $ dorve-client"},
      {WITH(set(d, "bindinterface eth0")), "for 1.0.0.1 ssh uses BindInterface eth0 $ BindInterface bsab'"},
      {WITH(d.pairing.masterHangs = true, set(d, "controlpath /tmp/x")),
       "for 1.0.0.1 ssh uses ControlPath /tmp/x"},
      {WITH(set(d, "exitonforwardfailure yes\nlocalforward 1 x")),
       "warn: for 1.0.0.1 ssh uses ExitOnForwardFailure yes"},
      {WITH(set(d, "exitonforwardfailure yes\ndynamicforward 1")),
       "warn: for 1.0.0.1 ssh uses ExitOnForwardFailure yes $ ExitOnForwardFailure no'"},
      {WITH(set(d, "exitonforwardfailure no\ndynamicforward 1")),
       "ok: ssh uses the pairing's key for 1.0.0.1"},
      {WITH(set(d, "bindinterface bsab\nbindaddress 9.9.9.9\npreferredauthentications x")),
       "warn: for 1.0.0.1 ssh uses bindinterface bsab, bindaddress 9.9.9.9, preferredauthentications x $ "
       "IdentityFile /h/.ssh/key' '    bindinterface bsab' '    bindaddress 1.0.0.2' '    "
       "preferredauthentications publickey'"},
      {WITH(d.pairing.usesKey = false, d.login.worksWithoutConfig = true),
       "for 1.0.0.1 ssh uses IdentityFile without the pairing key"},
      {WITH(d.pairing.usesKey = d.pairing.hasHostLine = false, d.proveLogins()),
       "ok: ssh uses the pairing's key for 1.0.0.1"},
  });
  Check{"ssh-config", unpaired}.finds({
      {WITH(d.pairing.hasHostLine = true, d.pairing.usesKey = false),
       "warn: config already contains Host 1.0.0.1"},
  });
}

TEST(DoctorLogin, FailsForAReasonThatSshSays) {
  Check{"login", refused}.finds({
      {paired, "1.0.0.1 refuses the key for root: Permission denied $ dorve-doctor server"},
      {WITH(d.login.otherUser = "robo"), "1.0.0.1 lets robo in, not root $ User robo'"},
      {WITH(d.login.worksWithoutConfig = true), "Permission denied $ "},
      {WITH(d.pairing.fingerprint = ""), "1.0.0.1 refuses the key for root: Permission denied"},
      {WITH(d.login.accepted = true), "the key is accepted, but no command runs: exit status 255"},
      {WITH(d.login.accepted = true, d.login.outcome.err = "Bye\n", d.login.outcome.out = "a\n"),
       "the key is accepted, but no command runs: it prints Bye; a"},
      {WITH(d.login.words = {"a", "b"}, d.login.outcome.end = Outcome::End::TIMED_OUT),
       "ssh timed out: a; b $ dorve-doctor --timeout 10"},
  });
  for (const char* words :
       {"Host key verification failed.", "No ED25519 host key is known for 1.0.0.1 and you have requested",
        "Received disconnect from 1.0.0.1 port 22:2: Too many authentication failures",
        "Unable to negotiate with 1.0.0.1 port 22: no matching cipher found.",
        "Connection to 1.0.0.1 port 22 lost during banner exchange",
        "ssh: connect to host 1.0.0.1 port 22: Connection refused", "Connection closed by 1.0.0.1 port 22",
        "kex_exchange_identification: read: Connection reset by peer",
        "ssh: connect to host 1.0.0.1 port 22: Connection timed out"}) {
    for (const Finding& finding : judged({refused, [=](Device& d) { d.login.words = {words}; }})) {
      EXPECT_TRUE(finding.name != "login" || (finding.found == words && !finding.cause.empty())) << words;
    }
  }
}

TEST(DoctorLogin, FromTheOtherDeviceIsTriedOrExplained) {
  static const auto say = [](Device& d, const char* words) { d.login.backWords = split(words, "\n"); };
  static const auto quote = WITH(d.sshd.log = std::vector<std::string>{"a", "b"});
  Check{"login-here", refused}.finds({
      {paired,
       "1.0.0.1 cannot log in here: Permission denied | sshd accepts the key in authorized_keys, so the "
       "other device has a different key $ dorve-client"},
      {WITH(d.sshd.changedSinceStart = true),
       "1.0.0.1 cannot log in here: Permission denied | sshd on this device refuses the key of the other "
       "one"},
      {WITH(say(d, "Identity file x")),
       "1.0.0.1 cannot log in here: Identity file x | the other device has no pairing key $ dorve-client"},
      {WITH(say(d, "Connection closed")),
       "1.0.0.1 cannot log in here: Connection closed | sshd accepts the key, so PAM refuses the account; "
       "the modules are in /etc/pam.d/sshd"},
      {WITH(say(d, "timed out")),
       "1.0.0.1 cannot log in here: timed out | a firewall on this device or on the other one drops the "
       "packets"},
      {WITH(d.login.backAccepted = true, d.user.startFiles = {"/b"}, say(d, "x\ny")),
       "1.0.0.1 can log in here, but no command runs: x; y | the shell /bin/bash, a forced command or a "
       "start-up file (/b) ends the login or hangs"},
      {WITH(d.login.backTried = false),
       "skip: not tried, because this device cannot log in there; sshd on this device accepts the key in "
       "authorized_keys"},
      {WITH(d.login.backTried = false, d.sshd.rehearsal = Rehearsal{false, true, {}}),
       "skip: not tried, because this device cannot log in there"},
      {WITH(d.login.backTried = false, d.login.proven = true),
       "skip: not tried; sshd on this device accepts the key in authorized_keys"},
  });
  Check{"sshd-log", refused}.finds({
      {quote, "skip: sshd's log about the last refused login: a; b"},
      {WITH(quote(d), d.user.expired = true), ""},
      {WITH(quote(d), d.user.rootHelps = false), ""},
      {WITH(d.sshd.log = {}), "skip: not finished in time $ /usr/sbin/sshd -d -o ListenAddress=1.0.0.2:2222"},
      {WITH(quote(d), d.login.backProven = true), ""},
  });
  Check{"sshd-log", unpaired}.finds({{quote, ""}});
}

}  // namespace
}  // namespace dorve
