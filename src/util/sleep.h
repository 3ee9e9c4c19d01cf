// SPDX-License-Identifier: MIT
#ifndef DORVE_UTIL_SLEEP_H_
#define DORVE_UTIL_SLEEP_H_

namespace dorve {

/// Sleeps for `ms` milliseconds with nanosleep(2), going on with the remaining time after a signal. Any other
/// error ends the sleep early and is not reported.
void sleepMs(unsigned int ms);

}  // namespace dorve

#endif  // DORVE_UTIL_SLEEP_H_
