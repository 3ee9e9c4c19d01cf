#include <gtest/gtest.h>

#include "protocol/messages.h"
#include "protocol/version_manager.h"
#include "test_access.h"

namespace dorve {
namespace {

using Serializer = MessageSerializer;

std::string hexOf(const void* bytes, std::size_t size) {
  return SessionToken::bytesToHex(static_cast<const unsigned char*>(bytes), size);
}

TEST(Message, SealedQueryIsTheseBytesOnTheWire) {
  const std::uint64_t before = Serializer::getTimestampUs();
  VersionQuery query = VersionManager().createVersionQuery("REQ-base-5384216-0a3f9c71");
  Serializer::decodeHeader(&query);
  EXPECT_TRUE(Serializer::validateChecksum(&query, sizeof query));
  EXPECT_TRUE(before <= query.header.timestamp && query.header.timestamp <= Serializer::getTimestampUs());

  // The checksum is zlib's, over the little-endian header and the body: no field of the body can be off.
  query.header.timestamp = 0x0001020304050607;
  seal(query);
  EXPECT_EQ(hexOf(&query, 36), "444f525601000000000001e4cfc9b5a3000102030405060700000000000000005245512d");
}

TEST(Message, AnyFlippedBitOrOtherSizeFailsTheChecksumAndNothingIsTouched) {
  auto record = makeRecord<ConfirmInstallRequest>("REQ-base-1-00000001");
  Serializer::setChecksum(&record, sizeof record);
  const std::string valid = std::string(reinterpret_cast<const char*>(&record), sizeof record) + '\0';
  const auto passes = [](const std::string& message, std::size_t size) {
    std::string checked = message;
    const bool result = Serializer::validateChecksum(checked.data(), size);
    EXPECT_EQ(checked, message);
    return result;
  };
  EXPECT_TRUE(passes(valid, sizeof record));
  EXPECT_FALSE(passes(valid, sizeof record - 1));
  EXPECT_FALSE(passes(valid, sizeof record + 1));
  for (std::size_t bit = 0; bit < 8 * sizeof record; ++bit) {
    std::string flipped = valid;
    flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << bit % 8));
    EXPECT_FALSE(passes(flipped, sizeof record)) << "bit " << bit;
  }
}

TEST(Message, HeaderIsCheckedForMagicVersionTypeAndLengthAlone) {
  const MessageHeader valid{0x444F5256, 0x0100, 4, 385, 9, 9, 9, 9};
  EXPECT_TRUE(Serializer::validateHeader(&valid, 4, 385));
  EXPECT_FALSE(Serializer::validateHeader(&valid, 4, 385 + (1ull << 32)));
  for (const int offset : {0, 4, 6, 8}) {
    MessageHeader header = valid;
    ++reinterpret_cast<char*>(&header)[offset];
    EXPECT_FALSE(Serializer::validateHeader(&header, 4, 385)) << offset;
  }
}

TEST(TextField, IsReadToItsCapacityAndWrittenWithItsNul) {
  char fields[2][4] = {{'a', 'b', 'c', 'd'}, {'n', 'e', 'x', 't'}};
  EXPECT_EQ(readText(fields[0]), "abcd");
  for (const auto& [text, bytes] : {std::pair{"12345", "31323300"}, {"123", "31323300"}, {"1", "31000000"}}) {
    writeText(fields[0], text);
    EXPECT_EQ(hexOf(fields, sizeof fields), std::string(bytes) + "6e657874");
  }
}

TEST(Version, IsParsedAndComparedAsNumbers) {
  const VersionTable table;
  const auto parsed = [&](const char* text) {
    const ParsedVersion version = table.parseVersion(text);
    return std::to_string(version.major) + "." + std::to_string(version.minor) + (version.valid ? "" : "?");
  };
  for (const char* text : {"1.2", "DORVE/1.2", " 1.+2", "1.2.3", "65537.2", "1x.2"})
    EXPECT_EQ(parsed(text), "1.2") << text;
  for (const char* text : {".", "a.b", "dorve/1.0", "DORVE/DORVE/1.0"})
    EXPECT_EQ(parsed(text), "0.0") << text;
  for (const char* text : {"", "2", "DORVE/"}) EXPECT_EQ(parsed(text), "0.0?") << text;
  for (const auto& [a, b, sign] :
       {std::tuple{"1.10", "1.9", 1}, {"2.0", "1.9", 1}, {"1.0", "DORVE/1.0", 0}, {"1.0", "x", 0}}) {
    EXPECT_EQ(table.compareVersions(a, b), sign) << a;
    EXPECT_EQ(table.compareVersions(b, a), -sign) << a;
  }
  for (const auto& [version, features] :
       {std::pair{"1.0", 0}, {"1.1", 1}, {"2.0", 3}, {"DORVE/2.1", 15}, {"2.2", 0}, {"2", 0}}) {
    EXPECT_EQ(table.getFeaturesForVersion(version), features) << version;
  }
}

