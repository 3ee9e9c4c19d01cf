// SPDX-License-Identifier: MIT
#ifndef DORVE_UTIL_REPORT_ERROR_H_
#define DORVE_UTIL_REPORT_ERROR_H_

namespace dorve {

/// Prints the line "Error" on standard error. Most callers report a failure by this line alone.
void reportError();

}  // namespace dorve

#endif  // DORVE_UTIL_REPORT_ERROR_H_
