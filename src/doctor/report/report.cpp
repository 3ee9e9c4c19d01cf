// SPDX-License-Identifier: MIT
#include "dorve/report/report.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string_view>

#include "dorve/programs/printable.h"

namespace dorve {
namespace {

constexpr std::size_t kNameWidth = 14;  // columns, with the blanks after the longest name

struct VerdictStyle {
  const char* word;
  const char* colour;
};
constexpr std::array<VerdictStyle, 4> kStyles = {
    {{"ok", "\033[32m"}, {"warn", "\033[33m"}, {"FAIL", "\033[31m"}, {"skip", "\033[36m"}}};
constexpr const char* kResetColour = "\033[0m";

const VerdictStyle& styleOf(Verdict verdict) {
  return kStyles.at(static_cast<std::size_t>(verdict));
}

bool isProblem(Verdict verdict) {
  return verdict == Verdict::FAIL || verdict == Verdict::WARN;
}

std::string padded(std::string text, std::size_t width) {
  text.resize(std::max(width, text.size()), ' ');
  return text;
}

std::string toJsonText(const nlohmann::ordered_json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

/// The text in UTF-8, with U+FFFD for each byte that is not, and '?' for what could control the terminal.
std::string shown(const std::string& text) {
  return printable(nlohmann::json::parse(toJsonText(text)).get<std::string>());
}

/// The columns that a character may take on a terminal, by its first byte; 0 for its other bytes.
std::size_t columnsOf(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return (byte & 0xC0U) == 0x80 ? 0 : byte >= 0xE1 ? 2 : 1;
}

/// The line, cut to the width of the terminal.
std::string cut(const std::string& line, std::size_t width) {
  std::size_t columns = 0;
  for (const char c : line) columns += columnsOf(c);
  if (width == 0 || columns <= width) return line;
  const std::size_t kept = width - std::min<std::size_t>(width, 3);
  std::size_t end = 0;
  for (columns = 0; end < line.size(); ++end) {
    columns += columnsOf(line[end]);
    if (columns > kept) break;
  }
  return line.substr(0, end) + std::string(std::min<std::size_t>(width, 3), '.');
}

std::string lineOf(const Finding& finding, const Style& style) {
  const VerdictStyle& verdict = styleOf(finding.verdict);
  std::string line =
      cut(padded(verdict.word, 6) + padded(finding.name, kNameWidth) + shown(finding.found), style.width);
  if (!style.colour) return line;
  const std::size_t word = std::min(std::string_view(verdict.word).size(), line.size());
  return verdict.colour + line.substr(0, word) + kResetColour + line.substr(word);
}

/// The last line: how many checks failed, and what to do first.
std::string summary(const std::vector<Finding>& findings) {
  const auto failed = std::ranges::count(findings, Verdict::FAIL, &Finding::verdict);
  std::string line = (failed > 0 ? std::to_string(failed) : "Nothing") + " failed.";
  for (const char* word : {" First: ", " Next: "}) {
    const bool problems = word[1] == 'F';
    if (!problems && failed > 0) break;  // the next step is in vain until somebody has mended what failed
    for (const Finding& finding : findings) {
      if (finding.command.empty() || isProblem(finding.verdict) != problems) continue;
      return line + word + shown(finding.command);
    }
  }
  return line;
}

}  // namespace

Style Style::ofStandardOutput() {
  Style style;
  if (isatty(STDOUT_FILENO) == 0) return style;
  winsize size = {};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) style.width = size.ws_col;
  const char* terminal = std::getenv("TERM");
  style.colour =
      std::getenv("NO_COLOR") == nullptr && terminal != nullptr && std::string_view(terminal) != "dumb";
  return style;
}

std::string asText(const std::vector<Finding>& findings, const Style& style) {
  std::string text;
  for (const Finding& finding : findings) {
    text += lineOf(finding, style) + "\n";
    if (!finding.cause.empty()) text += cut("      why  " + shown(finding.cause), style.width) + "\n";
    if (!finding.command.empty()) text += "      fix  " + shown(finding.command) + "\n";
  }
  return text + summary(findings) + "\n";
}

std::string asJson(const std::vector<Finding>& findings) {
  std::string text;
  for (const Finding& finding : findings) {
    const nlohmann::ordered_json object = {{"check", finding.name},
                                           {"verdict", styleOf(finding.verdict).word},
                                           {"found", shown(finding.found)},
                                           {"cause", shown(finding.cause)},
                                           {"command", shown(finding.command)}};
    text += toJsonText(object) + "\n";
  }
  return text;
}

}  // namespace dorve
