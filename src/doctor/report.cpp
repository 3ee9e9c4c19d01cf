// SPDX-License-Identifier: MIT
#include "dorve/doctor/report.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iostream>

namespace dorve {
namespace {

constexpr std::size_t kUsualWidth = 80;  // columns
constexpr std::size_t kNameWidth = 14;   // columns, with the blanks after the longest name

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

std::size_t terminalWidth() {
  winsize size = {};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kUsualWidth;
  return size.ws_col;
}

std::string padded(std::string text, std::size_t width) {
  text.resize(std::max(width, text.size()), ' ');
  return text;
}

/// The size in bytes of the UTF-8 character at the front of `text`; 0 if there is no valid one.
std::size_t characterSize(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text.front());
  if (lead < 0x80) return 1;
  const std::size_t size = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < size) return 0;
  const bool whole = std::all_of(text.begin() + 1, text.begin() + static_cast<std::ptrdiff_t>(size),
                                 [](char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; });
  // RFC 3629 forbids overlong forms, surrogates and characters above U+10FFFF.
  const auto second = static_cast<unsigned char>(size > 1 ? text[1] : '\0');
  const bool overlong = (lead == 0xE0 && second < 0xA0) || (lead == 0xF0 && second < 0x90);
  const bool surrogate = lead == 0xED && second >= 0xA0;
  const bool tooLarge = lead == 0xF4 && second >= 0x90;
  return whole && !overlong && !surrogate && !tooLarge ? size : 0;
}

/// The text in UTF-8, with '?' for each control character and each byte that is not valid UTF-8.
std::string printable(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const std::size_t size = characterSize(text);
    const auto lead = static_cast<unsigned char>(text.front());
    const bool c0Control = size < 2 && (lead < ' ' || lead == 0x7F);
    // U+0080 to U+009F are control characters too.
    const bool c1Control = size == 2 && lead == 0xC2 && static_cast<unsigned char>(text[1]) < 0xA0;
    result += size == 0 || c0Control || c1Control ? "?" : std::string(text.substr(0, size));
    text.remove_prefix(std::max<std::size_t>(size, 1));
  }
  return result;
}

/// A member of a JSON object. `value` must not contain control characters.
std::string jsonMember(const char* name, std::string_view value) {
  std::string member = std::string("\"") + name + "\": \"";
  for (const char c : value) {
    if (c == '"' || c == '\\') member += '\\';
    member += c;
  }
  return member + '"';
}

}  // namespace

Report::Report(Format wanted)
    : format(wanted),
      colour(isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr),
      width(terminalWidth()) {}

void Report::add(const Check& check) {
  failed += check.verdict == Verdict::FAIL ? 1 : 0;
  const std::string found = printable(check.found);
  const std::string cause = printable(check.cause);
  const std::string command = printable(check.command);
  const bool wrong = check.verdict == Verdict::FAIL || check.verdict == Verdict::WARN;
  std::string& first = wrong ? firstRemedy : nextStep;
  if (first.empty()) first = command;

  const VerdictStyle& style = styleOf(check.verdict);
  if (format == Format::JSON) {
    std::cout << '{' << jsonMember("check", check.name) << ", " << jsonMember("verdict", style.word) << ", "
              << jsonMember("found", found) << ", " << jsonMember("cause", cause) << ", "
              << jsonMember("command", command) << '}' << std::endl;
    return;
  }
  printLine(padded(style.word, 6) + padded(check.name, kNameWidth) + found);
  if (!cause.empty()) printLine("      why  " + cause);
  if (!command.empty()) std::cout << "      fix  " << command << std::endl;
}

int Report::finish() const {
  const int status = failed > 0 ? 1 : 0;
  if (format == Format::JSON) return status;
  std::cout << (failed > 0 ? std::to_string(failed) : "Nothing") << " failed.";
  if (!firstRemedy.empty()) {
    std::cout << " First: " << firstRemedy;
  } else if (!nextStep.empty()) {
    std::cout << " Next: " << nextStep;
  }
  std::cout << std::endl;
  return status;
}

void Report::printLine(std::string line) const {
  if (line.size() > width) {
    std::size_t end = width - std::min<std::size_t>(width, 3);
    while (end > 0 && (static_cast<unsigned char>(line[end]) & 0xC0) == 0x80) --end;  // keep characters whole
    line.resize(end);
    line += "...";
  }
  const auto style = std::ranges::find_if(kStyles, [&](const VerdictStyle& candidate) {
    return line.starts_with(std::string(candidate.word) + ' ');
  });
  if (colour && style != kStyles.end()) {
    const std::size_t word = std::string_view(style->word).size();
    line = style->colour + line.substr(0, word) + kResetColour + line.substr(word);
  }
  std::cout << line << std::endl;
}

}  // namespace dorve
