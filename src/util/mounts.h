// SPDX-License-Identifier: MIT
#ifndef DORVE_UTIL_MOUNTS_H_
#define DORVE_UTIL_MOUNTS_H_

namespace dorve {

/// Whether `path` is a mount point in /proc/mounts, compared as text: a trailing slash makes another path,
/// and the escapes that the kernel writes for blanks are not decoded. Prints "Error" on standard error and
/// returns false when the table can't be opened.
bool isMounted(const char* path);

/// Mounts a tmpfs at `path`, which must exist, with nosuid, nodev, noexec and `options` (mount(2)'s data, may
/// be null), unless something is mounted there already, of whatever type. True when something is mounted on
/// return. Prints "Successful" after mounting, "Error" on standard error when that failed.
bool mountTmpfs(const char* path, const char* options);

}  // namespace dorve

#endif  // DORVE_UTIL_MOUNTS_H_
