// SPDX-License-Identifier: MIT
#ifndef DORVE_TESTS_TEST_ACCESS_H_
#define DORVE_TESTS_TEST_ACCESS_H_

#include <string>
#include <utility>

#include "dorve/client/dorve_client.h"
#include "dorve/protocol/request_id_generator.h"
#include "dorve/protocol/session_token.h"
#include "dorve/protocol/version_table.h"
#include "dorve/server/dorve_server.h"

namespace dorve {

/// The friend that the classes declare for tests. It gives access to private members.
struct TestAccess {
  static VersionTable versionTable(const char* current, const char* supported) {
    return {current, supported};
  }

  static std::string requestId(const char* prefix, std::uint64_t ms, std::uint32_t random) {
    return RequestIdGenerator::format(prefix, ms, random);
  }

  static std::string token(std::uint64_t seed, const std::string& key) {
    return SessionToken::generateFromSeed(seed, key.data(), key.size());
  }

  static int descriptor(const NqSocket& socket) { return socket.fd; }

  static unsigned int backoffMs(DorveClient& client, std::uint32_t count) {
    client.retryCount = count;
    return client.calculateBackoffMs();
  }

  static void setPeerKey(DorveClient& client, const char* key) { writeText(client.peerPublicKey, key); }

  /// One receive of a client on a connection that the test made.
  static bool receive(DorveClient& client, NqSocket&& connection, unsigned int timeoutMs) {
    if (TestAccess::descriptor(connection) >= 0) client.socket = std::move(connection);
    char buffer[512];
    unsigned long received = 0;
    return client.receiveResponse(buffer, sizeof buffer, &received, timeoutMs);
  }
};

}  // namespace dorve

#endif  // DORVE_TESTS_TEST_ACCESS_H_
