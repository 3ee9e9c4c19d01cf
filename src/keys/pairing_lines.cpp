// SPDX-License-Identifier: MIT
#include "dorve/keys/pairing_lines.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <span>

namespace dorve {
namespace {

constexpr std::array<std::string_view, 3> kFixedSettings = {"IdentitiesOnly yes", "StrictHostKeyChecking no",
                                                            "UserKnownHostsFile /dev/null"};

/// A line of a text: the bytes from `from` to before `end`, the newline or the end of the text.
struct Line {
  std::size_t number;
  std::size_t from;
  std::size_t end;
};

std::vector<Line> linesOf(std::string_view text) {
  std::vector<Line> lines;
  for (std::size_t from = 0; from < text.size(); from = lines.back().end + 1) {
    lines.push_back({lines.size() + 1, from, std::min(text.find('\n', from), text.size())});
  }
  return lines;
}

std::string_view trimmed(std::string_view line) {
  constexpr const char* kBlanks = " \t\r\f\v";
  const std::size_t from = line.find_first_not_of(kBlanks);
  return from == std::string_view::npos ? "" : line.substr(from, line.find_last_not_of(kBlanks) - from + 1);
}

/// The words of a line of config. ssh accepts a "=" after the first word, and quotes.
std::vector<std::string> wordsOf(std::string_view line) {
  constexpr const char* kSeparators = " \t\r\f\v=\"";
  std::vector<std::string> words;
  std::size_t from = line.find_first_not_of(kSeparators);
  while (from != std::string_view::npos) {
    const std::size_t end = line.find_first_of(kSeparators, from);
    words.emplace_back(line.substr(from, end - from));
    from = line.find_first_not_of(kSeparators, end);
  }
  return words;
}

/// Finds the blocks of a pairing in one config.
class BlockFinder {
 public:
  BlockFinder(std::string_view fileText, const std::string& directory, const std::string& name,
              const std::vector<std::string>& addresses)
      : text(fileText), sshDir(directory), keyName(name), hosts(addresses) {}

  std::vector<FoundLines> find() const {
    std::vector<FoundLines> found;
    std::vector<Line> section;  // the settings from one line Host or Match to the next, without comments
    for (const Line& line : linesOf(text)) {
      const std::string_view setting = trimmed(textOf(line));
      if (setting.empty() || setting.front() == '#') continue;
      const std::string keyword = wordsOf(setting).empty() ? "" : wordsOf(setting).front();
      if (strcasecmp(keyword.c_str(), "Host") == 0 || strcasecmp(keyword.c_str(), "Match") == 0) {
        judge(section, found);
        section.clear();
      }
      section.push_back(line);
    }
    judge(section, found);
    includeNewlines(found);
    return found;
  }

 private:
  std::string_view textOf(const Line& line) const { return text.substr(line.from, line.end - line.from); }

  void judge(const std::vector<Line>& section, std::vector<FoundLines>& found) const {
    if (section.empty()) return;
    const Line &first = section.front(), &last = section.back();
    if (isUnchanged(section)) {
      found.push_back({first.number, last.number, first.from, std::min(last.end + 1, text.size())});
    } else if (isChanged(section)) {
      found.push_back({first.number, last.number});
    }
  }

  bool isUnchanged(const std::vector<Line>& section) const {
    const std::size_t from = section.front().from;
    const std::string lines = std::string(text.substr(from, section.back().end - from)) + "\n";
    return std::ranges::any_of(
        hosts, [&](const std::string& host) { return lines == hostBlock(sshDir, keyName, host); });
  }

  bool isChanged(const std::vector<Line>& section) const {
    const std::vector<std::string> words = wordsOf(textOf(section.front()));
    if (words.empty() || strcasecmp(words.front().c_str(), "Host") != 0) return false;
    const bool isForHost = std::ranges::any_of(
        hosts, [&](const std::string& host) { return std::ranges::count(words, host) > 0; });
    return std::ranges::any_of(std::span(section).subspan(1), [&](const Line& line) {
      const bool isFixed = std::ranges::count(kFixedSettings, trimmed(textOf(line))) > 0;
      return (isForHost && isFixed) || textOf(line).find(keyName) != std::string_view::npos;
    });
  }

  /// Adds to each block what the pairing wrote before it: a newline. It made an empty line if the text before
  /// ended with a newline. Otherwise it ended a foreign line, and goes only if no foreign line follows.
  void includeNewlines(std::vector<FoundLines>& found) const {
    std::size_t end = text.size();  // of the text without the blocks at its end
    std::for_each(found.rbegin(), found.rend(), [&](FoundLines& block) {
      if (block.isChanged()) return;
      const bool isAtEnd = block.to >= end;
      const std::string_view before = text.substr(0, block.from);
      if (!before.empty() && (isAtEnd || before == "\n" || before.ends_with("\n\n"))) --block.from;
      if (isAtEnd) end = block.from;
    });
  }

  std::string_view text;
  const std::string& sshDir;
  const std::string& keyName;
  const std::vector<std::string>& hosts;
};

}  // namespace

std::string hostBlock(const std::string& sshDir, const std::string& keyName, const std::string& host) {
  std::string block = "Host " + host + "\n    IdentityFile " + sshDir + "/" + keyName + "\n";
  for (const std::string_view setting : kFixedSettings) block.append("    ").append(setting).append("\n");
  return block;
}

std::vector<FoundLines> findKeyLines(std::string_view text, std::string_view keyName) {
  std::vector<FoundLines> found;
  for (const Line& line : linesOf(text)) {
    if (text.substr(line.from, line.end - line.from).find(keyName) == std::string_view::npos) continue;
    found.push_back({line.number, line.number, line.from, std::min(line.end + 1, text.size())});
  }
  return found;
}

std::vector<FoundLines> findHostBlocks(std::string_view text, const std::string& sshDir,
                                       const std::string& keyName, const std::vector<std::string>& hosts) {
  return BlockFinder(text, sshDir, keyName, hosts).find();
}

TextTail eraseFound(std::string_view text, const std::vector<FoundLines>& found) {
  TextTail tail{text.size(), ""};
  std::size_t kept = text.size();  // start of the text that stays and is not in `tail` yet
  for (const FoundLines& lines : found) {
    if (lines.isChanged()) continue;
    tail.from = std::min(tail.from, lines.from);
    if (lines.from > kept) tail.text += text.substr(kept, lines.from - kept);
    kept = lines.to;
  }
  tail.text += text.substr(kept);
  return tail;
}

}  // namespace dorve
