// SPDX-License-Identifier: MIT
#ifndef DORVE_KEYS_SSH_FILES_H_
#define DORVE_KEYS_SSH_FILES_H_

#include <string>
#include <string_view>

/// Edits of the files in a user's SSH directory (formats: sshd(8), ssh_config(5)).
///
/// An edit sets the mode of its file to 0600 and reports no failure. Repeating it changes nothing further,
/// unless the key of `addAuthKey` lacks `keyName`.
/// A file that is missing, or that this user may not read, counts as empty.
/// A file keeps its old text if it can't be opened or read for another reason,
/// or if the new text can't be written in full. `host` and `keyName` must not contain newlines.
namespace dorve {

/// Creates the directory if it is missing, and sets its mode to 0700 if the process may do so.
void makeSshDirectory(const std::string& sshDir);

/// Makes `publicKey` the pairing key in `sshDir`/authorized_keys.
/// Removes every empty line and every line that contains `keyName` anywhere; all other lines stay, in order.
/// After them, if any, writes an empty line. Then writes the key, as given and without an added newline.
/// A null key counts as empty.
void addAuthKey(const std::string& sshDir, const std::string& keyName, const char* publicKey);

/// Makes "`host` `publicKey`" the entry for `host` in `sshDir`/known_hosts, in the same way.
/// Removes every line that contains `host` anywhere:
/// with 172.20.10.1 it also removes the lines of 172.20.10.10.
void addKnownHost(const std::string& sshDir, const char* publicKey, const char* host);

/// Appends a block to `sshDir`/config: for `host`, ssh uses the pairing key and does not check host keys.
/// The block is added only if "Host `host`" occurs nowhere in the file.
/// A comment or a longer address counts as an occurrence.
void addSshConfig(const std::string& sshDir, const std::string& keyName, const char* host);

/// Returns whether `sshDir`/authorized_keys contains `publicKey`, with or without its newline, as whole
/// lines. An empty key is never there.
bool hasAuthKey(const std::string& sshDir, std::string_view publicKey);

/// Returns whether `sshDir`/config contains "Host `host`", so that `addSshConfig` would add no block.
bool hasSshConfig(const std::string& sshDir, const char* host);

}  // namespace dorve

#endif  // DORVE_KEYS_SSH_FILES_H_
