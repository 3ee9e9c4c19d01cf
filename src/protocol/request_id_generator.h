// SPDX-License-Identifier: MIT
#ifndef DORVE_PROTOCOL_REQUEST_ID_GENERATOR_H_
#define DORVE_PROTOCOL_REQUEST_ID_GENERATOR_H_

#include <cstdint>
#include <string>

namespace dorve {

/// Makes the ids that a client gives its requests: "REQ-PREFIX-MILLISECONDS-RANDOM".
class RequestIdGenerator {
 public:
  /// Milliseconds of the steady clock, whose origin is its own: no two machines or boots compare.
  static std::uint64_t getMonotonicTimeMs();

  /// A value of the process-wide generator, which is seeded from the system's random device on first use.
  /// Throws what std::random_device throws when there is none.
  static std::uint32_t getSecureRandom();

  /// A fresh id: `prefix`, the milliseconds in decimal, a random value as 8 lower-case hexadecimal digits. A
  /// null prefix gives exactly "REQ-".
  static std::string generate(const char* prefix);

 private:
  friend struct TestAccess;

  static std::string format(const char* prefix, std::uint64_t ms, std::uint32_t random);
};

}  // namespace dorve

#endif  // DORVE_PROTOCOL_REQUEST_ID_GENERATOR_H_
