// SPDX-License-Identifier: MIT
#ifndef DORVE_PROTOCOL_VERSION_MANAGER_H_
#define DORVE_PROTOCOL_VERSION_MANAGER_H_

#include <cstdint>
#include <string_view>

#include "dorve/protocol/messages.h"

namespace dorve {

/// The client's half of version negotiation: asks with the versions it knows and judges the answer.
class VersionManager {
 public:
  static constexpr std::int32_t kNegotiated = 0;
  static constexpr std::int32_t kNoCompatibleVersion = 0x3011;
  static constexpr std::int32_t kRefused = -1;

  /// Knows "1.0" and nothing else.
  VersionManager();

  /// A query ready for the wire. `requestId` is cut at 127 characters; `sequence` is 0.
  VersionQuery createVersionQuery(std::string_view requestId) const;

  /// Whether `version` equals one trimmed item of the comma-separated `list`.
  static bool isVersionSupported(std::string_view version, std::string_view list);

  /// Judges a response whose header was decoded and checked. On success prints "Successful", fills both
  /// outputs and returns `kNegotiated`. Otherwise prints "Error" on standard error, leaves the outputs alone
  /// and returns `kNoCompatibleVersion` when the server said so, `kRefused` for all else. The features are
  /// taken as sent.
  std::int32_t processVersionResponse(const VersionResponse& response, std::string_view expectedRequestId,
                                      char (&selectedVersion)[kVersionCapacity],
                                      std::uint32_t& features) const;

 private:
  char currentVersion[kVersionCapacity];
  char supportedVersions[kVersionListCapacity];
};

}  // namespace dorve

#endif  // DORVE_PROTOCOL_VERSION_MANAGER_H_
