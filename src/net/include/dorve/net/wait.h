// SPDX-License-Identifier: MIT
#ifndef DORVE_NET_WAIT_H_
#define DORVE_NET_WAIT_H_

namespace dorve {

/// What ended a wait.
enum class Wake { READABLE, STOPPED, TIMED_OUT };

/// A timeout that never passes.
constexpr int kNoTimeoutMs = -1;

/// Waits until `descriptor` is readable, or `stop` is. Also returns if one of them fails or its peer closes
/// it, so that the caller's next call on `descriptor` reports the failure. If both are ready, returns
/// STOPPED. Reads nothing. `stop` can be -1, for none. A signal does not end the wait. Throws
/// NqSocketException "Wait failed" if `descriptor` is negative or the system lacks memory.
Wake awaitReadable(int descriptor, int stop, int timeoutMs);

}  // namespace dorve

#endif  // DORVE_NET_WAIT_H_
