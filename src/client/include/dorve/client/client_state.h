// SPDX-License-Identifier: MIT
#ifndef DORVE_CLIENT_CLIENT_STATE_H_
#define DORVE_CLIENT_CLIENT_STATE_H_

#include <cstdint>

namespace dorve {

/// The steps of a client's run, in order. Phases 0 and 4 have no state for success:
/// the next phase, or COMPLETE, follows at once.
enum class ClientState : std::uint8_t {
  INIT = 0,
  VERSION_QUERY_SENDING = 1,
  VERSION_QUERY_SENT = 2,
  EXCHANGE_KEYS_SENDING = 3,
  EXCHANGE_KEYS_SENT = 4,
  KEYS_EXCHANGED = 5,
  VERIFY_KEYS_SENDING = 6,
  VERIFY_KEYS_SENT = 7,
  KEYS_VERIFIED = 8,
  INSTALL_KEYS_SENDING = 9,
  INSTALL_KEYS_SENT = 10,
  KEYS_INSTALLED = 11,
  CONFIRM_SENDING = 12,
  CONFIRM_SENT = 13,
  COMPLETE = 14,
  ERROR = 15,
};

/// The name of a state as the client prints it; "UNKNOWN" for a value outside the enumeration.
const char* stateName(ClientState state);

}  // namespace dorve

#endif  // DORVE_CLIENT_CLIENT_STATE_H_
