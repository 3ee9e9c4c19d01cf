// SPDX-License-Identifier: MIT
// The server's key and file operations: those of keys/ for this server's SSH directory and pairing key.
// Unlike some of the client's operations, they print nothing.
#include "dorve/keys/key_material.h"
#include "dorve/keys/ssh_files.h"
#include "dorve/protocol/session_token.h"
#include "dorve/server/dorve_server.h"

namespace dorve {

void DorveServer::regenerateKeys() {
  writeText(localPublicKey, dorve::regenerateKeys(sshDir, keyName));
}

std::string DorveServer::readPublicKey() const {
  return dorve::readPublicKey(sshDir, keyName);
}

std::string DorveServer::calculateKeyHash(const char* key) const {
  return dorve::calculateKeyHash(key);
}

bool DorveServer::validateKeyFormat(const char* key) const {
  return dorve::validateKeyFormat(key);
}

void DorveServer::addAuthKey(const char* publicKey) {
  dorve::addAuthKey(sshDir, keyName, publicKey);
}

void DorveServer::addKnownHost(const char* publicKey, const char* host) {
  dorve::addKnownHost(sshDir, publicKey, host);
}

void DorveServer::addSshConfig(const char* host) {
  dorve::addSshConfig(sshDir, keyName, host);
}

bool DorveServer::installKeysLocally(const char* /*keyText*/) {
  return true;
}

bool DorveServer::validateSessionToken(const char* token) const {
  return SessionToken::validateFormat(token);
}

}  // namespace dorve
