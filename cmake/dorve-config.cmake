# SPDX-License-Identifier: MIT
# find_package(dorve CONFIG) defines the target dorve::dorve, the static library with its include path.
include(CMakeFindDependencyMacro)
find_dependency(OpenSSL COMPONENTS Crypto)
include(${CMAKE_CURRENT_LIST_DIR}/dorve-targets.cmake)
