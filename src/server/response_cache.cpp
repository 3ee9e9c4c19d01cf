// SPDX-License-Identifier: MIT
#include "dorve/server/response_cache.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "dorve/util/report_error.h"

namespace dorve {
namespace {

bool inUse(const CacheEntry& entry) {
  return entry.requestId[0] != '\0';
}

}  // namespace

CacheEntry* ResponseCache::find(std::string_view requestId) {
  const auto slot = std::ranges::find_if(entries, [requestId](const CacheEntry& entry) {
    return inUse(entry) && readText(entry.requestId) == requestId;
  });
  return slot == std::end(entries) ? nullptr : &*slot;
}

CacheEntry* ResponseCache::lookup(std::string_view requestId) {
  CacheEntry* entry = find(requestId);
  if (entry == nullptr) return nullptr;
  entry->lastAccessUs = MessageSerializer::getTimestampUs();
  ++entry->hitCount;
  return entry;
}

void ResponseCache::store(std::string_view requestId, const void* data, std::size_t size) {
  if (size > kMaxCachedResponse) {
    reportError();
    return;
  }
  const std::uint64_t now = MessageSerializer::getTimestampUs();
  if (CacheEntry* known = find(requestId)) {
    known->lastAccessUs = now;
    return;
  }
  CacheEntry& entry = entries[nextIndex];
  entry = {};
  writeText(entry.requestId, requestId);
  entry.createdUs = now;
  entry.lastAccessUs = now;
  entry.hitCount = 1;
  entry.responseSize = size;
  std::memcpy(entry.response, data, size);

  nextIndex = (nextIndex + 1) % kCacheEntries;
  if (count < kCacheEntries) ++count;
}

void ResponseCache::removeExpired(std::uint64_t cutoffUs) {
  for (CacheEntry& entry : entries) {
    if (!inUse(entry) || entry.createdUs >= cutoffUs) continue;
    entry.requestId[0] = '\0';
    if (count > 0) --count;
  }
}

std::uint32_t ResponseCache::findLruIndex() const {
  std::uint32_t index = 0;
  std::uint64_t oldest = std::numeric_limits<std::uint64_t>::max();
  for (std::uint32_t i = 0; i < kCacheEntries; ++i) {
    if (!inUse(entries[i]) || entries[i].lastAccessUs >= oldest) continue;
    oldest = entries[i].lastAccessUs;
    index = i;
  }
  return index;
}

}  // namespace dorve
