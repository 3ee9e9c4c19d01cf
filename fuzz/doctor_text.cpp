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
    Device device = makeDevice();
    facts.user = device.user;
    facts.side = device.side;
    if (flip()) facts.link = makeLink(device.side);
    if (flip()) facts.directory = makeDirectory();
    if (flip()) facts.processes = makeProcesses(device.side);
    if (flip()) facts.firewall = makeFirewall();
    if (flip()) facts.sshd = makeSshd();
    if (flip()) facts.pairing = makePairing();
    if (flip()) facts.login = makeLogin();
    if (flip()) facts.peer = Peer{pick<PortState>(4), pick<PortState>(4)};
    return facts;
  }

 private:
  struct Device {
    User user;
    Side side;
  };

  bool flip() { return input.ConsumeBool(); }

  template <typename Enum>
  Enum pick(int last) {
    return static_cast<Enum>(input.ConsumeIntegralInRange(0, last));
  }

  /// A text without NUL, with the mark half of the time.
  std::string text() {
    std::string result = input.ConsumeRandomLengthString(24);
    std::erase(result, '\0');
    return flip() ? result + kMark : result;
  }

  std::vector<std::string> texts() {
    std::vector<std::string> result(pick<std::size_t>(2));
    for (std::string& each : result) each = text();
    return result;
  }

  Outcome outcome() { return {pick<Outcome::End>(2), pick<int>(255), text(), text()}; }
  Settings settings() { return Settings(join(texts(), " ") + "\n" + join(texts(), " ")); }
  FaultyLine fault() { return {text(), pick<int>(9), text()}; }
  Process process() { return {pick<int>(9), flip() ? "sshd" : text(), text(), flip(), flip()}; }

  FileInfo file() {
    FileInfo info;
    info.path = "/home/" + text();
    info.real = info.path;
    info.type = pick<FileInfo::Type>(4);
    info.error = text();
    info.dangling = flip();
    info.owner = pick<unsigned int>(1);
    info.ownerName = text();
    info.mode = pick<unsigned int>(07777);
    info.flag = flip() ? 'i' : '\0';
    info.readable = flip();
    return info;
  }

  Device makeDevice() {
    Device device;
    User& user = device.user;
    user.id = pick<unsigned int>(1);
    user.name = text();
    user.home = "/home";
    user.shell = text();
    user.typedBy = flip() ? "" : text();
    user.rootHelps = flip();
    user.hasSudo = flip();
    user.shellWorks = flip();
    user.startFiles = texts();
    user.locked = flip();
    user.expired = flip();
    user.passwordOld = flip();
    user.group = text();
    const bool client = flip();
    const std::string ends[] = {"172.20.10.1", "172.20.10.2"};
    Side& side = device.side;
    side.role = client ? Role::CLIENT : Role::SERVER;
    side.reason = text();
    side.isGuess = flip();
    side.program = client ? "dorve-client" : "dorve-server";
    side.ownAddress = ends[client ? 1 : 0];
    side.peerAddress = ends[client ? 0 : 1];
    return device;
  }

  Link makeLink(const Side& side) {
    Link link;
    link.interfaces.resize(pick<std::size_t>(2));
    for (Interface& interface : link.interfaces) {
      interface.name = flip() ? "bsab" : text();
      interface.up = flip();
      interface.carrier = flip();
      interface.arp = flip();
      interface.uplink = flip();
      interface.mtu = pick<int>(1500);
      interface.master = flip() ? "" : text();
      if (flip()) interface.addresses.push_back({flip() ? side.ownAddress : side.peerAddress, pick<int>(32)});
    }
    Route route;
    route.interface = flip() ? "bsab" : text();
    route.gateway = flip() ? "" : text();
    route.error = flip() ? "" : text();
    route.table = pick<unsigned int>(254);
    route.local = flip();
    if (flip()) link.route = route;
    if (flip()) link.answers = Answers{texts(), texts()};
    link.neighbour = text();
    link.neighbourIsFixed = flip();
    return link;
  }

  Directory makeDirectory() {
    Directory directory;
    directory.path = flip() ? "" : "/home/" + text();
    directory.candidates = {file()};
    directory.ofHome = file();
    directory.isOfHome = flip();
    directory.closed = text();
    directory.canonicalHome = flip() ? "/home" : "";
    if (flip()) directory.parents = {file(), file()};
    directory.authorizedKeys = file();
    directory.config = file();
    directory.privateKey = file();
    directory.publicKey = file();
    if (flip()) directory.keysParents = {file()};
    directory.readOnly = flip();
    directory.bytesFree = pick<std::uint64_t>(99999);
    return directory;
  }

  Processes makeProcesses(const Side& side) {
    Processes processes;
    for (int i = pick<int>(2); i > 0; --i) processes.programs.push_back(process());
    for (int i = pick<int>(2); i > 0; --i) {
      processes.listeners.push_back(
          {static_cast<std::uint16_t>(flip() ? 22 : 8888), text(), flip(), flip(), {}});
      if (flip()) processes.listeners.back().owner = process();
    }
    if (!processes.programs.empty() && flip()) processes.programs.front().name = side.program;
    return processes;
  }

  Firewall makeFirewall() {
    constexpr const char* kVerdicts[] = {"accept", "drop", "reject", "jump", "goto", "return", ""};
    Firewall firewall(pick<std::size_t>(2));
    std::string last;  // the kernel allows no loops, so a chain jumps only to the one before it
    for (Chain& chain : firewall) {
      chain.family = "inet";
      chain.table = text();
      chain.name = text();
      chain.hook = flip() ? "input" : "output";
      chain.policy = flip() ? "drop" : "accept";
      for (int i = pick<int>(3); i > 0; --i) {
        Rule rule;
        rule.conditions = {{flip() ? "tcp dport" : "ip saddr", flip(), texts()}};
        rule.verdict = kVerdicts[pick<int>(6)];
        if (rule.verdict == "jump" || rule.verdict == "goto") rule.target = last;
        chain.rules.push_back(rule);
      }
      last = chain.name;
    }
    return firewall;
  }

  Sshd makeSshd() {
    Sshd sshd;
    sshd.installed = flip();
    sshd.systemd = flip();
    sshd.arguments = text();
    sshd.testArguments = texts();
    sshd.configFile = "/etc/ssh/" + text();
    sshd.fault = fault();
    sshd.test = outcome();
    sshd.settings = settings();
    for (int i = pick<int>(2); i > 0; --i) sshd.lines.push_back({text(), i, toLower(text()), text(), flip()});
    sshd.changedSinceStart = flip();
    sshd.loginsForbidden = flip();
    sshd.readsAuthorizedKeys = flip();
    if (flip()) sshd.rehearsal = Rehearsal{flip(), flip(), texts()};
    if (flip()) sshd.log = texts();
    return sshd;
  }

  Pairing makePairing() {
    Pairing pairing;
    pairing.exists = flip();
    for (int i = pick<int>(2); i > 0; --i) pairing.lines.push_back({i, text(), text()});
    pairing.hasHostLine = flip();
    pairing.keygenPath = text();
    pairing.sshPath = text();
    pairing.keygen = outcome();
    pairing.derived = outcome();
    pairing.fingerprint = text();
    pairing.keysMatch = flip();
    pairing.keyIsNewer = flip();
    pairing.ssh = outcome();
    pairing.fault = fault();
    pairing.settings = settings();
    pairing.defaults = settings();
    pairing.masterHangs = flip();
    pairing.usesKey = flip();
    pairing.otherUsers = texts();
    return pairing;
  }

  Login makeLogin() {
    Login login;
    login.tried = flip();
    login.proven = flip();
    login.user = text();
    login.outcome = outcome();
    login.words = texts();
    login.accepted = flip();
    login.worksWithoutConfig = flip();
    login.otherUser = text();
    login.backTried = flip();
    login.backProven = flip();
    login.backAccepted = flip();
    login.backWords = texts();
    return login;
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
  FuzzedDataProvider input(data, size);
  const std::vector<Finding> findings = judge(Filler(input).facts());
  checkReport(findings, 0);
  for (const Finding& finding : findings) checkCommand(finding.command, Filler::kMark);
  return 0;
}
