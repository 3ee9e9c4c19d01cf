// SPDX-License-Identifier: MIT
#ifndef DORVE_PROTOCOL_SESSION_TOKEN_H_
#define DORVE_PROTOCOL_SESSION_TOKEN_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace dorve {

constexpr std::uint64_t kTokenLifetimeUs = 3'600'000'000;  // one hour

/// Session tokens: 64 hexadecimal characters, the HMAC-SHA256 (RFC 2104) of a random block, and their expiry
/// in wall-clock microseconds since 1970-01-01 00:00 UTC.
class SessionToken {
 public:
  /// A new token. `key` is the HMAC key; the random block is the message. Throws what std::random_device
  /// throws when there is none.
  static std::string generate(const void* key, std::size_t keyLength);

  /// HMAC-SHA256 into `output` of 32 bytes; returns `output`, or null when the library fails.
  static unsigned char* hmacSha256(const void* key, std::size_t keyLength, const void* data,
                                   std::size_t dataLength, unsigned char* output);

  /// Two lower-case hexadecimal characters a byte, most significant digit first.
  static std::string bytesToHex(const unsigned char* bytes, std::size_t count);

  /// Whether a text is exactly 64 hexadecimal characters, of either case.
  static bool validateFormat(std::string_view text);

  /// Wall clock, the reading of `MessageSerializer::getTimestampUs`.
  static std::uint64_t getCurrentTimeUs();

  /// `timeUs` plus `kTokenLifetimeUs`, unchecked.
  static std::uint64_t calculateExpiry(std::uint64_t timeUs);

  /// Whether `expiryUs` has passed; at that very microsecond it has not.
  static bool isExpired(std::uint64_t expiryUs);

 private:
  friend struct TestAccess;

  static std::string generateFromSeed(std::uint64_t seed, const void* key, std::size_t keyLength);
};

}  // namespace dorve

#endif  // DORVE_PROTOCOL_SESSION_TOKEN_H_
