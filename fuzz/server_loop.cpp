// SPDX-License-Identifier: MIT
// The server's request loop, on arbitrary requests of a client.
#include "dorve/server/dorve_server.h"
#include "fuzz.h"

using namespace dorve;

const std::vector<std::string> dorve::kSeeds = [] {
  auto seeds = conversations({0, kHeaderSize, SERVER_RECEIVE_BUFFER, SERVER_RECEIVE_BUFFER + 1});
  seeds.emplace_back("\x10\0\0\7\0\1\0\0\0\0\0", 11);  // a valid message of an unknown type
  return seeds;
}();

/// A kind of response: its size, and the offsets where its text fields after the id end (0 for none).
struct ResponseLayout {
  std::size_t size;
  std::size_t textEnds[3];
};

constexpr ResponseLayout kResponses[] = {
    {sizeof(VersionResponse),
     {offsetof(VersionResponse, selected_version), offsetof(VersionResponse, features),
      offsetof(VersionResponse, reserved)}},
    {sizeof(ExchangeKeysResponse),
     {offsetof(ExchangeKeysResponse, session_token), offsetof(ExchangeKeysResponse, token_expiry_us)}},
    {sizeof(VerifyKeysResponse), {offsetof(VerifyKeysResponse, status) + kStatusCapacity}},
    {sizeof(InstallKeysResponse),
     {offsetof(InstallKeysResponse, install_status),
      offsetof(InstallKeysResponse, install_status) + kStatusCapacity}},
    {sizeof(ConfirmInstallResponse), {offsetof(ConfirmInstallResponse, status) + kStatusCapacity}}};

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string kRequests[] = {
      toWire(makeRecord<VersionQuery>(""), offsetof(VersionQuery, supported_versions), "2.0, 1.0"),
      toWire(makeRecord<ExchangeKeysRequest>("")), toWire(makeRecord<VerifyKeysRequest>("")),
      toWire(makeRecord<InstallKeysRequest>("")), toWire(makeRecord<ConfirmInstallRequest>(""))};
  FuzzedDataProvider input(data, size);
  ScriptedPeer peer(input, [&](const std::string& /*received*/) {
    const std::size_t kind = input.ConsumeIntegral<std::uint8_t>() % std::size(kRequests);
    return mutate(input, kRequests[kind], std::to_string(peer.sent));
  });
  std::remove((kSshDir + "/authorized_keys").c_str());
  DorveServer server("", 0, kSshDir);
  server.processRequest(peer.near);

  for (std::string responses = peer.receive(); !responses.empty();) {
    std::size_t kind = 0;
    while (kind < std::size(kResponses) && !beginsWith(responses, 2 * kind + 1, kResponses[kind].size))
      ++kind;
    check(kind < std::size(kResponses), "each response is complete and valid");
    const ResponseLayout& layout = kResponses[kind];
    check(responses[layout.size - 1] == 0, "the reserved last byte of a response is 0");
    for (const std::size_t end : layout.textEnds) {
      check(end == 0 || responses[end - 1] == 0, "a text field ends with a NUL");
    }
    const std::string id = responses.c_str() + kHeaderSize;
    check(id.size() < kRequestIdCapacity && peer.messages.find(id) != std::string::npos,
          "a response has the id of a request");
    responses.erase(0, layout.size);
  }
  return 0;
}
