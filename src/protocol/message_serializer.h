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

/// The 32 bytes at the start of every message: host order in memory, big-endian on the wire.
struct [[gnu::packed, gnu::may_alias]] MessageHeader {
  std::uint32_t magic;
  std::uint16_t version;
  std::uint16_t type;
  std::uint32_t length;     ///< of the whole message in bytes, header included
  std::uint32_t checksum;   ///< of the whole message, see `MessageSerializer::setChecksum`
  std::uint64_t timestamp;  ///< the sender's `getTimestampUs` when it built the message; nobody checks it
  std::uint32_t sequence;   ///< the client's request counter; 0 in the version query and every response
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

/// What makes bytes a message: checksum, byte order of the header, the receiver's checks.
///
/// A sender fills a zeroed record in host order, then `setChecksum`, then `encodeHeader`. A receiver does
/// `decodeHeader`, `validateChecksum`, `validateHeader`. No operation throws, allocates or prints. A message
/// is at least `kHeaderSize` writable bytes, of any alignment.
class MessageSerializer {
 public:
  /// The 256 remainders of the reflected polynomial 0xEDB88320.
  static const std::array<std::uint32_t, 256> crc32_table;

  /// CRC-32/ISO-HDLC of `size` bytes (that of zlib and PNG; "123456789" gives 0xCBF43926); 0 for none.
  static std::uint32_t calculateCrc32(const void* data, std::size_t size);

  /// Stores the CRC of the first `size` bytes of a message, its `checksum` taken as 0, in `checksum`. It
  /// covers the header in host (little-endian) order, not the bytes that go over the wire.
  static void setChecksum(void* message, std::size_t size);

  /// Whether a decoded message of `size` received bytes carries its own CRC; leaves every byte as it was.
  static bool validateChecksum(void* message, std::size_t size);

  /// Both reverse each header field between host and wire order, in place, and never touch the body: one
  /// operation under the names of its two uses.
  static void encodeHeader(void* message);
  static void decodeHeader(void* message);

  /// Whether a decoded header has the magic, exactly our version, this type and this length in bytes.
  static bool validateHeader(const void* message, std::uint16_t expectedType, std::size_t expectedLength);

  /// Wall clock in microseconds since 1970-01-01 00:00 UTC.
  static std::uint64_t getTimestampUs();
};

}  // namespace dorve

#endif  // DORVE_PROTOCOL_MESSAGE_SERIALIZER_H_
