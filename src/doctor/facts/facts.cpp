// SPDX-License-Identifier: MIT
#include "dorve/facts/facts.h"

#include <algorithm>

#include "dorve/net/endpoints.h"

namespace dorve {

const Interface* linkOf(const Link& link, const Side& side) {
  const auto find = [&](auto&& matches) -> const Interface* {
    const auto found = std::ranges::find_if(link.interfaces, matches);
    return found == link.interfaces.end() ? nullptr : &*found;
  };
  const Interface* named = find([](const Interface& each) { return each.name == kLinkInterface; });
  if (side.role == Role::CLIENT && named != nullptr) return named;
  const auto hasAddress = [&](const Interface& each) { return each.has(side.ownAddress); };
  const Interface* routed = find([&](const Interface& each) {
    return hasAddress(each) && link.route && link.route->interface == each.name;
  });
  if (routed != nullptr) return routed;
  const Interface* addressed = find(hasAddress);
  return addressed != nullptr ? addressed : named;
}

}  // namespace dorve
