// SPDX-License-Identifier: MIT
// The client's five phases: one request and one response each.
#include <iostream>

#include "dorve/client/dorve_client.h"
#include "dorve/protocol/request_id_generator.h"

namespace dorve {
namespace {

constexpr const char* kVariant = "base";

constexpr std::uint32_t kBadResponse = 0x3002;
constexpr std::uint32_t kBadVersionResponseHeader = 0x3012;
constexpr std::uint32_t kKeysNotVerified = 0x5002;
constexpr std::uint32_t kInstallationFailed = 0x7001;

}  // namespace

void DorveClient::beginPhase(std::uint32_t number, const char* title) {
  std::cout << title << std::endl;
  currentPhase = number;
  writeText(requestId, RequestIdGenerator::generate(kVariant));
}

template <typename Request>
Request DorveClient::makeRequest() {
  auto request = makeRecord<Request>(readText(requestId));
  request.header.sequence = sequenceNumber++;
  return request;
}

template <typename Request, typename Response>
bool DorveClient::roundTrip(const Request& request, Response& response, const PhaseRules& rules) {
  if (!sendRequest(&request, sizeof request)) return false;
  transitionTo(rules.sentState);

  response = {};
  unsigned long received = 0;
  if (!receiveResponse(&response, sizeof response, &received, rules.timeoutMs)) return false;

  const auto reject = [&](const char* what, std::uint32_t code) {
    std::cerr << rules.responseName << " validation failed: Invalid " << what << std::endl;
    transitionToError(code);
    return false;
  };
  MessageSerializer::decodeHeader(&response);
  if (!MessageSerializer::validateChecksum(&response, received)) return reject("checksum", kBadResponse);
  constexpr auto kType = static_cast<std::uint16_t>(Response::kType);
  if (!MessageSerializer::validateHeader(&response, kType, received)) {
    return reject("header", rules.badHeaderCode);
  }
  return true;
}

bool DorveClient::phaseVersionNegotiation() {
  beginPhase(0, "Phase 0: VERSION_NEGOTIATION");
  transitionTo(ClientState::VERSION_QUERY_SENDING);
  // The query is not numbered: its sequence is 0, and the counter stays as it is.
  const VersionQuery query = versionManager.createVersionQuery(readText(requestId));
  VersionResponse response;
  constexpr PhaseRules kRules{.sentState = ClientState::VERSION_QUERY_SENT,
                              .responseName = "VERSION_RESPONSE",
                              .timeoutMs = 3000,
                              .badHeaderCode = kBadVersionResponseHeader};
  if (!roundTrip(query, response, kRules)) return false;

  const std::int32_t result = versionManager.processVersionResponse(response, readText(requestId),
                                                                    negotiatedVersion, negotiatedFeatures);
  if (result == VersionManager::kNegotiated) return true;
  transitionToError(static_cast<unsigned int>(result));
  return false;
}

bool DorveClient::phaseExchangeKeys() {
  beginPhase(1, "Phase 1: EXCHANGE_KEYS");
  transitionTo(ClientState::EXCHANGE_KEYS_SENDING);
  auto request = makeRequest<ExchangeKeysRequest>();
  writeText(request.variant, kVariant);
  writeText(request.public_key, readText(localPublicKey));
  seal(request);
  ExchangeKeysResponse response;
  constexpr PhaseRules kRules{.sentState = ClientState::EXCHANGE_KEYS_SENT,
                              .responseName = "EXCHANGE_KEYS_RESPONSE",
                              .timeoutMs = 5000,
                              .badHeaderCode = kBadResponse};
  if (!roundTrip(request, response, kRules)) return false;

  // The client checks neither the key nor the token.
  // The next phase sends a hash of each key, but the server always responds with VERIFIED.
  writeText(peerPublicKey, readText(response.public_key));
  writeText(sessionToken, readText(response.session_token));
  transitionTo(ClientState::KEYS_EXCHANGED);
  std::cout << "Keys exchanged, session_token received" << std::endl;
  return true;
}

bool DorveClient::phaseVerifyKeys() {
  beginPhase(2, "Phase 2: VERIFY_KEYS");
  const std::string localHash = calculateKeyHash(localPublicKey);
  const std::string peerHash = calculateKeyHash(peerPublicKey);
  transitionTo(ClientState::VERIFY_KEYS_SENDING);
  auto request = makeRequest<VerifyKeysRequest>();
  writeText(request.session_token, readText(sessionToken));
  writeText(request.local_key_hash, localHash);
  writeText(request.peer_key_hash, peerHash);
  seal(request);
  VerifyKeysResponse response;
  constexpr PhaseRules kRules{.sentState = ClientState::VERIFY_KEYS_SENT,
                              .responseName = "VERIFY_KEYS_RESPONSE",
                              .timeoutMs = 3000,
                              .badHeaderCode = kBadResponse};
  if (!roundTrip(request, response, kRules)) return false;

  const std::string_view status = readText(response.status);
  if (status != kStatusVerified) {
    std::cerr << "Key verification failed: " << status << std::endl;
    transitionToError(kKeysNotVerified);
    return false;
  }
  transitionTo(ClientState::KEYS_VERIFIED);
  std::cout << "Keys verified successfully" << std::endl;
  return true;
}

bool DorveClient::phaseInstallKeys() {
  beginPhase(3, "Phase 3: INSTALL_KEYS");
  transitionTo(ClientState::INSTALL_KEYS_SENDING);
  // The client installs first.
  // If the server then fails, the server's key stays on the client until the next pairing.
  if (!installKeysLocally()) {
    std::cerr << "Local key installation failed" << std::endl;
    transitionToError(kInstallationFailed);
    return false;
  }
  auto request = makeRequest<InstallKeysRequest>();
  writeText(request.session_token, readText(sessionToken));
  request.install_flags = kInstallFlags;
  seal(request);
  InstallKeysResponse response;
  constexpr PhaseRules kRules{.sentState = ClientState::INSTALL_KEYS_SENT,
                              .responseName = "INSTALL_KEYS_RESPONSE",
                              .timeoutMs = 10000,
                              .badHeaderCode = kBadResponse};
  if (!roundTrip(request, response, kRules)) return false;

  const std::string_view status = readText(response.install_status);
  if (status != kStatusCompleted) {
    std::cerr << "Server installation failed: " << status << std::endl;
    transitionToError(kInstallationFailed);
    return false;
  }
  transitionTo(ClientState::KEYS_INSTALLED);
  std::cout << "Keys installed on both sides" << std::endl;
  return true;
}

bool DorveClient::phaseConfirm() {
  beginPhase(4, "Phase 4: CONFIRM");
  transitionTo(ClientState::CONFIRM_SENDING);
  auto request = makeRequest<ConfirmInstallRequest>();
  writeText(request.session_token, readText(sessionToken));
  writeText(request.status, kStatusInstalled);
  seal(request);
  ConfirmInstallResponse response;
  constexpr PhaseRules kRules{.sentState = ClientState::CONFIRM_SENT,
                              .responseName = "CONFIRM_INSTALL_RESPONSE",
                              .timeoutMs = 3000,
                              .badHeaderCode = kBadResponse};
  if (!roundTrip(request, response, kRules)) return false;

  const std::string_view status = readText(response.status);
  if (status != kStatusComplete) {
    // The client does not enter ERROR here: both sides have installed the keys, and only this phase failed.
    std::cerr << "Confirmation failed: " << status << std::endl;
    return false;
  }
  std::cout << "Protocol confirmed complete, keys_active=" << unsigned{response.keys_active} << std::endl;
  return true;
}

}  // namespace dorve
