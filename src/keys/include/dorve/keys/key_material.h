// SPDX-License-Identifier: MIT
#ifndef DORVE_KEYS_KEY_MATERIAL_H_
#define DORVE_KEYS_KEY_MATERIAL_H_

#include <string>
#include <string_view>

/// The pairing key of one device: an ed25519 key pair in `sshDir`/`keyName` and `sshDir`/`keyName`.pub.
namespace dorve {

/// The `keyName` of both devices. It is also the comment in the public key.
constexpr const char* kPairingKeyName = "base_slice_exchange";

/// Deletes the key pair and generates a new one with ssh-keygen(1): no passphrase, `keyName` as comment.
/// Returns the text of the .pub file. Reports no failure: without that file the text is empty.
/// `sshDir` and `keyName` must not contain blanks or characters that are special to sh(1), because the
/// command does not quote them.
std::string regenerateKeys(const std::string& sshDir, const std::string& keyName);

/// The text of the .pub file, with its newline. Empty if the file can't be read.
std::string readPublicKey(const std::string& sshDir, const std::string& keyName);

/// The SHA-256 of all bytes of `key`, as 64 lower-case hexadecimal digits.
std::string calculateKeyHash(std::string_view key);

/// Returns whether `key` looks like a public key: it begins with "ssh-" and has more than 100 bytes.
bool validateKeyFormat(std::string_view key);

}  // namespace dorve

#endif  // DORVE_KEYS_KEY_MATERIAL_H_
