// SPDX-License-Identifier: MIT
// The client's phases on whatever a server may answer.
#include "../tests/test_access.h"
#include "fuzz.h"

using namespace dorve;

const std::vector<std::string> dorve::kSeeds = conversations({0, 32, 512, 4624, 4625});

// Where the text begins that ends a phase well; behind the message when there is none.
constexpr std::size_t kTextAt[] = {192, sizeof(ExchangeKeysResponse), 160, 192, 160};

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string kAnswers[] = {
      toWire(makeRecord<VersionResponse>("")).replace(192, 3, "1.0"),
      toWire(makeRecord<ExchangeKeysResponse>("")),
      toWire(makeRecord<VerifyKeysResponse>("")).replace(160, 8, kStatusVerified),
      toWire(makeRecord<InstallKeysResponse>("")).replace(192, 9, kStatusCompleted),
      toWire(makeRecord<ConfirmInstallResponse>("")).replace(160, 8, kStatusComplete)};
  FuzzedDataProvider input(data, size);
  std::remove((kSshDir + "/authorized_keys").c_str());
  DorveClient client("127.0.0.1", 0, kSshDir);
  TestAccess::backoffMs(client, 3);  // the retries are used up, so no receive that fails makes a pause
  for (int count = 0; count < 10 && input.remaining_bytes() > 0; ++count) {
    const std::size_t phase = input.ConsumeIntegral<std::uint8_t>() % 5, at = kTextAt[phase];
    const std::string& good = kAnswers[phase];
    std::string id;
    Peer peer(input, [&](const std::string& heard) {
      return mutate(input, good, id = heard.c_str() + kHeaderSize);
    });
    if (!TestAccess::phase(client, std::move(peer.near), phase)) continue;
    const std::size_t length = fromWire<VersionQuery>(peer.sent).header.length;
    check(length <= good.size() && beginsWith(peer.sent, 2 * phase + 1, length), "an answer is sound");
    const std::string answer = peer.sent.substr(0, length) + std::string(good.size(), '\0');  // may be short
    check(std::string(answer.c_str() + at) == good.c_str() + at, "an answer says that all is well");
    check(phase != 0 || answer.c_str() + kHeaderSize == id, "an answer is the query's");
  }
  return 0;
}
