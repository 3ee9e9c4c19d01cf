// SPDX-License-Identifier: MIT
#include "dorve/client/client_state.h"

#include <cstddef>
#include <iterator>

namespace dorve {
namespace {

constexpr const char* kNames[] = {
    "INIT",
    "VERSION_QUERY_SENDING",
    "VERSION_QUERY_SENT",
    "EXCHANGE_KEYS_SENDING",
    "EXCHANGE_KEYS_SENT",
    "KEYS_EXCHANGED",
    "VERIFY_KEYS_SENDING",
    "VERIFY_KEYS_SENT",
    "KEYS_VERIFIED",
    "INSTALL_KEYS_SENDING",
    "INSTALL_KEYS_SENT",
    "KEYS_INSTALLED",
    "CONFIRM_SENDING",
    "CONFIRM_SENT",
    "COMPLETE",
    "ERROR",
};

}  // namespace

const char* stateName(ClientState state) {
  const auto index = static_cast<std::size_t>(state);
  return index < std::size(kNames) ? kNames[index] : "UNKNOWN";
}

}  // namespace dorve
