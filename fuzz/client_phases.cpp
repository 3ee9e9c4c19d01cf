// SPDX-License-Identifier: MIT
// The client's five phases, on arbitrary responses of a server.
#include "dorve/client/dorve_client.h"
#include "fuzz.h"

using namespace dorve;

/// The friend that DorveClient names.
struct dorve::TestAccess {
  /// Runs one phase, 0 to 4, on a connection. All retries are used up, so no failed receive pauses.
  static bool phase(DorveClient& client, NqSocket&& connection, std::size_t number) {
    using Phase = bool (DorveClient::*)();
    constexpr Phase kPhases[] = {&DorveClient::phaseVersionNegotiation, &DorveClient::phaseExchangeKeys,
                                 &DorveClient::phaseVerifyKeys, &DorveClient::phaseInstallKeys,
                                 &DorveClient::phaseConfirm};
    client.retryCount = 3;
    client.socket = std::move(connection);
    return (client.*kPhases[number])();
  }
};

const std::vector<std::string> dorve::kSeeds =
    conversations({0, kHeaderSize, sizeof(VersionResponse), sizeof(ExchangeKeysResponse),
                   sizeof(ExchangeKeysResponse) + 1});

// The offset of the text that makes each phase succeed.
// Phase 1 needs no text, so its offset is the end of the response.
constexpr std::size_t kTextOffsets[] = {offsetof(VersionResponse, selected_version),
                                        sizeof(ExchangeKeysResponse), offsetof(VerifyKeysResponse, status),
                                        offsetof(InstallKeysResponse, install_status),
                                        offsetof(ConfirmInstallResponse, status)};

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string kGoodResponses[] = {
      toWire(makeRecord<VersionResponse>(""), kTextOffsets[0], "1.0"),
      toWire(makeRecord<ExchangeKeysResponse>("")),
      toWire(makeRecord<VerifyKeysResponse>(""), kTextOffsets[2], kStatusVerified),
      toWire(makeRecord<InstallKeysResponse>(""), kTextOffsets[3], kStatusCompleted),
      toWire(makeRecord<ConfirmInstallResponse>(""), kTextOffsets[4], kStatusComplete)};
  FuzzedDataProvider input(data, size);
  std::remove((kSshDir + "/authorized_keys").c_str());
  DorveClient client("127.0.0.1", 0, kSshDir);
  for (int count = 0; count < 10 && input.remaining_bytes() > 0; ++count) {
    const std::size_t phase = input.ConsumeIntegral<std::uint8_t>() % std::size(kTextOffsets);
    const std::size_t offset = kTextOffsets[phase];
    const std::string& good = kGoodResponses[phase];
    std::string id;  // of the client's request
    ScriptedPeer peer(input, [&](const std::string& received) {
      return mutate(input, good, id = received.c_str() + kHeaderSize);
    });
    if (!TestAccess::phase(client, std::move(peer.near), phase)) continue;
    const std::size_t length = fromWire<MessageHeader>(peer.messages).length;
    check(length <= good.size() && beginsWith(peer.messages, 2 * phase + 1, length),
          "the client accepts only valid responses");
    // A response may be shorter than its record. The missing bytes are then zero.
    const std::string response = peer.messages.substr(0, length) + std::string(good.size(), '\0');
    check(std::string(response.c_str() + offset) == good.c_str() + offset,
          "a phase succeeds only if the response says so");
    check(phase != 0 || response.c_str() + kHeaderSize == id, "a version response has the id of the query");
  }
  return 0;
}
