// SPDX-License-Identifier: MIT
#ifndef DORVE_KEYS_UNPAIR_H_
#define DORVE_KEYS_UNPAIR_H_

#include <cstddef>
#include <string>
#include <vector>

/// Finds and removes what a pairing left in an SSH directory: the two key files, the lines of authorized_keys
/// that contain `keyName`, and the blocks in config for `hosts`, the addresses of the other device.
///
/// The edits are those of file_text.h: files stay in place, also if they are then empty, and foreign lines
/// stay whole. Modes stay as they are. A symbolic link in place of a key file is removed, and its target
/// stays. Throws only std::bad_alloc. No call is made through the shell, so `sshDir` can contain any
/// characters.
namespace dorve {

/// One thing that a pairing left: a file, or lines of a file.
struct Remnant {
  std::string path;  ///< as `sshDir` and the name, so it can contain control characters
  /// The first and the last line, counted from 1. Both are 0 if it is the whole file.
  std::size_t firstLine = 0;
  std::size_t lastLine = 0;
  /// Why it stays, or why the file could not be examined, after "PATH: ". Empty if it was removed, or can be.
  std::string obstacle;
};

/// Everything that a pairing left. Changes nothing. A missing file or directory has no remnants, and neither
/// has an authorized_keys or config that is no regular file.
std::vector<Remnant> findRemnants(const std::string& sshDir, const std::string& keyName,
                                  const std::vector<std::string>& hosts);

/// Removes everything that a pairing left. Returns it, with an obstacle for each remnant that stays.
/// The numbers of removed lines are those from before the edit. Continues after a failure and can be
/// repeated. A block in config that somebody changed stays, see `findHostBlocks`.
std::vector<Remnant> removeRemnants(const std::string& sshDir, const std::string& keyName,
                                    const std::vector<std::string>& hosts);

}  // namespace dorve

#endif  // DORVE_KEYS_UNPAIR_H_
