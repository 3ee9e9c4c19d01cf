// SPDX-License-Identifier: MIT
#include "dorve/util/descriptor.h"

#include <unistd.h>

#include <utility>

namespace dorve {

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  std::swap(fd, other.fd);
  return *this;
}

void Descriptor::close() {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

}  // namespace dorve
