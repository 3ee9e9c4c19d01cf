// SPDX-License-Identifier: MIT
#ifndef DORVE_CHECKS_SCRIPT_H_
#define DORVE_CHECKS_SCRIPT_H_

#include <string>
#include <string_view>
#include <vector>

#include "dorve/facts/access.h"
#include "dorve/facts/device.h"
#include "dorve/facts/text.h"

/// The pieces of the scripts for sh(1) that the doctor prints. Each quotes the words that it gets.
namespace dorve {

/// Returns whether sh(1) reads the text as one word even without quotes.
bool isPlainWord(std::string_view text);

/// Returns whether sh(1) reads the path as one word, as in the command by which the programs start
/// ssh-keygen.
bool isSafeForShell(std::string_view path);

/// `word` as one word for sh(1): in quotes unless `isPlainWord`.
std::string quoted(std::string_view word);

/// Returns whether a terminal shows a command as it is: ASCII and letters of the common scripts,
/// without control characters and those that have no width or change the direction of the text.
bool isShowable(std::string_view text);

/// Returns whether a script is one command without anything that only a shell understands.
bool isOneCommand(const std::string& script);

/// A command and its arguments, each as one word.
std::string withArguments(const std::string& command, const std::vector<std::string>& arguments);

/// `printf` with each line as one argument, so that nothing in a line is special.
std::string printLines(const std::vector<std::string>& lines);

/// Puts a line at the front of a file, unless the file already has it.
std::string putFirst(const std::string& line, const std::string& file);

/// Sends a signal to a process if it still runs the program that was seen.
std::string signalScript(const Process& process, const std::string& signal);

/// Edits a line if it still has the text that the doctor saw. Another command may have moved it meanwhile.
std::string editScript(const std::string& file, int number, const std::string& text,
                       const std::string& change);

/// Turns a line into a comment, or removes a byte order mark before it. Empty for a line that begins a block.
std::string disableScript(const FaultyLine& line);

}  // namespace dorve

#endif  // DORVE_CHECKS_SCRIPT_H_
