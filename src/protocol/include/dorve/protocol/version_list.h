// SPDX-License-Identifier: MIT
#ifndef DORVE_PROTOCOL_VERSION_LIST_H_
#define DORVE_PROTOCOL_VERSION_LIST_H_

#include <string_view>

/// Lists of protocol versions: texts with commas between the versions, such as "1.0, 2.0".
namespace dorve {

/// The protocol version that both sides speak, and the only item of each side's list.
constexpr const char* kOwnVersion = "1.0";

/// Takes the first item off `list`, which is not empty. Returns it without the spaces and tabs around it. An
/// item of only spaces and tabs keeps them. A comma at the end starts no item. The item points into the text
/// of `list`.
std::string_view takeItem(std::string_view& list);

/// Returns whether an item of `list` equals `version` as text: "1.0" and "DORVE/1.0" are different.
bool listContains(std::string_view list, std::string_view version);

}  // namespace dorve

#endif  // DORVE_PROTOCOL_VERSION_LIST_H_
