// SPDX-License-Identifier: MIT
#include "dorve/facts/device.h"

#include <algorithm>

namespace dorve {

bool Interface::has(const std::string& address) const {
  return std::ranges::any_of(addresses, [&](const Address& own) { return own.text == address; });
}

std::string Interface::state() const {
  if (!up) return "down";
  return carrier ? "up" : "up, no carrier";
}

bool Process::isSshd() const {
  return ofRoot && name == "sshd" && !isSession && (program.empty() || runsSshd);
}

const Process* Processes::sshd() const {
  const Process* any = nullptr;
  for (const Listener& listener : listeners) {
    if (!listener.owner || !listener.owner->isSshd()) continue;
    if (listener.port == kSshPort && listener.coversOwn) return &*listener.owner;
    if (any == nullptr) any = &*listener.owner;
  }
  return any;
}

}  // namespace dorve
