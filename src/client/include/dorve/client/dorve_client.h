// SPDX-License-Identifier: MIT
#ifndef DORVE_CLIENT_DORVE_CLIENT_H_
#define DORVE_CLIENT_DORVE_CLIENT_H_

#include <netinet/in.h>

#include <cstdint>
#include <string>

#include "dorve/client/client_state.h"
#include "dorve/net/nq_socket.h"
#include "dorve/protocol/messages.h"
#include "dorve/protocol/version_manager.h"

namespace dorve {

/// The client side of a pairing. One object performs one run: five phases over one connection.
/// Prints progress on standard output and failures on standard error, one line each.
class DorveClient {
 public:
  /// Creates the SSH directory `directory` if it is missing, and sets its mode to 0700 if the process
  /// may do so. `address` is the server's in dotted decimal, `port` is in host byte order.
  DorveClient(const std::string& address, int port, const std::string& directory);

  /// Closes the connection without a message to the server.
  ~DorveClient();
  DorveClient(const DorveClient&) = delete;
  DorveClient& operator=(const DorveClient&) = delete;

  /// Generates the pairing key, waits for the interface, connects and runs the phases.
  /// Returns true if all five succeed. Throws NqSocketException if the connection can't be set up.
  bool start();

  /// The operations of dorve/keys/ for this client's SSH directory and pairing key.
  void regenerateKeys();
  std::string readPublicKey() const;
  std::string calculateKeyHash(const char* key) const;
  bool validateKeyFormat(const char* key) const;
  void addAuthKey(const char* publicKey);
  void addKnownHost(const char* publicKey, const char* host);
  void addSshConfig(const char* host);

  /// Adds the server's public key to authorized_keys, and the block for the server's address to config.
  /// Always returns true.
  bool installKeysLocally();

 private:
  friend struct TestAccess;

  /// What differs between the round trips of the phases.
  struct PhaseRules {
    ClientState sentState;
    const char* responseName;
    unsigned int timeoutMs;
    std::uint32_t badHeaderCode;
  };

  /// Prints the transition and enters `next`. Every transition is allowed.
  void transitionTo(ClientState next);

  /// Enters ERROR and prints `code` on standard error. Prints no transition line.
  void transitionToError(unsigned int code);

  bool waitForInterface(const char* name);

  bool phaseVersionNegotiation();
  bool phaseExchangeKeys();
  bool phaseVerifyKeys();
  bool phaseInstallKeys();
  bool phaseConfirm();

  void beginPhase(std::uint32_t number, const char* title);

  /// A request of phases 1 to 4 with its header and request id. Uses the next sequence number.
  template <typename Request>
  Request makeRequest();

  /// Sends a sealed request, then receives, decodes and checks its response. Returns false if a step fails.
  /// The failure has been printed; a failed check has also set the ERROR state.
  template <typename Request, typename Response>
  bool roundTrip(const Request& request, Response& response, const PhaseRules& rules);

  /// Sends all `size` bytes. Returns false, after printing why, if that fails.
  bool sendRequest(const void* data, unsigned long size);

  /// Receives one message: a first read of up to `capacity` bytes, then the rest of the length in its header.
  /// Fewer bytes than a header, or more than one message, are returned as they came,
  /// and the caller's checks reject them.
  /// Returns false, after printing why, if the peer closed, the message is too large or the socket failed.
  /// A socket failure also pauses (200, 400, 800 ms), at most three times per run.
  bool receiveResponse(void* buffer, unsigned long capacity, unsigned long* received, unsigned int timeoutMs);

  unsigned int calculateBackoffMs() const;
  void retryWithBackoff();

  ClientState state = ClientState::INIT;
  char requestId[kRequestIdCapacity] = {};
  char negotiatedVersion[kVersionCapacity] = {};
  std::uint32_t negotiatedFeatures = 0;
  char localPublicKey[kPublicKeyCapacity] = {};
  char peerPublicKey[kPublicKeyCapacity] = {};
  char sessionToken[kTokenCapacity] = {};
  std::uint64_t stateEnteredMs = 0;  ///< steady clock at the last transition; written, never read
  std::uint32_t retryCount = 0;      ///< number of pauses in this run; never reset
  std::uint32_t currentPhase = 0;    ///< written, never read
  [[maybe_unused]] std::int32_t unusedDescriptor = -1;  ///< never used; `socket` holds the connection
  sockaddr_in serverAddr;
  std::uint32_t sequenceNumber = 0;
  std::uint32_t lastErrorCode = 0;  ///< code of the last failed check; written, never read
  std::string sshDir;
  std::string keyName;
  VersionManager versionManager;
  NqSocket socket;
};

}  // namespace dorve

#endif  // DORVE_CLIENT_DORVE_CLIENT_H_
