#!/usr/bin/env bash
# Builds libznpdk for the host (with AddressSanitizer and UndefinedBehaviorSanitizer)
# and for 32-bit ARM, and runs every test of both (ARM under qemu-arm); then the
# fuzz smoke, the ABI check and the coverage gate.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup-deps.sh

for preset in host armhf; do
  echo "=== ${preset}: configure and build"
  cmake --preset "${preset}" >/dev/null
  cmake --build --preset "${preset}"
  echo "=== ${preset}: test"
  ctest --preset "${preset}"
done

scripts/fuzz.sh 20   # fuzz smoke: every target replays its seeds, then runs 20 s
scripts/abi.sh       # no incompatible change against the ABI baselines in abi/
scripts/coverage.sh  # line coverage of the library's sources at least 95 %
