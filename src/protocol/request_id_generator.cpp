// SPDX-License-Identifier: MIT
#include "dorve/protocol/request_id_generator.h"

#include <chrono>
#include <iomanip>
#include <random>
#include <sstream>

namespace dorve {

std::uint64_t RequestIdGenerator::getMonotonicTimeMs() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

std::uint32_t RequestIdGenerator::getSecureRandom() {
  static std::random_device device("default");
  static std::mt19937 twister(device());
  static std::uniform_int_distribution<std::uint32_t> distribution(0, 0xFFFFFFFF);
  return distribution(twister);
}

std::string RequestIdGenerator::generate(const char* prefix) {
  const std::uint64_t ms = getMonotonicTimeMs();
  return format(prefix, ms, getSecureRandom());
}

std::string RequestIdGenerator::format(const char* prefix, std::uint64_t ms, std::uint32_t random) {
  if (prefix == nullptr) return "REQ-";
  std::ostringstream id;
  id << "REQ-" << prefix << "-" << ms << "-" << std::hex << std::setw(8) << std::setfill('0') << random;
  return id.str();
}

}  // namespace dorve
