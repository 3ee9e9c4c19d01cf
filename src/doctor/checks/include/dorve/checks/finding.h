// SPDX-License-Identifier: MIT
#ifndef DORVE_CHECKS_FINDING_H_
#define DORVE_CHECKS_FINDING_H_

#include <cstdint>
#include <string>

namespace dorve {

enum class Verdict : std::uint8_t {
  OK,
  WARN,
  FAIL,
  SKIP,  ///< not checked, or nothing to check yet
};

/// What a problem would prevent. A login that works proves that nothing prevents it.
enum class Serves : std::uint8_t { PAIRING, LOGIN_THERE, LOGIN_HERE };

/// The result of one check.
struct Finding {
  Verdict verdict;
  std::string name;       ///< lower case with hyphens; scripts rely on it
  std::string found;      ///< one line
  std::string cause{};    ///< why that is a problem, in plain words; may be empty
  std::string command{};  ///< the command that fixes it, ready to paste; may be empty
  Serves serves = Serves::PAIRING;
};

}  // namespace dorve

#endif  // DORVE_CHECKS_FINDING_H_
