// SPDX-License-Identifier: MIT
#ifndef DORVE_GATHER_GATHER_H_
#define DORVE_GATHER_GATHER_H_

#include <optional>
#include <string>

#include "dorve/facts/facts.h"

namespace dorve {

/// What the caller wants to know.
struct Question {
  std::optional<Role> role;  ///< without a value, the addresses tell
  std::string user;          ///< whose pairing; empty: that of the user who runs this process
  int timeoutMs = 3000;      ///< for an answer from the other device
};

/// All facts that can be gathered in about 10 seconds, or three times the timeout and a second if that is
/// longer. A thread gathers them, so that nothing that hangs can delay the caller. If `isComplete` is false
/// afterwards, this thread still runs, and the caller must end the process soon. If root asks about another
/// user, this process then has that user's rights only.
struct Gathered {
  Facts facts;
  bool isComplete = false;
};
Gathered gatherFacts(const Question& question);

/// How long that may take, in milliseconds.
int totalMs(const Question& question);

/// Forgets the environment of the caller if this process runs as root, so that it decides on no command of
/// root. HOME stays, because it decides where the programs find the SSH directory.
void cleanEnvironment();

}  // namespace dorve

#endif  // DORVE_GATHER_GATHER_H_
