#!/usr/bin/env bash
# Builds and runs the consumer examples against an installed libznpdk, with
# only that tree on the search paths (pkg-config's and CMake's system paths off):
#  - examples/minimal_host.cpp through pkg-config (znpdk, znpdk_sim);
#  - the CMake project examples/consumer through find_package (host only);
#  - examples/flags.c, a C caller of the public header.
# Usage: scripts/check-consumer.sh [--armhf PLATFORM] PREFIX
#   PREFIX          the installed tree: an install prefix, or ROOT/usr of unpacked packages
#   --armhf PLATFORM  cross-compile for 32-bit ARM and run under qemu-arm. The library
#                   needs a platform to link and run; the target's packages carry none,
#                   so the simulated platform comes from PLATFORM, an install prefix of
#                   its ARM build (components znpdk_sim, znpdk_sim_dev).
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

platform=
if [[ ${1:-} == --armhf ]]; then
  platform=$(cd "$2" && pwd)
  shift 2
fi
(($# == 1)) || { sed -n '2,13s/^# \{0,1\}//p' "$0" >&2; exit 2; }
prefix=$(cd "$1" && pwd)
tmp=$(mktemp -d /tmp/znpdk-consumer-XXXXXX)
trap 'rm -rf "$tmp"' EXIT

pc_dir() { # tree, .pc name
  local pc
  pc=$(find "$1" -name "$2" -print -quit)
  [[ -n $pc ]] || { echo "no $2 below $1" >&2; exit 1; }
  dirname "$pc"
}
lib_pc=$(pc_dir "$prefix" znpdk.pc)
sim_pc=$(pc_dir "${platform:-$prefix}" znpdk_sim.pc)
export PKG_CONFIG_LIBDIR=$lib_pc:$sim_pc
unset PKG_CONFIG_PATH
rpath=("-Wl,-rpath,$lib_pc/.." "-Wl,-rpath,$sim_pc/..")
cxx=(c++)
cc=(cc)
run=()
if [[ -n $platform ]]; then
  cxx=(arm-linux-gnueabihf-g++ -Wno-psabi)
  cc=(arm-linux-gnueabihf-gcc)
  run=(qemu-arm -L /usr/arm-linux-gnueabihf)
fi
echo "=== consumer: ${platform:+ARM }programs against $prefix"

cflags_inside() {
  local flags
  flags=$(pkg-config --cflags znpdk)
  [[ ${flags% } == "-I$prefix/"*"/include/znpdk -isystem $prefix/"*"/include/znpdk/platform" ]] ||
    { echo "pkg-config --cflags znpdk: $flags" >&2; return 1; }
}
check "pkg-config --cflags znpdk points into $prefix" cflags_inside
header_version=$(sed -n 's/^#define ZNPDK_VERSION "\(.*\)"$/\1/p' "$prefix/include/znpdk/znpdk_version.h")
check "znpdk.pc and znpdk_version.h name one version" \
  expect_output "$header_version" pkg-config --modversion znpdk

expected=$'set rc=0 state=0x0020\npsu redundancy 0 -> 1 state=0x0004\nok'
# shellcheck disable=SC2046
"${cxx[@]}" -std=c++17 -Wall -Wextra -Werror examples/minimal_host.cpp -o "$tmp/minimal_pc" \
  $(pkg-config --cflags --libs znpdk znpdk_sim) "${rpath[@]}"
check "pkg-config consumer runs" expect_output "$expected" "${run[@]}" "$tmp/minimal_pc"

# shellcheck disable=SC2046
"${cc[@]}" -std=c11 -pedantic -Wall -Wextra -Werror examples/flags.c -o "$tmp/flags_c" \
  $(pkg-config --cflags --libs znpdk znpdk_sim) "${rpath[@]}"
check "C caller runs" expect_output "flags: ok" "${run[@]}" "$tmp/flags_c"

# The CMake package finds the simulated platform's targets beside its own,
# which a platform from another tree is not.
if [[ -z $platform ]]; then
  cmake -S examples/consumer -B "$tmp/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_FIND_USE_CMAKE_SYSTEM_PATH=OFF "${launcher[@]}" >/dev/null
  cmake --build "$tmp/consumer" -j2 >/dev/null
  check "find_package consumer runs" expect_output "$expected" "$tmp/consumer/minimal_host"
fi
checks_summary consumer
