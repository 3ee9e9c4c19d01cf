// SPDX-License-Identifier: MIT
#include "dorve/doctor/access_lists.h"

#include <arpa/inet.h>
#include <fnmatch.h>
#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>

#include "dorve/doctor/text.h"

namespace dorve {
namespace {

/// Returns whether an address matches one pattern of sshd_config(5): a text with * and ?, or ADDRESS/BITS.
bool matchesAddress(const std::string& pattern, const std::string& address) {
  const std::size_t slash = pattern.find('/');
  in_addr network = {};
  in_addr tested = {};
  if (slash == std::string::npos || inet_pton(AF_INET, pattern.substr(0, slash).c_str(), &network) != 1) {
    return fnmatch(pattern.c_str(), address.c_str(), 0) == 0;
  }
  inet_pton(AF_INET, address.c_str(), &tested);
  int bits = 0;
  std::from_chars(pattern.data() + slash + 1, pattern.data() + pattern.size(), bits);
  bits = std::clamp(bits, 0, 32);
  const std::uint64_t mask = ~std::uint64_t{0} << (32 - bits);
  return (ntohl(network.s_addr) & mask) == (ntohl(tested.s_addr) & mask);
}

/// Returns whether a pattern, USER or USER@HOSTS, matches a user who logs in from an address.
/// HOSTS is a list with commas, in which ! excludes.
bool matchesUser(const std::string& pattern, const std::string& user, const std::string& address) {
  const std::size_t at = pattern.rfind('@');
  if (fnmatch(pattern.substr(0, at).c_str(), user.c_str(), 0) != 0) return false;
  if (at == std::string::npos) return true;
  bool matches = false;
  for (const std::string& host : split(pattern.substr(at + 1), ",")) {
    const bool excludes = host.starts_with('!');
    if (!matchesAddress(excludes ? host.substr(1) : host, address)) continue;
    if (excludes) return false;
    matches = true;
  }
  return matches;
}

}  // namespace

bool listsUser(const std::vector<std::string>& patterns, const std::string& user,
               const std::string& address) {
  return std::ranges::any_of(patterns,
                             [&](const std::string& pattern) { return matchesUser(pattern, user, address); });
}

bool listsGroup(const std::vector<std::string>& patterns, const std::vector<std::string>& groups) {
  return std::ranges::any_of(patterns, [&](const std::string& pattern) {
    return std::ranges::any_of(
        groups, [&](const std::string& group) { return fnmatch(pattern.c_str(), group.c_str(), 0) == 0; });
  });
}

std::vector<std::string> groupsOf(const std::string& user) {
  std::vector<std::string> names;
  const passwd* entry = getpwnam(user.c_str());
  if (entry == nullptr) return names;
  int count = 256;
  std::vector<gid_t> groups(static_cast<std::size_t>(count));
  getgrouplist(entry->pw_name, entry->pw_gid, groups.data(), &count);
  groups.resize(std::min(groups.size(), static_cast<std::size_t>(count)));
  for (const gid_t id : groups) {
    if (const group* known = getgrgid(id)) names.emplace_back(known->gr_name);
  }
  return names;
}

}  // namespace dorve
