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

/// Functions and types for the fuzz targets.
/// FuzzedDataProvider reads texts from the start of an input and numbers from the end.
namespace dorve {

/// The SSH directory that a target edits.
/// The path is relative, because scripts/fuzz runs each target in a directory in memory.
inline const std::string kSshDir = "fuzz-ssh";

/// The inputs that a target starts from. `TARGET --seeds DIRECTORY` writes them to files.
extern const std::vector<std::string> kSeeds;

/// Throws if an expectation does not hold.
/// Nothing catches the exception, so the program aborts and libFuzzer saves the input.
inline void check(bool holds, const char* expectation) {
  if (!holds) throw std::logic_error(expectation);
}

/// The wire bytes of a record that has `text` at `offset`.
template <typename Record>
std::string toWire(Record record, std::size_t offset = 0, std::string_view text = "") {
  text.copy(reinterpret_cast<char*>(&record) + offset, text.size());
  seal(record);
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

/// The record in the wire bytes of a message, with its header in host order. Missing bytes are zero.
template <typename Record>
Record fromWire(const std::string& wire) {
  Record record{};
  std::memcpy(&record, wire.data(), std::min(wire.size(), sizeof record));
  MessageSerializer::decodeHeader(&record);
  return record;
}

/// Whether `wire` begins with a complete, valid message of this type and size.
inline bool beginsWith(std::string wire, std::size_t type, std::size_t size) {
  if (wire.size() < size) return false;
  MessageSerializer::decodeHeader(wire.data());
  return MessageSerializer::validateChecksum(wire.data(), size) &&
         MessageSerializer::validateHeader(wire.data(), static_cast<std::uint16_t>(type), size);
}

/// recv(2) and its replacement. The linker's option --wrap=recv gives them these names.
ssize_t realReceive(int descriptor, void* buffer, std::size_t size, int flags) asm("__real_recv");
ssize_t wrappedReceive(int descriptor, void* buffer, std::size_t size, int flags) asm("__wrap_recv");

/// A scripted peer at the far end of a connection. The code under test uses the near end in the same thread.
///
/// Before each receive of the near end, `wrappedReceive` lets the peer send. After its last message, the peer
/// closes the connection, so no receive waits. `next` makes the next message from all bytes received so far.
struct ScriptedPeer {
  ScriptedPeer(FuzzedDataProvider& provider, std::function<std::string(const std::string& received)> next)
      : input(provider), nextMessage(std::move(next)) {
    check(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "a socket pair can be made");
    near = NqSocket(ends[0]);
    far = NqSocket(ends[1]);
    current = this;
  }

  /// Reads what the near end sent since the last call. Returns all bytes from the near end.
  const std::string& receive() {
    char chunk[8192];
    const ssize_t size = realReceive(ends[1], chunk, sizeof chunk, MSG_DONTWAIT);
    return size > 0 ? received.append(chunk, static_cast<std::size_t>(size)) : received;
  }

  static inline ScriptedPeer* current = nullptr;
  FuzzedDataProvider& input;
  std::function<std::string(const std::string&)> nextMessage;
  int ends[2];
  NqSocket near, far;
  std::string received;  ///< all bytes from the near end
  std::string messages;  ///< the peer's messages so far, one after the other
  std::size_t sent = 0;  ///< how many bytes of `messages` the peer has sent
};

/// Sends from the current peer, then receives. The input chooses the size of the segment, or an error.
ssize_t wrappedReceive(int descriptor, void* buffer, std::size_t size, int flags) {
  constexpr std::size_t kMaxSent = 99999;
  constexpr std::size_t kInterrupted = 254, kReset = 255;
  check(__asan_region_is_poisoned(buffer, size) == nullptr, "a receive ends inside its buffer");
  ScriptedPeer& peer = *ScriptedPeer::current;
  const auto nextByte = [&] { return peer.input.ConsumeIntegral<std::uint8_t>(); };
  peer.receive();
  if (peer.sent == peer.messages.size() && peer.sent < kMaxSent && peer.input.remaining_bytes() > 0) {
    do {
      peer.messages += peer.nextMessage(peer.received);
    } while (nextByte() == 1);
  }
  const std::size_t choice = nextByte();
  if (choice == kInterrupted || choice == kReset) {
    errno = choice == kReset ? ECONNRESET : EINTR;
    return -1;
  }
  const std::size_t most = choice == 0 ? size : std::min(size, choice);
  const std::string segment = peer.messages.substr(peer.sent, most);
  peer.sent += segment.size();
  if (segment.empty()) {
    peer.far.shutdown(SHUT_WR);
  } else {
    peer.far.sendAll(segment);
  }
  return realReceive(descriptor, buffer, size, flags);
}

/// A variation of a valid message. The input chooses its size and overwrites some of its bytes.
/// Then `mutate` corrects the request id, the length and the checksum, unless the input forbids one of these.
/// A message shorter than a header stays uncorrected.
inline std::string mutate(FuzzedDataProvider& input, std::string wire, const std::string& id) {
  constexpr unsigned kMaxMutated = 8200;  // bytes; a few more than the server's receive buffer holds
  constexpr unsigned kWrongId = 1, kWrongLength = 2, kWrongChecksum = 4, kNoNuls = 8;
  constexpr std::size_t kIdEnd = kHeaderSize + kRequestIdCapacity;
  const unsigned choice = input.ConsumeIntegral<std::uint8_t>();
  if (const auto size = input.ConsumeIntegral<std::uint16_t>() % kMaxMutated; size != 0)
    wire.resize(size, 'x');
  const std::string bytes = input.ConsumeBytesAsString(input.ConsumeIntegral<std::uint16_t>());
  wire.replace(input.ConsumeIntegral<std::uint16_t>() % (wire.size() + 1), bytes.size(), bytes);
  if (wire.size() < kHeaderSize) return wire;
  if ((choice & kNoNuls) != 0) std::replace(wire.begin() + kHeaderSize, wire.end(), '\0', 'x');
  if ((choice & kWrongId) == 0 && wire.size() > kIdEnd)
    wire.replace(kHeaderSize, id.size() + 1, id.c_str(), id.size() + 1);
  auto* const header = reinterpret_cast<MessageHeader*>(wire.data());
  MessageSerializer::decodeHeader(header);
  if ((choice & kWrongLength) == 0) header->length = static_cast<std::uint32_t>(wire.size());
  if ((choice & kWrongChecksum) == 0) MessageSerializer::setChecksum(header, wire.size());
  MessageSerializer::encodeHeader(header);
  return wire;
}

/// One seed for each size: a conversation in which all five kinds of messages have that size.
/// If the size is 0, each message has the size of its record.
inline std::vector<std::string> conversations(const std::vector<std::size_t>& sizes) {
  std::vector<std::string> seeds;
  for (const std::size_t size : sizes) {
    // The target reads these bytes from the end: the kind of the message, the numbers for `mutate`,
    // then those for `wrappedReceive`. All are 0 except the kind and the size.
    const std::string choices = {0, 0, 0, 0, 0, 0, static_cast<char>(size), static_cast<char>(size / 256), 0};
    seeds.push_back(choices + '\4' + choices + '\3' + choices + '\2' + choices + '\1' + choices + '\0');
  }
  return seeds;
}

}  // namespace dorve

/// Writes the seeds if --seeds asks for them. Otherwise hides what the code under test prints.
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
