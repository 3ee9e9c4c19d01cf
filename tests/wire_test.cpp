// SPDX-License-Identifier: MIT
// The wire as docs/ has it and the dissector shows it, against what both programs send.
#include <sstream>

#include "lab.h"
#include "messages.h"

namespace dorve {

/// Fields' places by the tables and by the hex, the messages, and what of hex and tree no run changes.
struct Page {
  std::string tables, rows, fixed;
  std::vector<std::string> wire;

  explicit Page(const std::string& text) {
    std::istringstream lines(text);
    unsigned int at = 0, size = 0;
    char name[32] = "";
    for (std::string line; std::getline(lines, line);) {
      const auto place = [&] { return std::to_string(at) + " " + std::to_string(size) + " " + name + "\n"; };
      if (std::sscanf(line.c_str(), "| %u | %u | `%31[a-z0-9_]", &at, &size, name) == 3) tables += place();
      if (line.find("  ") == 4 && std::sscanf(line.c_str(), "%x", &at) == 1) {
        if (at == 0 || wire.empty()) wire.emplace_back();
        const bool begins = std::sscanf(line.c_str(), "%*54c%u %31s", &size, name) == 2;
        if (begins && (at >= kHeaderSize || wire.size() == 1)) rows += place();
        if (std::sscanf(&line[4], " 00 * %u", &size) == 1) wire.back().append(size - 1, '\0');
        std::istringstream bytes(line.substr(6, 48));
        while (bytes >> std::hex >> size) wire.back() += static_cast<char>(size);
        for (const char* part : {"checksum", "timestamp", "_id", "_key", "_token", "_us"})
          if (std::strstr(name, part) != nullptr) line = name;
      }
      if (!wire.empty()) fixed += line.substr(0, line.find(": ")) + "\n";
    }
  }
};

TEST_F(LabTest, HasTheWireThatIsDocumentedAndDissected) {
  const Page page(readFile(DORVE_DOCS "/protocol.md") + readFile(DORVE_DOCS "/exchange.txt"));
  EXPECT_EQ(page.tables, page.rows);
  for (std::string wire : page.wire) {
    MessageSerializer::decodeHeader(wire.data());
    EXPECT_TRUE(MessageSerializer::validateChecksum(wire.data(), wire.size()));
  }

  const auto on = [&](const std::string& command) { return lab.client.run(command).out; };
  if (on("command -v tshark").empty()) GTEST_SKIP() << "tshark is not installed";
  for (const auto& host : {lab.server, lab.client}) host.run("ip link set bsab gso_max_segs 1");
  Process server(lab.server.command("exec " DORVE_BUILD "/dorve-server"));
  on("dumpcap -qpi bsab -a duration:5 -w it 2>&1 | { grep -m1 File:; " DORVE_BUILD "/dorve-client; cat; }");
  const Page live(on(DORVE_DOCS "/../scripts/exchange it"));
  EXPECT_EQ(live.fixed, page.fixed);

  const auto show = [&](const std::string& filter, const std::string& fields) {
    return on("tshark -2 -X lua_script:" DORVE_DOCS "/../wireshark/dorve.lua -r it -T fields -e " + fields +
              " -Y 'dorve && " + filter + "'");
  };
  EXPECT_EQ(show("tcp.segments", "dorve.type"), "2\n3\n");  // the link cut those in pieces
  EXPECT_EQ(show("dorve.response_in", "dorve.response_in"), show("dorve.response_time", "frame.number"));
  EXPECT_EQ(show("dorve.response_in", "frame.number"), show("dorve.response_to", "dorve.response_to"));
  const std::string path = lab.client.path("/root/it"), sound = readFile(path);
  for (std::size_t type = 0; type < 10; ++type) {
    std::string flipped = sound;
    flipped.at(sound.find(live.wire.at(type).substr(0, kHeaderSize)) + 23 * type) ^= 1;
    writeFile(path, flipped);
    EXPECT_EQ(show("_ws.expert.severity >= 4194304", "dorve.type"), std::to_string(type) + "\n");
  }
}

}  // namespace dorve
