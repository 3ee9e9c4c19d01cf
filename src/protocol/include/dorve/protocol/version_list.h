// SPDX-License-Identifier: MIT
#ifndef DORVE_PROTOCOL_VERSION_LIST_H_
#define DORVE_PROTOCOL_VERSION_LIST_H_

#include <string_view>
#include <vector>

/// Lists of protocol versions: texts with commas between the versions, such as "1.0, 2.0".
namespace dorve {

/// The protocol version that both sides speak, and the only item of each side's list.
constexpr const char* kOwnVersion = "1.0";

/// The items of a list, without the spaces and tabs around them. An item of only spaces and tabs keeps them.
/// An empty list has no items, and a comma at the end starts no item. The items point into `list`.
std::vector<std::string_view> splitList(std::string_view list);

/// Returns whether an item of `list` equals `version` as text: "1.0" and "DORVE/1.0" are different.
bool listContains(std::string_view list, std::string_view version);

}  // namespace dorve

#endif  // DORVE_PROTOCOL_VERSION_LIST_H_
