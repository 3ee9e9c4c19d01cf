// SPDX-License-Identifier: MIT
#ifndef DORVE_PROTOCOL_ENDPOINTS_H_
#define DORVE_PROTOCOL_ENDPOINTS_H_

#include <cstdint>

/// What both sides know of each other without asking: the protocol has no configuration.
namespace dorve {

constexpr const char* kServerAddress = "172.20.10.1";
constexpr const char* kClientAddress = "172.20.10.2";
constexpr std::uint16_t kPort = 8888;

/// The interface that the client connects over.
constexpr const char* kLinkInterface = "bsab";

/// The one protocol version that both sides speak.
constexpr const char* kOwnVersion = "1.0";

/// How the programs name themselves when they start; not the version of a release.
constexpr const char* kBannerVersion = "v1.0";

}  // namespace dorve

#endif  // DORVE_PROTOCOL_ENDPOINTS_H_
