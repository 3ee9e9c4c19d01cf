#include "keys/file_text.h"

#include <fstream>

namespace dorve {

std::optional<std::string> readFileText(const std::string& path) {
  std::string text;
  std::ifstream file(path, std::ios::binary);
  char chunk[16384];
  while (file) {
    file.read(chunk, sizeof chunk);
    text.append(chunk, static_cast<std::size_t>(file.gcount()));
  }
  if (file.bad()) return std::nullopt;
  return text;
}

}  // namespace dorve
