// SPDX-License-Identifier: MIT
#ifndef DORVE_UTIL_SLEEP_H_
#define DORVE_UTIL_SLEEP_H_

namespace dorve {

/// Sleeps for `ms` milliseconds. A signal does not shorten the sleep.
/// Any other error of nanosleep(2) ends it early and is not reported.
void sleepMs(unsigned int ms);

}  // namespace dorve

#endif  // DORVE_UTIL_SLEEP_H_
