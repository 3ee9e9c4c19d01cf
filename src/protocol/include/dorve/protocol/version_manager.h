// SPDX-License-Identifier: MIT
#ifndef DORVE_PROTOCOL_VERSION_MANAGER_H_
#define DORVE_PROTOCOL_VERSION_MANAGER_H_

#include <cstdint>
#include <string_view>

#include "dorve/protocol/messages.h"

namespace dorve {

/// The client's part of version negotiation: builds the query and checks the response.
class VersionManager {
 public:
  /// The results of `processVersionResponse`. The client prints each but the first as an error code:
  /// 0x3011, and 0xffffffff for -1.
  static constexpr std::int32_t kNegotiated = 0;
  static constexpr std::int32_t kNoCompatibleVersion = 0x3011;
  static constexpr std::int32_t kRefused = -1;

  /// Supports only "1.0".
  VersionManager();

  /// A query that is ready to send. Its `sequence` is 0. Truncates `requestId` to 127 bytes.
  VersionQuery createVersionQuery(std::string_view requestId) const;

  /// Returns `listContains(list, version)`.
  static bool isVersionSupported(std::string_view version, std::string_view list);

  /// Checks a response whose header is decoded and valid.
  /// On success, prints "Successful", stores the version and the features in the outputs,
  /// and returns `kNegotiated`. The features are not checked.
  /// Otherwise, prints "Error" on standard error, leaves the outputs as they are,
  /// and returns `kNoCompatibleVersion` if the server reports no common version, else `kRefused`.
  std::int32_t processVersionResponse(const VersionResponse& response, std::string_view expectedRequestId,
                                      char (&selectedVersion)[kVersionCapacity],
                                      std::uint32_t& features) const;

 private:
  char currentVersion[kVersionCapacity];
  char supportedVersions[kVersionListCapacity];
};

}  // namespace dorve

#endif  // DORVE_PROTOCOL_VERSION_MANAGER_H_
