// SPDX-License-Identifier: MIT
#ifndef DORVE_DOCTOR_INTERFACES_H_
#define DORVE_DOCTOR_INTERFACES_H_

#include <string>
#include <string_view>
#include <vector>

namespace dorve {

/// A network interface with its IPv4 addresses.
struct Interface {
  struct Address {
    std::string text;  ///< dotted decimal
    int prefix;        ///< length in bits
  };

  std::string name;
  bool up = false;
  bool carrier = false;  ///< the cable is plugged in, and the other end is up
  bool loopback = false;
  bool uplink = false;  ///< a default route uses this interface
  std::vector<Address> addresses;

  /// Returns whether the interface has this address (dotted decimal).
  bool has(std::string_view address) const;

  /// The state in words: "down", "up" or "up, no carrier".
  std::string state() const;
};

/// All interfaces of this device, from getifaddrs(3) and /proc/net/route. Empty if getifaddrs(3) fails.
std::vector<Interface> listInterfaces();

/// The interface of that name, or null.
const Interface* findByName(const std::vector<Interface>& interfaces, std::string_view name);

/// The interface with that address, or null.
const Interface* findByAddress(const std::vector<Interface>& interfaces, std::string_view address);

/// The interface that is most likely the link.
/// Candidates are all interfaces without an address, except loopback and uplink.
/// If there are several, those without a carrier are left out. Null unless exactly one is left.
const Interface* guessLink(const std::vector<Interface>& interfaces);

/// The names and states of all interfaces except loopback in one line; "none" if there are none.
std::string describe(const std::vector<Interface>& interfaces);

}  // namespace dorve

#endif  // DORVE_DOCTOR_INTERFACES_H_