TEST(Version, IsFoundInAListAsOneTrimmedItem) {
  const auto found = [](const char* version, const char* list) {
    const bool result = VersionManager::isVersionSupported(version, list);
    EXPECT_EQ(VersionTable().versionInList(version, list), result);
    return result;
  };
  for (const char* list : {"1.0", " 1.0 ,2.0", "2.0,\t1.0 \t,"}) EXPECT_TRUE(found("1.0", list)) << list;
  for (const char* list : {"", "1.00", "DORVE/1.0", "1 .0", "1.0;2.0"})
    EXPECT_FALSE(found("1.0", list)) << list;
  EXPECT_TRUE(found("", "1.0,,2.0") && found(" ", "1.0, ,2.0"));
  EXPECT_FALSE(found("", "1.0,") || found("", "1.0, ,2.0") || found("", ""));
}

TEST(Version, NewestCommonOneIsChosen) {
  const auto common = [](const char* server, const char* client) {
    return TestAccess::versionTable("1.0", server).findCommonVersion(client);
  };
  EXPECT_EQ(VersionTable().findCommonVersion("2.0,1.1, 1.0"), "1.0");
  EXPECT_EQ(common("1.0", "2.0"), "");
  EXPECT_EQ(common("1.0,1.1,2.0,1.10", "1.9,1.1, 2.0, 1.0"), "2.0");
  EXPECT_EQ(common("1.9,1.10", "1.9,1.10"), "1.10");
  EXPECT_EQ(common("1.0,DORVE/1.0", "DORVE/1.0,1.0"), "DORVE/1.0");
  EXPECT_EQ(common("x,1.0", "x,1.0"), "x") << "nothing is newer than what has no number";
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
    std::ostringstream all;
    all << testing::internal::GetCapturedStdout() << "!" << testing::internal::GetCapturedStderr();
    all << result << " " << selected << " " << features;
    return all.str();
  };
  EXPECT_EQ(judge("REQ-1", "1.0", 0), "Successful\n!0 1.0 3735928559");
  EXPECT_EQ(judge("REQ-1", "1.0", 1), "!Error\n12305 none 7");
  for (const char* id : {"REQ-2", "REQ-11"}) EXPECT_EQ(judge(id, "1.0", 1), "!Error\n-1 none 7") << id;
  for (const char* version : {"", "1.1", "DORVE/1.0"})
    EXPECT_EQ(judge("REQ-1", version, 0), "!Error\n-1 none 7") << version;
  EXPECT_EQ(judge("REQ-1", "1.0", 2), "!Error\n-1 none 7");
}

TEST(RequestId, HasItsForm) {
  EXPECT_EQ(TestAccess::requestId("", UINT64_MAX, 0x1f), "REQ--18446744073709551615-0000001f");
  EXPECT_EQ(RequestIdGenerator::generate(nullptr), "REQ-");
  unsigned long ms[2];
  unsigned int random[2];
  for (int i : {0, 1}) {
    const std::string id = RequestIdGenerator::generate("base");
    ASSERT_EQ(std::sscanf(id.c_str(), "REQ-base-%lu-%x", &ms[i], &random[i]), 2);
    EXPECT_EQ(id, TestAccess::requestId("base", ms[i], random[i]));
  }
  EXPECT_TRUE(ms[0] <= ms[1] && ms[1] < ms[0] + 1000 && random[0] != random[1]);
}

TEST(SessionToken, IsTheMacOfTheSeededBlockAndLastsAnHour) {
  // From another twister, checked by the standard's 10000th value, and another MAC.
  EXPECT_EQ(TestAccess::token(5489, ""), "c3311de2bbf0f142a5dbe7b404d80dbcef5d1533bfe13580491f9f5a32d7d2c2");
  EXPECT_EQ(TestAccess::token(1, "k"), "f4cc429f021b6f540e08547527fd2b5483ad9020a0b65c556b20f63d7c8a47b5");
  EXPECT_NE(SessionToken::generate("", 0), SessionToken::generate("", 0));

  const std::string half = "0123456789abcdefABCDEF0123456789", cut = half + half.substr(1);
  EXPECT_TRUE(SessionToken::validateFormat(half + half));
  for (const auto& text : {cut, half + half + "0", cut + "g", " " + cut})
    EXPECT_FALSE(SessionToken::validateFormat(text));

  const std::uint64_t now = SessionToken::getCurrentTimeUs();
  EXPECT_EQ(SessionToken::calculateExpiry(now), now + 3'600'000'000u);
  EXPECT_FALSE(SessionToken::isExpired(now + 60'000'000));
  EXPECT_TRUE(SessionToken::isExpired(now - 1));
}

}  // namespace
}  // namespace dorve
