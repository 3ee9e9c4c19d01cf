// SPDX-License-Identifier: MIT
// The wire as docs/ has it and the dissector shows it, against what both programs send.
#include <cctype>
#include <cstdio>
#include <sstream>

#include "dorve/protocol/messages.h"
#include "lab.h"

namespace dorve {

/// What docs/ or scripts/exchange show of messages, without what Wireshark words or formats its own way.
struct Page {
  std::string tables;  ///< offset, size and name of each field in the tables
  std::string fields;  ///< the same of the annotated hex, the header's fields once
  std::string rows;    ///< the hex, without the values that differ in each run
  std::string labels;  ///< headings and the labels of the dissector's tree, without Wireshark's punctuation
  std::vector<std::string> wire;  ///< the messages of the hex

  explicit Page(const std::string& text) {
    std::istringstream lines(text);
    unsigned int at = 0, size = 0;
    char name[32] = "";
    bool fixed = true;
    const auto field = [&] { return std::to_string(at) + " " + std::to_string(size) + " " + name + "\n"; };
    for (std::string line; std::getline(lines, line);) {
      if (std::sscanf(line.c_str(), "| %u | %u | `%31[a-z0-9_]", &at, &size, name) == 3) {
        tables += field();
      } else if (line.find("  ") == 4 && std::sscanf(line.c_str(), "%x", &at) == 1) {
        if (at == 0) wire.emplace_back();
        if (std::sscanf(line.c_str(), "%*x 00 * %u", &size) == 1) {
          wire.back().append(size, '\0');
        } else {
          std::istringstream bytes(line.substr(6, 48));
          for (unsigned int byte = 0; bytes >> std::hex >> byte;) wire.back() += static_cast<char>(byte);
        }
        if (std::sscanf(line.c_str(), "%*54c%u %31s", &size, name) == 2) {
          if (at >= kHeaderSize || wire.size() == 1) fields += field();
          fixed = true;
          for (const char* part : {"checksum", "timestamp", "_id", "_key", "_token", "_us"})
            if (std::strstr(name, part) != nullptr) fixed = false;
          if (!fixed) rows += field();
        }
        if (fixed) rows += line + "\n";
      } else if (!wire.empty()) {
        line = line.substr(0, line.find_first_of(":,"));
        std::erase_if(line, [](unsigned char c) { return std::isalnum(c) == 0 && c != '_'; });
        labels += line + "\n";
      }
    }
  }
};

TEST_F(LabTest, HasTheWireThatIsDocumentedAndDissected) {
  const Page page(readFile(DORVE_DOCS "/protocol.md") + readFile(DORVE_DOCS "/exchange.txt"));
  EXPECT_EQ(page.tables, page.fields);
  for (std::string wire : page.wire) {
    MessageSerializer::decodeHeader(wire.data());
    EXPECT_TRUE(MessageSerializer::validateChecksum(wire.data(), wire.size()));
  }

  const auto on = [&](const std::string& command) {
    const Outcome outcome = lab.client.run(command);
    EXPECT_EQ(outcome.status, 0) << command << "\n" << outcome.err;
    return outcome.out;
  };
  if (lab.client.run("command -v tshark").status != 0) GTEST_SKIP() << "tshark is not installed";
  for (const auto& host : {lab.server, lab.client}) host.run("ip link set bsab gso_max_segs 1");
  Process server(lab.server.command("exec '" DORVE_BUILD "/dorve-server'"));
  on("dumpcap -qpi bsab -w capture & while [ ! -e capture ] && kill -0 $!; do sleep 0.1; done;"
     "'" DORVE_BUILD "/dorve-client'; sleep 0.5; kill $!; wait");
  const Page live(on("'" DORVE_DOCS "/../scripts/exchange' capture"));
  EXPECT_EQ(live.rows, page.rows);
  EXPECT_EQ(live.labels, page.labels);

  const auto show = [&](const std::string& filter, const std::string& fields) {
    return on("'" DORVE_DOCS "/../scripts/exchange' capture -Y 'dorve && (" + filter + ")' -T fields -e " +
              fields);
  };
  EXPECT_EQ(show("tcp.segments", "dorve.type"), "2\n3\n");  // the link cut those in pieces
  std::istringstream frames(show("dorve", "frame.number"));
  std::string links;
  for (std::string request, response; frames >> request >> response;)
    links += "1\t" + response + "\t\n1\t\t" + request + "\n";
  const std::string wrong =
      "dorve.timestamp > frame.time || dorve.completed_at_us > frame.time || "
      "dorve.token_expiry_us < frame.time || dorve.response_time > frame.time_relative || "
      "_ws.expert.severity >= 4194304";  // a note or worse
  EXPECT_EQ(show("!(" + wrong + ")", "dorve.checksum.status -e dorve.response_in -e dorve.response_to"),
            links);

  const std::string path = lab.client.path("/root/capture");
  std::string damaged = readFile(path);
  for (std::size_t type = 0; type < live.wire.size(); ++type)
    damaged.at(damaged.find(live.wire[type].substr(0, kHeaderSize)) + 23 * type) ^= 1;
  writeFile(path, damaged);
  EXPECT_EQ(show("dorve.bad_checksum", "dorve.type"), "0\n1\n2\n3\n4\n5\n6\n7\n8\n9\n");
}

}  // namespace dorve
