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

/// One remembered response. Times are wall-clock microseconds since 1970-01-01 00:00 UTC.
struct CacheEntry {
  char requestId[kRequestIdCapacity];  ///< empty in a free slot
  std::uint64_t createdUs;
  std::uint64_t lastAccessUs;  ///< of the last hit or repeated store
  std::uint32_t hitCount;      ///< 1 when stored, one more for each hit
  std::uint64_t responseSize;
  std::uint8_t response[kMaxCachedResponse];  ///< as it was sent, header encoded
};

/// The last ten responses by request id, so that a repeated request is answered with the same bytes instead
/// of being carried out twice. Fixed storage, no allocation, round robin in the order of storing.
class ResponseCache {
 public:
  ResponseCache() = default;

  /// The entry stored under `requestId`, however old, or null. A hit is counted. The id is compared whole
  /// with the stored one, which was cut at 127 characters: a longer id never hits, nor does the empty one.
  CacheEntry* lookup(std::string_view requestId);

  /// Remembers `size` bytes in place of the entry stored longest ago. An id that is there already keeps its
  /// first response, which is the one to repeat. More than `kMaxCachedResponse` bytes are refused with
  /// "Error" on standard error.
  void store(std::string_view requestId, const void* data, std::size_t size);

  /// Frees the slots stored before the absolute time `cutoffUs`.
  void removeExpired(std::uint64_t cutoffUs);

  /// The slot in use that was accessed longest ago, the lowest of equal ones; 0 when none is in use. `store`
  /// does not go by it: an entry is overwritten in its turn, however often it was hit.
  std::uint32_t findLruIndex() const;

 private:
  CacheEntry* find(std::string_view requestId);

  CacheEntry entries[kCacheEntries] = {};
  std::uint32_t nextIndex = 0;  ///< where the next new entry goes
  std::uint32_t count = 0;      ///< of entries; bookkeeping for a debugger
};

}  // namespace dorve

#endif  // DORVE_SERVER_RESPONSE_CACHE_H_
