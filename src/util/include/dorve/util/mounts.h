// SPDX-License-Identifier: MIT
#ifndef DORVE_UTIL_MOUNTS_H_
#define DORVE_UTIL_MOUNTS_H_

namespace dorve {

/// Returns whether /proc/mounts lists `path` as a mount point. The comparison is textual:
/// "/tmp/" does not match "/tmp", and a path with blanks never matches, because /proc/mounts escapes them.
/// Prints "Error" on standard error and returns false if /proc/mounts can't be opened.
bool isMounted(const char* path);

/// Mounts a tmpfs at `path`, an existing directory, with nosuid, nodev, noexec and `options`.
/// `options` is the data argument of mount(2) and may be null.
/// Does nothing if a file system of any type is mounted there already.
/// Returns whether a file system is mounted there afterwards.
/// Prints "Successful" after mounting, or "Error" on standard error if mount(2) fails.
bool mountTmpfs(const char* path, const char* options);

}  // namespace dorve

#endif  // DORVE_UTIL_MOUNTS_H_
