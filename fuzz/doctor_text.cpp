// SPDX-License-Identifier: MIT
// The doctor's pure functions, on arbitrary bytes.
// They read the output of other programs, judge facts, quote words for a shell and print reports.
#include <cstdint>
#include <nlohmann/json.hpp>

#include "dorve/checks/checks.h"
#include "dorve/facts/text.h"
#include "dorve/report/report.h"
#include "fuzz.h"

using namespace dorve;

const std::vector<std::string> dorve::kSeeds = {"port 22\nhostname 172.20.10.1\r\nport\nport  2 \t3\n",
                                                "it's $HOME; \\\"'x''\n\n \t\r\n",
                                                "\033[2J\302\233\303\251\360\237\230\200\342\202\200\377",
                                                "~/.ssh/authorized_keys\\\\ \"a\" \\",
                                                "/root/.ssh/config: line 7: Bad option",
                                                "/a's line 2 line 31: x",
                                                "Permission denied (publickey).\nConnection closed by 1",
                                                "not listed in AllowUsers",
                                                "revoked keys file\nUnable to negotiate: no MAC",
                                                "inet\nfilter\n1-2\n172.20.0.0/16\ndrop\njump\ninput",
                                                std::string(500, 'a') + std::string(500, '\1'),
                                                std::string(500, 'a') + std::string(500, '\3')};

/// What a POSIX shell reads from a script. Outside of quotes, operators and the few expansions that the
/// doctor itself writes are ordinary text.
struct Script {
  std::vector<std::string> words;
  std::string bare;  ///< what the shell would act on: the text without its quoted parts
};

/// Throws if a quote is not closed.
static Script readScript(const std::string& text) {
  Script script;
  std::string word;
  bool started = false;
  for (std::size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || text[i] == ' ') {
      if (started) script.words.push_back(word);
      word.clear();
      script.bare += ' ';
      started = false;
      continue;
    }
    started = true;
    if (text[i] == '\'') {
      const std::size_t end = text.find('\'', i + 1);
      check(end != std::string::npos, "each quote is closed");
      word.append(text, i + 1, end - i - 1);
      i = end;
    } else if (text[i] == '\\') {
      check(++i < text.size(), "a backslash is before a character");
      word += text[i];
    } else {
      word += text[i];
      script.bare += text[i];
    }
  }
  return script;
}

static void checkCommand(const std::string& command, const std::string& hostile) {
  for (const char c : command)
    check(c < '\0' || (c >= ' ' && c != 0x7F), "a command has no control characters");
  const auto [words, bare] = readScript(command);
  check(hostile.empty() || !contains(bare, hostile), "hostile text is quoted");
  // `sh -c` and `su - -c` read their argument as a script again.
  for (std::size_t i = 1; i < words.size(); ++i) {
    if (words[i - 1] == "-c") checkCommand(words[i], hostile);
  }
}

/// Fills facts from an input. Texts from outside are hostile: they hold the mark, which no shell may act on.
class Filler {
 public:
  explicit Filler(FuzzedDataProvider& provider) : input(provider) {}

  /// What no command may hold outside of quotes.
  static constexpr const char* kMark = ";$(mark)";

  Facts facts() {
    Facts facts;
    User user;
    Side side;
    fill(user);
    fill(side);
    facts.user = user;
    facts.side = side;
    // The directory is last, because it takes most of an input.
    fillSome(facts.link, facts.processes, facts.firewall, facts.sshd, facts.pairing, facts.login, facts.peer,
             facts.directory);
    return facts;
  }

  /// What the builder of commands makes of hostile facts, whether or not a check would ask for it.
  std::vector<std::string> commands() {
    User user;
    Side side;
    Directory directory;
    Sshd sshd;
    Fact<Processes> processes = Processes();
    FileInfo some;
    FaultyLine fault;
    fill(user, side, directory, sshd, *processes.value, some, fault);
    const Commands build(user, side, directory, sshd, processes);
    FaultyLine known = fault;
    if (!sshd.lines.empty()) known.file = sshd.lines.front().file;
    return {build.pairAgain(),
            build.doctorThere(text()),
            build.changeMode(some, "600"),
            build.takeOwnership(some),
            build.removeFlag(some),
            build.remount(some),
            build.moveAway(some.path),
            build.setForLogin("AllowGroups", text()),
            build.setForAll("MaxStartups", "10"),
            Commands::allowPackets({"ip", text(), text(), "input", "accept", {}}, "tcp dport 22"),
            build.disableForSsh(fault),
            build.disableForSshd(known),
            build.disableKeyword(sshd.lines.empty() ? "port" : sshd.lines.front().keyword),
            build.setForSsh("settings", {text()}),
            build.splitKeyLine(3),
            build.allowInHosts(),
            build.makeHostKeys(),
            build.showRefusal(),
            build.startSshd(),
            build.terminate(processes->programs)};
  }

