#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Installs the build tree into scratch prefixes and checks what a user gets:
#   1. the layout: QueltaAlgo.so, libquelta.so with its soname and
#      development links, every header, both pkg-config files, the CMake
#      package with its Quelta component;
#   2. the runtime linker's cache finds libquelta.so.<major> in the libdir
#      (a cache built for this prefix alone, so no root is needed);
#   3. the installed quelta-replay (when the tools were built) runs without
#      LD_LIBRARY_PATH, from a scratch prefix and from the default prefix
#      /usr/local installed under a DESTDIR, and finds its bundled recording;
#   4. every C host (examples/*.c and tests/platform/install_host/*.c) builds
#      through find_package (examples/CMakeLists.txt) and through pkg-config,
#      and runs.
#   check_install.sh BUILD_DIR SOURCE_DIR C_COMPILER
# Cross builds also set EMULATOR (command line that runs target programs),
# TOOLCHAIN_FILE, CROSS_COMPILER and C_TARGET; sanitizer builds set HOST_FLAGS
# (compile and link flags for the hosts) and HOST_LIBS (libraries they link).
# READELF names the target's readelf.
set -eu
build="$1"
source="$2"
cc="$3"
emulator="${EMULATOR:-}"
readelf="${READELF:-readelf}"

work=$(mktemp -d "${TMPDIR:-/tmp}/quelta-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"
fail() {
  echo "FAILED: $*"
  exit 1
}

echo "== layout"
cmake --install "$build" --prefix "$prefix" > "$work/install.log" || { cat "$work/install.log"; fail "cmake --install"; }
so=$(find "$prefix" -name QueltaAlgo.so)
[ -n "$so" ] || { cat "$work/install.log"; fail "QueltaAlgo.so not installed"; }
libdir=$(dirname "$so")
for f in "$prefix/include/QueltaAlgo.h" "$libdir/pkgconfig/QueltaAlgo.pc" "$libdir/pkgconfig/quelta.pc" \
         "$libdir/cmake/QueltaAlgo/QueltaAlgoConfig.cmake" \
         "$libdir/cmake/QueltaAlgo/QueltaAlgoQueltaTargets.cmake" \
         "$prefix/share/doc/QueltaAlgo/LICENSE" "$prefix/share/doc/QueltaAlgo/NOTICE"; do
  [ -f "$f" ] || { cat "$work/install.log"; fail "missing from the install: $f"; }
done
# The licence, in every place a packager or a build reads it.
grep -q "^License: Apache-2.0$" "$libdir/pkgconfig/quelta.pc" || fail "quelta.pc names no licence"
grep -q 'QueltaAlgo_LICENSE "Apache-2.0"' "$libdir/cmake/QueltaAlgo/QueltaAlgoConfig.cmake" ||
  fail "the CMake package names no licence"
for h in "$source"/include/quelta/*.h; do
  [ -f "$prefix/include/quelta/$(basename "$h")" ] || fail "header not installed: include/quelta/$(basename "$h")"
done
# libquelta.so -> libquelta.so.<major> -> libquelta.so.<major>.<minor>.<patch>
real=$(find "$libdir" -name 'libquelta.so.*.*.*' -type f)
[ -n "$real" ] || fail "libquelta.so.<version> not installed"
soname=$("$readelf" -d "$real" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
case "$soname" in libquelta.so.[0-9]*) ;; *) fail "soname of $real is '$soname'" ;; esac
[ -L "$libdir/$soname" ] && [ "$(readlink -f "$libdir/$soname")" = "$(readlink -f "$real")" ] ||
  fail "$libdir/$soname is not a link to $(basename "$real")"
[ -L "$libdir/libquelta.so" ] && [ "$(readlink -f "$libdir/libquelta.so")" = "$(readlink -f "$real")" ] ||
  fail "$libdir/libquelta.so is not a link to $(basename "$real")"
echo "$(basename "$real") soname $soname, links in place"

echo "== runtime linker cache"
ldconfig=$(command -v ldconfig || echo /sbin/ldconfig)
if [ -n "$emulator" ]; then
  echo "skipped: the build machine's ldconfig indexes its own architecture"
elif [ ! -x "$ldconfig" ]; then
  fail "ldconfig not found"
else
  echo "$libdir" > "$work/ld.so.conf"
  # -X: leave the links alone; -C/-f: a cache of our own, from our own list.
  "$ldconfig" -X -C "$work/ld.so.cache" -f "$work/ld.so.conf"
  "$ldconfig" -p -C "$work/ld.so.cache" > "$work/cache.txt"
  grep -q "^[[:space:]]*$soname .*=> $libdir/$soname\$" "$work/cache.txt" ||
    fail "the cache built over $libdir does not list $soname"
  echo "the cache lists $soname => $libdir/$soname"
  # The reason the programs carry a run path: the cache indexes lib* names only.
  if grep -q "QueltaAlgo.so" "$work/cache.txt"; then
    echo "(the cache lists QueltaAlgo.so too)"
  else
    echo "(QueltaAlgo.so is not indexed: the programs find it through their run path)"
  fi
fi

echo "== installed program"
# Runs an installed quelta-replay with no LD_LIBRARY_PATH; its summary must
# come from the bundled recording installed beside it.
run_installed_tool() {
  tool="$1"
  runpath=$("$readelf" -d "$tool" | sed -n 's/.*Library runpath: \[\(.*\)\]/\1/p')
  case "$runpath" in \$ORIGIN/*) ;; *) fail "$tool: run path '$runpath' is not relative to \$ORIGIN" ;; esac
  # shellcheck disable=SC2086
  if ! env -u LD_LIBRARY_PATH $emulator "$tool" > "$work/tool.out" 2>&1; then
    cat "$work/tool.out"
    fail "$tool does not run without LD_LIBRARY_PATH"
  fi
  grep -q "^recording .*/share/quelta/handheld.csv" "$work/tool.out" &&
    grep -q "^accuracy reached" "$work/tool.out" || { cat "$work/tool.out"; fail "$tool: unexpected summary"; }
  echo "$tool runs (run path $runpath)"
}
if [ -f "$prefix/bin/quelta-replay" ]; then
  run_installed_tool "$prefix/bin/quelta-replay"
  # The default prefix, staged: the tree sits elsewhere than its prefix.
  DESTDIR="$work/root" cmake --install "$build" --prefix /usr/local > "$work/install-default.log"
  run_installed_tool "$work/root/usr/local/bin/quelta-replay"
