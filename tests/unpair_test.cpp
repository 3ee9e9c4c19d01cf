// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "dorve/keys/pairing_lines.h"
#include "dorve/keys/ssh_files.h"
#include "dorve/keys/unpair.h"

namespace fs = std::filesystem;

namespace dorve {

const std::vector<std::string> kHosts = {"10.0.0.1", "10.0.0.2"};
const std::string kBlock = hostBlock("/s", "slice", "10.0.0.1");
const std::string kSecond = hostBlock("/s", "slice", "10.0.0.2");

struct Case {
  std::string before;
  std::string after;
  std::string found;  ///< the numbers of the lines, with '!' if they stay
};

std::string replaced(std::string text, const std::string& part, const std::string& other) {
  return text.replace(text.find(part), part.size(), other);
}

void expectErased(const Case& row, const std::vector<FoundLines>& found) {
  std::string numbers;
  for (const FoundLines& lines : found)
    numbers += (lines.isChanged() ? " !" : " ") + std::to_string(lines.firstLine) + "-" +
               std::to_string(lines.lastLine);
  EXPECT_EQ(numbers.substr(numbers.empty() ? 0 : 1), row.found) << row.before;
  const TextTail tail = eraseFound(row.before, found);
  EXPECT_EQ(row.before.substr(0, tail.from) + tail.text, row.after) << row.before;
}

TEST(Unpair, KeyLinesGoAndBlankLinesStay) {
  const Case cases[] = {
      {"", "", ""},
      {"A\n\nk1\n", "A\n\nk1\n", ""},
      {"\nA\n\nssh K slice\n", "\nA\n\n", "4-4"},
      {"slice\nA\r\n# slice\r\n\nB", "A\r\n\nB", "1-1 3-3"},
      {"A\nK slice", "A\n", "2-2"},
  };
  for (const Case& row : cases) expectErased(row, findKeyLines(row.before, "slice"));
}

TEST(Unpair, WholeBlocksGoAndLeaveTheTextFromBefore) {
  const Case cases[] = {
      {"\n" + kBlock, "", "2-6"},
      {"User a\n\n" + kBlock, "User a\n", "3-7"},
      {"User a\n" + kBlock, "User a", "2-6"},
      {"User a\r\n\n\n\n" + kBlock + "# end\n", "User a\r\n\n\n# end\n", "5-9"},
      // The newline before the block ends a foreign line, and another one follows.
      {"User a\n" + kBlock + "Host b", "User a\nHost b", "2-6"},
      {"\n" + kBlock + "\nhost=b\n User c", "\nhost=b\n User c", "2-6"},
      {kBlock + "\n  # mine\nMatch all\n", "\n  # mine\nMatch all\n", "1-5"},
      // Repeated blocks, with and without the last newline, and the blocks of both sides.
      {"User a\n\n" + kBlock + "\n" + kBlock, "User a\n", "3-7 9-13"},
      {"User a\n" + kBlock + kSecond.substr(0, kSecond.size() - 1), "User a", "2-6 7-11"},
      {"User a\n" + kBlock + "\n" + kSecond + "Host b\n", "User a\nHost b\n", "2-6 8-12"},
  };
  for (const Case& row : cases) expectErased(row, findHostBlocks(row.before, "/s", "slice", kHosts));
}

TEST(Unpair, ChangedBlocksStayWithTheirNumbersAndForeignOnesAreNotNamed) {
  const std::string crlf = replaced(kBlock, "yes\n", "yes\r\n"),
                    own = replaced(kBlock, "/s/slice", "~/.ssh/id");
  const std::pair<std::string, std::string> cases[] = {
      {"\n" + kBlock + "    User c\n\n# end\n", "!2-7"},
      {"\n" + kBlock + "\n# c\nInclude other\n", "!2-9"},
      {replaced(kBlock, "    IdentitiesOnly", "    # why\n    IdentitiesOnly"), "!1-6"},
      {replaced(kBlock, "Host 10.0.0.1", "Host\t10.0.0.1 other"), "!1-5"},
      {replaced(kBlock, "Host 10.0.0.1", "Host peer"), "!1-5"},
      {replaced(kBlock, "/s/", "/t/"), "!1-5"},
      {"User a\n" + crlf + "Host b\n", "!2-6"},
      {replaced(own, "Host 10.0.0.1", "HOST=\"10.0.0.1\""), "!1-5"},
      // What the user wrote for this or for other hosts.
      {"# " + kBlock.substr(0, 14) + "Host 10.0.0.1\n    User b\n", ""},
      {replaced(own, "Host 10.0.0.1", "Host 10.0.0.10"), ""},
      {"IdentityFile ~/.ssh/slice\nHost 10.0.0.2\n    # slice\n", ""},
      {"Match host 10.0.0.1\n    IdentityFile /s/slice\n", ""},
      {"Host", ""},
      {"=\n\"\n Host=10.0.0.1", ""},
  };
  for (const auto& [text, found] : cases)
    expectErased({text, text, found}, findHostBlocks(text, "/s", "slice", kHosts));
  const std::string both = "\n" + kBlock + "\n" + replaced(kSecond, "yes", "no");
  expectErased({both, both.substr(kBlock.size() + 1), "2-6 !8-12"},
               findHostBlocks(both, "/s", "slice", kHosts));
}

/// The remnants as one line for each, without the directory.
std::string listed(const std::vector<Remnant>& remnants, const std::string& dir) {
  std::string text;
  for (const Remnant& remnant : remnants) {
    text += remnant.path.substr(dir.size()) + " " + std::to_string(remnant.firstLine) + "-" +
            std::to_string(remnant.lastLine) + " " + remnant.obstacle + "\n";
  }
  return text;
}

struct UnpairFiles : testing::Test {
  std::string dir = testing::TempDir() + "dorve-unpair-XXXXXX";
  UnpairFiles() { EXPECT_NE(mkdtemp(dir.data()), nullptr); }
  ~UnpairFiles() override { fs::remove_all(dir); }
};

TEST_F(UnpairFiles, RemovesWhatIsFoundAndNothingElse) {
  const std::string foreign = dir + "/target", keys = dir + "/real_keys";
  std::ofstream(foreign) << "kept";
  std::ofstream(keys) << "A";
  fs::create_symlink(foreign, dir + "/slice");
  fs::create_symlink(dir, dir + "/slice.pub");
  fs::create_symlink(keys, dir + "/authorized_keys");
  addAuthKey(dir, "slice", "ssh K slice\n");
  for (const std::string& host : kHosts) addSshConfig(dir, "slice", host.c_str());
  const std::string all =
      "/authorized_keys 3-3 \n/config 2-6 \n/config 8-12 \n/slice 0-0 \n/slice.pub 0-0 \n";
  EXPECT_EQ(listed(findRemnants(dir, "slice", kHosts), dir), all);
  EXPECT_EQ(fs::file_size(keys), 15) << "a search changes nothing";
  fs::permissions(dir + "/config", fs::perms{0640});
  EXPECT_EQ(listed(removeRemnants(dir, "slice", kHosts), dir), all);
  EXPECT_EQ(fs::file_size(keys), 3) << "A, its newline, and the empty line";
  EXPECT_TRUE(fs::is_symlink(dir + "/authorized_keys"));
  EXPECT_FALSE(fs::is_symlink(dir + "/slice"));
  EXPECT_EQ(fs::file_size(foreign), 4);
  EXPECT_EQ(fs::file_size(dir + "/config"), 0);
  EXPECT_EQ(fs::status(dir + "/config").permissions(), fs::perms{0640});
  EXPECT_TRUE(removeRemnants(dir, "slice", kHosts).empty());
}

TEST_F(UnpairFiles, WhatIsNoFileHasNoLinesAndAFolderIsNoKey) {
  ASSERT_EQ(mkfifo((dir + "/authorized_keys").c_str(), 0600), 0);
  fs::create_directory(dir + "/config");
  fs::create_directory(dir + "/slice.pub");
  const std::string folder = "/slice.pub 0-0 is a directory, which no pairing makes\n";
  EXPECT_EQ(listed(removeRemnants(dir, "slice", kHosts), dir), folder);
  EXPECT_TRUE(fs::is_directory(dir + "/slice.pub"));
  EXPECT_TRUE(removeRemnants(dir + "/missing", "slice", kHosts).empty());
  fs::create_symlink("k", dir + "/k");
  const std::string loops = listed(removeRemnants(dir + "/k", "slice", kHosts), dir);
  EXPECT_TRUE(loops.starts_with("/k/authorized_keys 0-0 cannot be read: Too many levels")) << loops;
}

}  // namespace dorve
