// SPDX-License-Identifier: MIT
#ifndef DORVE_PROTOCOL_MESSAGES_H_
#define DORVE_PROTOCOL_MESSAGES_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "dorve/protocol/message_serializer.h"
#include "dorve/protocol/text_field.h"

/// The ten messages. A record has the bytes of its message on the wire, except for the header's byte order.
///
/// All fields are packed. Integers in the body are little-endian.
/// A text field ends with at least one NUL, and all of its unused bytes are NULs.
/// Writers set `reserved` bytes to 0, and readers ignore them.
namespace dorve {

/// The header's `type`. The type of a response is that of its request plus one.
enum class MessageType : std::uint16_t {
  VERSION_QUERY = 0,
  VERSION_RESPONSE = 1,
  EXCHANGE_KEYS_REQUEST = 2,
  EXCHANGE_KEYS_RESPONSE = 3,
  VERIFY_KEYS_REQUEST = 4,
  VERIFY_KEYS_RESPONSE = 5,
  INSTALL_KEYS_REQUEST = 6,
  INSTALL_KEYS_RESPONSE = 7,
  CONFIRM_INSTALL_REQUEST = 8,
  CONFIRM_INSTALL_RESPONSE = 9,
};

constexpr std::size_t kRequestIdCapacity = 128;
constexpr std::size_t kVersionCapacity = 32;
constexpr std::size_t kVersionListCapacity = 256;
constexpr std::size_t kPublicKeyCapacity = 4096;
constexpr std::size_t kTokenCapacity = 65;
constexpr std::size_t kHashCapacity = 65;
constexpr std::size_t kStatusCapacity = 32;

/// Asks the server to select a protocol version.
struct [[gnu::packed, gnu::may_alias]] VersionQuery {
  static constexpr MessageType kType = MessageType::VERSION_QUERY;

  MessageHeader header;
  char request_id[kRequestIdCapacity];
  char client_version[kVersionCapacity];
  char supported_versions[kVersionListCapacity];
  std::uint32_t reserved;
  std::uint32_t features;  ///< always `kQueryFeatures`
  std::uint32_t reserved2;
  std::uint8_t reserved3[24];
};

static_assert(sizeof(VersionQuery) == 484);
static_assert(offsetof(VersionQuery, request_id) == 32);
static_assert(offsetof(VersionQuery, client_version) == 160);
static_assert(offsetof(VersionQuery, supported_versions) == 192);
static_assert(offsetof(VersionQuery, reserved) == 448);
static_assert(offsetof(VersionQuery, features) == 452);
static_assert(offsetof(VersionQuery, reserved2) == 456);
static_assert(offsetof(VersionQuery, reserved3) == 460);

/// Carries the selected version, or reports that there is no common version.
struct [[gnu::packed, gnu::may_alias]] VersionResponse {
  static constexpr MessageType kType = MessageType::VERSION_RESPONSE;

  MessageHeader header;
  char request_id[kRequestIdCapacity];
  char server_version[kVersionCapacity];
  char selected_version[kVersionCapacity];  ///< empty when there is no common version
  std::uint32_t features;                   ///< the feature mask of the selected version
  std::uint32_t error_code;                 ///< 0, or 1 when there is no common version
  char message[256];                        ///< a text for people; the client ignores it
  std::uint8_t reserved[24];
};

static_assert(sizeof(VersionResponse) == 512);
static_assert(offsetof(VersionResponse, request_id) == 32);
static_assert(offsetof(VersionResponse, server_version) == 160);
static_assert(offsetof(VersionResponse, selected_version) == 192);
static_assert(offsetof(VersionResponse, features) == 224);
static_assert(offsetof(VersionResponse, error_code) == 228);
static_assert(offsetof(VersionResponse, message) == 232);
static_assert(offsetof(VersionResponse, reserved) == 488);

/// Carries the client's public key.
struct [[gnu::packed, gnu::may_alias]] ExchangeKeysRequest {
  static constexpr MessageType kType = MessageType::EXCHANGE_KEYS_REQUEST;

