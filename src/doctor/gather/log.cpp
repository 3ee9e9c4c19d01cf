// SPDX-License-Identifier: MIT
// What the log of sshd says about the last login that it refused.
#include <algorithm>
#include <map>

#include "dorve/facts/text.h"
#include "dorve/gather/files.h"
#include "dorve/gather/subjects.h"

namespace dorve {
namespace {

constexpr std::size_t kLogEnd = 256 << 10;  // bytes at the end of a log file
constexpr int kJournalMs = 1500;

/// The lines of sshd in a log, oldest first. No value if there is no log.
Fact<std::vector<std::string>> readLog(const Sshd& sshd, const Deadline& deadline) {
  const std::vector<std::string> arguments = split(sshd.arguments, " ");
  std::vector<std::string> files = {"/var/log/auth.log", "/var/log/secure", "/var/log/messages"};
  if (const auto own = std::ranges::find(arguments, "-E");
      own != arguments.end() && own + 1 != arguments.end()) {
    files.insert(files.begin(), *(own + 1));
  }
  for (const std::string& file : files) {
    if (const std::string text = readEnd(file, kLogEnd); contains(text, "sshd") || file == files.front()) {
      if (!text.empty()) return linesOf(text);
    }
  }
  if (sshd.systemd) {
    const Outcome journal = runCommand({"/usr/bin/journalctl", "-q", "--no-pager", "-n", "500", "-o", "short",
                                        "_UID=0", "_COMM=sshd", "_COMM=sshd-session", "_COMM=sshd-auth"},
                                       deadline.leftMs(kJournalMs));
    if (journal.succeeded()) return linesOf(journal.out);
  }
  return Fact<std::vector<std::string>>::unknown("this device keeps no log of sshd");
}

/// The process that wrote a line: "sshd[123]" of "Nov 23 10:00:00 host sshd[123]: words".
std::string writerOf(const std::string& line) {
  const std::size_t start = line.find("sshd");
  const std::size_t end = line.find("]: ", start);
  const bool isKnown = start != std::string::npos && end != std::string::npos;
  // sshd's own log file has no prefix. Then each line stands alone.
  return isKnown ? line.substr(start, end + 1 - start) : line;
}

std::string wordsOf(const std::string& line) {
  const std::size_t end = line.find("]: ");
  const std::size_t start = end == std::string::npos ? 0 : end + 3;
  std::string words = line.substr(start);
  if (words.ends_with(" [preauth]")) words.erase(words.size() - 10);
  return words;
}

/// Whether a line says that a session ended. After a refusal, sshd writes "Disconnected from authenticating
/// user".
bool endsSession(const std::string& words) {
  constexpr const char* kEnds[] = {"Disconnected from user ", "Received disconnect from ", "Close session"};
  return std::ranges::any_of(kEnds, [&](const char* start) { return words.starts_with(start); });
}

}  // namespace

Fact<std::vector<std::string>> lastRefusal(const Side& side, const Sshd& sshd, const Deadline& deadline) {
  Fact<std::vector<std::string>> log = readLog(sshd, deadline);
  if (!log) return log;
  std::string writer;  // of the last connection from the other device
  bool wasAccepted = false;
  for (const std::string& line : *log) {
    if (!contains(line + " ", side.peerAddress + " ") || endsSession(wordsOf(line))) continue;
    writer = writerOf(line);
    wasAccepted = contains(line, "Accepted publickey");
  }
  std::vector<std::string> words;
  for (const std::string& line : *log) {
    const std::string text = wordsOf(line);
    const bool isRoutine = text.starts_with("Connection from") || text.starts_with("debug");
    if (!writer.empty() && !wasAccepted && writerOf(line) == writer && !isRoutine) words.push_back(text);
  }
  return words;
}

}  // namespace dorve