 private:
  bool flip() { return input.ConsumeBool(); }
  int number(int last) { return input.ConsumeIntegralInRange(0, last); }

  /// A text without NUL, with the mark half of the time.
  std::string text() {
    std::string result = input.ConsumeRandomLengthString(24);
    std::erase(result, '\0');
    return flip() ? result + kMark : result;
  }

  std::string oneOf(const std::vector<std::string>& usual) {
    return flip() ? text() : usual[static_cast<std::size_t>(number(static_cast<int>(usual.size()) - 1))];
  }

  // `fill` gives a fact of any type a value. A struct is filled member by member.
  template <typename First, typename Second, typename... More>
  void fill(First& first, Second& second, More&... more) {
    fill(first);
    fill(second, more...);
  }

  /// Gives each of the facts a value half of the time.
  template <typename... Each>
  void fillSome(Fact<Each>&... facts) {
    const auto fillOne = [this](auto& fact) {
      if (flip()) fill(fact.value.emplace());
    };
    (fillOne(facts), ...);
  }

  template <typename Each>
  void fill(std::vector<Each>& all) {
    all.resize(static_cast<std::size_t>(number(2)));
    for (Each& each : all) fill(each);
  }

  void fill(bool& value) { value = flip(); }
  void fill(std::string& value) { value = text(); }
  void fill(Settings& value) { value = Settings(text() + "\n" + text() + " " + text()); }
  void fill(FaultyLine& value) { value = {text(), number(9), text(), flip()}; }
  void fill(Peer& value) { value = {static_cast<PortState>(number(4)), static_cast<PortState>(number(4))}; }
  void fill(Outcome& value) { value = {static_cast<Outcome::End>(number(2)), number(255), text(), text()}; }
  void fill(ConfigLine& value) { value = {text(), number(9), toLower(text()), text(), flip()}; }
  void fill(KeyLine& value) { value = {number(9), text(), text()}; }
  void fill(Rehearsal& value) { fill(value.accepted, value.offersPairingKey, value.words); }
  void fill(Answers& value) { fill(value.own, value.peer); }

  void fill(User& user) {
    fill(user.name, user.shell, user.runBy, user.rootHelps, user.hasSudo, user.shellWorks, user.shellIsListed,
         user.startFiles, user.locked, user.expired, user.passwordOld, user.group);
    user.id = static_cast<unsigned int>(number(1));
    user.home = "/home";
  }

  void fill(Side& side) {
    const bool client = flip();
    fill(side.reason, side.isGuess);
    side.role = client ? Role::CLIENT : Role::SERVER;
    side.program = client ? "dorve-client" : "dorve-server";
    side.ownAddress = client ? "172.20.10.2" : "172.20.10.1";
    side.peerAddress = client ? "172.20.10.1" : "172.20.10.2";
  }

  void fill(Interface& interface) {
    fill(interface.up, interface.carrier, interface.arp, interface.uplink, interface.ignoresArp);
    interface.name = oneOf({"bsab"});
    interface.master = oneOf({""});
    interface.mtu = number(1500);
    if (flip()) interface.addresses = {{flip() ? "172.20.10.1" : "172.20.10.2", number(32)}};
  }

  void fill(Route& route) {
    fill(route.local);
    route.interface = oneOf({"bsab"});
    route.gateway = oneOf({""});
    route.error = oneOf({""});
    route.table = static_cast<unsigned int>(number(254));
  }

  void fill(Link& link) {
    fill(link.interfaces, link.neighbour, link.neighbourIsFixed);
    fillSome(link.route, link.answers);
  }

  void fill(FileInfo& file) {
    fill(file.error, file.dangling, file.ownerName, file.groupIsPrivate, file.readable, file.writable);
    file.path = file.real = "/home/" + text();
    file.type = static_cast<FileInfo::Type>(number(4));
    file.owner = static_cast<unsigned int>(number(1));
    file.mode = static_cast<unsigned int>(number(07777));
    file.flag = flip() ? 'i' : '\0';
  }

  void fill(Directory& directory) {
    fill(directory.candidates, directory.ofHome, directory.isOfHome, directory.closed, directory.parents,
         directory.authorizedKeys, directory.config, directory.privateKey, directory.publicKey,
         directory.keysParents, directory.readOnly, directory.noFilesLeft);
    directory.path = flip() ? "" : "/home/" + text();
    directory.canonicalHome = flip() ? "/home" : "";
    directory.bytesFree = static_cast<std::uint64_t>(number(99999));
  }

  void fill(Process& process) {
    fill(process.program, process.stopped, process.ofRoot, process.isSession, process.runsSshd);
    process.pid = number(9);
    process.name = oneOf({"sshd", "dorve-client", "dorve-server"});
  }