  MessageHeader header;
  char request_id[kRequestIdCapacity];
  char variant[32];  ///< always "base"
  char public_key[kPublicKeyCapacity];
  std::uint8_t reserved[300];
};

static_assert(sizeof(ExchangeKeysRequest) == 4588);
static_assert(offsetof(ExchangeKeysRequest, request_id) == 32);
static_assert(offsetof(ExchangeKeysRequest, variant) == 160);
static_assert(offsetof(ExchangeKeysRequest, public_key) == 192);
static_assert(offsetof(ExchangeKeysRequest, reserved) == 4288);

/// Carries the server's public key, and a token for the later requests.
struct [[gnu::packed, gnu::may_alias]] ExchangeKeysResponse {
  static constexpr MessageType kType = MessageType::EXCHANGE_KEYS_RESPONSE;

  MessageHeader header;
  char request_id[kRequestIdCapacity];
  char public_key[kPublicKeyCapacity];
  char session_token[kTokenCapacity];
  std::uint64_t token_expiry_us;  ///< wall clock in microseconds; neither side enforces it
  std::uint32_t reserved;
  std::uint8_t reserved2[291];
};

static_assert(sizeof(ExchangeKeysResponse) == 4624);
static_assert(offsetof(ExchangeKeysResponse, request_id) == 32);
static_assert(offsetof(ExchangeKeysResponse, public_key) == 160);
static_assert(offsetof(ExchangeKeysResponse, session_token) == 4256);
static_assert(offsetof(ExchangeKeysResponse, token_expiry_us) == 4321);
static_assert(offsetof(ExchangeKeysResponse, reserved) == 4329);
static_assert(offsetof(ExchangeKeysResponse, reserved2) == 4333);

/// Asks the server whether both sides hold the same two public keys.
struct [[gnu::packed, gnu::may_alias]] VerifyKeysRequest {
  static constexpr MessageType kType = MessageType::VERIFY_KEYS_REQUEST;

  MessageHeader header;
  char request_id[kRequestIdCapacity];
  char session_token[kTokenCapacity];
  char local_key_hash[kHashCapacity];  ///< SHA-256 of the sender's public key, in hexadecimal
  char peer_key_hash[kHashCapacity];   ///< SHA-256 of the public key that the sender received
  std::uint8_t reserved[30];
};

static_assert(sizeof(VerifyKeysRequest) == 385);
static_assert(offsetof(VerifyKeysRequest, request_id) == 32);
static_assert(offsetof(VerifyKeysRequest, session_token) == 160);
static_assert(offsetof(VerifyKeysRequest, local_key_hash) == 225);
static_assert(offsetof(VerifyKeysRequest, peer_key_hash) == 290);
static_assert(offsetof(VerifyKeysRequest, reserved) == 355);

/// Carries the server's verdict on the keys.
struct [[gnu::packed, gnu::may_alias]] VerifyKeysResponse {
  static constexpr MessageType kType = MessageType::VERIFY_KEYS_RESPONSE;

  MessageHeader header;
  char request_id[kRequestIdCapacity];
  char status[kStatusCapacity];  ///< "VERIFIED"; any other text is a refusal and its reason
  std::uint32_t reserved;
  std::uint8_t reserved2[158];
};

static_assert(sizeof(VerifyKeysResponse) == 354);
static_assert(offsetof(VerifyKeysResponse, request_id) == 32);
static_assert(offsetof(VerifyKeysResponse, status) == 160);
static_assert(offsetof(VerifyKeysResponse, reserved) == 192);
static_assert(offsetof(VerifyKeysResponse, reserved2) == 196);

/// Asks the server to install the client's public key, which the server received in ExchangeKeysRequest.
struct [[gnu::packed, gnu::may_alias]] InstallKeysRequest {
  static constexpr MessageType kType = MessageType::INSTALL_KEYS_REQUEST;

  MessageHeader header;
  char request_id[kRequestIdCapacity];
  char session_token[kTokenCapacity];
  std::uint32_t install_flags;  ///< always `kInstallFlags`
  std::uint8_t reserved[539];
};

static_assert(sizeof(InstallKeysRequest) == 768);
static_assert(offsetof(InstallKeysRequest, request_id) == 32);
static_assert(offsetof(InstallKeysRequest, session_token) == 160);
static_assert(offsetof(InstallKeysRequest, install_flags) == 225);
static_assert(offsetof(InstallKeysRequest, reserved) == 229);

/// Reports the result of the installation.
struct [[gnu::packed, gnu::may_alias]] InstallKeysResponse {
  static constexpr MessageType kType = MessageType::INSTALL_KEYS_RESPONSE;

