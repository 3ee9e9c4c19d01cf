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

/// The timeout of each receive from the client and each send to it.
constexpr unsigned long kClientTimeoutMs = 5000;

/// How a run of `DorveServer::serve` ended.
enum class ServeResult {
  SERVED,   ///< a client was served, whatever the result: ask `keysInstalled`
  STOPPED,  ///< a stop ended the wait for a client, or the service of a client
  FAILED,   ///< the listening socket or the connection can't be used
};

class StopWatcher;

/// The server side of a pairing. One object serves one client on one connection.
/// It accepts requests in any order and handles them one at a time.
/// It trusts the client: it ignores the tokens, hashes and flags in requests. An object is larger than 90 KB.
class DorveServer {
 public:
  /// Calls `makeSshDirectory` for the SSH directory `directory`.
  /// Ignores `address` and `port`: `start` always listens on `kServerAddress` and `kPort`.
  DorveServer(const std::string& address, int port, const std::string& directory);
  ~DorveServer();
  DorveServer(const DorveServer&) = delete;
  DorveServer& operator=(const DorveServer&) = delete;

  /// Generates the pairing key, accepts one client within 60 seconds and serves it.
  /// Returns true after serving a client, whatever the result. Returns false, after printing "Exception"
  /// on standard error, if the sockets can't be set up or no client connects.
  /// Nothing ends the wait early: `serve` is the run that can be stopped.
  bool start();

  /// Waits for one client on `listener`, generates the pairing key and serves the client, until `stop` is
  /// readable.
  ///
  /// `listener` is a listening socket of any address and family, blocking or not. It stays the caller's: the
  /// server neither closes it nor changes its flags. If it is blocking, nobody else may accept on it
  /// meanwhile. The block in config is for `kClientAddress`, whatever the address of the client is.
  ///
  /// `stop` is a descriptor such as an eventfd(2), a pipe, a signalfd(2) or a timerfd_create(2), or -1 for
  /// none. A signal handler or another thread stops the server by making it readable, with write(2). The
  /// server does not read it: it stays readable, so a second stop changes nothing, and the next run returns
  /// at once.
  /// - A stop before a client connects changes nothing on this device, and the old pairing key stays.
  /// - Until the client has been told VERIFIED, a stop closes the connection. Neither device installs a key,
  ///   but this device has a new pairing key.
  /// - After that, the client may already have installed its key, so it has up to 5 seconds to finish.
  ///   If it does, the result is SERVED, because the pairing is complete on both devices.
  ///
  /// Returns FAILED, after printing "Exception" on standard error, if `listener` can't be used.
  ServeResult serve(int listener, int stop);

  /// Returns whether this device now has what a client's InstallKeysRequest installs: authorized_keys
  /// contains the last key that the client sent in this run, and config has a block for `kClientAddress`.
  /// Reads both files. dorve-client has installed this server's key before it sends that request.
  bool keysInstalled() const;

  /// Serves a connection until the client closes it, a ConfirmInstallRequest has been handled
  /// or the socket fails. Drops each message that is not a complete, valid request: prints "Error"
  /// and keeps the connection open. Prints "Exception" if the socket fails. Both lines go to standard error.
  void processRequest(NqSocket& client);

  /// Each handles one request and returns its sealed response. None rejects a request.
  VersionResponse handleVersionQuery(const VersionQuery* query);
  ExchangeKeysResponse handleExchangeKeys(const ExchangeKeysRequest* request);
  VerifyKeysResponse handleVerifyKeys(const VerifyKeysRequest* request);
  InstallKeysResponse handleInstallKeys(const InstallKeysRequest* request);
  ConfirmInstallResponse handleConfirm(const ConfirmInstallRequest* request);

  /// The operations of dorve/keys/ for this server's SSH directory and pairing key.
  void regenerateKeys();
  std::string readPublicKey() const;
  std::string calculateKeyHash(const char* key) const;
  bool validateKeyFormat(const char* key) const;
  void addAuthKey(const char* publicKey);
  void addKnownHost(const char* publicKey, const char* host);
  void addSshConfig(const char* host);

  /// Returns true. It is `handleInstallKeys` that installs the client's key.
  bool installKeysLocally(const char* keyText);

  /// Returns whether `token` has the format of a session token.
  bool validateSessionToken(const char* token) const;

  // The next five operations, in server_sshd.cpp, are a group of their own: they manage an sshd, use no state
  // of the server and can be called at any time. A pairing does not need them, because sshd reads
  // authorized_keys at every login.

  /// Restarts an sshd that no service manager runs: stops the sshd that /var/run/sshd.pid names,
  /// deletes that file and starts sshd in the background, with its output in the kernel log.
  /// If the file names no running sshd, leaves the file as it is and only starts sshd.
  /// Prints "Warning" on standard error if the old sshd can't be stopped, and then starts a new one anyway.
  /// Blocks for up to about 7 seconds.
  void restartSshdUnmanaged();

  /// The process ID in /var/run/sshd.pid if that process is sshd, else -1.
  int readSshdPid();

  /// Returns whether the program name (argv[0]) of a process contains "sshd".
  bool verifySshdProcess(int pid);

  /// Sends SIGTERM to a process, and SIGKILL if it still runs after 5 seconds. Returns whether it has ended.
  /// Prints "Error" on standard error if it can't be signalled or still exists 2 seconds after SIGKILL.
  bool terminateSshd(int pid);

  /// Waits until a process has ended or is a zombie. Returns false after more than `timeoutMs` milliseconds.
  /// Checks at intervals of 20, 40, 80 and 160 ms, then every 200 ms.
  bool waitForProcTerm(int pid, int timeoutMs);

 private:
  /// Receives and serves the next request. `request` is a buffer of `SERVER_RECEIVE_BUFFER` bytes.
  /// Returns whether to continue.
  bool serveRequest(NqSocket& client, std::uint8_t* request);

  /// Receives the rest of the message whose first `received` bytes are in `buffer`, decodes its header
  /// and zeroes the unused bytes of the buffer. Returns whether the message is complete and valid.
  bool completeAndValidate(NqSocket& client, std::uint8_t* buffer, std::size_t received);

  /// Receives like `client`. In `serve`, a stop looks as if the client had closed the connection.
  unsigned long receive(NqSocket& client, void* buffer, unsigned long size);

  /// Makes libcrypto load its providers, which the first HMAC does.
  /// Called before a client connects, so that the client need not wait for it in phase 1.
  static void prepareTokens();

  /// Reports a socket failure in one line without details. The text of `failure` is dropped on purpose.
  static void reportException(const NqSocketException& failure);

  /// Handles a valid request, stores the response and sends it. Prints "Error" for an unknown type.
  /// Returns whether to continue, which is false after a ConfirmInstallRequest.
  bool handle(NqSocket& client, const std::uint8_t* request);

  [[maybe_unused]] std::int32_t reserved1 = -1;
  [[maybe_unused]] std::int32_t reserved2 = -1;
  char tokenSeed[kPublicKeyCapacity] = {};  ///< HMAC key of the session tokens: the empty text
  char localPublicKey[kPublicKeyCapacity] = {};
  char peerPublicKey[kPublicKeyCapacity] = {};
  ResponseCache responseCache;
  VersionTable versionTable;
  std::string sshDir;
  std::string keyName;
  StopWatcher* stopWatcher = nullptr;  ///< of the client that `serve` serves
};

}  // namespace dorve

#endif  // DORVE_SERVER_DORVE_SERVER_H_
