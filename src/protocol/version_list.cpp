// SPDX-License-Identifier: MIT
#include "dorve/protocol/version_list.h"

#include <algorithm>

namespace dorve {
namespace {

constexpr std::string_view kBlanks = " \t";

std::string_view trim(std::string_view item) {
  const auto first = item.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return item;
  return item.substr(first, item.find_last_not_of(kBlanks) - first + 1);
}

}  // namespace

std::string_view takeItem(std::string_view& list) {
  const auto comma = std::min(list.find(','), list.size());
  const std::string_view item = trim(list.substr(0, comma));
  list.remove_prefix(std::min(comma + 1, list.size()));
  return item;
}

bool listContains(std::string_view list, std::string_view version) {
  while (!list.empty()) {
    if (takeItem(list) == version) return true;
  }
  return false;
}

}  // namespace dorve
