#!/usr/bin/env bash
# Compares the ABI of libznpdk.so (host and 32-bit ARM release builds of the
# library alone) with the baselines in abi/; fails on any incompatible change.
#   scripts/abi.sh            check
#   scripts/abi.sh --update   write new baselines
set -euo pipefail
cd "$(dirname "$0")/.."

update=0
[[ ${1:-} == --update ]] && update=1

export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD}
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
# Locations and build paths differ between checkouts and say nothing about the ABI.
abidw_opts=(--no-show-locs --no-corpus-path --no-comp-dir-path --no-elf-needed)

status=0
for arch in host armhf; do
  build=build/abi-${arch}
  toolchain=()
  [[ ${arch} == armhf ]] && toolchain=(-DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake)
  if [[ ! -f ${build}/CMakeCache.txt ]]; then
    cmake -S . -B "${build}" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZNPDK_BUILD_SIM=OFF \
      "${toolchain[@]}" "${launcher[@]}" >/dev/null
  fi
  cmake --build "${build}" -j2 --target znpdk
  lib=$(readlink -f "${build}/libznpdk.so")
  baseline=abi/libznpdk-${arch}.abi
  if ((update)); then
    abidw "${abidw_opts[@]}" --out-file "${baseline}" "${lib}"
    echo "abi: ${baseline} written"
    continue
  fi
  current=${build}/libznpdk-${arch}.abi
  abidw "${abidw_opts[@]}" --out-file "${current}" "${lib}"
  # abidiff status bits: 1 error, 2 usage, 4 a change, 8 an incompatible change.
  rc=0
  abidiff "${baseline}" "${current}" >"${build}/abidiff.txt" 2>&1 || rc=$?
  if ((rc & 11)); then
    echo "abi: ${arch}: incompatible with ${baseline} (abidiff status ${rc}):" >&2
    cat "${build}/abidiff.txt" >&2
    status=1
  elif ((rc & 4)); then
    echo "abi: ${arch}: compatible additions (run scripts/abi.sh --update to take them in):"
    cat "${build}/abidiff.txt"
  else
    echo "abi: ${arch}: unchanged"
  fi
done
exit ${status}
