# SPDX-License-Identifier: MIT
# Warnings for every build, and the hardening that Debian gives its own packages: position-independent
# programs, full RELRO with immediate binding, stack protector, fortified libc calls.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
add_compile_options(-fstack-protector-strong -ffile-prefix-map=${CMAKE_SOURCE_DIR}=.)
add_link_options(-Wl,-z,relro,-z,now -Wl,--as-needed)

# Fortification needs an optimizing build, and the sanitizers bring checks of their own.
add_compile_definitions($<$<CONFIG:Release,RelWithDebInfo>:_FORTIFY_SOURCE=2>)

# Files beyond 2 GB, and their inodes, on 32-bit processors too.
add_compile_definitions(_FILE_OFFSET_BITS=64)
