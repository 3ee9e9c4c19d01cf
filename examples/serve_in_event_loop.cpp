// SPDX-License-Identifier: MIT
// For a program with an event loop: waits for a client on its own socket, until SIGTERM or SIGINT cancels.
// Run it on the device that has 172.20.10.1. The exit status is 0 if this device has installed the client's
// key, 1 after a failure and 2 after a cancellation.
#include <dorve/client/ssh_directory.h>
#include <dorve/net/endpoints.h>
#include <dorve/server/dorve_server.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <memory>

namespace {

int stop = -1;  // an eventfd: a signal handler can write it

void cancel(int /*signal*/) {
  eventfd_write(stop, 1);
}

/// A socket that listens on the address of the server, or -1.
int listenOnLink() {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in address = dorve::makeAddress(dorve::kServerAddress, dorve::kPort);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return -1;
  return listen(listener, 1) == 0 ? listener : -1;
}

}  // namespace

int main() {
  stop = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  signal(SIGTERM, cancel);
  signal(SIGINT, cancel);
  const std::string sshDir = dorve::findUserSshDirectory();
  const int listener = listenOnLink();
  if (sshDir.empty() || listener < 0) return 1;
  const auto server = std::make_unique<dorve::DorveServer>(dorve::kServerAddress, dorve::kPort, sshDir);

  std::cout << "Waiting for a client" << std::endl;
  pollfd events[] = {{listener, POLLIN, 0}, {stop, POLLIN, 0}};  // add the descriptors of your program
  while (poll(events, 2, -1) < 0 && errno == EINTR) {
  }
  // `serve` returns at once after a cancellation. Otherwise it serves the client, in well under a second.
  // A program that can't pause for a silent client (5 s) calls `serve` in a thread, and needs no poll(2).
  const dorve::ServeResult result = server->serve(listener, stop);
  close(listener);
  const int status = server->keysInstalled() ? 0 : result == dorve::ServeResult::STOPPED ? 2 : 1;
  const char* const outcomes[] = {"Paired", "Not paired", "Cancelled"};
  std::cout << outcomes[status] << std::endl;
  return status;
}
