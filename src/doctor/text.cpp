// SPDX-License-Identifier: MIT
#include "dorve/doctor/text.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>

#include "dorve/keys/file_text.h"

namespace dorve {
namespace {

constexpr off_t kMaxFileSize = 64 << 20;  // bytes

}  // namespace

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

std::string toLower(std::string text) {
  std::ranges::transform(text, text.begin(),
                         [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool isPlainWord(std::string_view text) {
  return !text.empty() && text.find_first_not_of(
                              "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                              "0123456789@%+=:,./_-") == std::string_view::npos;
}

std::string shellWord(std::string_view word) {
  if (isPlainWord(word)) return std::string(word);
  std::string quoted = "'";
  for (const char c : word) {
    if (c == '\'') {
      quoted += R"('\'')";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

bool isRegularFile(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::string readRegularFile(const std::string& path) {
  struct stat status = {};
  if (!isRegularFile(path) || stat(path.c_str(), &status) != 0 || status.st_size > kMaxFileSize) return "";
  return readFileText(path).value_or("");
}

}  // namespace dorve
