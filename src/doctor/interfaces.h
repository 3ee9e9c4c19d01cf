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
    int prefix;        ///< bits of the network
  };

  std::string name;
  bool up = false;
  bool carrier = false;  ///< the cable is plugged in and the other end is up
  bool loopback = false;
  bool uplink = false;  ///< the default route leaves by it
  std::vector<Address> addresses;

  bool has(std::string_view address) const;

  /// Its state in a few words, such as "up, no carrier".
  std::string state() const;
};

/// All interfaces of this host, from getifaddrs(3) and /proc/net/route.
std::vector<Interface> listInterfaces();

/// The interface of that name, or null.
const Interface* findByName(const std::vector<Interface>& interfaces, std::string_view name);

/// The interface with that address, or null.
const Interface* findByAddress(const std::vector<Interface>& interfaces, std::string_view address);

/// The interface that is most likely the link: the only one without an address, or the only such with a
/// carrier. Null if several may be it.
const Interface* guessLink(const std::vector<Interface>& interfaces);

/// The names and states of all but the loopback interface, in one line.
std::string describe(const std::vector<Interface>& interfaces);

}  // namespace dorve

#endif  // DORVE_DOCTOR_INTERFACES_H_
