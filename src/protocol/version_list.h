// SPDX-License-Identifier: MIT
#ifndef DORVE_PROTOCOL_VERSION_LIST_H_
#define DORVE_PROTOCOL_VERSION_LIST_H_

#include <string_view>

namespace dorve {

/// Calls `visit` with each item of a comma-separated list until it returns true; tells whether one did.
/// Spaces and tabs around an item are trimmed, but an item of nothing else is handed over as it stands. An
/// empty list has no items, and a comma at the very end starts none.
template <typename Visit>
bool anyListItem(std::string_view list, Visit visit) {
  constexpr std::string_view kBlanks = " \t";
  std::string_view::size_type position = 0;
  while (position < list.size()) {
    const auto comma = list.find(',', position);
    std::string_view item = list.substr(position, comma - position);
    const auto first = item.find_first_not_of(kBlanks);
    if (first != std::string_view::npos) {
      item = item.substr(first, item.find_last_not_of(kBlanks) - first + 1);
    }
    if (visit(item)) return true;
    if (comma == std::string_view::npos) return false;
    position = comma + 1;
  }
  return false;
}

/// Whether `version` is, as text, one of the items of `list`; "1.0" and "DORVE/1.0" are different items.
bool listHolds(std::string_view list, std::string_view version);

}  // namespace dorve

#endif  // DORVE_PROTOCOL_VERSION_LIST_H_
