#!/usr/bin/env bash
# Checks the installed kit as a firmware engineer uses it:
#  1. a release tree installed to a temporary prefix; a host program built
#     against it with pkg-config and with find_package, run, output checked;
#     the public header compiled as C; the API reference (Doxygen, when found);
#  2. a platform header directory lacking a header is refused at configure;
#  3. an ARM build against a separate platform header directory (whose warnings
#     do not fail the build) installs only the library, its headers, znpdk.pc
#     (naming that directory) and the CMake package.
# Builds only the targets it needs, at most two jobs.
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD

jobs=(-j2)
launcher=()
if command -v ccache >/dev/null; then
  export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$(dirname "$src")}
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
tmp=$(mktemp -d /tmp/znpdk-ci-install-XXXXXX)
trap 'rm -rf "$tmp"' EXIT
passed=0
failed=0
check() { # name, command...
  local name=$1
  shift
  if "$@"; then
    passed=$((passed + 1))
  else
    echo "FAILED: $name" >&2
    failed=$((failed + 1))
  fi
}
expect_output() { # expected text, command...
  local expected=$1 out
  shift
  out=$("$@" 2>&1) || { echo "$out" >&2; return 1; }
  [[ $out == "$expected" ]] || { printf 'got:\n%s\nexpected:\n%s\n' "$out" "$expected" >&2; return 1; }
}

echo "=== ci-install: release tree, installed to a temporary prefix"
rel=build/ci-release
cmake -S . -B "$rel" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${launcher[@]}" >/dev/null
targets=(znpdk znpdk_sim)
if grep -q '^DOXYGEN_EXECUTABLE:FILEPATH=/' "$rel/CMakeCache.txt"; then
  targets+=(docs)
fi
cmake --build "$rel" "${jobs[@]}" --target "${targets[@]}"
prefix=$tmp/prefix
cmake --install "$rel" --prefix "$prefix" --component znpdk >/dev/null
cmake --install "$rel" --prefix "$prefix" --component znpdk_sim >/dev/null
libdir=$(dirname "$(find "$prefix" -name znpdk.pc -print -quit)")/..
libdir=$(cd "$libdir" && pwd)
export PKG_CONFIG_PATH=$libdir/pkgconfig

expected=$'set rc=0 state=0x0020\npsu redundancy 0 -> 1 state=0x0004\nok'
cflags_inside() {
  local flags
  flags=$(pkg-config --cflags znpdk)
  [[ ${flags% } == "-I$prefix/"*"/include/znpdk -isystem $prefix/"*"/include/znpdk/platform" ]]
}
check "pkg-config --cflags znpdk points into the prefix" cflags_inside
check "libznpdk_sim has a versioned SONAME" \
  bash -c "readelf -d '$libdir/libznpdk_sim.so' | grep -q 'SONAME.*\\[libznpdk_sim.so.1\\]'"

# shellcheck disable=SC2046
c++ -std=c++17 -Wall -Wextra -Werror examples/minimal_host.cpp -o "$tmp/minimal_pc" \
  $(pkg-config --cflags --libs znpdk znpdk_sim) -Wl,-rpath,"$libdir"
check "pkg-config consumer runs" expect_output "$expected" "$tmp/minimal_pc"

cmake -S examples/consumer -B "$tmp/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" "${launcher[@]}" >/dev/null
cmake --build "$tmp/consumer" "${jobs[@]}" >/dev/null
check "find_package consumer runs" expect_output "$expected" "$tmp/consumer/minimal_host"

# shellcheck disable=SC2046
cc -std=c11 -pedantic -Wall -Wextra -Werror examples/flags.c -o "$tmp/flags_c" \
  $(pkg-config --cflags --libs znpdk znpdk_sim) -Wl,-rpath,"$libdir"
check "C caller runs" expect_output "flags: ok" "$tmp/flags_c"

echo "=== ci-install: platform header directory checked at configure"
mkdir -p "$tmp/incomplete"
cp platform/include/*.h "$tmp/incomplete/"
rm "$tmp/incomplete/sputil.h"
refused() {
  local out
  if out=$(cmake -S . -B "$tmp/refused" -G Ninja -DZNPDK_BUILD_SIM=OFF \
    -DZNPDK_PLATFORM_INCLUDE_DIR="$tmp/incomplete" 2>&1); then
    return 1
  fi
  grep -q "^ *missing: sputil.h$" <<<"$out"
}
check "missing platform header named" refused

echo "=== ci-install: ARM library against a separate platform header directory"
headers=$tmp/platform-headers
mkdir -p "$headers"
cp platform/include/*.h "$headers/"
# Vendor headers may warn; as system headers they must not fail the -Werror build.
cat >>"$headers/sputil.h" <<'PROBE'
#ifndef ZNPDK_CI_WARNING_PROBE
#define ZNPDK_CI_WARNING_PROBE
static int znpdk_ci_warning_probe(int unused) { return 0; }
#endif
PROBE
arm=build/ci-armhf-lib
rm -f "$arm/CMakeCache.txt" # the header directory differs on every run
cmake -S . -B "$arm" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
  -DCMAKE_BUILD_TYPE=Release -DZNPDK_BUILD_SIM=OFF -DZNPDK_PLATFORM_INCLUDE_DIR="$headers" \
  "${launcher[@]}" >/dev/null
cmake --build "$arm" "${jobs[@]}" --target znpdk
root=$tmp/rootfs/usr
cmake --install "$arm" --prefix "$root" >/dev/null
installed=$(cd "$root" && find . -type f -o -type l | sed 's|^\./||' | sort | tr '\n' ' ')
want="include/znpdk/znpdklib.h include/znpdk/znpdklib_types.h lib/cmake/znpdk/znpdkConfig.cmake \
lib/cmake/znpdk/znpdkConfigVersion.cmake lib/cmake/znpdk/znpdkTargets-release.cmake \
lib/cmake/znpdk/znpdkTargets.cmake lib/libznpdk.so lib/libznpdk.so.1 lib/libznpdk.so.1.0.0 \
lib/pkgconfig/znpdk.pc "
check "ARM install holds only the library, its headers and its package files" \
  expect_output "$want" echo "$installed"
check "ARM library is 32-bit ARM" bash -c "readelf -h '$root/lib/libznpdk.so.1.0.0' | grep -q 'Machine:.*ARM'"
check "ARM znpdk.pc names the platform header directory" \
  expect_output "-I$root/lib/pkgconfig/../../include/znpdk -isystem $headers " \
  env PKG_CONFIG_PATH="$root/lib/pkgconfig" pkg-config --cflags znpdk

echo "ci-install: $passed passed, $failed failed"
((failed == 0))
