// SPDX-License-Identifier: MIT
#ifndef DORVE_KEYS_KEY_MATERIAL_H_
#define DORVE_KEYS_KEY_MATERIAL_H_

#include <string>
#include <string_view>

/// The pairing key of one side: an ed25519 pair in the files `sshDir`/`keyName` and `sshDir`/`keyName`.pub.
namespace dorve {

/// The base name of the pair's files and the comment in its public line, on both sides.
constexpr const char* kPairingKeyName = "base_slice_exchange";

/// Deletes the pair, makes a new one with ssh-keygen(1) (no pass phrase, `keyName` as comment) and returns
/// its public line. Reports no failure: without a new key the line is empty. The path goes through the shell
/// unquoted, so a directory whose name holds blanks or shell characters does not work.
std::string regenerateKeys(const std::string& sshDir, const std::string& keyName);

/// The whole of the .pub file, its line feed included; empty when it can't be read.
std::string readPublicKey(const std::string& sshDir, const std::string& keyName);

/// SHA-256 of a key text exactly as held, as 64 lower-case hexadecimal digits.
std::string calculateKeyHash(std::string_view key);

/// Whether a text looks like a key: it begins with "ssh-" and has more than 100 characters.
bool validateKeyFormat(std::string_view key);

}  // namespace dorve

#endif  // DORVE_KEYS_KEY_MATERIAL_H_
