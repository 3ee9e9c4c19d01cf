// SPDX-License-Identifier: MIT
#include "dorve/client/dorve_client.h"

#include <sys/stat.h>

#include <iostream>

#include "dorve/keys/key_material.h"
#include "dorve/keys/ssh_files.h"
#include "dorve/net/endpoints.h"
#include "dorve/protocol/request_id_generator.h"
#include "dorve/util/sleep.h"

namespace dorve {
namespace {

constexpr int kInterfacePolls = 50;
constexpr unsigned int kInterfacePollMs = 200;
constexpr int kInterfaceSeconds = 10;  // as printed in the failure line
static_assert(kInterfacePolls * kInterfacePollMs == kInterfaceSeconds * 1000);
constexpr unsigned long kFirstTimeoutMs = 5000;
constexpr int kConnectRetries = 150;
constexpr unsigned int kConnectRetryMs = 200;

}  // namespace

DorveClient::DorveClient(const std::string& address, int port, const std::string& directory)
    : serverAddr(makeAddress(address.c_str(), static_cast<std::uint16_t>(port))),
      sshDir(directory),
      keyName(kPairingKeyName) {
  makeSshDirectory(sshDir);
}

DorveClient::~DorveClient() = default;

ClientState DorveClient::getState() const {
  return state;
}

std::uint32_t DorveClient::getPhase() const {
  return currentPhase;
}

std::uint32_t DorveClient::getLastErrorCode() const {
  return lastErrorCode;
}

std::uint64_t DorveClient::getStateEnteredMs() const {
  return stateEnteredMs;
}

void DorveClient::transitionTo(ClientState next) {
  std::cout << "State transition: " << stateName(state) << " -> " << stateName(next) << std::endl;
  state = next;
  stateEnteredMs = RequestIdGenerator::getMonotonicTimeMs();
}

void DorveClient::transitionToError(unsigned int code) {
  std::cerr << "ERROR: Transitioning to ERROR state, code=0x" << std::hex << code << std::dec << std::endl;
  state = ClientState::ERROR;
  lastErrorCode = code;
}

bool DorveClient::waitForInterface(const char* name) {
  const std::string path = std::string("/sys/class/net/") + name;
  std::cout << "Waiting for interface '" << name << "' to be ready..." << std::endl;
  for (int poll = 1;; ++poll) {
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0) break;
    if (poll == kInterfacePolls) {
      std::cerr << "ERROR: Interface '" << name << "' not available after " << kInterfaceSeconds << " seconds"
                << std::endl;
      return false;
    }
    sleepMs(kInterfacePollMs);
  }
  std::cout << "Interface '" << name << "' is ready" << std::endl;
  return true;
}

bool DorveClient::start() {
  std::cout << "DORVE Client starting protocol" << std::endl;
  transitionTo(ClientState::INIT);
  regenerateKeys();

  if (!waitForInterface(kLinkInterface)) return false;
  socket = NqSocket(true);
  socket.setTimeout(kFirstTimeoutMs);
  socket.bindToInterface(kLinkInterface);
  socket.connect(serverAddr, kConnectRetries, kConnectRetryMs);
  std::cout << "Connected to server" << std::endl;

  struct Phase {
    bool (DorveClient::*run)();
    const char* failure;
  };
  constexpr Phase kPhases[] = {
      {&DorveClient::phaseVersionNegotiation, "Phase 0 (VERSION_NEGOTIATION) failed"},
      {&DorveClient::phaseExchangeKeys, "Phase 1 (EXCHANGE_KEYS) failed"},
      {&DorveClient::phaseVerifyKeys, "Phase 2 (VERIFY_KEYS) failed"},
      {&DorveClient::phaseInstallKeys, "Phase 3 (INSTALL_KEYS) failed"},
      {&DorveClient::phaseConfirm, "Phase 4 (CONFIRM) failed"},
  };
  for (const Phase& phase : kPhases) {
    if ((this->*phase.run)()) continue;
    std::cerr << phase.failure << std::endl;
    return false;
  }

  transitionTo(ClientState::COMPLETE);
  std::cout << "DORVE Protocol completed successfully" << std::endl;
  return true;
}

}  // namespace dorve
