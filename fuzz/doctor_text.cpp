// SPDX-License-Identifier: MIT
// What the doctor reads of other programs' output, the words that it quotes for a shell, and what it prints.
#include <cstdint>
#include <sstream>

#include "dorve/doctor/command.h"
#include "dorve/doctor/report.h"
#include "dorve/doctor/settings.h"
#include "dorve/doctor/text.h"
#include "fuzz.h"

using namespace dorve;

const std::vector<std::string> dorve::kSeeds = {"port 22\nhostname 172.20.10.1\r\nport\nport  2 \t3\n",
                                                "it's $HOME; \\\"'x''\n\n \t\r\n",
                                                "\033[2J\302\233\303\251\360\237\230\200\342\202\200\377",
                                                "~/.ssh/authorized_keys\\\\ \"a\" \\",
                                                "/root/.ssh/config: line 7: Bad option",
                                                "/a's line 2 line 31: x"};

/// The one word that a POSIX shell reads. It throws at what must be quoted and is not.
static std::string unquote(const std::string& text) {
  if (text.find_first_of("\t\n !\"#$&'()*;<>?[\\]^`{|}~") == std::string::npos && !text.empty()) return text;
  std::string word;
  bool quoted = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\'') {
      quoted = !quoted;
    } else {
      check(quoted || text[i] == '\\', "special characters are quoted");
      word += quoted ? text[i] : text.at(++i);
    }
  }
  check(!quoted, "each quote ends");
  return word;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  check(!shellWord(text).empty() && unquote(shellWord(text)) == text, "a shell reads back the same word");
  const Settings settings(text);
  for (const std::string& line : split(text, "\r\n")) {
    const std::vector<std::string> values = settings.all(line.substr(0, line.find(' ')));
    const bool known = std::count(values.begin(), values.end(), line.substr(line.find(' ') + 1)) > 0;
    check(known || line.find(' ') == std::string::npos, "a setting has the values of all its lines");
  }
  const std::string message = CommandResult{CommandResult::End::EXITED, 1, "", text}.message();
  check(split(message, "\r\n") == std::vector{message}, "a message is one line");
  const std::string repair = disableLine(message);
  const std::string file = unquote(repair.empty() ? "x" : repair.substr(repair.find("/' ") + 3));
  check(repair.empty() || message.starts_with(file), "a repair is for the file that the message names");

  std::stringbuf printed;
  std::streambuf* const usual = std::cout.rdbuf(&printed);
  Report(Report::Format::JSON).add({Verdict::FAIL, "name", text, text, text});
  std::cout.rdbuf(usual);
  const std::string object = printed.str();
  int quotes = 0;
  for (std::size_t i = 0; i + 1 < object.size(); ++i) {
    check(object[i] < '\0' || (object[i] >= ' ' && object[i] != 0x7F), "an object has no control characters");
    quotes += object[i] == '"' ? 1 : 0;
    i += object[i] == '\\' ? 1 : 0;
  }
  check(quotes == 20, "no text ends its quotes");
  return 0;
}
