// SPDX-License-Identifier: MIT
#include "dorve/net/wait.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iterator>

#include "dorve/net/nq_socket.h"

namespace dorve {

Wake awaitReadable(int descriptor, int stop, int timeoutMs) {
  // poll(2) would ignore it and wait indefinitely.
  if (descriptor < 0) throw NqSocketException("Wait failed", EBADF);
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
  for (int remainingMs = timeoutMs;;) {
    pollfd waits[] = {{stop, POLLIN, 0}, {descriptor, POLLIN, 0}};
    const int ready = poll(waits, std::size(waits), remainingMs);
    if (ready > 0) return waits[0].revents != 0 ? Wake::STOPPED : Wake::READABLE;
    if (ready == 0) return Wake::TIMED_OUT;
    if (errno != EINTR) throw NqSocketException("Wait failed", errno);
    if (timeoutMs == kNoTimeoutMs) continue;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    remainingMs = static_cast<int>(std::max<long long>(left, 0));
  }
}

}  // namespace dorve
