// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include "dorve/server/response_cache.h"

namespace dorve {

struct Cache : testing::Test {
  ResponseCache cache;

  void store(std::string_view id, const std::string& response) {
    cache.store(id, response.data(), response.size());
  }

  /// The response under `id`, or "none".
  std::string response(std::string_view id) {
    const CacheEntry* entry = cache.lookup(id);
    if (entry == nullptr) return "none";
    return {reinterpret_cast<const char*>(entry->response), entry->responseSize};
  }
};

TEST_F(Cache, ComparesWholeIds) {
  const std::string id(200, 'i');
  store(id, "response");
  EXPECT_EQ(response(id.substr(0, 127)), "response") << "an id is stored up to 127 characters";
  for (const std::size_t size : {0, 1, 126, 128, 200})
    EXPECT_EQ(response(id.substr(0, size)), "none") << size;
}

TEST_F(Cache, RefusesAResponseAbove8192Bytes) {
  const std::string largest(8192, 'r');
  testing::internal::CaptureStderr();
  store("fits", largest);
  store("too large", largest + "r");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error\n");
  EXPECT_EQ(response("fits"), largest);
  EXPECT_EQ(response("too large"), "none");
}

TEST_F(Cache, CountsHitsAndStampsEachAccess) {
  store("a", "first");
  CacheEntry& entry = *cache.lookup("a");
  EXPECT_EQ(entry.hitCount, 2u);
  EXPECT_LT(MessageSerializer::getTimestampUs() - entry.createdUs, 5'000'000u);
  store("a", "second");
  EXPECT_EQ(response("a"), "first");
  entry.lastAccessUs = 0;
  store("a", "second");
  EXPECT_GE(entry.lastAccessUs, entry.createdUs) << "a repeated store did not count as an access";
  entry.lastAccessUs = 0;
  cache.lookup("a");
  EXPECT_GE(entry.lastAccessUs, entry.createdUs) << "a lookup did not count as an access";
  entry.lastAccessUs = 1;
  store("b", "");
  EXPECT_EQ(cache.findLruIndex(), 0u) << "the new entry did not count as accessed";
}

TEST_F(Cache, FreesWhatWasStoredBeforeACutoffAndFindsTheLeastRecentlyUsed) {
  EXPECT_EQ(cache.findLruIndex(), 0u) << "of an empty cache";
  const std::tuple<const char*, std::uint64_t, std::uint64_t> rows[] = {
      {"a", 100, 6}, {"b", 99, 4}, {"c", 101, 5}, {"d", 101, 5}};
  for (const auto& [id, createdUs, accessedUs] : rows) {
    store(id, id);
    CacheEntry* entry = cache.lookup(id);
    entry->createdUs = createdUs;
    entry->lastAccessUs = accessedUs;
  }
  EXPECT_EQ(cache.findLruIndex(), 1u) << "b";
  cache.removeExpired(100);
  EXPECT_EQ(cache.findLruIndex(), 2u) << "c, the lowest of two equal ones";
  EXPECT_EQ(response("a"), "a");
  EXPECT_EQ(response("b"), "none");
}

}  // namespace dorve
