// SPDX-License-Identifier: MIT
#ifndef DORVE_SERVER_STOP_WATCHER_H_
#define DORVE_SERVER_STOP_WATCHER_H_

#include <chrono>

namespace dorve {

/// Decides when a stop ends the service of one client, so that neither device keeps half a pairing.
/// A client installs this server's key after the response to VerifyKeysRequest. Before that response, a stop
/// ends the service at once. From then on, the client has `kFinishTimeout` after the stop to finish.
class StopWatcher {
 public:
  static constexpr std::chrono::milliseconds kFinishTimeout{5000};

  /// `client` is the client's socket, and `stopDescriptor` is readable once the server is to stop.
  StopWatcher(int client, int stopDescriptor) : connection(client), stop(stopDescriptor) {}

  /// The next response lets the client install: from now on a stop leaves time to finish.
  void letFinish() { finishing = true; }

  /// Waits at most `timeoutMs` milliseconds for bytes from the client. Returns false if a stop ends the
  /// service. Throws NqSocketException "Receive timeout" after that time.
  bool awaitBytes(int timeoutMs);

  /// Whether `awaitBytes` has returned false.
  bool hasEnded() const { return ended; }

 private:
  using Clock = std::chrono::steady_clock;

  bool awaitLastBytes();

  const int connection;
  const int stop;
  bool finishing = false;
  bool ended = false;
  bool stopped = false;
  Clock::time_point finishBy;  ///< valid after the stop
};

}  // namespace dorve

#endif  // DORVE_SERVER_STOP_WATCHER_H_
