# SPDX-License-Identifier: Apache-2.0
# Cross build for 64-bit Arm Linux with Debian's cross toolchain
# (g++-aarch64-linux-gnu, libc6-dev-arm64-cross). Tests run through
# qemu-user, so `ctest` works unchanged in the build tree.
#
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
#
# Set QUELTA_CROSS_COMPILER=clang to compile with clang --target instead of
# the GNU cross compilers (same sysroot, same binutils).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(QUELTA_CROSS_TRIPLE aarch64-linux-gnu)
set(QUELTA_CROSS_SYSROOT /usr/${QUELTA_CROSS_TRIPLE})

if(NOT DEFINED QUELTA_CROSS_COMPILER)
  set(QUELTA_CROSS_COMPILER "$ENV{QUELTA_CROSS_COMPILER}")
endif()
if(QUELTA_CROSS_COMPILER STREQUAL "clang")
  set(CMAKE_C_COMPILER clang)
  set(CMAKE_CXX_COMPILER clang++)
  set(CMAKE_C_COMPILER_TARGET ${QUELTA_CROSS_TRIPLE})
  set(CMAKE_CXX_COMPILER_TARGET ${QUELTA_CROSS_TRIPLE})
else()
  set(CMAKE_C_COMPILER ${QUELTA_CROSS_TRIPLE}-gcc)
  set(CMAKE_CXX_COMPILER ${QUELTA_CROSS_TRIPLE}-g++)
endif()
# Try-compile projects see the choice too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QUELTA_CROSS_COMPILER)

# Target binutils, whichever compiler drives them.
find_program(CMAKE_OBJDUMP ${QUELTA_CROSS_TRIPLE}-objdump)
find_program(CMAKE_NM ${QUELTA_CROSS_TRIPLE}-nm)
find_program(CMAKE_READELF ${QUELTA_CROSS_TRIPLE}-readelf)

set(CMAKE_FIND_ROOT_PATH ${QUELTA_CROSS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
if(NOT DEFINED CMAKE_FIND_ROOT_PATH_MODE_PACKAGE)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
endif()

find_program(QUELTA_QEMU_AARCH64 qemu-aarch64)
if(QUELTA_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${QUELTA_QEMU_AARCH64} -L ${QUELTA_CROSS_SYSROOT})
endif()
