// SPDX-License-Identifier: MIT
// Benchmarks of requests and of the edit of a file.
// docs/performance.md describes them, and says why this program should run on one CPU.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "dorve/keys/key_material.h"
#include "dorve/keys/ssh_files.h"
#include "dorve/net/endpoints.h"
#include "dorve/server/dorve_server.h"

namespace dorve {
namespace {

namespace fs = std::filesystem;
using benchmark::State;

// The server installs keys in a directory of its own, where `edit` has left no large authorized_keys.
constexpr const char* kServerDirectory = "server";

std::string requestId(std::size_t number) {
  return "REQ-base-1-" + std::to_string(number);
}

/// Handles requests with the server's loop until `done`. `processRequest` returns after each confirmation.
void serve(int descriptor, const std::atomic<bool>& done) {
  const auto server = std::make_unique<DorveServer>(kServerAddress, kPort, kServerDirectory);
  NqSocket socket(descriptor);
  while (!done) server->processRequest(socket);
}

/// For each request, sends as many bytes as its response has, and does no other work.
template <typename Request, typename Response>
void echo(int descriptor, const std::atomic<bool>& /*done*/) {
  const NqSocket owner(descriptor);
  char buffer[SERVER_RECEIVE_BUFFER] = {};
  for (;;) {
    for (std::size_t size = 0; size < sizeof(Request);) {
      const ssize_t more = recv(descriptor, buffer + size, sizeof buffer - size, 0);
      if (more <= 0) return;
      size += static_cast<std::size_t>(more);
    }
    if (send(descriptor, buffer, sizeof(Response), MSG_NOSIGNAL) <= 0) return;
  }
}

/// Sends requests to a `peer` at the other end of a connection and receives a response to each.
/// If there are more `ids` than the cache has entries, each request is new to the server.
/// The label is the number of bytes that the messages left allocated on the heap.
template <typename Request, typename Response>
void roundTrips(State& state, void (*peer)(int, const std::atomic<bool>&), std::size_t ids) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return state.SkipWithError("no sockets");
  const timeval timeout{5, 0};
  setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  std::atomic<bool> done = false;
  std::thread thread([&] { peer(ends[1], done); });

  std::vector<Request> requests;
  for (std::size_t i = 0; i < ids; ++i) seal(requests.emplace_back(makeRecord<Request>(requestId(i))));
  Response response;
  std::size_t next = 0;
  const auto roundTrip = [&] {
    const Request& request = requests[next++ % ids];
    return send(ends[0], &request, sizeof request, MSG_NOSIGNAL) == sizeof request &&
           recv(ends[0], &response, sizeof response, MSG_WAITALL) == sizeof response;
  };
  bool complete = true;
  for (std::size_t i = 0; i < ids; ++i) complete = complete && roundTrip();
  const std::size_t heap = mallinfo2().uordblks;
  for (auto _ : state) complete = complete && roundTrip();
  state.SetLabel(std::to_string(static_cast<long>(mallinfo2().uordblks - heap)));
  if (!complete) state.SkipWithError("no response");

  done = true;
  shutdown(ends[0], SHUT_RDWR);
  thread.join();
  close(ends[0]);
}

template <typename Request, typename Response>
bool addPhase(const std::string& name) {
  const auto add = [&name](const std::string& operation, auto function, auto... arguments) {
    benchmark::RegisterBenchmark((operation + '/' + name).c_str(), function, arguments...)->UseRealTime();
  };
  add("echo", roundTrips<Request, Response>, echo<Request, Response>, 1);
  add("request", roundTrips<Request, Response>, serve, 2 * kCacheEntries);
  add("repeated", roundTrips<Request, Response>, serve, 1);
  return true;
}
const bool added[] = {addPhase<VersionQuery, VersionResponse>("version"),
                      addPhase<ExchangeKeysRequest, ExchangeKeysResponse>("exchange"),
                      addPhase<VerifyKeysRequest, VerifyKeysResponse>("verify"),
                      addPhase<InstallKeysRequest, InstallKeysResponse>("install"),
                      addPhase<ConfirmInstallRequest, ConfirmInstallResponse>("confirm")};

/// Makes a file of keys, unless it exists, and returns its path. Each line has about 100 bytes.
/// An old pairing key is in the middle.
std::string keyFile(long lines) {
  std::string path = "keys-" + std::to_string(lines);
  if (fs::exists(path)) return path;
  std::ofstream file(path);
  for (long i = 0; i < lines; ++i) {
    file << "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAI" << std::string(43, static_cast<char>('a' + i % 26)) << ' '
         << (i == lines / 2 ? kPairingKeyName : "admin@host-" + std::to_string(i)) << '\n';
  }
  return path;
}

bool addKey(std::string& /*file*/) {
  addAuthKey(".", kPairingKeyName, "ssh-ed25519 AAAAC3Nz base_slice_exchange\n");
  return true;
}

bool grep(std::string& file) {
  char program[] = "grep";
  char option[] = "-v";
  std::string text = kPairingKeyName;
  char* arguments[] = {program, option, text.data(), file.data(), nullptr};
  posix_spawn_file_actions_t streams;
  posix_spawn_file_actions_init(&streams);
  posix_spawn_file_actions_addopen(&streams, STDOUT_FILENO, "kept", O_WRONLY | O_CREAT | O_TRUNC, 0600);
  pid_t child = -1;
  int status = posix_spawnp(&child, program, &streams, nullptr, arguments, environ);
  posix_spawn_file_actions_destroy(&streams);
  return status == 0 && waitpid(child, &status, 0) == child && status == 0;
}

/// Edits a fresh copy of the file in each iteration. The time to copy does not count.
void edit(State& state, bool (*change)(std::string&)) {
  const std::string original = keyFile(state.range(0));
  std::string copy = "authorized_keys";
  for (auto _ : state) {
    fs::copy_file(original, copy, fs::copy_options::overwrite_existing);
    const auto start = std::chrono::steady_clock::now();
    if (!change(copy)) state.SkipWithError("failed");
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  state.SetComplexityN(state.range(0));
}
BENCHMARK_CAPTURE(edit, dorve, addKey)
    ->RangeMultiplier(10)
    ->Range(10, 1000000)
    ->UseManualTime()
    ->Complexity();
BENCHMARK_CAPTURE(edit, grep, grep)->RangeMultiplier(10)->Range(10, 1000000)->UseManualTime()->Complexity();

}  // namespace
}  // namespace dorve
