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
/// Prints progress on standard output and failures on standard error.
class DorveClient {
 public:
  /// Calls `makeSshDirectory` for the SSH directory `directory`.
  /// `address` is the server's address in dotted decimal, and `port` is in host byte order.
  /// Only the connection uses them: the block in config is for `kServerAddress`, whatever `address` is.
  /// For another address, call `addSshConfig` after the run.
  DorveClient(const std::string& address, int port, const std::string& directory);

  /// Closes the connection without a message to the server.
  ~DorveClient();
  DorveClient(const DorveClient&) = delete;
  DorveClient& operator=(const DorveClient&) = delete;

  /// Generates the pairing key, waits for the interface, connects and runs the phases.
  /// Returns true if all five succeed. Throws NqSocketException if the connection can't be set up.
  /// The name of the interface and all timeouts are fixed. Nothing stops a run early.
  bool start();

  /// The operations of dorve/keys/ for this client's SSH directory and pairing key.
  void regenerateKeys();
  std::string readPublicKey() const;
  std::string calculateKeyHash(const char* key) const;
  bool validateKeyFormat(const char* key) const;
  void addAuthKey(const char* publicKey);
  void addKnownHost(const char* publicKey, const char* host);
  void addSshConfig(const char* host);

  /// Adds the server's public key to authorized_keys, and the block for `kServerAddress` to config.
  /// Returns true, whether the files could be written or not: see `keysInstalled`.
  bool installKeysLocally();

  /// Returns whether this device now has what `installKeysLocally` installs: authorized_keys contains the key
  /// that the server sent in this run, and config has a block for `kServerAddress`. Reads both files.
  /// If this is true and `start` failed, the server may lack this client's key.
  bool keysInstalled() const;

  /// What the run has reached. The state stays where a send or receive failed;
  /// only a response that fails a check enters ERROR. No operation is safe during `start` in another thread.
  ClientState getState() const;

  /// The number of the last phase that began: 0 to 4, and 0 before the first one.
  std::uint32_t getPhase() const;

  /// The code of the last failed check, as printed after "code=0x" (dorve-client(1)); 0 if none failed.
  std::uint32_t getLastErrorCode() const;

  /// The steady clock, in milliseconds, at the last transition; 0 before `start`. ERROR counts as no
  /// transition.
  std::uint64_t getStateEnteredMs() const;

 private:
  friend struct TestAccess;

  /// The parameters of a phase's round trip.
  struct PhaseRules {
    ClientState sentState;
    const char* responseName;
    unsigned int timeoutMs;
    std::uint32_t badHeaderCode;
  };

  /// Prints the transition and enters `next`.
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

  /// Sends a sealed request, then receives, decodes and checks its response.
  /// Returns false, after printing why, if a step fails. A failed check also enters ERROR.
  template <typename Request, typename Response>
  bool roundTrip(const Request& request, Response& response, const PhaseRules& rules);

  /// Sends all `size` bytes. Returns false, after printing why, if that fails.
  bool sendRequest(const void* data, unsigned long size);

  /// Receives one message: a first read of up to `capacity` bytes, then the rest up to its `length`.
  /// A first read shorter than a header or longer than its message is returned for the caller to reject.
  /// Returns false, after printing why, if the peer closes, the message is too large or the socket fails.
  /// After a socket failure, it pauses first (200, 400, then 800 ms), at most three times per object.
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
  std::uint64_t stateEnteredMs = 0;  ///< steady clock at the last transition
  std::uint32_t retryCount = 0;      ///< number of pauses in this run; never reset
  std::uint32_t currentPhase = 0;
  [[maybe_unused]] std::int32_t reserved = -1;
  sockaddr_in serverAddr;
  std::uint32_t sequenceNumber = 0;
  std::uint32_t lastErrorCode = 0;  ///< code of the last failed check
  std::string sshDir;
  std::string keyName;
  VersionManager versionManager;
  NqSocket socket;
};

}  // namespace dorve

#endif  // DORVE_CLIENT_DORVE_CLIENT_H_
