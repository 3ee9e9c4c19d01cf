// SPDX-License-Identifier: MIT
// The server's five handlers. Each handles one type of request and returns its whole response.
#include <cstdio>

#include "dorve/net/endpoints.h"
#include "dorve/protocol/session_token.h"
#include "dorve/server/dorve_server.h"

namespace dorve {
namespace {

/// A response to `request`: a zeroed record with header and request id, for the handler to fill and seal.
/// It does not repeat the client's sequence number.
template <typename Response, typename Request>
Response makeResponse(const Request* request) {
  static_assert(static_cast<int>(Response::kType) == static_cast<int>(Request::kType) + 1);
  return makeRecord<Response>(readText(request->request_id));
}

}  // namespace

VersionResponse DorveServer::handleVersionQuery(const VersionQuery* query) {
  const std::string selected = versionTable.findCommonVersion(readText(query->supported_versions));
  auto response = makeResponse<VersionResponse>(query);
  writeText(response.server_version, versionTable.current());
  if (selected.empty()) {
    response.error_code = kNoCommonVersion;
    std::snprintf(response.message, sizeof response.message, "No compatible version. Server supports: %s",
                  std::string(versionTable.supported()).c_str());
  } else {
    writeText(response.selected_version, selected);
    response.features = versionTable.getFeaturesForVersion(selected);
    response.error_code = kVersionSelected;
    std::snprintf(response.message, sizeof response.message, "Version %s selected successfully",
                  selected.c_str());
  }
  seal(response);
  return response;
}

ExchangeKeysResponse DorveServer::handleExchangeKeys(const ExchangeKeysRequest* request) {
  writeText(peerPublicKey, readText(request->public_key));
  auto response = makeResponse<ExchangeKeysResponse>(request);
  writeText(response.public_key, readText(localPublicKey));
  writeText(response.session_token, SessionToken::generate(tokenSeed, readText(tokenSeed).size()));
  response.token_expiry_us = SessionToken::calculateExpiry(SessionToken::getCurrentTimeUs());
  seal(response);
  return response;
}

VerifyKeysResponse DorveServer::handleVerifyKeys(const VerifyKeysRequest* request) {
  // The hashes are not compared: the server trusts the client, and the client accepts this status.
  auto response = makeResponse<VerifyKeysResponse>(request);
  writeText(response.status, kStatusVerified);
  seal(response);
  return response;
}

InstallKeysResponse DorveServer::handleInstallKeys(const InstallKeysRequest* request) {
  // The timestamp in the header is from before the installation.
  auto response = makeResponse<InstallKeysResponse>(request);
  addAuthKey(peerPublicKey);
  addSshConfig(kClientAddress);
  writeText(response.install_status, kStatusCompleted);
  writeText(response.status, kStatusCompleted);
  seal(response);
  return response;
}

ConfirmInstallResponse DorveServer::handleConfirm(const ConfirmInstallRequest* request) {
  auto response = makeResponse<ConfirmInstallResponse>(request);
  writeText(response.status, kStatusComplete);
  response.keys_active = 1;
  response.completed_at_us = MessageSerializer::getTimestampUs();
  seal(response);
  return response;
}

}  // namespace dorve
