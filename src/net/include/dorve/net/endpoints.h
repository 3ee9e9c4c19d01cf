// SPDX-License-Identifier: MIT
#ifndef DORVE_NET_ENDPOINTS_H_
#define DORVE_NET_ENDPOINTS_H_

#include <cstdint>

/// The fixed addresses, port and interface name of the link. No option or file changes them.
namespace dorve {

constexpr const char* kServerAddress = "172.20.10.1";
constexpr const char* kClientAddress = "172.20.10.2";
constexpr std::uint16_t kPort = 8888;

/// The client connects only through the interface of this name.
constexpr const char* kLinkInterface = "bsab";

}  // namespace dorve

#endif  // DORVE_NET_ENDPOINTS_H_