  MessageHeader header;
  char request_id[kRequestIdCapacity];
  char status[kStatusCapacity];          ///< the client ignores it
  char install_status[kStatusCapacity];  ///< "COMPLETED"; any other text is a failure
  std::uint32_t reserved;
  std::uint8_t reserved2[280];
};

static_assert(sizeof(InstallKeysResponse) == 508);
static_assert(offsetof(InstallKeysResponse, request_id) == 32);
static_assert(offsetof(InstallKeysResponse, status) == 160);
static_assert(offsetof(InstallKeysResponse, install_status) == 192);
static_assert(offsetof(InstallKeysResponse, reserved) == 224);
static_assert(offsetof(InstallKeysResponse, reserved2) == 228);

/// Reports that the client has installed the server's public key.
struct [[gnu::packed, gnu::may_alias]] ConfirmInstallRequest {
  static constexpr MessageType kType = MessageType::CONFIRM_INSTALL_REQUEST;

  MessageHeader header;
  char request_id[kRequestIdCapacity];
  char session_token[kTokenCapacity];
  char status[kStatusCapacity];  ///< always "INSTALLED"
  std::uint8_t reserved[27];
};

static_assert(sizeof(ConfirmInstallRequest) == 284);
static_assert(offsetof(ConfirmInstallRequest, request_id) == 32);
static_assert(offsetof(ConfirmInstallRequest, session_token) == 160);
static_assert(offsetof(ConfirmInstallRequest, status) == 225);
static_assert(offsetof(ConfirmInstallRequest, reserved) == 257);

/// Confirms the end of the pairing.
struct [[gnu::packed, gnu::may_alias]] ConfirmInstallResponse {
  static constexpr MessageType kType = MessageType::CONFIRM_INSTALL_RESPONSE;

  MessageHeader header;
  char request_id[kRequestIdCapacity];
  char status[kStatusCapacity];  ///< "COMPLETE", without the D of InstallKeysResponse
  std::uint32_t reserved;
  std::uint8_t keys_active;  ///< always 1; the client prints it
  std::uint8_t reserved2;
  std::uint64_t completed_at_us;  ///< wall clock when the server built the response
  std::uint8_t reserved3[267];
};

static_assert(sizeof(ConfirmInstallResponse) == 473);
static_assert(offsetof(ConfirmInstallResponse, request_id) == 32);
static_assert(offsetof(ConfirmInstallResponse, status) == 160);
static_assert(offsetof(ConfirmInstallResponse, reserved) == 192);
static_assert(offsetof(ConfirmInstallResponse, keys_active) == 196);
static_assert(offsetof(ConfirmInstallResponse, reserved2) == 197);
static_assert(offsetof(ConfirmInstallResponse, completed_at_us) == 198);
static_assert(offsetof(ConfirmInstallResponse, reserved3) == 206);

/// Values of `error_code` in VersionResponse.
constexpr std::uint32_t kVersionSelected = 0;
constexpr std::uint32_t kNoCommonVersion = 1;

/// Every client sends these values, and the server ignores them.
constexpr std::uint32_t kQueryFeatures = 3;
constexpr std::uint32_t kInstallFlags = 3;

constexpr const char* kStatusVerified = "VERIFIED";
constexpr const char* kStatusCompleted = "COMPLETED";  ///< in InstallKeysResponse
constexpr const char* kStatusInstalled = "INSTALLED";
constexpr const char* kStatusComplete = "COMPLETE";  ///< in ConfirmInstallResponse

/// A record with its header in host order, with the current time and no checksum yet.
/// Its request id is `requestId`, truncated to 127 bytes. All other bytes are 0.
template <typename Record>
Record makeRecord(std::string_view requestId) {
  Record record{};
  record.header.magic = kHeaderMagic;
  record.header.version = kProtocolVersion;
  record.header.type = static_cast<std::uint16_t>(Record::kType);
  record.header.length = sizeof(Record);
  record.header.timestamp = MessageSerializer::getTimestampUs();
  writeText(record.request_id, requestId);
  return record;
}

/// Makes a filled record ready to send: stores the checksum of the whole record,
/// then converts the header to wire order.
template <typename Record>
void seal(Record& record) {
  MessageSerializer::setChecksum(&record, sizeof record);
  MessageSerializer::encodeHeader(&record);
}

}  // namespace dorve

#endif  // DORVE_PROTOCOL_MESSAGES_H_
