// SPDX-License-Identifier: MIT
#include "dorve/checks/script.h"

#include <algorithm>
#include <utility>

#include "dorve/facts/text.h"

namespace dorve {
namespace {

constexpr const char* kByteOrderMark = "\xEF\xBB\xBF";

/// The character at the front of `text`, and its size in bytes; 0 bytes if it is not valid UTF-8 or has more
/// than 3.
std::pair<char32_t, std::size_t> decode(std::string_view text) {
  const auto byte = [&](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
  const auto continues = [&](std::size_t i) { return (byte(i) & 0xC0U) == 0x80; };
  if (byte(0) < 0x80) return {byte(0), 1};
  if (byte(0) >= 0xC2 && byte(0) < 0xE0 && continues(1))
    return {(byte(0) & 0x1FU) << 6 | (byte(1) & 0x3FU), 2};
  if (byte(0) < 0xE1 || byte(0) >= 0xF0 || !continues(1) || !continues(2)) return {0, 0};
  return {(byte(0) & 0x0FU) << 12 | (byte(1) & 0x3FU) << 6 | (byte(2) & 0x3FU), 3};
}

/// The first run of letters in a line, in lower case.
std::string firstWord(const std::string& line) {
  const auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  const auto start = std::ranges::find_if(line, isLetter);
  return toLower(std::string(start, std::find_if_not(start, line.end(), isLetter)));
}

/// The text as a basic regular expression that matches it. A control character matches any character, because
/// no command may hold one.
std::string asPattern(const std::string& text) {
  std::string pattern;
  for (const char c : text) {
    if (std::string_view(R"(\/.*[]^$)").find(c) != std::string_view::npos) pattern += '\\';
    pattern += static_cast<unsigned char>(c) < ' ' || c == '\x7F' ? '.' : c;
  }
  return pattern;
}

}  // namespace

bool isPlainWord(std::string_view text) {
  return !text.empty() && text.find_first_not_of(
                              "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                              "0123456789@%+=:,./_-") == std::string_view::npos;
}

bool isSafeForShell(std::string_view path) {
  return path.find_first_of(" \t\r\n\"'$`\\|&;<>()*?[]") == std::string_view::npos;
}

std::string quoted(std::string_view word) {
  if (isPlainWord(word)) return std::string(word);
  std::string text = "'";
  for (const char c : word) {
    if (c == '\'') {
      text += R"('\'')";
    } else {
      text += c;
    }
  }
  return text + "'";
}

bool isShowable(std::string_view text) {
  constexpr std::pair<char32_t, char32_t> kShown[] = {{0x20, 0x7E},     {0xA1, 0xAC},     {0xAE, 0x58A},
                                                      {0x3041, 0x30FF}, {0x4E00, 0x9FFF}, {0xAC00, 0xD7A3}};
  while (!text.empty()) {
    const auto [character, size] = decode(text);
    const bool isShown = std::ranges::any_of(
        kShown, [at = character](const auto& range) { return at >= range.first && at <= range.second; });
    if (size == 0 || !isShown) return false;
    text.remove_prefix(size);
  }
  return true;
}

bool isOneCommand(const std::string& script) {
  return script.find_first_of("&|;<>(){}$`*[!\n") == std::string::npos;
}

std::string withArguments(const std::string& command, const std::vector<std::string>& arguments) {
  std::vector<std::string> words = {command};
  for (const std::string& argument : arguments) words.push_back(quoted(argument));
  return join(words, " ");
}

std::string printLines(const std::vector<std::string>& lines) {
  return withArguments("printf '%s\\n'", lines);
}

std::string putFirst(const std::string& line, const std::string& file) {
  const std::string name = quoted(file);
  return "{ grep -sqxF " + quoted(line) + " " + name + " || { [ -s " + name + " ] || echo >>" + name +
         "; sed --follow-symlinks -i " + quoted("1i " + line) + " " + name + "; }; }";
}

std::string signalScript(const Process& process, const std::string& signal) {
  const std::string id = std::to_string(process.pid);
  const std::string kill = "kill " + (signal.empty() ? "" : "-" + signal + " ") + id;
  return process.program.empty() ? kill
                                 : "[ /proc/" + id + "/exe -ef " + quoted(process.program) + " ] && " + kill;
}

std::string editScript(const std::string& file, int number, const std::string& text,
                       const std::string& change) {
  return "sed --follow-symlinks -i " +
         quoted(std::to_string(number) + "{/^" + asPattern(text) + "$/" + change + "}") + " " + quoted(file);
}

std::string disableScript(const FaultyLine& line) {
  const std::string word = firstWord(line.text);
  if (line.text.starts_with(kByteOrderMark)) {
    return R"(sed --follow-symlinks -i '1s/^\xef\xbb\xbf//' )" + quoted(line.file);
  }
  if (line.number == 0 || word == "host" || word == "match") return "";
  return editScript(line.file, line.number, line.text, "s/^/#/");
}

}  // namespace dorve
