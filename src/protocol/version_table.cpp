// SPDX-License-Identifier: MIT
#include "dorve/protocol/version_table.h"

#include <cstdlib>

#include "dorve/protocol/version_list.h"

namespace dorve {
namespace {

struct FeatureRow {
  std::uint16_t major;
  std::uint16_t minor;
  std::uint8_t features;
};

constexpr FeatureRow kFeatures[] = {{1, 0, 0}, {1, 1, 1}, {2, 0, 3}, {2, 1, 15}};

constexpr std::string_view kPrefix = "DORVE/";

std::uint16_t toNumber(std::string_view text) {
  return static_cast<std::uint16_t>(std::strtol(std::string(text).c_str(), nullptr, 10));
}

}  // namespace

VersionTable::VersionTable() : VersionTable(kOwnVersion, kOwnVersion) {}

VersionTable::VersionTable(std::string_view current, std::string_view supported) {
  writeText(currentVersion, current);
  writeText(supportedVersions, supported);
}

ParsedVersion VersionTable::parseVersion(std::string_view text) const {
  if (text.starts_with(kPrefix)) text.remove_prefix(kPrefix.size());
  const auto dot = text.find('.');
  if (dot == std::string_view::npos) return {};
  return {toNumber(text.substr(0, dot)), toNumber(text.substr(dot + 1)), true};
}

std::uint8_t VersionTable::getFeaturesForVersion(std::string_view text) const {
  const ParsedVersion version = parseVersion(text);
  if (!version.valid) return 0;
  for (const FeatureRow& row : kFeatures) {
    if (row.major == version.major && row.minor == version.minor) return row.features;
  }
  return 0;
}

std::int32_t VersionTable::compareVersions(std::string_view a, std::string_view b) const {
  const ParsedVersion left = parseVersion(a);
  const ParsedVersion right = parseVersion(b);
  if (!left.valid || !right.valid) return 0;
  if (left.major != right.major) return left.major > right.major ? 1 : -1;
  if (left.minor != right.minor) return left.minor > right.minor ? 1 : -1;
  return 0;
}

bool VersionTable::versionInList(std::string_view version, std::string_view list) const {
  return listContains(list, version);
}

std::string VersionTable::findCommonVersion(std::string_view clientList) const {
  std::string_view best;
  while (!clientList.empty()) {
    const std::string_view item = takeItem(clientList);
    if (versionInList(item, supported()) && (best.empty() || compareVersions(item, best) == 1)) best = item;
  }
  return std::string(best);
}

}  // namespace dorve
