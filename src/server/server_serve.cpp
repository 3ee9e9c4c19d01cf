// SPDX-License-Identifier: MIT
// One run of the server on the embedder's socket, which a stop can end.
#include <sys/socket.h>

#include <cerrno>

#include "dorve/keys/ssh_files.h"
#include "dorve/net/endpoints.h"
#include "dorve/net/wait.h"
#include "dorve/server/dorve_server.h"
#include "dorve/server/stop_watcher.h"

namespace dorve {
namespace {

/// Waits for a client and returns its connection, or -1 if a stop comes first. Throws "Accept failed".
int acceptUnlessStopped(int listener, int stop) {
  while (awaitReadable(listener, stop, kNoTimeoutMs) == Wake::READABLE) {
    const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection >= 0) return connection;
    // With a non-blocking listener, the client can be gone again.
    if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED)
      throw NqSocketException("Accept failed", errno);
  }
  return -1;
}

}  // namespace

ServeResult DorveServer::serve(int listener, int stop) {
  try {
    prepareTokens();
    const int connection = acceptUnlessStopped(listener, stop);
    if (connection < 0) return ServeResult::STOPPED;
    NqSocket client(connection);
    client.setTimeout(kClientTimeoutMs);
    // Unlike in `start`, the old pairing key stays until a client connects, so that a stopped wait changes
    // nothing.
    regenerateKeys();
    StopWatcher watcher(connection, stop);
    stopWatcher = &watcher;
    processRequest(client);
    stopWatcher = nullptr;
    return watcher.hasEnded() ? ServeResult::STOPPED : ServeResult::SERVED;
  } catch (const NqSocketException& failure) {
    reportException(failure);
    return ServeResult::FAILED;
  }
}

bool DorveServer::keysInstalled() const {
  return hasAuthKey(sshDir, readText(peerPublicKey)) && hasSshConfig(sshDir, kClientAddress);
}

}  // namespace dorve
