// SPDX-License-Identifier: MIT
#ifndef DORVE_KEYS_PAIRING_LINES_H_
#define DORVE_KEYS_PAIRING_LINES_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "dorve/keys/file_text.h"

/// The lines that a pairing leaves in authorized_keys and config. Pure functions of the text of these files.
namespace dorve {

/// The block for `host` that a pairing appends to config after an empty line (ssh_config(5)).
std::string hostBlock(const std::string& sshDir, const std::string& keyName, const std::string& host);

/// Lines that a pairing left. The first line of a text has the number 1.
struct FoundLines {
  std::size_t firstLine;
  std::size_t lastLine;
  /// The bytes to erase, from `from` to before `to`. Both are 0 for a block that somebody changed.
  std::size_t from = 0;
  std::size_t to = 0;

  bool isChanged() const { return from == to; }
};

/// The lines of an authorized_keys that contain `keyName` anywhere.
std::vector<FoundLines> findKeyLines(std::string_view text, std::string_view keyName);

/// The blocks of a pairing in a config. Every `hostBlock` for one of `hosts` is to be erased with the empty
/// line before it. The result is the text from before the pairing, byte for byte: if the text ends with the
/// block, the newline before the block goes too, because the pairing added it.
///
/// A block is changed if it differs from `hostBlock`, and either has `keyName` in a setting,
/// or is for one of `hosts` and has another setting of `hostBlock`. A setting after `hostBlock` changes the
/// block: without its Host line, this setting would apply to other hosts. Comments and empty lines change
/// nothing there.
std::vector<FoundLines> findHostBlocks(std::string_view text, const std::string& sshDir,
                                       const std::string& keyName, const std::vector<std::string>& hosts);

/// The edit that erases the bytes of the found lines, which are in the order of the text.
TextTail eraseFound(std::string_view text, const std::vector<FoundLines>& found);

}  // namespace dorve

#endif  // DORVE_KEYS_PAIRING_LINES_H_
