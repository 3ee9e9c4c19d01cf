// SPDX-License-Identifier: MIT
#ifndef DORVE_GATHER_SUPERVISE_H_
#define DORVE_GATHER_SUPERVISE_H_

#include <functional>

namespace dorve {

/// Runs `work` in a child of this process and returns its result.
///
/// The child may become an ordinary user, who could stop it. This process keeps its rights, and kills the
/// child and all that the child started if the child stops, if it needs more than `limitMs` milliseconds, or
/// if SIGINT, SIGTERM or SIGHUP arrives. Then the result is 1, or this process ends by that signal.
int supervise(int limitMs, const std::function<int()>& work);

}  // namespace dorve

#endif  // DORVE_GATHER_SUPERVISE_H_
