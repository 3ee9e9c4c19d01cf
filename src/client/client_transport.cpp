// SPDX-License-Identifier: MIT
// The client's transport: sends and receives whole messages.
// It catches each socket exception, prints it and returns false.
#include <algorithm>
#include <cstring>
#include <iostream>

#include "dorve/client/dorve_client.h"
#include "dorve/util/sleep.h"

namespace dorve {
namespace {

constexpr std::uint32_t kMaxRetries = 3;
constexpr std::uint32_t kBackoffBaseMs = 100;
constexpr std::uint32_t kBackoffLimitMs = 5000;

/// The length in bytes of a whole message, from its header in wire order. Leaves the header as it is.
std::uint32_t lengthOf(const void* message) {
  MessageHeader header;
  std::memcpy(&header, message, sizeof header);
  MessageSerializer::decodeHeader(&header);
  return header.length;
}

}  // namespace

bool DorveClient::sendRequest(const void* data, unsigned long size) {
  try {
    socket.sendAll(data, size);
  } catch (const NqSocketException& failure) {
    std::cerr << "Send failed: " << failure.what() << std::endl;
    return false;
  }
  std::cout << "Sent message, size=" << size << " bytes" << std::endl;
  return true;
}

bool DorveClient::receiveResponse(void* buffer, unsigned long capacity, unsigned long* received,
                                  unsigned int timeoutMs) {
  auto* bytes = static_cast<char*>(buffer);
  unsigned long size = 0;
  try {
    socket.setTimeout(timeoutMs);
    size = socket.receive(bytes, capacity);
    if (size == 0) {
      std::cerr << "Connection closed by server" << std::endl;
      return false;
    }
    // A first read shorter than a header is not completed: it is returned for the caller to reject.
    if (size >= kHeaderSize) {
      const std::uint32_t length = lengthOf(bytes);
      if (length > capacity) {
        std::cerr << "Message too large: " << length << " bytes exceeds buffer size " << capacity
                  << std::endl;
        return false;
      }
      while (size < length) {
        const unsigned long more = socket.receive(bytes + size, length - size);
        if (more == 0) {
          std::cerr << "Connection closed while reading fragmented message" << std::endl;
          return false;
        }
        size += more;
      }
    }
  } catch (const NqSocketException& failure) {
    std::cerr << "Receive failed: " << failure.what() << std::endl;
    if (retryCount < kMaxRetries) {
      ++retryCount;
      retryWithBackoff();
    }
    return false;
  }
  *received = size;
  std::cout << "Received response, size=" << size << " bytes" << std::endl;
  return true;
}

unsigned int DorveClient::calculateBackoffMs() const {
  // The count is at most 3 in a run. From 26 on, the shift loses high bits:
  // 30 and 31 give 0, and 32 starts again.
  return std::min(kBackoffBaseMs << (retryCount % 32), kBackoffLimitMs);
}

void DorveClient::retryWithBackoff() {
  const unsigned int ms = calculateBackoffMs();
  std::cout << "Retry " << retryCount << "/" << kMaxRetries << " after " << ms << "ms backoff" << std::endl;
  if (ms != 0) sleepMs(ms);
}

}  // namespace dorve
