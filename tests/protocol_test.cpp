// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include "dorve/protocol/messages.h"
#include "dorve/protocol/version_manager.h"
#include "test_access.h"

namespace dorve {

using Serializer = MessageSerializer;

TEST(Message, QueryIsCheckedInItsHeaderAndTheseBytesOnTheWire) {
  VersionQuery query = VersionManager().createVersionQuery("REQ-base-5384216-0a3f9c71");
  Serializer::decodeHeader(&query);
  EXPECT_TRUE(Serializer::validateHeader(&query, 0, 484));
  for (const int field : {0, 4, 6, 8}) {
    VersionQuery other = query;
    ++reinterpret_cast<char*>(&other)[field];
    EXPECT_FALSE(Serializer::validateHeader(&other, 0, 484)) << "offset " << field;
  }
  EXPECT_LT(Serializer::getTimestampUs() - query.header.timestamp, 5'000'000u);
  // The checksum is zlib's, over the little-endian header and the body: no field of the body can be off.
  query.header.timestamp = 0x0001020304050607;
  seal(query);
  EXPECT_EQ(SessionToken::bytesToHex(reinterpret_cast<unsigned char*>(&query), 36),
            "444f525601000000000001e4cfc9b5a3000102030405060700000000000000005245512d");
}

TEST(Message, AnyFlippedBitOrOtherSizeFailsTheChecksumAndNothingIsTouched) {
  auto record = makeRecord<ConfirmInstallRequest>("REQ-base-1-00000001");
  Serializer::setChecksum(&record, sizeof record);
  EXPECT_FALSE(Serializer::validateChecksum(&record, sizeof record - 1));
  for (std::size_t bit = 0; bit < 8 * sizeof record; ++bit) {
    std::byte& byte = reinterpret_cast<std::byte*>(&record)[bit / 8];
    byte ^= std::byte{1} << bit % 8;
    EXPECT_FALSE(Serializer::validateChecksum(&record, sizeof record)) << "bit " << bit;
    byte ^= std::byte{1} << bit % 8;
    EXPECT_TRUE(Serializer::validateChecksum(&record, sizeof record)) << "touched after bit " << bit;
  }
}

TEST(TextField, IsReadToItsCapacityAndWrittenWithItsNul) {
  char field[4] = {'a', 'b', 'c', 'd'};
  EXPECT_EQ(readText(field), "abcd");
  writeText(field, "1234");
  EXPECT_EQ(std::string(field, 4), std::string("123\0", 4));
  writeText(field, "5");
  EXPECT_EQ(std::string(field, 4), std::string("5\0\0\0", 4));
}

TEST(Version, IsParsedAndComparedAsNumbers) {
  const VersionTable table;
  const auto mask = [&](const char* text) { return table.getFeaturesForVersion(text); };
  for (auto text : {"2.1", "DORVE/2.1", " 2.+1x", "65538.65537", "2x.1.9"}) EXPECT_EQ(mask(text), 15) << text;
  for (auto text : {"1.0", "2.2", "2", "dorve/2.1", "DORVE/DORVE/2.1"}) EXPECT_EQ(mask(text), 0) << text;
  EXPECT_TRUE(mask("1.1") == 1 && mask("2.") == 3);
  for (const auto& [a, b] : {std::pair{"1.10", "1.9"}, {"2.0", "1.9"}, {".5", "a.b"}})
    EXPECT_TRUE(table.compareVersions(a, b) == 1 && table.compareVersions(b, a) == -1) << a;
  EXPECT_TRUE(table.compareVersions("1.0", "DORVE/1.0") == 0 && table.compareVersions("2", "0.9") == 0);
}

TEST(Version, IsFoundAsOneTrimmedItemAndTheNewestCommonOneChosen) {
  const auto found = VersionManager::isVersionSupported;
  for (const char* list : {"1.0", " 1.0 ,2.0", "2.0,\t1.0 \t,"}) EXPECT_TRUE(found("1.0", list)) << list;
  for (const char* list : {"", "1.00", "DORVE/1.0", "1 .0"}) EXPECT_FALSE(found("1.0", list)) << list;
  EXPECT_TRUE(found("", "1.0,,2.0") && found(" ", "1.0, ,2.0"));
  EXPECT_FALSE(found("", "1.0,") || found("", "1.0, ,2.0") || found("", ""));

  const VersionTable table = TestAccess::versionTable("1.0", "x,1.0,DORVE/1.0, 1.9,1.10");
  EXPECT_EQ(VersionTable().findCommonVersion("1.1,1.0 "), "1.0");
  EXPECT_EQ(table.findCommonVersion("2.0"), "");
  EXPECT_EQ(table.findCommonVersion("1.9, 1.10 ,2.0,1.0"), "1.10");
  EXPECT_EQ(table.findCommonVersion("DORVE/1.0,1.0"), "DORVE/1.0");
  EXPECT_EQ(table.findCommonVersion("x,1.0"), "x") << "nothing is newer than what has no number";
}

TEST(Version, ResponseIsJudged) {
  const auto judge = [](const char* requestId, const char* version, std::uint32_t error) {
    auto response = makeRecord<VersionResponse>(requestId);
    writeText(response.selected_version, version);
    response.error_code = error;
    response.features = 0xDEADBEEF;
    char selected[kVersionCapacity] = "none";
    std::uint32_t features = 7;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int result = VersionManager().processVersionResponse(response, "REQ-1", selected, features);
    return testing::internal::GetCapturedStdout() + "/" + testing::internal::GetCapturedStderr() + "/" +
           selected + " " + std::to_string(features) + " " + std::to_string(result);
  };
  EXPECT_EQ(judge("REQ-1", "1.0", 0), "Successful\n//1.0 3735928559 0");
  EXPECT_EQ(judge("REQ-1", "1.0", 1), "/Error\n/none 7 12305");
  EXPECT_EQ(judge("REQ-1", "1.0", 2), "/Error\n/none 7 -1");
  EXPECT_EQ(judge("REQ-11", "1.0", 1), "/Error\n/none 7 -1");
  for (const char* text : {"", "1.1"}) EXPECT_EQ(judge("REQ-1", text, 0), "/Error\n/none 7 -1") << text;
}

TEST(RequestId, HasItsForm) {
  EXPECT_EQ(TestAccess::requestId("", UINT64_MAX, 0x1f), "REQ--18446744073709551615-0000001f");
  EXPECT_EQ(RequestIdGenerator::generate(nullptr), "REQ-");
  const std::string id = RequestIdGenerator::generate("base");
  unsigned long ms = 0;
  unsigned int random = 0;
  EXPECT_EQ(std::sscanf(id.c_str(), "REQ-base-%lu-%x", &ms, &random), 2) << id;
  EXPECT_EQ(id, TestAccess::requestId("base", ms, random));
  EXPECT_TRUE(RequestIdGenerator::getMonotonicTimeMs() - ms < 1000 &&
              RequestIdGenerator::getSecureRandom() != random);
}

TEST(SessionToken, IsTheMacOfTheSeededBlockAndLastsAnHour) {
  // From another twister, checked by the standard's 10000th value, and another MAC.
  EXPECT_EQ(TestAccess::token(1, "k"), "f4cc429f021b6f540e08547527fd2b5483ad9020a0b65c556b20f63d7c8a47b5");
  EXPECT_NE(SessionToken::generate("", 0), SessionToken::generate("", 0));
  const std::string cut = "0123456789abcdefABCDEF01234567890123456789abcdefABCDEF012345678";
  EXPECT_TRUE(SessionToken::validateFormat(cut + "9"));
  for (const char* end : {"", "99", "g", " "}) EXPECT_FALSE(SessionToken::validateFormat(cut + end)) << end;
  const std::uint64_t now = SessionToken::getCurrentTimeUs();
  EXPECT_EQ(SessionToken::calculateExpiry(now), now + 3'600'000'000u);
  EXPECT_TRUE(SessionToken::isExpired(now - 1) && !SessionToken::isExpired(now + 60'000'000));
}

}  // namespace dorve
