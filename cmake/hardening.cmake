# SPDX-License-Identifier: MIT
# Warnings and hardening for every build: a stack protector, and full RELRO with immediate binding.
# The main CMakeLists.txt adds position-independent code.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
add_compile_options(-fstack-protector-strong -ffile-prefix-map=${CMAKE_SOURCE_DIR}=.)
add_link_options(-Wl,-z,relro,-z,now -Wl,--as-needed)

# Fortification needs an optimizing build. The sanitizer presets are Debug builds and have checks of their own.
add_compile_definitions($<$<CONFIG:Release,RelWithDebInfo>:_FORTIFY_SOURCE=2>)

# File sizes above 2 GB and 64-bit inode numbers, on 32-bit processors too.
add_compile_definitions(_FILE_OFFSET_BITS=64)
