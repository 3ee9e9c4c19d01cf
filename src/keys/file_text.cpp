// SPDX-License-Identifier: MIT
#include "dorve/keys/file_text.h"

#include <filesystem>
#include <fstream>

namespace dorve {
namespace {

constexpr std::uintmax_t kMostReserved = 256 << 20;  // bytes

}  // namespace

std::optional<std::string> readFileText(const std::string& path) {
  std::string text;
  std::ifstream file(path, std::ios::binary);
  std::error_code unknown;
  const auto size = std::filesystem::file_size(path, unknown);
  // Room for the line that an edit adds, too, so that a large file is not copied for it; up to a bound,
  // because a size may be anything.
  if (!unknown && size < kMostReserved) text.reserve(size + 8192);
  char chunk[16384];
  while (file) {
    file.read(chunk, sizeof chunk);
    text.append(chunk, static_cast<std::size_t>(file.gcount()));
  }
  if (file.bad()) return std::nullopt;
  return text;
}

}  // namespace dorve
