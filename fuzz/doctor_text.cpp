// SPDX-License-Identifier: MIT
// The doctor's text functions, on any bytes.
// They read the output of other programs, quote words for a shell and print reports.
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

/// The word that a POSIX shell reads from `text`. Throws if a special character is not quoted.
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
  check(!quoted, "each quote is closed");
  return word;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  check(!shellWord(text).empty() && unquote(shellWord(text)) == text, "a shell reads back the same word");
  const Settings settings(text);
  for (const std::string& line : split(text, "\r\n")) {
    const std::vector<std::string> values = settings.all(line.substr(0, line.find(' ')));
    const bool known = std::count(values.begin(), values.end(), line.substr(line.find(' ') + 1)) > 0;
    check(known || line.find(' ') == std::string::npos,
          "the text after the first blank of a line is a value of its setting");
  }
  const std::string message = CommandResult{CommandResult::End::EXITED, 1, "", text}.message();
  check(split(message, "\r\n") == std::vector{message}, "a message is one line");
  const std::string command = disableLine(message);
  if (!command.empty()) {
    const std::string file = unquote(command.substr(command.find("/' ") + 3));
    check(message.starts_with(file), "a repair command edits the file that the message names");
  }

  std::stringbuf printed;
  std::streambuf* const previous = std::cout.rdbuf(&printed);
  Report(Report::Format::JSON).add({Verdict::FAIL, "name", text, text, text});
  std::cout.rdbuf(previous);
  const std::string object = printed.str();
  int quotes = 0;
  for (std::size_t i = 0; i + 1 < object.size(); ++i) {
    check(object[i] < '\0' || (object[i] >= ' ' && object[i] != 0x7F),
          "JSON output has no control characters");
    if (object[i] == '"') ++quotes;
    if (object[i] == '\\') ++i;  // the next character is escaped
  }
  check(quotes == 20, "the quotes around five names and five values are the only ones without a backslash");
  return 0;
}
