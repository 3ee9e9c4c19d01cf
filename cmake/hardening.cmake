# SPDX-License-Identifier: MIT
# Warnings and hardening for every build: a stack protector, and full RELRO with immediate binding.
# The main CMakeLists.txt adds position-independent code.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  add_compile_options(-Wno-restrict) # GCC 12 reports sums of std::string that overlap nowhere
endif()
add_compile_options(-fstack-protector-strong -ffile-prefix-map=${CMAKE_SOURCE_DIR}=.)
add_link_options(-Wl,-z,relro,-z,now -Wl,--as-needed)

# Fortification needs an optimizing build. The sanitizer presets are Debug builds and have checks of their own.
# Flags that set or unset _FORTIFY_SOURCE have priority: a second definition is a warning.
get_directory_property(inherited_options COMPILE_OPTIONS)
get_directory_property(inherited_definitions COMPILE_DEFINITIONS)
set(flags ${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_RELEASE} ${CMAKE_CXX_FLAGS_RELWITHDEBINFO}
  ${inherited_options} ${inherited_definitions})
if(NOT flags MATCHES _FORTIFY_SOURCE)
  add_compile_definitions($<$<CONFIG:Release,RelWithDebInfo>:_FORTIFY_SOURCE=2>)
endif()

# File sizes above 2 GB and 64-bit inode numbers, on 32-bit processors too.
add_compile_definitions(_FILE_OFFSET_BITS=64)
