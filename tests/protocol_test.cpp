// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <ctime>

#include "dorve/protocol/messages.h"
#include "dorve/protocol/version_manager.h"
#include "test_access.h"

namespace dorve {

using Serializer = MessageSerializer;

std::string hex(const void* bytes, std::size_t count) {
  return SessionToken::bytesToHex(static_cast<const unsigned char*>(bytes), count);
}

/// The header that a sealed record has when its body counts its own bytes up, 0 to 250 again and again.
template <typename Record>
std::string sealedHeader() {
  auto record = makeRecord<Record>("REQ-1");
  record.header.timestamp = 0x0001020304050607;
  record.header.sequence = 0x08090a0b;
  std::string body(sizeof record - kHeaderSize, '\0');
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i % 251);
  char* bytes = reinterpret_cast<char*>(&record);
  body.copy(bytes + kHeaderSize, body.size());
  seal(record);
  EXPECT_EQ(std::string(bytes + kHeaderSize, body.size()), body) << "a body goes over the wire as it is";
  const std::string header = hex(bytes, kHeaderSize);
  Serializer::decodeHeader(&record);
  EXPECT_TRUE(Serializer::validateChecksum(&record, sizeof record)) << "after decoding " << header;
  return header;
}

TEST(Message, HasTheseHeaderBytes) {
  // The checksums are zlib's, over the header in little-endian order and the body.
  const std::tuple<std::string, const char*, const char*, const char*> rows[] = {
      {sealedHeader<VersionQuery>(), "0000", "000001e4", "9cd01ed6"},
      {sealedHeader<VersionResponse>(), "0001", "00000200", "c624c8cf"},
      {sealedHeader<ExchangeKeysRequest>(), "0002", "000011ec", "5c28648d"},
      {sealedHeader<ExchangeKeysResponse>(), "0003", "00001210", "baa7dce3"},
      {sealedHeader<VerifyKeysRequest>(), "0004", "00000181", "76afdf46"},
      {sealedHeader<VerifyKeysResponse>(), "0005", "00000162", "5f7b506b"},
      {sealedHeader<InstallKeysRequest>(), "0006", "00000300", "a255e770"},
      {sealedHeader<InstallKeysResponse>(), "0007", "000001fc", "61bdd9cc"},
      {sealedHeader<ConfirmInstallRequest>(), "0008", "0000011c", "916bb792"},
      {sealedHeader<ConfirmInstallResponse>(), "0009", "000001d9", "ca846b8a"},
  };
  for (const auto& [header, type, length, checksum] : rows) {
    const std::string magicAndVersion = "444f52560100";
    const std::string timeSequenceAndReserved = "000102030405060708090a0b00000000";
    EXPECT_EQ(header, magicAndVersion + type + length + checksum + timeSequenceAndReserved);
  }
}

TEST(Message, RejectsAWrongHeaderField) {
  const auto accepted = [](const MessageHeader& header) {
    return Serializer::validateHeader(&header, 8, 284);
  };
  EXPECT_TRUE(accepted({0x444F5256, 0x0100, 8, 284, 0, 0, 0, 0}));
  EXPECT_FALSE(accepted({0x444F5257, 0x0100, 8, 284, 0, 0, 0, 0})) << "magic";
  EXPECT_FALSE(accepted({0x444F5256, 0x0101, 8, 284, 0, 0, 0, 0})) << "version";
  EXPECT_FALSE(accepted({0x444F5256, 0x0100, 9, 284, 0, 0, 0, 0})) << "type";
  EXPECT_FALSE(accepted({0x444F5256, 0x0100, 8, 285, 0, 0, 0, 0})) << "length";
}

TEST(Message, RejectsAChangedByteAndAnotherSize) {
  auto record = makeRecord<ConfirmInstallRequest>("REQ-1");
  Serializer::setChecksum(&record, sizeof record);
  EXPECT_TRUE(Serializer::validateChecksum(&record, sizeof record));
  EXPECT_FALSE(Serializer::validateChecksum(&record, sizeof record - 1));
  EXPECT_TRUE(Serializer::validateChecksum(&record, sizeof record)) << "a check has changed the record";
  ++record.status[31];
  EXPECT_FALSE(Serializer::validateChecksum(&record, sizeof record));
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
  EXPECT_EQ(table.findCommonVersion("x,1.0"), "x") << "nothing is newer than what has no number";
  EXPECT_EQ(VersionTable().findCommonVersion("1.1,1.0 "), "1.0");
}

TEST(Version, IsTakenFromAResponseOnlyIfItIsKnown) {
  const std::tuple<const char*, std::uint32_t, std::int32_t> rows[] = {
      {"1.0", 0, 0}, {"1.0", 1, 0x3011}, {"1.0", 2, -1}, {"1.1", 0, -1}, {"", 0, -1}};
  for (const auto& [version, error, result] : rows) {
    SCOPED_TRACE(testing::Message() << "version '" << version << "' with error " << error);
    auto response = makeRecord<VersionResponse>("REQ-1");
    writeText(response.selected_version, version);
    response.error_code = error;
    response.features = 0xDEADBEEF;
    char selected[kVersionCapacity] = "none";
    std::uint32_t features = 7;
    EXPECT_EQ(VersionManager().processVersionResponse(response, "REQ-1", selected, features), result);
    EXPECT_STREQ(selected, result == 0 ? "1.0" : "none");
    EXPECT_EQ(features, result == 0 ? 0xDEADBEEF : 7);
  }
}

TEST(RequestId, HoldsItsPrefixTheTimeAndARandomNumber) {
  const auto now = [] {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<unsigned long>(time.tv_sec * 1000 + time.tv_nsec / 1'000'000);
  };
  const unsigned long before = now();
  const std::string first = RequestIdGenerator::generate("base");
  const std::string second = RequestIdGenerator::generate("base");
  const std::string prefix = "REQ-base-";
  ASSERT_TRUE(first.starts_with(prefix)) << first;
  const unsigned long ms = std::stoul(first.substr(prefix.size()));
  EXPECT_GE(ms, before) << first;
  EXPECT_LE(ms, now()) << first;
  EXPECT_FALSE(second.ends_with(first.substr(first.rfind('-')))) << first << " and " << second;
  EXPECT_EQ(TestAccess::requestId("", UINT64_MAX, 0x1f), "REQ--18446744073709551615-0000001f");
  EXPECT_EQ(RequestIdGenerator::generate(nullptr), "REQ-");
}

TEST(SessionToken, IsTheMacOfARandomBlock) {
  // From RFC 4231.
  const std::string data = "what do ya want for nothing?";
  unsigned char mac[32] = {};
  EXPECT_EQ(SessionToken::hmacSha256("Jefe", 4, data.data(), data.size(), mac), mac);
  EXPECT_EQ(hex(mac, 32), "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  // From another twister, checked by the standard's 10000th value, and another MAC.
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
