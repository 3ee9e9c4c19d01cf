// SPDX-License-Identifier: MIT
#include "dorve/doctor/settings.h"

#include <unistd.h>

#include "dorve/doctor/text.h"

namespace dorve {

Settings::Settings(std::string_view text) {
  for (const std::string& line : split(text, "\r\n")) {
    const std::size_t blank = line.find(' ');
    if (blank != std::string::npos) entries.emplace_back(line.substr(0, blank), line.substr(blank + 1));
  }
}

std::string Settings::first(std::string_view name) const {
  for (const auto& [entryName, value] : entries) {
    if (entryName == name) return value;
  }
  return "";
}

std::vector<std::string> Settings::all(std::string_view name) const {
  std::vector<std::string> values;
  for (const auto& [entryName, value] : entries) {
    if (entryName == name) values.push_back(value);
  }
  return values;
}

std::vector<std::string> Settings::words(std::string_view name) const {
  std::vector<std::string> result;
  for (const std::string& value : all(name)) {
    for (std::string& word : split(value, " \t")) result.push_back(std::move(word));
  }
  return result;
}

std::string disableLine(const std::string& message) {
  constexpr std::string_view kLine = " line ";
  const std::size_t place = message.find(kLine);
  if (place == std::string::npos) return "";
  const std::size_t number = place + kLine.size();
  const std::size_t end = message.find_first_not_of("0123456789", number);
  if (end == number || end == std::string::npos || message[end] != ':') return "";
  std::string file = message.substr(0, place);
  if (file.ends_with(':')) file.pop_back();
  const std::string sudo = access(file.c_str(), W_OK) == 0 || geteuid() == 0 ? "" : "sudo ";
  return sudo + "sed --follow-symlinks -i '" + message.substr(number, end - number) + "s/^/#/' " +
         shellWord(file);
}

}  // namespace dorve
