// SPDX-License-Identifier: MIT
#ifndef DORVE_SERVER_DORVE_SERVER_H_
#define DORVE_SERVER_DORVE_SERVER_H_

#include <cstdint>
#include <string>

#include "dorve/net/nq_socket.h"
#include "dorve/protocol/messages.h"
#include "dorve/protocol/version_table.h"
#include "dorve/server/response_cache.h"

namespace dorve {

/// The largest message that the server reads, in bytes.
constexpr std::size_t SERVER_RECEIVE_BUFFER = 8192;

/// The answering side: serves one client on one connection, request by request, in whatever order they come.
/// It trusts the client: no token, hash or flag of a request is looked at. Large (over 90 KB): make one and
/// keep it.
class DorveServer {
 public:
  /// Makes the SSH `directory` with mode 0700 where it may. `address` and `port` are accepted and not used:
  /// `start` always listens on 172.20.10.1, port 8888.
  DorveServer(const std::string& address, int port, const std::string& directory);
  ~DorveServer();
  DorveServer(const DorveServer&) = delete;
  DorveServer& operator=(const DorveServer&) = delete;

  /// Makes keys, accepts one client within 60 seconds and serves it. False, after "Exception" on standard
  /// error, when the sockets could not be set up or nobody came; true once a client was served, however it
  /// ended.
  bool start();

  /// Serves a connection until the client closes it, a confirmation was answered or the socket fails.
  /// Whatever is no whole, sound request gets no answer, "Error" on standard error, and the connection stays.
  void processRequest(NqSocket& client);

  /// Each builds a whole response, sealed for the wire. None fails or refuses.
  VersionResponse handleVersionQuery(const VersionQuery* query);
  ExchangeKeysResponse handleExchangeKeys(const ExchangeKeysRequest* request);
  VerifyKeysResponse handleVerifyKeys(const VerifyKeysRequest* request);
  InstallKeysResponse handleInstallKeys(const InstallKeysRequest* request);
  ConfirmInstallResponse handleConfirm(const ConfirmInstallRequest* request);

  /// The pairing key and the SSH files of this side, as `keys/` has them.
  void regenerateKeys();
  std::string readPublicKey() const;
  std::string calculateKeyHash(const char* key) const;
  bool validateKeyFormat(const char* key) const;
  void addAuthKey(const char* publicKey);
  void addKnownHost(const char* publicKey, const char* host);
  void addSshConfig(const char* host);

  /// Does nothing and returns true; the handlers install.
  bool installKeysLocally(const char* keyText);

  /// Whether a token has the form of one; the handlers take tokens as they come.
  bool validateSessionToken(const char* token) const;

  /// Stops the sshd that /var/run/sshd.pid names, if one runs, removes that file, and starts a fresh one in
  /// the background, its output in the kernel log. A file that names no running sshd is left alone. Blocks
  /// for up to about 7 seconds. Prints "Warning" on standard error, behind what `terminateSshd` prints, and
  /// goes on when the old one would not end.
  void restartSshdUnmanaged();

  /// The process in the PID file when it is sshd, else -1.
  int readSshdPid();

  /// Whether the program name of a process holds "sshd".
  bool verifySshdProcess(int pid);

  /// Ends a process by SIGTERM, after 5 seconds by SIGKILL. False, after "Error" on standard error, when it
  /// may not be signalled or is still there 2 seconds later.
  bool terminateSshd(int pid);

  /// Waits until a process is gone or a zombie; false when more than `timeoutMs` milliseconds have passed.
  /// Looks after 20, 40, 80, 160 and then every 200 ms.
  bool waitForProcTerm(int pid, int timeoutMs);

 private:
  /// Receives what is missing of the message that begins with the `received` bytes in `buffer`, decodes its
  /// header and zeroes all behind it. Whether it is whole, not too large, and sound.
  static bool completeMessage(NqSocket& client, std::uint8_t* buffer, std::size_t received);

  /// Builds the response to a sound request in `response`; its size in bytes, or 0 for an unknown type.
  std::size_t dispatch(const std::uint8_t* request, std::uint8_t* response);

  [[maybe_unused]] std::int32_t unusedListener = -1;  ///< read by nothing; the sockets are locals of `start`
  [[maybe_unused]] std::int32_t unusedClient = -1;    ///< likewise
  char tokenSeed[kPublicKeyCapacity] = {};  ///< HMAC key of the session tokens; nothing fills it yet
  char localPublicKey[kPublicKeyCapacity] = {};
  char peerPublicKey[kPublicKeyCapacity] = {};
  ResponseCache responseCache;
  VersionTable versionTable;
  std::string sshDir;
  std::string keyName;
};

}  // namespace dorve

#endif  // DORVE_SERVER_DORVE_SERVER_H_
