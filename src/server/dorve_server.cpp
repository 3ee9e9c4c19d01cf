// SPDX-License-Identifier: MIT
#include "dorve/server/dorve_server.h"

#include <cstring>
#include <iostream>

#include "dorve/keys/key_material.h"
#include "dorve/keys/ssh_files.h"
#include "dorve/net/endpoints.h"
#include "dorve/protocol/session_token.h"
#include "dorve/server/stop_watcher.h"
#include "dorve/util/report_error.h"

namespace dorve {
namespace {

constexpr int kBacklog = 1;
constexpr unsigned long kListenerTimeoutMs = 60000;
constexpr int kBindRetries = 100;
constexpr unsigned int kBindRetryMs = 200;

/// The request id, which is at the same offset in all requests.
std::string_view requestIdOf(const std::uint8_t* message) {
  return readText(reinterpret_cast<const VersionQuery*>(message)->request_id);
}

MessageType typeOf(const std::uint8_t* message) {
  return static_cast<MessageType>(reinterpret_cast<const MessageHeader*>(message)->type);
}

}  // namespace

DorveServer::DorveServer(const std::string& /*address*/, int /*port*/, const std::string& directory)
    : sshDir(directory), keyName(kPairingKeyName) {
  makeSshDirectory(sshDir);
}

DorveServer::~DorveServer() = default;

bool DorveServer::start() {
  regenerateKeys();
  try {
    NqSocket listener(true);
    listener.setReuseAddr(true);
    listener.setTimeout(kListenerTimeoutMs);
    listener.bind(makeAddress(kServerAddress, kPort), kBindRetries, kBindRetryMs);
    listener.listen(kBacklog);
    prepareTokens();
    NqSocket client = listener.accept();
    client.setTimeout(kClientTimeoutMs);
    processRequest(client);
  } catch (const NqSocketException& failure) {
    reportException(failure);
    return false;
  }
  return true;
}

void DorveServer::prepareTokens() {
  unsigned char mac[kMacSize];
  SessionToken::hmacSha256("", 0, "", 0, mac);
}

void DorveServer::reportException(const NqSocketException& failure) {
  static_cast<void>(failure.what());
  std::cerr << "Exception" << std::endl;
}

void DorveServer::processRequest(NqSocket& client) {
  std::uint8_t request[SERVER_RECEIVE_BUFFER];
  try {
    while (serveRequest(client, request)) {
    }
  } catch (const NqSocketException& failure) {
    reportException(failure);
  }
}

unsigned long DorveServer::receive(NqSocket& client, void* buffer, unsigned long size) {
  if (stopWatcher != nullptr && !stopWatcher->awaitBytes(static_cast<int>(kClientTimeoutMs))) return 0;
  return client.receive(buffer, size);
}

bool DorveServer::serveRequest(NqSocket& client, std::uint8_t* request) {
  const std::size_t received = receive(client, request, SERVER_RECEIVE_BUFFER);
  if (received == 0) return false;
  if (!completeAndValidate(client, request, received)) {
    reportError();
    return true;
  }
  if (const CacheEntry* known = responseCache.lookup(requestIdOf(request))) {
    client.sendAll(known->response, static_cast<std::size_t>(known->responseSize));
    return true;
  }
  return handle(client, request);
}

bool DorveServer::completeAndValidate(NqSocket& client, std::uint8_t* buffer, std::size_t received) {
  if (received < kHeaderSize) return false;
  MessageSerializer::decodeHeader(buffer);
  const std::uint32_t length = reinterpret_cast<const MessageHeader*>(buffer)->length;
  if (length > SERVER_RECEIVE_BUFFER) return false;
  while (received < length) {
    const std::size_t more = receive(client, buffer + received, length - received);
    if (more == 0) {
      // The caller prints "Error" again, on purpose:
      // two such lines mean that the connection closed inside a message.
      reportError();
      return false;
    }
    received += more;
  }
  // A short message must not end with the bytes of an earlier one.
  std::memset(buffer + received, 0, SERVER_RECEIVE_BUFFER - received);
  return MessageSerializer::validateChecksum(buffer, received) &&
         MessageSerializer::validateHeader(buffer, static_cast<std::uint16_t>(typeOf(buffer)), received);
}

bool DorveServer::handle(NqSocket& client, const std::uint8_t* request) {
  const auto letFinish = [this] {
    if (stopWatcher != nullptr) stopWatcher->letFinish();
  };
  const auto respond = [&](const auto& response) {
    responseCache.store(requestIdOf(request), &response, sizeof response);
    client.sendAll(&response, sizeof response);
  };
  switch (typeOf(request)) {
    case MessageType::VERSION_QUERY:
      respond(handleVersionQuery(reinterpret_cast<const VersionQuery*>(request)));
      return true;
    case MessageType::EXCHANGE_KEYS_REQUEST:
      respond(handleExchangeKeys(reinterpret_cast<const ExchangeKeysRequest*>(request)));
      return true;
    // A client installs this server's key between the response to the first of these two requests and the
    // second request. From then on, a stop must leave it time to finish.
    case MessageType::VERIFY_KEYS_REQUEST:
      letFinish();
      respond(handleVerifyKeys(reinterpret_cast<const VerifyKeysRequest*>(request)));
      return true;
    case MessageType::INSTALL_KEYS_REQUEST:
      letFinish();
      respond(handleInstallKeys(reinterpret_cast<const InstallKeysRequest*>(request)));
      return true;
    case MessageType::CONFIRM_INSTALL_REQUEST:
      respond(handleConfirm(reinterpret_cast<const ConfirmInstallRequest*>(request)));
      return false;
    default:
      reportError();
      return true;
  }
}

}  // namespace dorve
