// SPDX-License-Identifier: MIT
#ifndef DORVE_SERVER_RESPONSE_CACHE_H_
#define DORVE_SERVER_RESPONSE_CACHE_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "dorve/protocol/messages.h"

namespace dorve {

constexpr std::uint32_t kCacheEntries = 10;
constexpr std::size_t kMaxCachedResponse = 8192;  // bytes

/// One stored response. Times are wall-clock microseconds since 1970-01-01 00:00 UTC.
struct CacheEntry {
  char requestId[kRequestIdCapacity];  ///< empty if the entry is free
  std::uint64_t createdUs;
  std::uint64_t lastAccessUs;  ///< time of the last hit or store
  std::uint32_t hitCount;      ///< 1 for the first store, plus 1 for each hit
  std::uint64_t responseSize;
  std::uint8_t response[kMaxCachedResponse];  ///< the bytes that were sent, header in wire order
};

/// Stores the last `kCacheEntries` responses by request id, first in, first out. The server needs them for
/// repeated requests, see docs/protocol.md. The storage is fixed, and no operation allocates.
class ResponseCache {
 public:
  ResponseCache() = default;

  /// Returns the entry for `requestId`, of any age, and counts the hit; null if there is none.
  /// Stored ids are truncated to 127 bytes, so a longer id has no entry. An empty id has none either.
  CacheEntry* lookup(std::string_view requestId);

  /// Stores `size` bytes in the next entry, which is the oldest one if the cache is full.
  /// If `lookup` would find the id, the stored response stays.
  /// Rejects more than `kMaxCachedResponse` bytes with "Error" on standard error.
  void store(std::string_view requestId, const void* data, std::size_t size);

  /// Frees the entries that were stored before the wall-clock time `cutoffUs`.
  void removeExpired(std::uint64_t cutoffUs);

  /// The index of the used entry with the oldest access, or the lowest index of several such entries;
  /// 0 if no entry is used.
  std::uint32_t findLruIndex() const;

 private:
  CacheEntry* find(std::string_view requestId);

  CacheEntry entries[kCacheEntries] = {};
  std::uint32_t nextIndex = 0;  ///< index of the entry that the next new id gets
  std::uint32_t count = 0;      ///< number of stores, at most 10, minus removals
};

}  // namespace dorve

#endif  // DORVE_SERVER_RESPONSE_CACHE_H_
