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

std::vector<std::string_view> splitList(std::string_view list) {
  std::vector<std::string_view> items;
  while (!list.empty()) {
    const auto comma = std::min(list.find(','), list.size());
    items.push_back(trim(list.substr(0, comma)));
    list.remove_prefix(std::min(comma + 1, list.size()));
  }
  return items;
}

bool listContains(std::string_view list, std::string_view version) {
  const auto items = splitList(list);
  return std::ranges::find(items, version) != items.end();
}

}  // namespace dorve
