// SPDX-License-Identifier: MIT
#include "dorve/server/stop_watcher.h"

#include <cerrno>

#include "dorve/net/nq_socket.h"
#include "dorve/net/wait.h"

namespace dorve {

bool StopWatcher::awaitBytes(int timeoutMs) {
  if (ended) return false;
  if (!stopped) {
    const Wake wake = awaitReadable(connection, stop, timeoutMs);
    if (wake == Wake::READABLE) return true;
    if (wake == Wake::TIMED_OUT) throw NqSocketException("Receive timeout", EAGAIN);
    stopped = true;
    finishBy = Clock::now() + kFinishTimeout;
  }
  ended = !finishing || !awaitLastBytes();
  return !ended;
}

bool StopWatcher::awaitLastBytes() {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(finishBy - Clock::now()).count();
  return left > 0 && awaitReadable(connection, -1, static_cast<int>(left)) == Wake::READABLE;
}

}  // namespace dorve
