// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include "dorve/server/response_cache.h"

namespace dorve {

TEST(ResponseCache, ComparesIdsWholeAndRefusesWhatDoesNotFit) {
  ResponseCache cache;
  const std::string id(200, 'i'), response(8193, 'r');
  testing::internal::CaptureStderr();
  cache.store(id, response.data(), 8192);
  cache.store(id.substr(0, 126), response.data(), 8193);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error\n");
  EXPECT_NE(cache.lookup(id.substr(0, 127)), nullptr);
  for (const auto& text : {id, id.substr(0, 126), id.substr(200)}) EXPECT_EQ(cache.lookup(text), nullptr);
}

TEST(ResponseCache, ExpiryGoesByCreationAndAgeByAccess) {
  ResponseCache cache;
  EXPECT_EQ(cache.findLruIndex(), 0u);
  for (const char* id : {"A", "B", "C"}) cache.store(id, id, 1);
  CacheEntry* slots = cache.lookup("A");
  slots[0].createdUs = 100, slots[1].createdUs = 99;
  slots[0].lastAccessUs = 6, slots[1].lastAccessUs = 5, slots[2].lastAccessUs = 5;
  EXPECT_EQ(cache.findLruIndex(), 1u);
  cache.removeExpired(100);
  EXPECT_EQ(cache.findLruIndex(), 2u);
  cache.store("C", "again", 5);
  EXPECT_TRUE(cache.lookup("A") == slots && slots[0].lastAccessUs > 6 && slots[2].lastAccessUs > 6);
  cache.store("D", "D", 1);
  EXPECT_EQ(cache.lookup("D"), slots + 3) << "a freed slot waits for its turn";
}

}  // namespace dorve
