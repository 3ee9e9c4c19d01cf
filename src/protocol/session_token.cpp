// SPDX-License-Identifier: MIT
#include "dorve/protocol/session_token.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <functional>
#include <random>

#include "dorve/protocol/message_serializer.h"
#include "dorve/util/hex.h"

namespace dorve {
namespace {

constexpr std::size_t kTokenLength = 2 * kMacSize;

}  // namespace

std::string SessionToken::generate(const void* key, std::size_t keyLength) {
  // std::random_device yields 32 bits, so there are only 2^32 different blocks.
  // That is enough, because a token protects nothing.
  std::random_device device("default");
  return generateFromSeed(device(), key, keyLength);
}

std::string SessionToken::generateFromSeed(std::uint64_t seed, const void* key, std::size_t keyLength) {
  std::mt19937_64 twister(seed);
  std::array<std::uint64_t, 4> block;
  std::ranges::generate(block, std::ref(twister));  // in host order, which is little-endian

  unsigned char mac[kMacSize] = {};
  hmacSha256(key, keyLength, block.data(), sizeof block, mac);
  return bytesToHex(mac, sizeof mac);
}

unsigned char* SessionToken::hmacSha256(const void* key, std::size_t keyLength, const void* data,
                                        std::size_t dataLength, unsigned char* output) {
  unsigned int outputLength = kMacSize;
  return HMAC(EVP_sha256(), key, static_cast<int>(keyLength), static_cast<const unsigned char*>(data),
              dataLength, output, &outputLength);
}

std::string SessionToken::bytesToHex(const unsigned char* bytes, std::size_t count) {
  return toHex(bytes, count);
}

bool SessionToken::validateFormat(std::string_view text) {
  return text.size() == kTokenLength &&
         std::ranges::all_of(text, [](unsigned char c) { return std::isxdigit(c) != 0; });
}

std::uint64_t SessionToken::getCurrentTimeUs() {
  return MessageSerializer::getTimestampUs();
}

std::uint64_t SessionToken::calculateExpiry(std::uint64_t timeUs) {
  return timeUs + kTokenLifetimeUs;
}

bool SessionToken::isExpired(std::uint64_t expiryUs) {
  return getCurrentTimeUs() > expiryUs;
}

}  // namespace dorve
