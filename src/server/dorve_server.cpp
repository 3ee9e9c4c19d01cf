// SPDX-License-Identifier: MIT
#include "dorve/server/dorve_server.h"

#include <cstring>
#include <iostream>
#include <new>

#include "dorve/keys/key_material.h"
#include "dorve/keys/ssh_files.h"
#include "dorve/protocol/endpoints.h"
#include "dorve/protocol/session_token.h"

namespace dorve {
namespace {

constexpr int kBacklog = 1;
constexpr unsigned long kListenerTimeoutMs = 60000;
constexpr unsigned long kClientTimeoutMs = 5000;
constexpr int kBindRetries = 100;
constexpr unsigned int kBindRetryMs = 200;

void tellError() {
  std::cerr << "Error" << std::endl;
}

/// The text that every request's body begins with.
std::string_view requestIdOf(const std::uint8_t* message) {
  return readText(reinterpret_cast<const VersionQuery*>(message)->request_id);
}

std::uint16_t typeOf(const std::uint8_t* message) {
  return reinterpret_cast<const MessageHeader*>(message)->type;
}

/// Has a handler build its response in place in `response`; gives its size.
template <typename Request, typename Response>
std::size_t answer(DorveServer& server, Response (DorveServer::*handle)(const Request*),
                   const std::uint8_t* request, std::uint8_t* response) {
  new (response) Response((server.*handle)(reinterpret_cast<const Request*>(request)));
  return sizeof(Response);
}

/// The one word that the log has for a failed socket. What failed is there for a debugger that stops here.
void tellException(const NqSocketException& failure) {
  [[maybe_unused]] const char* what = failure.what();
  std::cerr << "Exception" << std::endl;
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
    // The library loads what a MAC needs when it makes the first one: now, while nobody waits for an answer.
    unsigned char mac[32];
    SessionToken::hmacSha256("", 0, "", 0, mac);
    NqSocket client = listener.accept();
    client.setTimeout(kClientTimeoutMs);
    processRequest(client);
  } catch (const NqSocketException& failure) {
    tellException(failure);
    return false;
  }
  return true;
}

void DorveServer::processRequest(NqSocket& client) try {
  std::uint8_t request[SERVER_RECEIVE_BUFFER];
  std::uint8_t response[sizeof(ExchangeKeysResponse)];
  for (;;) {
    const std::size_t received = client.receive(request, sizeof request);
    if (received == 0) return;
    if (!completeMessage(client, request, received)) {
      tellError();
      continue;
    }
    const std::string_view requestId = requestIdOf(request);
    if (const CacheEntry* known = responseCache.lookup(requestId)) {
      client.sendAll(known->response, static_cast<std::size_t>(known->responseSize));
      continue;
    }
    const std::size_t size = dispatch(request, response);
    if (size == 0) {
      tellError();
      continue;
    }
    responseCache.store(requestId, response, size);
    client.sendAll(response, size);
    if (typeOf(request) == static_cast<std::uint16_t>(MessageType::CONFIRM_INSTALL_REQUEST)) return;
  }
} catch (const NqSocketException& failure) {
  tellException(failure);
}

bool DorveServer::completeMessage(NqSocket& client, std::uint8_t* buffer, std::size_t received) {
  if (received < kHeaderSize) return false;
  MessageSerializer::decodeHeader(buffer);
  const std::uint32_t length = reinterpret_cast<const MessageHeader*>(buffer)->length;
  if (length > SERVER_RECEIVE_BUFFER) return false;
  while (received < length) {
    const std::size_t more = client.receive(buffer + received, length - received);
    if (more == 0) {
      // Told here and once more by the caller, for the end of the stream and for the message that it cut:
      // readers of the log know a cut message by the pair.
      tellError();
      return false;
    }
    received += more;
  }
  // What an earlier message left behind this one must not be taken for a part of it.
  std::memset(buffer + received, 0, SERVER_RECEIVE_BUFFER - received);
  return MessageSerializer::validateChecksum(buffer, received) &&
         MessageSerializer::validateHeader(buffer, typeOf(buffer), received);
}

std::size_t DorveServer::dispatch(const std::uint8_t* request, std::uint8_t* response) {
  switch (static_cast<MessageType>(typeOf(request))) {
    case MessageType::VERSION_QUERY:
      return answer(*this, &DorveServer::handleVersionQuery, request, response);
    case MessageType::EXCHANGE_KEYS_REQUEST:
      return answer(*this, &DorveServer::handleExchangeKeys, request, response);
    case MessageType::VERIFY_KEYS_REQUEST:
      return answer(*this, &DorveServer::handleVerifyKeys, request, response);
    case MessageType::INSTALL_KEYS_REQUEST:
      return answer(*this, &DorveServer::handleInstallKeys, request, response);
    case MessageType::CONFIRM_INSTALL_REQUEST:
      return answer(*this, &DorveServer::handleConfirm, request, response);
    default:
      return 0;
  }
}

}  // namespace dorve
