// SPDX-License-Identifier: MIT
// The client's key and file operations: those of keys/ for this client's SSH directory and pairing key.
#include <iostream>

#include "dorve/client/dorve_client.h"
#include "dorve/keys/key_material.h"
#include "dorve/keys/ssh_files.h"
#include "dorve/net/endpoints.h"

namespace dorve {

void DorveClient::regenerateKeys() {
  std::cout << "Regenerating SSH keys..." << std::endl;
  writeText(localPublicKey, dorve::regenerateKeys(sshDir, keyName));
}

std::string DorveClient::readPublicKey() const {
  return dorve::readPublicKey(sshDir, keyName);
}

std::string DorveClient::calculateKeyHash(const char* key) const {
  return dorve::calculateKeyHash(key);
}

bool DorveClient::validateKeyFormat(const char* key) const {
  return dorve::validateKeyFormat(key);
}

void DorveClient::addAuthKey(const char* publicKey) {
  dorve::addAuthKey(sshDir, keyName, publicKey);
}

void DorveClient::addKnownHost(const char* publicKey, const char* host) {
  std::cout << "Adding key to known_hosts for host: " << host << std::endl;
  dorve::addKnownHost(sshDir, publicKey, host);
  std::cout << "Known host successfully added" << std::endl;
}

void DorveClient::addSshConfig(const char* host) {
  dorve::addSshConfig(sshDir, keyName, host);
}

bool DorveClient::installKeysLocally() {
  std::cout << "Installing keys locally (idempotent)" << std::endl;
  addAuthKey(peerPublicKey);
  addSshConfig(kServerAddress);
  return true;
}

bool DorveClient::keysInstalled() const {
  return hasAuthKey(sshDir, readText(peerPublicKey)) && hasSshConfig(sshDir, kServerAddress);
}

}  // namespace dorve
