// SPDX-License-Identifier: MIT
#include "dorve/util/report_error.h"

#include <iostream>

namespace dorve {

void reportError() {
  std::cerr << "Error" << std::endl;
}

}  // namespace dorve
