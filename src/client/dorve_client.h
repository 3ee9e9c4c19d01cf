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

/// The asking side: one object drives one run of the five phases over one connection. Progress goes to
/// standard output, failures to standard error, a line each.
class DorveClient {
 public:
  /// Makes the SSH `directory` with mode 0700 where it may. `address` is dotted decimal, `port` in host
  /// order.
  DorveClient(const std::string& address, int port, const std::string& directory);

  /// Closes the connection; the peer is told nothing.
  ~DorveClient();
  DorveClient(const DorveClient&) = delete;
  DorveClient& operator=(const DorveClient&) = delete;

  /// Makes keys, waits for the interface, connects and runs the phases. True when all five succeeded. An
  /// NqSocketException out of the set-up of the connection is not caught.
  bool start();

  /// The pairing key and the SSH files of this side, as `keys/` has them.
  void regenerateKeys();
  std::string readPublicKey() const;
  std::string calculateKeyHash(const char* key) const;
  bool validateKeyFormat(const char* key) const;
  void addAuthKey(const char* publicKey);
  void addKnownHost(const char* publicKey, const char* host);
  void addSshConfig(const char* host);

  /// Installs the peer's key and the block for its address. Always true.
  bool installKeysLocally();

 private:
  friend struct TestAccess;

  /// What tells one phase's exchange from another's.
  struct Exchange {
    ClientState sentState;
    const char* responseName;
    unsigned int timeoutMs;
    std::uint32_t badHeaderCode;
  };

  /// Logs and enters any state from any other; nothing is forbidden.
  void transitionTo(ClientState next);

  /// Enters ERROR with a code, which it prints on standard error instead of a transition.
  void transitionToError(unsigned int code);

  bool waitForInterface(const char* name);

  bool phaseVersionNegotiation();
  bool phaseExchangeKeys();
  bool phaseVerifyKeys();
  bool phaseInstallKeys();
  bool phaseConfirm();

  void beginPhase(std::uint32_t number, const char* title);

  /// A request of phases 1 to 4 with its header and id filled; takes the next sequence number.
  template <typename Request>
  Request makeRequest();

  /// Sends a sealed request and receives, decodes and checks its response. False when one of the steps
  /// failed, which has then been told and, for a failed check, entered as an error.
  template <typename Request, typename Response>
  bool exchange(const Request& request, Response& response, const Exchange& rules);

  /// Sends all bytes; false after a failure, which it prints.
  bool sendRequest(const void* data, unsigned long size);

  /// Receives one message: a first read of up to `capacity` bytes, then the rest that its header's length
  /// asks for. Less than a header, or more than one message, is handed on as it came, for the caller's checks
  /// to refuse. False when the peer closed, the message does not fit or the socket failed; all is printed,
  /// and the last of these costs a growing pause, three times a run.
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
  // The time of the last transition (steady clock), the phase and the error code are kept for a debugger.
  std::uint64_t stateEnteredMs = 0;
  std::uint32_t retryCount = 0;  ///< for the whole run, never reset
  std::uint32_t currentPhase = 0;
  [[maybe_unused]] std::int32_t unusedDescriptor = -1;  ///< read by nothing; the connection is in `socket`
  sockaddr_in serverAddr;
  std::uint32_t sequenceNumber = 0;
  std::uint32_t lastErrorCode = 0;
  std::string sshDir;
  std::string keyName;
  VersionManager versionManager;
  NqSocket socket;
};

}  // namespace dorve

#endif  // DORVE_CLIENT_DORVE_CLIENT_H_
