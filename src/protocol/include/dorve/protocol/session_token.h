// SPDX-License-Identifier: MIT
#ifndef DORVE_PROTOCOL_SESSION_TOKEN_H_
#define DORVE_PROTOCOL_SESSION_TOKEN_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace dorve {

constexpr std::uint64_t kTokenLifetimeUs = 3'600'000'000;  // one hour
constexpr std::size_t kMacSize = 32;                       // bytes of an HMAC-SHA256

/// Makes session tokens and checks their form. Neither program checks a token or its expiry.
/// A token expires at a wall-clock time, in microseconds since 1970-01-01 00:00 UTC.
class SessionToken {
 public:
  /// A new token: the HMAC-SHA256 (RFC 2104) of a random block of 32 bytes with `key`, as 64 lower-case
  /// hexadecimal digits.
  /// Throws what std::random_device throws if the system has no random device.
  static std::string generate(const void* key, std::size_t keyLength);

  /// Writes the HMAC-SHA256 of `data` to the first `kMacSize` bytes of `output`.
  /// Returns `output`, or null if libcrypto fails.
  static unsigned char* hmacSha256(const void* key, std::size_t keyLength, const void* data,
                                   std::size_t dataLength, unsigned char* output);

  /// Returns `toHex(bytes, count)`.
  static std::string bytesToHex(const unsigned char* bytes, std::size_t count);

  /// Returns whether a text is exactly 64 hexadecimal digits, in upper or lower case.
  static bool validateFormat(std::string_view text);

  /// The current time, as `MessageSerializer::getTimestampUs` puts it into headers.
  static std::uint64_t getCurrentTimeUs();

  /// `timeUs` plus `kTokenLifetimeUs`, without a check for overflow.
  static std::uint64_t calculateExpiry(std::uint64_t timeUs);

  /// Returns whether the current time is later than `expiryUs`.
  static bool isExpired(std::uint64_t expiryUs);

 private:
  friend struct TestAccess;

  static std::string generateFromSeed(std::uint64_t seed, const void* key, std::size_t keyLength);
};

}  // namespace dorve

#endif  // DORVE_PROTOCOL_SESSION_TOKEN_H_
