// SPDX-License-Identifier: MIT
#include "dorve/client/client_state.h"

namespace dorve {

const char* stateName(ClientState state) {
  // Without a default, the compiler warns about a state that has no case.
  switch (state) {
    case ClientState::INIT:
      return "INIT";
    case ClientState::VERSION_QUERY_SENDING:
      return "VERSION_QUERY_SENDING";
    case ClientState::VERSION_QUERY_SENT:
      return "VERSION_QUERY_SENT";
    case ClientState::EXCHANGE_KEYS_SENDING:
      return "EXCHANGE_KEYS_SENDING";
    case ClientState::EXCHANGE_KEYS_SENT:
      return "EXCHANGE_KEYS_SENT";
    case ClientState::KEYS_EXCHANGED:
      return "KEYS_EXCHANGED";
    case ClientState::VERIFY_KEYS_SENDING:
      return "VERIFY_KEYS_SENDING";
    case ClientState::VERIFY_KEYS_SENT:
      return "VERIFY_KEYS_SENT";
    case ClientState::KEYS_VERIFIED:
      return "KEYS_VERIFIED";
    case ClientState::INSTALL_KEYS_SENDING:
      return "INSTALL_KEYS_SENDING";
    case ClientState::INSTALL_KEYS_SENT:
      return "INSTALL_KEYS_SENT";
    case ClientState::KEYS_INSTALLED:
      return "KEYS_INSTALLED";
    case ClientState::CONFIRM_SENDING:
      return "CONFIRM_SENDING";
    case ClientState::CONFIRM_SENT:
      return "CONFIRM_SENT";
    case ClientState::COMPLETE:
      return "COMPLETE";
    case ClientState::ERROR:
      return "ERROR";
  }
  return "UNKNOWN";
}

}  // namespace dorve
