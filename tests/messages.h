// SPDX-License-Identifier: MIT
#ifndef DORVE_TESTS_MESSAGES_H_
#define DORVE_TESTS_MESSAGES_H_

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>

#include "dorve/net/nq_socket.h"
#include "dorve/protocol/messages.h"

/// Messages as strings of wire bytes, for scripted peers.
namespace dorve {

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

/// A change of a wire message that leaves it sealed.
template <typename Record>
std::function<void(std::string&)> edited(std::function<void(Record&)> edit) {
  return [edit](std::string& wire) {
    auto record = fromWire<Record>(wire);
    edit(record);
    wire = toWire(record);
  };
}

/// One whole message off a socket; empty when the peer closed.
inline std::string receiveMessage(NqSocket& socket) {
  std::string wire(kHeaderSize, '\0');
  for (std::size_t size = 0; size < wire.size();) {
    const std::size_t more = socket.receive(wire.data() + size, wire.size() - size);
    if (more == 0) return "";
    size += more;
    if (size == kHeaderSize) wire.resize(fromWire<VersionQuery>(wire).header.length);
  }
  return wire;
}

}  // namespace dorve

#endif  // DORVE_TESTS_MESSAGES_H_
