// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "doctor_facts.h"
#include "dorve/checks/commands.h"
#include "dorve/facts/text.h"
#include "dorve/report/report.h"

namespace dorve {
namespace {

const std::string kReload = " && /usr/sbin/sshd -t && systemctl try-reload-or-restart ssh";

struct Fixed : Device {
  Commands commands{user, side, dir, sshd, facts.processes};
};

/// What a shell prints for a command.
std::string run(const std::string& command) {
  std::FILE* pipe = popen(command.c_str(), "r");
  std::string text(4096, '\0');
  text.resize(std::fread(text.data(), 1, text.size(), pipe));
  pclose(pipe);
  return text;
}

std::string readAll(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(DoctorCommands, QuoteWords) {
  for (const char* word : {"$(id)", "`id`", "a'b", "a;b", "a  b", "", "*", "~", "\"", "\\", "a\nb", "#"})
    EXPECT_EQ(run("printf %s " + quoted(word)), word);
  EXPECT_EQ(quoted("aZ09@%+=:,./_-"), "aZ09@%+=:,./_-");
}

TEST(DoctorCommands, AreEmptyIfATerminalWouldShowThemWrong) {
  Fixed d;
  for (const char* bad : {"\x1b", "\n", "\x7f", "\u0085", "\u00ad", "\u061c", "\u200b", "\u202e", "\u2066",
                          "\ufeff", "\xff", "\xe2\x80", "\xc3"}) {
    d.user.home = bad;
    EXPECT_EQ(d.commands.asUser(bad) + d.commands.asRoot(bad) + d.commands.useHome(), "")
        << testing::PrintToString(bad);
  }
  for (const char* good : {"a~", "\u00e9", "\u0436", "\u30a2", "\u65e5", "\uac00"})
    EXPECT_EQ(d.commands.asUser(good), good);
}

TEST(DoctorCommands, HaveTheRightsThatTheyNeed) {
  const struct {
    unsigned int user;
    const char* runBy;
    bool rootHelps;
    std::string commands;  // as the user, as root, and to pair again
  } rows[] = {
      {0, "", true, "a|b, a|b, dorve-client"},
      {0, "root", true, "a|b, a|b, dorve-client"},
      {0, "robo", true, "sudo sh -c 'a|b', sudo sh -c 'a|b', sudo dorve-client"},
      {1, "", false, "a|b, sudo sh -c 'a|b', dorve-client"},
      {1, "robo", true, "a|b, sudo sh -c 'a|b', dorve-client"},
      {1, "", true, "setsid -w runuser -u robo -- sh -c 'a|b', a|b, runuser -l robo -c dorve-client"},
      {1, "root", true, "setsid -w runuser -u robo -- sh -c 'a|b', a|b, runuser -l robo -c dorve-client"},
      {1, "she", true, "sudo -u robo -- sh -c 'a|b', sudo sh -c 'a|b', sudo -i -u robo dorve-client"},
  };
  Fixed d;
  for (const auto& row : rows) {
    d.user.id = row.user;
    d.user.name = row.user == 0 ? "root" : "robo";
    d.user.runBy = row.runBy;
    d.user.rootHelps = row.rootHelps;
    const std::string pair = split(d.commands.pairAgain(), "#")[0];
    EXPECT_EQ(join({d.commands.asUser("a|b"), d.commands.asRoot("a|b"), pair}, ", "), row.commands + "  ");
  }
  EXPECT_EQ(d.commands.asRoot("a 'b'"), "sudo a 'b'");
  EXPECT_EQ(d.commands.asUser("a 'b'"), "sudo -u robo -- a 'b'");
  EXPECT_EQ(d.commands.asRoot("a; 'b'"), "sudo sh -c 'a; '\\''b'\\'''");
  EXPECT_EQ(d.commands.pairAgain(), "sudo -i -u robo dorve-client  # first start dorve-server on 1.0.0.1");
  EXPECT_EQ(d.commands.doctorThere(), "sudo dorve-doctor --user robo server  # on 1.0.0.1");
  d.user.hasSudo = false;
  EXPECT_EQ(d.commands.asRoot("a; b"), "su - -c 'a; b'");
  EXPECT_EQ(d.commands.doctorThere(), "su - -c 'dorve-doctor --user robo server'  # on 1.0.0.1");
}

TEST(DoctorCommands, PairAgainOnTheOtherDeviceIfTheServerRuns) {
  Fixed d;
  d.side.role = Role::SERVER;
  d.side.program = "dorve-server";
  EXPECT_EQ(d.commands.pairAgain(), "dorve-server  # then dorve-client on 1.0.0.1");
  EXPECT_EQ(d.commands.doctorThere("a"), "dorve-doctor --user a client  # on 1.0.0.1");
  d.processes.programs.resize(1);
  EXPECT_EQ(d.commands.pairAgain(), "dorve-client  # on 1.0.0.1");
  d.dir.path = "/home/$(id)/.ssh";
  EXPECT_EQ(d.commands.pairAgain(), "") << "the programs pass the path to a shell";
}

TEST(DoctorCommands, ChangeNothingOutsideTheHome) {
  Fixed d;
  d.user.id = 1000;
  d.user.name = "robo";
  FileInfo file = d.config;
  file.mode = 0604;
  const auto all = [&] {
    return join({d.commands.changeMode(file, "600"), d.commands.takeOwnership(file),
                 d.commands.removeFlag(file), d.commands.remount(file)},
                "\n");
  };
  file.flag = 'i';
  EXPECT_EQ(
      all(),
      "(cd -P /h/.ssh && [ \"$(pwd -P)\" = /h/.ssh ] && chown -h robo: ./config)\n(cd -P /h/.ssh && [ "
      "\"$(pwd -P)\" = /h/.ssh ] && chown -h robo: ./config)\n(cd -P /h/.ssh && [ \"$(pwd -P)\" = /h/.ssh ] "
      "&& chattr -i ./config)\n");
  file.owner = 1000;
  EXPECT_EQ(d.commands.changeMode(file, "600"), "setsid -w runuser -u robo -- chmod 600 /h/.ssh/config");
  file.mode = 0600;
  EXPECT_EQ(d.commands.takeOwnership(file), "") << "the user may not read it";
  file.mode = 0604;
  file.hasOtherNames = true;
  EXPECT_EQ(d.commands.takeOwnership(file) + d.commands.removeFlag(file), "") << "a hard link to any file";
  d.user.id = 0;
  EXPECT_EQ(d.commands.remount(file), "mount -o remount,rw \"$(findmnt -n -o TARGET -T /h/.ssh/config)\"");
  file.real = "/h/!x";
  EXPECT_EQ(d.commands.remount(file), "") << "a word of the shell's history";
  d.user.id = 1000;
  file.hasOtherNames = false;
  for (const char* real : {"/hh/x", "/etc/passwd", "/"}) {
    file.real = real;
    EXPECT_EQ(all(), "") << real;
  }
  d.dir.canonicalHome = "/";
  EXPECT_EQ(all(), "") << "a home directory that holds all files";
}

TEST(DoctorCommands, TestSshdBeforeTheyReloadIt) {
  Fixed d;
  const std::string include =
      "{ grep -sqxF 'Include /etc/ssh/dorve-*.conf' /etc/ssh/sshd_config || { [ -s /etc/ssh/sshd_config ] || "
      "echo >>/etc/ssh/sshd_config; sed --follow-symlinks -i '1i Include /etc/ssh/dorve-*.conf' "
      "/etc/ssh/sshd_config; }; }" +
      kReload;
  EXPECT_EQ(d.commands.setForLogin("AllowUsers", "root"),
            "printf '%s\\n' 'Match User root Address 1.0.0.1' '    AllowUsers root' "
            ">/etc/ssh/dorve-allowusers-root.conf && " +
                include);
  EXPECT_EQ(d.commands.setForAll("Port", "22"),
            "printf '%s\\n' 'Port 22' >/etc/ssh/dorve-port.conf && " + include);
  EXPECT_EQ(d.commands.makeHostKeys(), "ssh-keygen -A");
  EXPECT_EQ(d.commands.reinstallSshd(),
            "apt-get install --reinstall --yes -o Dpkg::Options::=--force-confmiss openssh-server");
  d.sshd.lines = {{"/c", 2, "hostkey", "", true}, {"/c d", 3, "hostkey", "", false}};
  EXPECT_EQ(d.commands.makeHostKeys(),
            "ssh-keygen -A && printf '%s\\n' 'HostKey /etc/ssh/ssh_host_ed25519_key' "
            ">/etc/ssh/dorve-hostkey.conf && " +
                include);
  EXPECT_EQ(d.commands.disableKeyword("HostKey"),
            "sed --follow-symlinks -i '3{/^$/s/^/#/}' '/c d'" + kReload);
  EXPECT_EQ(d.commands.disableKeyword("Port"), "");
  d.sshd.testArguments = {"-o", "X y"};
  EXPECT_EQ(d.commands.startSshd(), "/usr/sbin/sshd -t -o 'X y' && systemctl enable --now ssh");
  EXPECT_EQ(d.commands.showRefusal(), "/usr/sbin/sshd -d -o ListenAddress=1.0.0.2:2222 -o 'X y'");
  d.sshd.systemd = false;
  EXPECT_EQ(d.commands.reloadSshd(), "/usr/sbin/sshd -t -o 'X y' && kill -HUP 700");
  EXPECT_EQ(d.commands.startSshd(),
            "mkdir -p -m 755 /run/sshd && /usr/sbin/sshd -t -o 'X y' && /usr/sbin/sshd");
  d.processes.listeners.clear();
  EXPECT_EQ(d.commands.reloadSshd(), "/usr/sbin/sshd -t -o 'X y'");
  for (const char* argument : {"x Y", "X=y"}) {
    d.sshd.testArguments = {"-o", argument};
    EXPECT_EQ(d.commands.setForLogin("X", "z") + d.commands.setForAll("X", "z"), "") << "no file changes it";
  }
  d.sshd.installed = false;
  EXPECT_EQ(d.commands.startSshd(), "apt-get install --yes openssh-server");
  EXPECT_EQ(d.commands.setForLogin("AllowGroups", "a b"), "");
  d.user.name = "a b";
  EXPECT_EQ(d.commands.setForLogin("AllowUsers", "x"), "");
}

TEST(DoctorCommands, DisableNoLineThatBeginsABlock) {
  Fixed d;
  d.sshd.lines = {{"/c", 1, "x", "", false}};
  for (const char* text : {"Host a", " \tmatch all", "HOST=a", "\"Match\" all"}) {
    EXPECT_EQ(d.commands.disableForSsh({"/h/.ssh/config", 1, text}), "") << text;
    EXPECT_EQ(d.commands.disableForSshd({"/c", 1, text}), "") << text;
  }
  EXPECT_EQ(d.commands.disableForSsh({"/c", 0, "x"}), "");
  EXPECT_EQ(d.commands.disableForSshd({"/d", 1, "x"}), "") << "not a file of sshd";
  d.user.id = 1000;
  EXPECT_EQ(d.commands.disableForSshd({"/c", 1, "\xEF\xBB\xBFHost"}),
            "sed --follow-symlinks -i '1s/^\\xef\\xbb\\xbf//' /c");
  EXPECT_EQ(d.commands.disableForSsh({"/etc/ssh/ssh_config", 7, "x", true}),
            "sed --follow-symlinks -i '7{/^x$/s/^/#/}' /etc/ssh/ssh_config");
  d.user.name = "robo";
  EXPECT_EQ(
      d.commands.disableForSsh({"/etc/shadow", 7, "x"}),
      "setsid -w runuser -u robo -- sh -c 'sed --follow-symlinks -i '\\''7{/^x$/s/^/#/}'\\'' /etc/shadow'");
}

TEST(DoctorCommands, AllowNoPacketsInAChainWithASpecialName) {
  EXPECT_EQ(Commands::allowPackets({"ip", "a; flush ruleset", "in", "", "", {}}, "x"), "");
  EXPECT_EQ(Commands::allowPackets({"ip", "f", "a b", "", "", {}}, "x"), "");
}

TEST(DoctorCommands, EndOnlyTheSameProgram) {
  Fixed d;
  EXPECT_EQ(d.commands.terminate({{9, "nc", "/a b"}, {8, "nc", "/c"}}),
            "[ /proc/9/exe -ef '/a b' ] && kill 9; [ /proc/8/exe -ef /c ] && kill 8");
  EXPECT_EQ(d.commands.terminate({{9, "nc", ""}}) + d.commands.terminate({{1, "x", "/x"}}) +
                d.commands.terminate({}),
            "");
  // This part of sshd serves a login, and may hold a port that the login forwards.
  EXPECT_EQ(d.commands.terminate({{9, "sshd-session", "/usr/lib/openssh/sshd-session"}}), "");
}

TEST(DoctorCommands, DoTheSameTheSecondTime) {
  std::string folder = testing::TempDir() + "doctor.XXXXXX";
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  Fixed d;
  d.dir.path = folder;
  const std::string config = d.config.path = folder + "/config";
  const std::string keys = d.dir.authorizedKeys.path = folder + "/keys";
  std::ofstream(keys) << "#\nssh-ed25519 AAAA 1ssh-ed25519 AAAA 2\n";
  for (int i = 0; i < 2; ++i) {
    run(d.commands.setForSsh("user", {"User $(id)", "Port 7"}) + " && " + d.commands.splitKeyLine(2));
    EXPECT_EQ(readAll(config), "Include dorve-*.conf\n\n");
    EXPECT_EQ(readAll(folder + "/dorve-user.conf"), "Host 1.0.0.1\n    User $(id)\n    Port 7\n");
    EXPECT_EQ(readAll(keys), "#\nssh-ed25519 AAAA 1\nssh-ed25519 AAAA 2\n");
  }
  const std::string bad = "\tBad.*[]/'\\1&^$";
  std::ofstream(config) << "Host a\n" << bad << "\n";
  const std::string disable = d.commands.disableForSsh({config, 2, bad});
  run(disable + " && " + disable + " && " + d.commands.setForSsh("port", {"Port 7"}) + " && " + disable);
  EXPECT_EQ(readAll(config), "Include dorve-*.conf\nHost a\n#" + bad + "\n");
  const std::string show = "ssh -T -G -F " + folder + "/dorve-port.conf ";
  EXPECT_TRUE(contains(run(show + "1.0.0.1"), "\nport 7\n"));
  EXPECT_TRUE(contains(run(show + "1.0.0.3"), "\nport 22\n"));
  std::filesystem::remove_all(folder);
}

TEST(DoctorText, ShowsFindingsAndWhatToDoFirst) {
  const std::vector<Finding> findings = {
      {Verdict::OK, "user", "r\u00f6b\u202e\u009b\xff"},
      {Verdict::SKIP, "peer", "later", "", "next"},
      {Verdict::FAIL, "sshd", "\u65e5\u672c\u8a9e is long", "because it is so long", "fix\n"}};
  const std::string name = "r\u00f6b??\ufffd\n";
  EXPECT_EQ(asText(findings, {}), "ok    user          " + name +
                                      "skip  peer          later\n      fix  next\n"
                                      "FAIL  sshd          \u65e5\u672c\u8a9e is long\n      why  because it "
                                      "is so long\n      fix  fix?\n1 failed. First: fix?\n");
  EXPECT_EQ(asText(findings, {true, 27}),
            "\x1b[32mok\x1b[0m    user          " + name +
                "\x1b[36mskip\x1b[0m  peer          later\n      fix  next\n"
                "\x1b[31mFAIL\x1b[0m  sshd          \u65e5\u672c...\n      why  because it is...\n      "
                "fix  fix?\n1 failed. First: fix?\n");
  EXPECT_EQ(asText({findings[1]}, {}),
            "skip  peer          later\n      fix  next\nNothing failed. Next: next\n");
  EXPECT_EQ(asText({findings[0]}, {}), "ok    user          " + name + "Nothing failed.\n");
  EXPECT_EQ(asJson({findings[2], findings[0]}),
            "{\"check\":\"sshd\",\"verdict\":\"FAIL\",\"found\":\"\u65e5\u672c\u8a9e is "
            "long\",\"cause\":\"because it is so long\",\"command\":\"fix?\"}\n"
            "{\"check\":\"user\",\"verdict\":\"ok\",\"found\":\"r\u00f6b??\ufffd\",\"cause\":\"\","
            "\"command\":\"\"}\n");
}

TEST(DoctorText, IsSpelledRight) {
  if (run("command -v aspell").empty()) GTEST_SKIP() << "aspell is not installed";
  // The names that the texts hold besides English words.
  const std::string names =
      " AAAA ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz ARP AddressFamily AllowGroups AllowUsers "
      "AuthenticationMethods AuthorizedKeysFile BindInterface ChrootDirectory ControlPath DORVE "
      "DenyGroups DenyUsers Dpkg ExitOnForwardFailure ForceCommand HUP HostKey HostKeyAlgorithms IPv "
      "IdentityFile JSON KexAlgorithms KiB ListenAddress LoginGraceTime MACs MTU MaxAuthTries MaxSessions "
      "MaxStartups PerSourceMaxStartups PermitRootLogin PubkeyAcceptedAlgorithms PubkeyAuthentication "
      "RevokedKeys addressfamily ageing arp arp_ignore authorized_keys authorizedkeysfile bashrc "
      "bindaddress bindinterface blackhole cd chage chattr chmod chown conf config confmiss controlpath "
      "daddr del dev dir dorve dport dynamicforward ef exe exitonforwardfailure expiredate hostkey "
      "hostkeys hosts_access icmp iif iifname inet ip ipv json keygen lastday listenaddress localforward "
      "maxdays mkdir mtu mv nT neighbour nfproto nft nologin nomaster oif oifname ok openssh pairing's "
      "preferredauthentications prerouting printf proc proto publickey qF remoteforward runuser rw saddr "
      "sbin sed setsid sqxF src ssh's ssh_config ssh_host_ ssh_host_ed sshd sshd's sshrc strictmodes su sudo "
      "symlinks sysctl systemctl tcp udp uid unpair usepam useradd usermod usr xBB xBF xEF ";
  const std::string texts =
      "cd " + quoted(DORVE_DOCTOR_SOURCES) +
      " && cat checks/*.cpp report/*.cpp main.cpp ../*/main.cpp | grep -v '^#' | grep -o '\"[^\"]*\"' | ";
  const std::string words =
      run(texts + "aspell list --lang=en_US | sort -u") + run(texts + "grep -oE '[a-z]+_[a-z_]+' | sort -u");
  std::string unknown;
  for (const std::string& word : split(words, "\n"))
    if (!contains(names, " " + word + " ")) unknown += word + " ";
  EXPECT_EQ(unknown, "");
  EXPECT_TRUE(contains(words, "\nsshd\n")) << "the texts were not read";
}

TEST(DoctorFacts, AreReadFromMessages) {
  const auto fault = [](const char* message) {
    const FaultyLine line = findFault(message);
    return line.file + ":" + std::to_string(line.number);
  };
  EXPECT_EQ(fault("/a b: line 12: x"), "/a b:12");
  EXPECT_EQ(fault("/a line 3: x"), "/a:3");
  for (const char* message : {"", "/a line x: y", "/a line 3", "/a line : x", "/a line 123456789: x"})
    EXPECT_EQ(fault(message), ":0") << message;
  EXPECT_EQ(Outcome().message(), "not found");
  EXPECT_EQ((Outcome{Outcome::End::TIMED_OUT, 0, "", "x"}.message()), "timed out");
  EXPECT_EQ((Outcome{Outcome::End::EXITED, 3, "out", "\r\n \t\n" + std::string(2000, 'e')}.message()),
            std::string(1024, 'e'));
  EXPECT_EQ((Outcome{Outcome::End::EXITED, 3, "\nout\n", ""}.message()), "out");
  EXPECT_EQ(Device::exited(3).message(), "exit status 3");
}

TEST(DoctorFacts, NameTheSettingsThatAPairingNeedsOtherwise) {
  Pairing pairing;
  pairing.settings = Settings(
      "port 23\nport 24\nidentitiesonly no\nuser x\nstricthostkeychecking off\nnovalue\nproxyjump a b");
  pairing.defaults = Settings("port 22\nstricthostkeychecking ask\nrekeylimit 0 0");
  std::string text;
  for (const ChangedSetting& each : changedSettings(pairing))
    text += each.name + " " + each.value + " > " + each.wanted + "\n";
  EXPECT_EQ(text, "port 23 > 22\nidentitiesonly no > yes\nproxyjump a b > none\nrekeylimit none > 0 0\n");
  EXPECT_EQ(pairing.settings.all("port"), (std::vector<std::string>{"23", "24"}));
}

}  // namespace
}  // namespace dorve
