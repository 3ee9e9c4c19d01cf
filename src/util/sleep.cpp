// SPDX-License-Identifier: MIT
#include "dorve/util/sleep.h"

#include <cerrno>
#include <ctime>

namespace dorve {

void sleepMs(unsigned int ms) {
  timespec remaining{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1'000'000};
  while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
  }
}

}  // namespace dorve
