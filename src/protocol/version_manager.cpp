// SPDX-License-Identifier: MIT
#include "dorve/protocol/version_manager.h"

#include <iostream>

#include "dorve/protocol/version_list.h"
#include "dorve/util/report_error.h"

namespace dorve {
namespace {

std::int32_t reject(std::int32_t result) {
  reportError();
  return result;
}

}  // namespace

VersionManager::VersionManager() {
  writeText(currentVersion, kOwnVersion);
  writeText(supportedVersions, kOwnVersion);
}

VersionQuery VersionManager::createVersionQuery(std::string_view requestId) const {
  auto query = makeRecord<VersionQuery>(requestId);
  writeText(query.client_version, readText(currentVersion));
  writeText(query.supported_versions, readText(supportedVersions));
  query.features = kQueryFeatures;
  seal(query);
  return query;
}

bool VersionManager::isVersionSupported(std::string_view version, std::string_view list) {
  return listContains(list, version);
}

std::int32_t VersionManager::processVersionResponse(const VersionResponse& response,
                                                    std::string_view expectedRequestId,
                                                    char (&selectedVersion)[kVersionCapacity],
                                                    std::uint32_t& features) const {
  if (readText(response.request_id) != expectedRequestId) return reject(kRefused);
  if (response.error_code != kVersionSelected)
    return reject(response.error_code == kNoCommonVersion ? kNoCompatibleVersion : kRefused);

  const std::string_view selected = readText(response.selected_version);
  if (selected.empty() || !isVersionSupported(selected, readText(supportedVersions))) return reject(kRefused);

  writeText(selectedVersion, selected);
  features = response.features;
  std::cout << "Successful" << std::endl;
  return kNegotiated;
}

}  // namespace dorve
