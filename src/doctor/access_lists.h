// SPDX-License-Identifier: MIT
#ifndef DORVE_DOCTOR_ACCESS_LISTS_H_
#define DORVE_DOCTOR_ACCESS_LISTS_H_

#include <string>
#include <vector>

/// The lists of AllowUsers, DenyUsers, AllowGroups and DenyGroups in sshd_config(5), and whom they name.
/// Patterns have
/// * and ?.
namespace dorve {

/// Whether one of the patterns, USER or USER@HOSTS, names a user who comes from `address` (dotted decimal).
bool listsUser(const std::vector<std::string>& patterns, const std::string& user, const std::string& address);

/// Whether one of the patterns names one of the groups.
bool listsGroup(const std::vector<std::string>& patterns, const std::vector<std::string>& groups);

/// The names of all groups of a user.
std::vector<std::string> groupsOf(const std::string& user);

}  // namespace dorve

#endif  // DORVE_DOCTOR_ACCESS_LISTS_H_