  void fill(Listener& listener) {
    fill(listener.address, listener.coversOwn, listener.speaksSsh);
    listener.port = flip() ? 22 : 8888;
    if (flip()) fill(listener.owner.emplace());
  }

  void fill(Processes& processes) { fill(processes.programs, processes.misplaced, processes.listeners); }

  void fill(Condition& condition) {
    fill(condition.negated, condition.values);
    condition.field = flip() ? "tcp dport" : "ip saddr";
  }

  void fill(Firewall& firewall) {
    const std::vector<std::string> verdicts = {"accept", "drop", "reject", "jump", "goto", "return", ""};
    firewall.resize(static_cast<std::size_t>(number(2)));
    std::string last;  // the kernel allows no loops, so a chain jumps only to the one before it
    for (Chain& chain : firewall) {
      fill(chain.table, chain.name);
      chain.family = "inet";
      chain.hook = flip() ? "input" : "output";
      chain.policy = flip() ? "drop" : "accept";
      chain.rules.resize(static_cast<std::size_t>(number(3)));
      for (Rule& rule : chain.rules) {
        fill(rule.conditions.emplace_back());
        rule.verdict = verdicts[static_cast<std::size_t>(number(6))];
        if (rule.verdict == "jump" || rule.verdict == "goto") rule.target = last;
      }
      last = chain.name;
    }
  }

  void fill(Sshd& sshd) {
    fill(sshd.installed, sshd.systemd, sshd.arguments, sshd.testArguments, sshd.fault, sshd.test,
         sshd.settings, sshd.lines, sshd.changedSinceStart, sshd.loginsForbidden, sshd.readsAuthorizedKeys);
    fillSome(sshd.rehearsal, sshd.log);
    sshd.configFile = "/etc/ssh/" + text();
  }

  void fill(Pairing& pairing) {
    fill(pairing.exists, pairing.lines, pairing.hasHostLine, pairing.includesOurs, pairing.keygenPath,
         pairing.sshPath, pairing.keygen, pairing.derived, pairing.fingerprint, pairing.keysMatch,
         pairing.keyIsNewer, pairing.ssh, pairing.fault, pairing.settings, pairing.defaults,
         pairing.masterHangs, pairing.usesKey, pairing.otherUsers);
  }

  void fill(Login& login) {
    fill(login.tried, login.proven, login.user, login.outcome, login.words, login.accepted,
         login.worksWithoutConfig, login.otherUser, login.backTried, login.backProven, login.backAccepted,
         login.backWords);
  }

  FuzzedDataProvider& input;
};

static void checkTextFunctions(const std::string& text) {
  const auto [words, bare] = readScript(dorve::quoted(text));
  check(words == std::vector{text}, "a shell reads back the same word");
  check(bare == " " || isPlainWord(bare.substr(0, bare.size() - 1)), "nothing special is unquoted");
  const Settings settings(text);
  for (const std::string& line : linesOf(text)) {
    const std::size_t blank = line.find(' ');
    const std::vector<std::string> values = settings.all(line.substr(0, blank));
    check(blank == std::string::npos || std::ranges::count(values, line.substr(blank + 1)) > 0,
          "the text after the first blank of a line is a value of its setting");
  }
  const std::string message = Outcome{Outcome::End::EXITED, 1, "", text}.message();
  check(linesOf(message) == std::vector{message}, "a message is one line");
  const FaultyLine fault = findFault(message);
  check(fault.number == 0 || message.starts_with(fault.file),
        "a fault is in the file that the message names");
}

static void checkReport(const std::vector<Finding>& findings, std::size_t width) {
  const std::string text = asText(findings, {false, width});
  const std::string json = asJson(findings);
  for (const std::string& printed : {text, json}) {
    for (const char c : printed) {
      check(c < '\0' || c == '\n' || (c >= ' ' && c != 0x7F), "a report has no control characters");
    }
  }
  check(std::ranges::count(json, '\n') == static_cast<std::ptrdiff_t>(findings.size()),
        "each finding is one line");
  for (const std::string& line : split(json, "\n"))
    check(nlohmann::json::accept(line), "each line is valid JSON");
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  checkTextFunctions(text);
  checkReport({{Verdict::FAIL, "name", text, text, text}}, size % 100);
  FuzzedDataProvider hostile(data, size);
  for (const std::string& command : Filler(hostile).commands()) checkCommand(command, Filler::kMark);
  FuzzedDataProvider input(data, size);
  const std::vector<Finding> findings = judge(Filler(input).facts());
  checkReport(findings, 0);
  for (const Finding& finding : findings) checkCommand(finding.command, Filler::kMark);
  return 0;
}
