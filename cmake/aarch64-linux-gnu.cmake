# SPDX-License-Identifier: Apache-2.0
# 64-bit Arm with Debian's cross compiler and Debian's arm64 libraries beside the native ones (scripts/setup.sh arm64).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Debian keeps both architectures' libraries under /usr; only the other architecture's own folder must be left out.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_IGNORE_PREFIX_PATH /usr/local)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)

# An arm64 computer runs what it builds; every other one needs the emulator.
if(NOT CMAKE_HOST_SYSTEM_PROCESSOR STREQUAL "aarch64")
  find_program(NIMBREL2_QEMU_AARCH64 qemu-aarch64 REQUIRED)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${NIMBREL2_QEMU_AARCH64})
endif()