else
  echo "skipped: the tools were not built"
fi

echo "== C hosts"
hosts="$work/hosts"
mkdir -p "$hosts"
cp "$source"/examples/CMakeLists.txt "$source"/examples/*.c "$source"/tests/platform/install_host/*.c "$hosts/"
host_flags="${HOST_FLAGS:-}"
host_libs="${HOST_LIBS:-}"

echo "-- find_package (examples/CMakeLists.txt)"
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
if ! cmake -S "$hosts" -B "$work/cmake-hosts" "$@" > "$work/configure.log" 2>&1 ||
   ! cmake --build "$work/cmake-hosts" > "$work/build.log" 2>&1; then
  cat "$work/configure.log" "$work/build.log" 2>/dev/null
  fail "building the hosts through find_package"
fi
# The build tree's run path names the prefix: no LD_LIBRARY_PATH.
env -u LD_LIBRARY_PATH ctest --test-dir "$work/cmake-hosts" --output-on-failure || fail "a host built through find_package"

# A component the package does not have is refused.
mkdir -p "$work/unknown-component"
cat > "$work/unknown-component/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.20)
project(UnknownComponent NONE)
find_package(QueltaAlgo REQUIRED COMPONENTS Quelta NoSuchPart)
CMAKE
if cmake -S "$work/unknown-component" -B "$work/unknown-component/build" -DCMAKE_PREFIX_PATH="$prefix" \
     -DCMAKE_FIND_ROOT_PATH_MODE_PACKAGE=BOTH > "$work/unknown.log" 2>&1; then
  fail "find_package(QueltaAlgo COMPONENTS NoSuchPart) succeeded"
fi
grep -q "NoSuchPart" "$work/unknown.log" || { cat "$work/unknown.log"; fail "the refusal does not name the component"; }

echo "-- pkg-config"
command -v pkg-config > /dev/null || fail "pkg-config is not installed"
set --
if [ -n "${C_TARGET:-}" ]; then set -- "--target=$C_TARGET"; fi
for src in "$hosts"/*.c; do
  name=$(basename "$src" .c)
  packages=""
  grep -q '^#include [<"]QueltaAlgo\.h[>"]' "$src" && packages="$packages QueltaAlgo"
  grep -q '^#include [<"]quelta/' "$src" && packages="$packages quelta"
  # shellcheck disable=SC2086
  flags=$(PKG_CONFIG_LIBDIR="$libdir/pkgconfig" pkg-config --cflags --libs $packages)
  # shellcheck disable=SC2086
  rpath=$(PKG_CONFIG_LIBDIR="$libdir/pkgconfig" pkg-config --variable=libdir $packages | head -n 1)
  echo "$name:$packages -> $flags"
  # As the README shows it: the pkg-config flags and a run path to the libdir.
  # shellcheck disable=SC2086
  "$cc" "$@" -std=c99 $host_flags "$src" $flags -Wl,-rpath,"$rpath" -lm $host_libs -o "$work/pc-$name" ||
    fail "building $name through pkg-config"
  # shellcheck disable=SC2086
  env -u LD_LIBRARY_PATH $emulator "$work/pc-$name" > "$work/pc-$name.out" 2>&1 || {
    cat "$work/pc-$name.out"
    fail "$name built through pkg-config"
  }
done
echo "every host builds both ways and runs"
