// SPDX-License-Identifier: MIT
#ifndef DORVE_PROTOCOL_REQUEST_ID_GENERATOR_H_
#define DORVE_PROTOCOL_REQUEST_ID_GENERATOR_H_

#include <cstdint>
#include <string>

namespace dorve {

/// Generates the ids of client requests: "REQ-PREFIX-MILLISECONDS-RANDOM".
class RequestIdGenerator {
 public:
  /// The steady clock in milliseconds. Values from two devices, or from two boots, cannot be compared.
  static std::uint64_t getMonotonicTimeMs();

  /// The next value of the process's only std::mt19937. std::random_device seeds it on first use.
  /// Despite the name, an observer can predict the values: they make ids unique, not secret.
  /// Throws what std::random_device throws if the system has no random device.
  static std::uint32_t getSecureRandom();

  /// A new id: "REQ-", `prefix`, "-", `getMonotonicTimeMs` in decimal, "-", and `getSecureRandom` as
  /// 8 lower-case hexadecimal digits. A null prefix gives "REQ-" alone.
  static std::string generate(const char* prefix);

 private:
  friend struct TestAccess;

  static std::string format(const char* prefix, std::uint64_t ms, std::uint32_t random);
};

}  // namespace dorve

#endif  // DORVE_PROTOCOL_REQUEST_ID_GENERATOR_H_
