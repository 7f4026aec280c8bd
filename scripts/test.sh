#!/usr/bin/env bash
# Builds libznpdk for the host (with AddressSanitizer and UndefinedBehaviorSanitizer)
# and for 32-bit ARM, and runs every test of both (ARM under qemu-arm).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup-deps.sh
scripts/ci-install.sh # the installed kit, as a consumer builds against it

for preset in host armhf; do
  echo "=== ${preset}: configure and build"
  cmake --preset "${preset}" >/dev/null
  cmake --build --preset "${preset}"
  echo "=== ${preset}: test"
  ctest --preset "${preset}"
done

echo "=== tsan: build and test under ThreadSanitizer"
scripts/ci-tsan.sh
