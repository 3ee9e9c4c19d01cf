# SPDX-License-Identifier: MIT
# Builds for Debian's arm64 with Debian's cross compiler, against the arm64 libraries that dpkg puts beside
# the machine's own.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Without this pkg-config, where there is one, names the machine's own libraries.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
