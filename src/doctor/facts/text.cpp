// SPDX-License-Identifier: MIT
#include "dorve/facts/text.h"

#include <algorithm>
#include <cctype>

namespace dorve {

std::vector<std::string> split(std::string_view text, std::string_view separators) {
  std::vector<std::string> parts;
  std::size_t start = text.find_first_not_of(separators);
  while (start != std::string_view::npos) {
    const std::size_t end = text.find_first_of(separators, start);
    parts.emplace_back(text.substr(start, end - start));
    start = text.find_first_not_of(separators, end);
  }
  return parts;
}

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
  std::string text;
  for (const std::string& part : parts) {
    if (!text.empty()) text += separator;
    text += part;
  }
  return text;
}

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

std::string toLower(std::string text) {
  std::ranges::transform(text, text.begin(),
                         [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::vector<std::string> linesOf(std::string_view text) {
  std::vector<std::string> lines = split(text, "\r\n");
  std::erase_if(lines,
                [](const std::string& line) { return line.find_first_not_of(" \t") == std::string::npos; });
  return lines;
}

std::vector<std::string> spokenLines(std::string_view text) {
  std::vector<std::string> lines = linesOf(text);
  std::erase_if(lines, [](const std::string& line) { return line.starts_with('@'); });
  return lines;
}

bool isPlainName(std::string_view name) {
  return !name.empty() && name[0] != '-' &&
         name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-") ==
             std::string::npos;
}

}  // namespace dorve
