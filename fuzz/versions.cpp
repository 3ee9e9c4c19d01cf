// SPDX-License-Identifier: MIT
// Version texts and lists: what holds for any text that a peer may put in one.
#include <sstream>

#include "../tests/test_access.h"
#include "fuzz.h"

using namespace dorve;

const std::vector<std::string> dorve::kSeeds = {
    "1.0, 2.0,\t1.1 \n 2.0 ,1.0,3.0\n2.1\nDORVE/2.0\n65537.1", "2,1.0, ,,x\n ,,2,1.0,x\n \n.5\n1.x",
    "1.0,01.0,DORVE/1.0\nDORVE/1.0,01.0,1.0,\n1.0\n-1.2\n 1.0",
    std::string(250, ',') + "1.0,2.0\n" + std::string(130, '1') + ".0,1.0\n\n99999999999999999999.0\n1"};

static std::vector<std::string> itemsOf(const std::string& list) {
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
  std::string supported, list, a, b;
  for (std::string* line : {&supported, &list, &a, &b}) std::getline(input, *line);
  const VersionTable table = TestAccess::versionTable(a.c_str(), supported.c_str());
  const auto compare = [&](const auto& x, const auto& y) { return table.compareVersions(x, y); };
  const ParsedVersion parsed = table.parseVersion(a);
  const std::string numbers = std::to_string(parsed.major) + "." + std::to_string(parsed.minor);
  check(parsed.valid == (a.find('.') != std::string::npos), "a dot makes a version");
  check(parsed.valid ? compare(numbers, a) == 0 : numbers == "0.0", "a version is its numbers");
  check(compare(a, b) == -compare(b, a) && compare(a, a) == 0, "the order is antisymmetric");

  std::vector<std::string> common = itemsOf(list), offered = itemsOf(std::string(table.supported()));
  const auto has = [](const auto& all, const auto& x) { return std::count(all.begin(), all.end(), x) > 0; };
  check(table.versionInList(a, list) == has(common, a), "a list holds its trimmed items");
  std::erase_if(common, [&](const auto& item) { return item.empty() || !has(offered, item); });
  const std::string chosen = table.findCommonVersion(list);
  check(common.empty() ? chosen.empty() : has(common, chosen), "the choice is an item of both lists");
  for (const auto& item : common) check(compare(item, chosen) != 1, "the choice is the newest");
  return 0;
}
