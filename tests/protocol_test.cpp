// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include "dorve/protocol/messages.h"
#include "dorve/protocol/version_manager.h"
#include "test_access.h"

namespace dorve {

using Serializer = MessageSerializer;

std::string hex(const void* bytes, std::size_t count) {
  return SessionToken::bytesToHex(static_cast<const unsigned char*>(bytes), count);
}

TEST(Message, HasTheseBytes) {
  auto record = makeRecord<ConfirmInstallRequest>("REQ-1");
  record.header.timestamp = 0x0001020304050607;
  record.header.sequence = 0x08090a0b;
  record.header.reserved = 0x0c0d0e0f;
  const std::string body(record.request_id, sizeof record - kHeaderSize);
  seal(record);
  // The checksum is zlib's, over the header in little-endian order and the body.
  EXPECT_EQ(hex(&record, kHeaderSize), "444f5256010000080000011c72660839000102030405060708090a0b0c0d0e0f");
  EXPECT_EQ(std::string(record.request_id, body.size()), body) << "a body goes over the wire as it is";
  Serializer::decodeHeader(&record);
  EXPECT_TRUE(Serializer::validateChecksum(&record, sizeof record));
  EXPECT_FALSE(Serializer::validateChecksum(&record, sizeof record - 1));
  EXPECT_TRUE(Serializer::validateChecksum(&record, sizeof record)) << "a check has changed the record";
}

TEST(TextField, EndsWithItsNulOrItsCapacity) {
  struct {
    char field[4];
    char next[4];
  } record = {{'a', 'b', 'c', 'd'}, "efg"};
  EXPECT_EQ(readText(record.field), "abcd");
  writeText(record.field, "1234");
  EXPECT_EQ(readText(record.field), "123");
  writeText(record.field, "5");
  EXPECT_EQ(std::string(record.field, 4), std::string("5\0\0\0", 4));
  EXPECT_STREQ(record.next, "efg");
}

TEST(Version, IsReadAsNumbers) {
  const VersionTable table;
  for (auto text : {"2.1", "DORVE/2.1", " 2.+1x", "65538.65537", "2x.1.9"})
    EXPECT_EQ(table.getFeaturesForVersion(text), 15) << text;
  for (auto text : {"1.0", "2.2", "2", "dorve/2.1", "DORVE/DORVE/2.1"})
    EXPECT_EQ(table.getFeaturesForVersion(text), 0) << text;
  EXPECT_EQ(table.parseVersion("2").major, 0) << "a version without a dot has no numbers";
  EXPECT_EQ(table.getFeaturesForVersion("1.1"), 1);
  EXPECT_EQ(table.getFeaturesForVersion("2."), 3);
}

TEST(Version, IsComparedAsNumbers) {
  const VersionTable table;
  for (const auto& [newer, older] : {std::pair{"1.10", "1.9"}, {"2.0", "1.9"}, {".5", "a.b"}}) {
    EXPECT_EQ(table.compareVersions(newer, older), 1) << newer;
    EXPECT_EQ(table.compareVersions(older, newer), -1) << newer;
  }
  EXPECT_EQ(table.compareVersions("1.0", "DORVE/1.0"), 0);
  EXPECT_EQ(table.compareVersions("2", "0.9"), 0) << "a version without a dot is invalid";
}

TEST(Version, IsFoundAsOneTrimmedItemOfAList) {
  const auto found = VersionManager::isVersionSupported;
  for (auto list : {"1.0", " 1.0 ,2.0", "2.0,\t1.0 \t,"}) EXPECT_TRUE(found("1.0", list)) << list;
  for (auto list : {"", "1.00", "DORVE/1.0", "1 .0"}) EXPECT_FALSE(found("1.0", list)) << list;
  for (auto list : {"", "1.0,", "1.0, ,2.0"}) EXPECT_FALSE(found("", list)) << list;
  EXPECT_TRUE(found("", "1.0,,2.0"));
  EXPECT_TRUE(found(" ", "1.0, ,2.0")) << "an item of blanks stays as it is";
}

TEST(Version, IsTheNewestThatBothSidesList) {
  const VersionTable table = TestAccess::versionTable("1.0", "x,1.0,DORVE/1.0, 1.9,1.10");
  EXPECT_EQ(table.findCommonVersion("2.0"), "");
  EXPECT_EQ(table.findCommonVersion("1.9, 1.10 ,2.0,1.0"), "1.10");
  EXPECT_EQ(table.findCommonVersion("DORVE/1.0,1.0"), "DORVE/1.0") << "the first of equal ones";
  EXPECT_EQ(table.findCommonVersion("x,1.0"), "x") << "no version is newer than an invalid one";
  EXPECT_EQ(VersionTable().findCommonVersion("1.1,1.0 "), "1.0");
}

TEST(Version, OfAResponseIsReturnedWithItsFeatures) {
  auto response = makeRecord<VersionResponse>("REQ-1");
  writeText(response.selected_version, "1.0");
  response.features = 7;
  char selected[kVersionCapacity] = "";
  std::uint32_t features = 0;
  EXPECT_EQ(VersionManager().processVersionResponse(response, "REQ-1", selected, features), 0);
  EXPECT_STREQ(selected, "1.0");
  EXPECT_EQ(features, 7u);
}

TEST(RequestId, HoldsItsPrefixTheTimeAndARandomNumber) {
  EXPECT_EQ(TestAccess::requestId("", UINT64_MAX, 0x1f), "REQ--18446744073709551615-0000001f");
  EXPECT_EQ(RequestIdGenerator::generate(nullptr), "REQ-");
  const std::string first = RequestIdGenerator::generate("base"),
                    second = RequestIdGenerator::generate("base");
  EXPECT_FALSE(second.ends_with(first.substr(first.rfind('-')))) << first << " and " << second;
}

TEST(SessionToken, IsTheMacOfARandomBlock) {
  // From RFC 4231.
  const std::string data = "what do ya want for nothing?";
  unsigned char mac[32] = {};
  EXPECT_EQ(SessionToken::hmacSha256("Jefe", 4, data.data(), data.size(), mac), mac);
  EXPECT_EQ(hex(mac, 32), "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  // From another implementation of mt19937_64, whose 10000th value was checked, and of HMAC-SHA256.
  EXPECT_EQ(TestAccess::token(1, "k"), "f4cc429f021b6f540e08547527fd2b5483ad9020a0b65c556b20f63d7c8a47b5");
  EXPECT_NE(SessionToken::generate("k", 1), SessionToken::generate("k", 1));
}

TEST(SessionToken, HasSixtyFourHexadecimalDigits) {
  const std::string cut = "0123456789abcdefABCDEF01234567890123456789abcdefABCDEF012345678";
  EXPECT_TRUE(SessionToken::validateFormat(cut + "9"));
  for (const char* end : {"", "99", "g", " "}) EXPECT_FALSE(SessionToken::validateFormat(cut + end)) << end;
}

TEST(SessionToken, LastsAnHour) {
  const std::uint64_t now = SessionToken::getCurrentTimeUs();
  EXPECT_EQ(SessionToken::calculateExpiry(7), 3'600'000'007u);
  EXPECT_TRUE(SessionToken::isExpired(now - 1));
  EXPECT_FALSE(SessionToken::isExpired(now + 60'000'000));
}

}  // namespace dorve
