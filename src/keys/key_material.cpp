// SPDX-License-Identifier: MIT
#include "dorve/keys/key_material.h"

#include <openssl/sha.h>

#include <cstdio>
#include <cstdlib>

#include "dorve/keys/file_text.h"
#include "dorve/util/hex.h"

namespace dorve {
namespace {

constexpr std::size_t kKeyLengthAbove = 100;  // bytes; a public key is longer

std::string keyPath(const std::string& sshDir, const std::string& keyName) {
  return sshDir + "/" + keyName;
}

}  // namespace

std::string regenerateKeys(const std::string& sshDir, const std::string& keyName) {
  const std::string path = keyPath(sshDir, keyName);
  // ssh-keygen asks before it overwrites a file, so the old files are deleted first.
  std::remove(path.c_str());
  std::remove((path + ".pub").c_str());
  const std::string command = "ssh-keygen -q -t ed25519 -f " + path + " -N '' -C " + keyName + " < /dev/null";
  [[maybe_unused]] const int status = std::system(command.c_str());
  return readPublicKey(sshDir, keyName);
}

std::string readPublicKey(const std::string& sshDir, const std::string& keyName) {
  return readFileText(keyPath(sshDir, keyName) + ".pub").value_or("");
}

std::string calculateKeyHash(std::string_view key) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  // SHA256() and the EVP functions would first load the providers of libcrypto.
  // This takes a millisecond and 2 MB.
  SHA256_CTX context;
  SHA256_Init(&context);
  SHA256_Update(&context, key.data(), key.size());
  SHA256_Final(digest, &context);
  return toHex(digest, sizeof digest);
}

bool validateKeyFormat(std::string_view key) {
  return key.starts_with("ssh-") && key.size() > kKeyLengthAbove;
}

}  // namespace dorve
