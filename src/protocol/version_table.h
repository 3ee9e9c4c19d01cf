// SPDX-License-Identifier: MIT
#ifndef DORVE_PROTOCOL_VERSION_TABLE_H_
#define DORVE_PROTOCOL_VERSION_TABLE_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "dorve/protocol/messages.h"

namespace dorve {

/// A version text "[DORVE/]MAJOR.MINOR" in numbers.
struct ParsedVersion {
  std::uint16_t major = 0;
  std::uint16_t minor = 0;
  bool valid = false;
};

/// The server's half of version negotiation: what it offers, how versions compare, what each can do.
class VersionTable {
 public:
  /// Offers "1.0" and nothing else.
  VersionTable();

  /// Only the dot decides validity: "1.x" is 1.0 and "a.b" is 0.0, both valid; "2" is not. Numbers are read
  /// as strtol(3) reads them and cut to 16 bits.
  ParsedVersion parseVersion(std::string_view text) const;

  /// The feature mask of a version; 0 for an unknown or invalid one, and for 1.0.
  std::uint8_t getFeaturesForVersion(std::string_view text) const;

  /// 1 when `a` is newer, -1 when it is older, 0 when they are equal or one of them is invalid.
  std::int32_t compareVersions(std::string_view a, std::string_view b) const;

  /// Whether `version` equals one trimmed item of the comma-separated `list`.
  bool versionInList(std::string_view version, std::string_view list) const;

  /// The newest item of the client's list that the server offers too, the first of equal ones; empty for
  /// none.
  std::string findCommonVersion(std::string_view clientList) const;

  /// Its own version, and the list that it offers.
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
