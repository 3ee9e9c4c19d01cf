// SPDX-License-Identifier: MIT
#ifndef DORVE_PROTOCOL_MESSAGE_SERIALIZER_H_
#define DORVE_PROTOCOL_MESSAGE_SERIALIZER_H_

#include <array>
#include <cstddef>
#include <cstdint>

namespace dorve {

constexpr std::size_t kHeaderSize = 32;
constexpr std::uint32_t kHeaderMagic = 0x444F5256;  // "DORV" on the wire
constexpr std::uint16_t kProtocolVersion = 0x0100;

/// The first 32 bytes of every message. The fields are in host byte order in memory, big-endian on the wire.
struct [[gnu::packed, gnu::may_alias]] MessageHeader {
  std::uint32_t magic;
  std::uint16_t version;
  std::uint16_t type;
  std::uint32_t length;     ///< bytes of the whole message, header included
  std::uint32_t checksum;   ///< CRC of the whole message, see `MessageSerializer::setChecksum`
  std::uint64_t timestamp;  ///< `getTimestampUs` when the sender built the message; receivers ignore it
  std::uint32_t sequence;   ///< counts the requests after VersionQuery from 0; 0 in all other messages
  std::uint32_t reserved;
};

static_assert(sizeof(MessageHeader) == kHeaderSize);
static_assert(offsetof(MessageHeader, magic) == 0);
static_assert(offsetof(MessageHeader, version) == 4);
static_assert(offsetof(MessageHeader, type) == 6);
static_assert(offsetof(MessageHeader, length) == 8);
static_assert(offsetof(MessageHeader, checksum) == 12);
static_assert(offsetof(MessageHeader, timestamp) == 16);
static_assert(offsetof(MessageHeader, sequence) == 24);
static_assert(offsetof(MessageHeader, reserved) == 28);

/// Checksum, header byte order and validity of messages.
///
/// A sender fills a zeroed record in host order, then calls `setChecksum`, then `encodeHeader`.
/// A receiver calls `decodeHeader`, `validateChecksum` and `validateHeader`.
/// A `message` is at least `kHeaderSize` writable bytes, of any alignment.
/// No operation throws, allocates or prints.
class MessageSerializer {
 public:
  /// The remainder of each byte value for the reflected polynomial 0xEDB88320.
  static const std::array<std::uint32_t, 256> crc32_table;

  /// The CRC-32/ISO-HDLC of `size` bytes, as in zlib and PNG: "123456789" gives 0xCBF43926, no bytes give 0.
  static std::uint32_t calculateCrc32(const void* data, std::size_t size);

  /// Sets `checksum` to the CRC of the first `size` bytes of a message, computed with `checksum` as 0.
  /// The header must be in host (little-endian) order, so the CRC does not match the bytes on the wire.
  static void setChecksum(void* message, std::size_t size);

  /// Returns whether `checksum` is the CRC of the first `size` bytes of a message with a decoded header.
  /// Sets `checksum` to 0 for the computation and restores it afterwards.
  static bool validateChecksum(void* message, std::size_t size);

  /// Convert the header in place between host and wire order, and leave the body as it is.
  /// Both do the same: they reverse the bytes of each field.
  static void encodeHeader(void* message);
  static void decodeHeader(void* message);

  /// Returns whether a decoded header has the right magic and version, and the expected type and length.
  static bool validateHeader(const void* message, std::uint16_t expectedType, std::size_t expectedLength);

  /// The wall clock in microseconds since 1970-01-01 00:00 UTC.
  static std::uint64_t getTimestampUs();
};

}  // namespace dorve

#endif  // DORVE_PROTOCOL_MESSAGE_SERIALIZER_H_
