// SPDX-License-Identifier: MIT
#ifndef DORVE_FUZZ_FUZZ_H_
#define DORVE_FUZZ_FUZZ_H_

#include <fuzzer/FuzzedDataProvider.h>
#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>

#include "dorve/net/nq_socket.h"
#include "dorve/protocol/messages.h"

/// What the targets share. Of an input they take texts from the front and numbers from the end.
namespace dorve {

/// In the directory where the target runs, which scripts/fuzz makes in memory.
inline const std::string kSshDir = "fuzz-ssh";

/// Each target's inputs to begin with; `TARGET --seeds DIRECTORY` writes them.
extern const std::vector<std::string> kSeeds;

/// Nobody catches it, so a broken promise ends the program, and libFuzzer keeps the input.
inline void check(bool kept, const char* promise) {
  if (!kept) throw std::logic_error(promise);
}

/// A sealed record as the bytes of the wire.
template <typename Record>
std::string toWire(Record record) {
  seal(record);
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

/// The record in a wire message, header decoded, missing bytes zero.
template <typename Record>
Record fromWire(const std::string& wire) {
  Record record{};
  std::memcpy(&record, wire.data(), std::min(wire.size(), sizeof record));
  MessageSerializer::decodeHeader(&record);
  return record;
}

/// recv(2), and what stands in its place, under the names that --wrap=recv gives them.
ssize_t realReceive(int descriptor, void* buffer, std::size_t size, int flags) asm("__real_recv");
ssize_t peerReceive(int descriptor, void* buffer, std::size_t size, int flags) asm("__wrap_recv");

/// The far end of a connection, in the same thread: when the near end receives, it sends as much as the input
/// wants of the messages that `next` makes of what was heard, and closes after the last, so nobody waits.
struct Peer {
  Peer(FuzzedDataProvider& numbers, std::function<std::string(const std::string& heard)> next)
      : input(numbers), nextMessage(std::move(next)) {
    check(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "a socket pair can be made");
    near = NqSocket(ends[0]);
    far = NqSocket(ends[1]);
    current = this;
  }

  const std::string& hear() {
    char chunk[8192];
    const ssize_t size = realReceive(ends[1], chunk, sizeof chunk, MSG_DONTWAIT);
    return size > 0 ? heard.append(chunk, static_cast<std::size_t>(size)) : heard;
  }

  static inline Peer* current = nullptr;
  FuzzedDataProvider& input;
  std::function<std::string(const std::string&)> nextMessage;
  int ends[2];
  NqSocket near, far;
  std::string heard, sent;  ///< all bytes from the near end, and of the messages for it
  std::size_t taken = 0;    ///< how many of the latter have gone
};

ssize_t peerReceive(int descriptor, void* buffer, std::size_t size, int flags) {
  check(__asan_region_is_poisoned(buffer, size) == nullptr, "a receive ends inside its buffer");
  Peer& peer = *Peer::current;
  const auto number = [&] { return peer.input.ConsumeIntegral<std::uint8_t>(); };
  if (peer.hear(); peer.taken == peer.sent.size() && peer.taken < 99999 && peer.input.remaining_bytes() > 0) {
    do peer.sent += peer.nextMessage(peer.heard);
    while (number() == 1);
  }
  const std::size_t most = number();
  if (most > 253) return errno = most == 254 ? EINTR : ECONNRESET, -1;
  const std::string segment = peer.sent.substr(peer.taken, most == 0 ? size : std::min(size, most));
  peer.taken += segment.size();
  segment.empty() ? void(peer.far.shutdown(SHUT_WR)) : peer.far.sendAll(segment);
  return realReceive(descriptor, buffer, size, flags);
}

/// What the input makes of a sound message: another size, other bytes, perhaps no NULs; and unless it wants
/// them wrong the id, the length in the header, the checksum.
inline std::string mutate(FuzzedDataProvider& input, std::string wire, const std::string& id) {
  const unsigned wrong = input.ConsumeIntegral<std::uint8_t>();
  if (const auto size = input.ConsumeIntegral<std::uint16_t>() % 8200U; size != 0) wire.resize(size, 'x');
  const std::string bytes = input.ConsumeBytesAsString(input.ConsumeIntegral<std::uint16_t>());
  wire.replace(input.ConsumeIntegral<std::uint16_t>() % (wire.size() + 1), bytes.size(), bytes);
  if (wire.size() < kHeaderSize) return wire;
  if ((wrong & 8) != 0) std::replace(wire.begin() + kHeaderSize, wire.end(), '\0', 'x');
  if ((wrong & 1) == 0 && wire.size() > 160) wire.replace(32, id.size() + 1, id.c_str(), id.size() + 1);
  auto* const header = reinterpret_cast<MessageHeader*>(wire.data());
  MessageSerializer::decodeHeader(header);
  if ((wrong & 2) == 0) header->length = static_cast<std::uint32_t>(wire.size());
  if ((wrong & 4) == 0) MessageSerializer::setChecksum(header, wire.size());
  MessageSerializer::encodeHeader(header);
  return wire;
}

/// For each of these sizes (0: their own) all five kinds of messages in turn.
inline std::vector<std::string> conversations(const std::vector<std::size_t>& sizes) {
  std::vector<std::string> seeds;
  for (const std::size_t size : sizes) {
    const std::string how = {0, 0, 0, 0, 0, 0, static_cast<char>(size), static_cast<char>(size / 256), 0};
    seeds.push_back(how + '\4' + how + '\3' + how + '\2' + how + '\1' + how + '\0');
  }
  return seeds;
}

/// Whether a stream begins with a whole sound message of this kind.
inline bool beginsWith(std::string wire, std::size_t type, std::size_t size) {
  if (wire.size() < size) return false;
  MessageSerializer::decodeHeader(wire.data());
  return MessageSerializer::validateChecksum(wire.data(), size) &&
         MessageSerializer::validateHeader(wire.data(), static_cast<std::uint16_t>(type), size);
}

}  // namespace dorve

extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments) {
  if (*count == 3 && std::string((*arguments)[1]) == "--seeds") {
    for (int number = 0; const std::string& seed : dorve::kSeeds)
      std::ofstream((*arguments)[2] + ("/" + std::to_string(number++)), std::ios::binary) << seed;
    std::exit(0);
  }
  for (std::ostream* const stream : {&std::cout, &std::cerr}) stream->rdbuf(nullptr);
  return 0;
}

#endif  // DORVE_FUZZ_FUZZ_H_
