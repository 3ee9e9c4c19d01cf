// SPDX-License-Identifier: MIT
#include "dorve/protocol/message_serializer.h"

#include <bit>
#include <chrono>

namespace dorve {
namespace {

static_assert(std::endian::native == std::endian::little,
              "checksums cover a little-endian header, and body integers are sent in host order");

constexpr std::array<std::uint32_t, 256> makeCrc32Table() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t i = 0; i < table.size(); ++i) {
    std::uint32_t remainder = i;
    for (int bit = 0; bit < 8; ++bit) {
      remainder = (remainder >> 1) ^ ((remainder & 1) != 0 ? 0xEDB88320U : 0U);
    }
    table[i] = remainder;
  }
  return table;
}

MessageHeader& headerOf(void* message) {
  return *static_cast<MessageHeader*>(message);
}

void reverseHeader(MessageHeader& header) {
  header.magic = __builtin_bswap32(header.magic);
  header.version = __builtin_bswap16(header.version);
  header.type = __builtin_bswap16(header.type);
  header.length = __builtin_bswap32(header.length);
  header.checksum = __builtin_bswap32(header.checksum);
  header.timestamp = __builtin_bswap64(header.timestamp);
  header.sequence = __builtin_bswap32(header.sequence);
  header.reserved = __builtin_bswap32(header.reserved);
}

}  // namespace

constinit const std::array<std::uint32_t, 256> MessageSerializer::crc32_table = makeCrc32Table();

std::uint32_t MessageSerializer::calculateCrc32(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  std::uint32_t crc = 0xFFFFFFFF;
  for (std::size_t i = 0; i < size; ++i) {
    crc = crc32_table[(crc ^ bytes[i]) & 0xFF] ^ (crc >> 8);
  }
  return crc ^ 0xFFFFFFFF;
}

void MessageSerializer::setChecksum(void* message, std::size_t size) {
  MessageHeader& header = headerOf(message);
  header.checksum = 0;
  header.checksum = calculateCrc32(message, size);
}

bool MessageSerializer::validateChecksum(void* message, std::size_t size) {
  MessageHeader& header = headerOf(message);
  const std::uint32_t stored = header.checksum;
  header.checksum = 0;
  const std::uint32_t computed = calculateCrc32(message, size);
  header.checksum = stored;
  return computed == stored;
}

void MessageSerializer::encodeHeader(void* message) {
  reverseHeader(headerOf(message));
}

void MessageSerializer::decodeHeader(void* message) {
  reverseHeader(headerOf(message));
}

bool MessageSerializer::validateHeader(const void* message, std::uint16_t expectedType,
                                       std::size_t expectedLength) {
  const auto& header = *static_cast<const MessageHeader*>(message);
  return header.magic == kHeaderMagic && header.version == kProtocolVersion && header.type == expectedType &&
         std::size_t{header.length} == expectedLength;
}

std::uint64_t MessageSerializer::getTimestampUs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

}  // namespace dorve
