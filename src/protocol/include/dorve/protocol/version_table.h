// SPDX-License-Identifier: MIT
#ifndef DORVE_PROTOCOL_VERSION_TABLE_H_
#define DORVE_PROTOCOL_VERSION_TABLE_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "dorve/protocol/messages.h"

namespace dorve {

/// The numbers of a version text "[DORVE/]MAJOR.MINOR".
struct ParsedVersion {
  std::uint16_t major = 0;
  std::uint16_t minor = 0;
  bool valid = false;
};

/// The server's part of version negotiation: the versions that it offers, their order and their features.
class VersionTable {
 public:
  /// Offers only "1.0".
  VersionTable();

  /// A text is valid if it has a dot: "1.x" gives 1.0 and "a.b" gives 0.0, but "2" is invalid.
  /// The numbers are read with strtol(3) and truncated to 16 bits.
  ParsedVersion parseVersion(std::string_view text) const;

  /// The feature mask of a version; 0 for 1.0, and for an unknown or invalid version.
  std::uint8_t getFeaturesForVersion(std::string_view text) const;

  /// Returns 1 if `a` is newer, -1 if it is older, and 0 if both are equal or one of them is invalid.
  std::int32_t compareVersions(std::string_view a, std::string_view b) const;

  /// Returns `listContains(list, version)`.
  bool versionInList(std::string_view version, std::string_view list) const;

  /// The newest item of `clientList` that the server also offers, or the first of several equally new ones.
  /// Empty if there is none.
  std::string findCommonVersion(std::string_view clientList) const;

  /// The server's own version, and the list of the versions that it offers.
  std::string_view current() const { return readText(currentVersion); }
  std::string_view supported() const { return readText(supportedVersions); }

 private:
  friend struct TestAccess;

  VersionTable(std::string_view current, std::string_view supported);

  char currentVersion[kVersionCapacity];
  char supportedVersions[kVersionListCapacity];
};

}  // namespace dorve

#endif  // DORVE_PROTOCOL_VERSION_TABLE_H_
