#!/bin/sh
# Installs the build tree into a scratch prefix, then builds and runs a C host
# against it twice: through find_package(QueltaAlgo) and through pkg-config.
#   check_install.sh BUILD_DIR HOST_SOURCE_DIR C_COMPILER
# Cross builds also set EMULATOR (command line that runs target programs),
# TOOLCHAIN_FILE, CROSS_COMPILER and C_TARGET; sanitizer builds set HOST_FLAGS
# (compile and link flags for the host) and HOST_LIBS (libraries it links).
set -eu
build="$1"
host_src="$2"
cc="$3"
emulator="${EMULATOR:-}"

work=$(mktemp -d "${TMPDIR:-/tmp}/quelta-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

cmake --install "$build" --prefix "$prefix" > "$work/install.log"
header="$prefix/include/QueltaAlgo.h"
so=$(find "$prefix" -name QueltaAlgo.so)
pc=$(find "$prefix" -name QueltaAlgo.pc)
config=$(find "$prefix" -name QueltaAlgoConfig.cmake)
if [ ! -f "$header" ] || [ -z "$so" ] || [ -z "$pc" ] || [ -z "$config" ]; then
  echo "incomplete install:"
  cat "$work/install.log"
  exit 1
fi
libdir=$(dirname "$so")

echo "== find_package"
host_flags="${HOST_FLAGS:-}"
host_libs="${HOST_LIBS:-}"
set -- -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc"
if [ -n "$host_flags" ]; then
  set -- "$@" -DCMAKE_C_FLAGS="$host_flags" -DCMAKE_EXE_LINKER_FLAGS="$host_flags $host_libs"
fi
if [ -n "${TOOLCHAIN_FILE:-}" ]; then
  # The scratch prefix lies outside the cross sysroot.
  set -- "$@" -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN_FILE" \
    -DQUELTA_CROSS_COMPILER="${CROSS_COMPILER:-}" \
    -DCMAKE_FIND_ROOT_PATH_MODE_PACKAGE=BOTH
fi
if ! cmake -S "$host_src" -B "$work/cmake-host" "$@" > "$work/configure.log" 2>&1 ||
   ! cmake --build "$work/cmake-host" > "$work/build.log" 2>&1; then
  cat "$work/configure.log" "$work/build.log" 2>/dev/null
  exit 1
fi
# shellcheck disable=SC2086
LD_LIBRARY_PATH="$libdir" $emulator "$work/cmake-host/host"

echo "== pkg-config"
command -v pkg-config >/dev/null || { echo "pkg-config is not installed"; exit 1; }
flags=$(PKG_CONFIG_LIBDIR="$(dirname "$pc")" pkg-config --cflags --libs QueltaAlgo)
echo "pkg-config --cflags --libs QueltaAlgo: $flags"
set --
if [ -n "${C_TARGET:-}" ]; then set -- "--target=$C_TARGET"; fi
# shellcheck disable=SC2086
"$cc" "$@" $host_flags "$host_src/host.c" $flags $host_libs -o "$work/pkgconfig-host"
# shellcheck disable=SC2086
LD_LIBRARY_PATH="$libdir" $emulator "$work/pkgconfig-host"
