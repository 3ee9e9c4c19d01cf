// SPDX-License-Identifier: MIT
#ifndef DORVE_KEYS_SSH_FILES_H_
#define DORVE_KEYS_SSH_FILES_H_

#include <string>

/// Edits of the files of a user's SSH directory (sshd(8), ssh_config(5)).
///
/// Each leaves its file with mode 0600, may be repeated any number of times, and reports no failure. A file
/// that is missing or that this user may not read counts as empty. A file that can't be opened or read for
/// another reason keeps its text, and so does one whose new text can't be written in full. Hosts and key
/// names are of one line.
namespace dorve {

/// Makes the directory, or leaves the one that is there, with mode 0700 where the process may.
void makeSshDirectory(const std::string& sshDir);

/// Makes `publicKey` the one line of `sshDir`/authorized_keys that mentions `keyName`. Every line that holds
/// `keyName` anywhere goes, blank lines too; all others stay, in order, with a blank line before the new one.
/// The key is written as given, without a line feed of ours; a null key writes nothing.
void addAuthKey(const std::string& sshDir, const std::string& keyName, const char* publicKey);

/// Makes "`host` `publicKey`" the one entry of `sshDir`/known_hosts that mentions `host`, in the same way.
/// The match is on the text: 172.20.10.1 takes lines for 172.20.10.10 with it.
void addKnownHost(const std::string& sshDir, const char* publicKey, const char* host);

/// Appends a block to `sshDir`/config that makes ssh use the pairing key for `host` and skip host-key
/// checking, unless "Host `host`" stands anywhere in a line already, even at the start of a longer address.
void addSshConfig(const std::string& sshDir, const std::string& keyName, const char* host);

}  // namespace dorve

#endif  // DORVE_KEYS_SSH_FILES_H_
