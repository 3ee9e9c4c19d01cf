// SPDX-License-Identifier: MIT
#include "dorve/facts/outcome.h"

#include <algorithm>

#include "dorve/facts/text.h"

namespace dorve {
namespace {

constexpr std::size_t kMaxMessage = 1024;  // bytes

}  // namespace

std::string Outcome::message() const {
  if (end == End::NOT_FOUND) return "not found";
  if (end == End::TIMED_OUT) return "timed out";
  const std::vector<std::string> lines = spokenLines(err + '\n' + out);
  return lines.empty() ? "exit status " + std::to_string(status) : lines.front().substr(0, kMaxMessage);
}

Settings::Settings(std::string_view text) {
  for (const std::string& line : linesOf(text)) {
    const std::size_t blank = line.find(' ');
    if (blank != std::string::npos) entries.emplace_back(line.substr(0, blank), line.substr(blank + 1));
  }
}

std::string Settings::first(std::string_view name) const {
  const auto found = std::ranges::find_if(entries, [&](const auto& entry) { return entry.first == name; });
  return found == entries.end() ? "" : found->second;
}

std::vector<std::string> Settings::all(std::string_view name) const {
  std::vector<std::string> values;
  for (const auto& [entryName, value] : entries) {
    if (entryName == name) values.push_back(value);
  }
  return values;
}

std::vector<std::string> Settings::names() const {
  std::vector<std::string> names;
  for (const auto& entry : entries) {
    if (std::ranges::find(names, entry.first) == names.end()) names.push_back(entry.first);
  }
  return names;
}

}  // namespace dorve
