// SPDX-License-Identifier: MIT
// The server's request loop on whatever a client may send.
#include "dorve/server/dorve_server.h"
#include "fuzz.h"

using namespace dorve;

const std::vector<std::string> dorve::kSeeds = conversations({0, 32, SERVER_RECEIVE_BUFFER, 8193});

// Of each answer its size, and where its texts behind the id end: each with a NUL.
constexpr unsigned kEnds[][4] = {
    {512, 192, 224, 488}, {4624, 4256, 4321}, {354, 192}, {508, 192, 224}, {473, 192}};

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string kRequests[] = {
      toWire(makeRecord<VersionQuery>("")).replace(192, 8, "2.0, 1.0"),
      toWire(makeRecord<ExchangeKeysRequest>("")), toWire(makeRecord<VerifyKeysRequest>("")),
      toWire(makeRecord<InstallKeysRequest>("")), toWire(makeRecord<ConfirmInstallRequest>(""))};
  FuzzedDataProvider input(data, size);
  Peer peer(input, [&](const std::string& /*heard*/) {
    return mutate(input, kRequests[input.ConsumeIntegral<std::uint8_t>() % 5], std::to_string(peer.taken));
  });
  std::remove((kSshDir + "/authorized_keys").c_str());
  DorveServer server("", 0, kSshDir);
  server.processRequest(peer.near);

  for (std::string answers = peer.hear(); !answers.empty();) {
    std::size_t kind = 0;
    while (kind < 5 && !beginsWith(answers, 2 * kind + 1, kEnds[kind][0])) ++kind;
    check(kind < 5, "an answer is a whole sound message");
    for (const unsigned end : kEnds[kind]) check(end == 0 || answers[end - 1] == 0, "a text ends");
    const std::string id = answers.c_str() + kHeaderSize;
    check(id.size() < 128 && peer.sent.find(id) != std::string::npos, "an answer has a request's id");
    answers.erase(0, kEnds[kind][0]);
  }
  return 0;
}
