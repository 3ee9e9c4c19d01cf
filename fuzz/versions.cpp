// SPDX-License-Identifier: MIT
// Fuzzes the parsing, the comparison and the selection of versions with texts that a peer may send.
// An input has four lines: our list, the peer's list and two versions.
#include <sstream>

#include "../tests/test_access.h"
#include "fuzz.h"

using namespace dorve;

const std::vector<std::string> dorve::kSeeds = {
    "1.0, 2.0,\t1.1 \n 2.0 ,1.0,3.0\n2.1\n65537.1", "2,1.0, ,,x\n ,,2,1.0,x\n.5\n1.x",
    "1.0,01.0,DORVE/1.0\nDORVE/1.0,01.0,1.0,\n-1.2\n 1.0",
    std::string(250, ',') + "1.0,2.0\n" + std::string(130, '1') + ".0,1.0\n99999999999999999999.0\n1"};

/// Splits a list in another way than `takeItem`, to compare the results.
static std::vector<std::string> splitAndTrim(const std::string& list) {
  std::vector<std::string> items;
  std::istringstream stream(list);
  for (std::string item; std::getline(stream, item, ',');) {
    const auto first = item.find_first_not_of(" \t");
    if (first != std::string::npos) item = item.substr(first, item.find_last_not_of(" \t") - first + 1);
    items.push_back(item);
  }
  return items;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::istringstream input(std::string(data, data + size));
  std::string ourList, peerList, a, b;
  for (std::string* line : {&ourList, &peerList, &a, &b}) std::getline(input, *line);
  const VersionTable table = TestAccess::versionTable(a.c_str(), ourList.c_str());
  const auto compare = [&](const auto& x, const auto& y) { return table.compareVersions(x, y); };
  const ParsedVersion parsed = table.parseVersion(a);
  const std::string numbers = std::to_string(parsed.major) + "." + std::to_string(parsed.minor);
  check(parsed.valid == (a.find('.') != std::string::npos), "a text with a dot is a version");
  if (parsed.valid) {
    check(compare(numbers, a) == 0, "a version equals its two numbers");
  } else {
    check(numbers == "0.0", "an invalid version has the numbers 0 and 0");
  }
  check(compare(a, b) == -compare(b, a) && compare(a, a) == 0, "the order is antisymmetric");

  const auto contains = [](const auto& all, const auto& x) {
    return std::count(all.begin(), all.end(), x) > 0;
  };
  std::vector<std::string> common = splitAndTrim(peerList);
  check(table.versionInList(a, peerList) == contains(common, a), "a list contains its trimmed items");
  const std::vector<std::string> ours = splitAndTrim(std::string(table.supported()));
  std::erase_if(common, [&](const auto& item) { return item.empty() || !contains(ours, item); });
  const std::string chosen = table.findCommonVersion(peerList);
  check(common.empty() ? chosen.empty() : contains(common, chosen), "the chosen version is in both lists");
  for (const auto& item : common) check(compare(item, chosen) != 1, "no common version is newer");
  return 0;
}
