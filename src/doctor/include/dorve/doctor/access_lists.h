// SPDX-License-Identifier: MIT
#ifndef DORVE_DOCTOR_ACCESS_LISTS_H_
#define DORVE_DOCTOR_ACCESS_LISTS_H_

#include <string>
#include <vector>

/// Matches users and groups against the lists of AllowUsers, DenyUsers,
/// AllowGroups and DenyGroups in sshd_config(5). Patterns may contain the wildcards * and ?.
namespace dorve {

/// Returns whether a pattern, USER or USER@HOSTS, matches a user who logs in from `address` (dotted decimal).
bool listsUser(const std::vector<std::string>& patterns, const std::string& user, const std::string& address);

/// Returns whether one of the patterns matches one of the groups.
bool listsGroup(const std::vector<std::string>& patterns, const std::vector<std::string>& groups);

/// The names of the first 256 groups of a user; empty if the user is unknown.
std::vector<std::string> groupsOf(const std::string& user);

}  // namespace dorve

#endif  // DORVE_DOCTOR_ACCESS_LISTS_H_
