#!/usr/bin/env bash
# Checks the installed kit as a firmware engineer uses it:
#  1. a release tree installed to a temporary prefix; the consumer programs
#     built against it and run (scripts/check-consumer.sh: pkg-config,
#     find_package, a C caller); the API reference (Doxygen, when found);
#  2. a platform header directory lacking a header is refused at configure;
#  3. an ARM build against a separate platform header directory (whose warnings
#     do not fail the build) installs only the library, its headers, znpdk.pc
#     (naming that directory) and the CMake package.
# Builds only the targets it needs, at most two jobs.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh
jobs=(-j2)
tmp=$(mktemp -d /tmp/znpdk-ci-install-XXXXXX)
trap 'rm -rf "$tmp"' EXIT

echo "=== ci-install: release tree, installed to a temporary prefix"
configure_release_tree host
rel=build/release-host
targets=(znpdk znpdk_sim)
if grep -q '^DOXYGEN_EXECUTABLE:FILEPATH=/' "$rel/CMakeCache.txt"; then
  targets+=(docs)
fi
cmake --build "$rel" "${jobs[@]}" --target "${targets[@]}"
prefix=$tmp/prefix
for component in znpdk znpdk_dev znpdk_sim znpdk_sim_dev; do
  cmake --install "$rel" --prefix "$prefix" --component "$component" >/dev/null
done
libdir=$(dirname "$(find "$prefix" -name znpdk.pc -print -quit)")/..
check "libznpdk_sim has a versioned SONAME" \
  bash -c "readelf -d '$libdir/libznpdk_sim.so' | grep -q 'SONAME.*\\[libznpdk_sim.so.1\\]'"
check "consumer programs build and run against the prefix" scripts/check-consumer.sh "$prefix"

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
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$arm/CMakeCache.txt")
want="include/znpdk/znpdk_version.h include/znpdk/znpdklib.h include/znpdk/znpdklib_types.h \
lib/cmake/znpdk/znpdkConfig.cmake lib/cmake/znpdk/znpdkConfigVersion.cmake \
lib/cmake/znpdk/znpdkTargets-release.cmake lib/cmake/znpdk/znpdkTargets.cmake lib/libznpdk.so \
lib/libznpdk.so.1 lib/libznpdk.so.$version lib/pkgconfig/znpdk.pc "
check "ARM install holds only the library, its headers and its package files" \
  expect_output "$want" echo "$installed"
check "ARM library is 32-bit ARM" bash -c "readelf -h '$root/lib/libznpdk.so.$version' | grep -q 'Machine:.*ARM'"
check "ARM znpdk.pc names the platform header directory" \
  expect_output "-I$root/lib/pkgconfig/../../include/znpdk -isystem $headers " \
  env PKG_CONFIG_PATH="$root/lib/pkgconfig" pkg-config --cflags znpdk

checks_summary ci-install
