// SPDX-License-Identifier: MIT
// The server's five handlers. Each handles one type of request and returns its whole response.
#include <cstdio>

#include "dorve/net/endpoints.h"
#include "dorve/protocol/session_token.h"
#include "dorve/server/dorve_server.h"

namespace dorve {
namespace {

/// Makes a sealed response: a zeroed record with header and request id, whose body `fill` writes.
/// The response does not repeat the client's sequence number.
template <typename Response, typename Request, typename Fill>
Response respondTo(const Request* request, Fill fill) {
  static_assert(static_cast<int>(Response::kType) == static_cast<int>(Request::kType) + 1);
  auto response = makeRecord<Response>(readText(request->request_id));
  fill(response);
  seal(response);
  return response;
}

}  // namespace

VersionResponse DorveServer::handleVersionQuery(const VersionQuery* query) {
  return respondTo<VersionResponse>(query, [&](VersionResponse& response) {
    writeText(response.server_version, versionTable.current());
    const std::string selected = versionTable.findCommonVersion(readText(query->supported_versions));
    if (selected.empty()) {
      response.error_code = kNoCommonVersion;
      std::snprintf(response.message, sizeof response.message, "No compatible version. Server supports: %s",
                    std::string(versionTable.supported()).c_str());
      return;
    }
    writeText(response.selected_version, selected);
    response.features = versionTable.getFeaturesForVersion(selected);
    response.error_code = kVersionSelected;
    std::snprintf(response.message, sizeof response.message, "Version %s selected successfully",
                  selected.c_str());
  });
}

ExchangeKeysResponse DorveServer::handleExchangeKeys(const ExchangeKeysRequest* request) {
  return respondTo<ExchangeKeysResponse>(request, [&](ExchangeKeysResponse& response) {
    writeText(response.public_key, readText(localPublicKey));
    writeText(response.session_token, SessionToken::generate(tokenSeed, readText(tokenSeed).size()));
    response.token_expiry_us = SessionToken::calculateExpiry(SessionToken::getCurrentTimeUs());
    writeText(peerPublicKey, readText(request->public_key));
  });
}

VerifyKeysResponse DorveServer::handleVerifyKeys(const VerifyKeysRequest* request) {
  // The hashes are not compared: the server trusts the client, and the client accepts this status.
  return respondTo<VerifyKeysResponse>(
      request, [](VerifyKeysResponse& response) { writeText(response.status, kStatusVerified); });
}

InstallKeysResponse DorveServer::handleInstallKeys(const InstallKeysRequest* request) {
  return respondTo<InstallKeysResponse>(request, [this](InstallKeysResponse& response) {
    addAuthKey(peerPublicKey);
    addSshConfig(kClientAddress);
    writeText(response.install_status, kStatusCompleted);
    writeText(response.status, kStatusCompleted);
  });
}

ConfirmInstallResponse DorveServer::handleConfirm(const ConfirmInstallRequest* request) {
  return respondTo<ConfirmInstallResponse>(request, [](ConfirmInstallResponse& response) {
    writeText(response.status, kStatusComplete);
    response.keys_active = 1;
    response.completed_at_us = MessageSerializer::getTimestampUs();
  });
}

}  // namespace dorve
