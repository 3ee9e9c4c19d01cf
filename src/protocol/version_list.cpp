// SPDX-License-Identifier: MIT
#include "dorve/protocol/version_list.h"

namespace dorve {

bool listHolds(std::string_view list, std::string_view version) {
  return anyListItem(list, [version](std::string_view item) { return item == version; });
}

}  // namespace dorve
