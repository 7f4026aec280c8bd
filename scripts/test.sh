#!/usr/bin/env bash
# Every check of libznpdk: the installed kit as a consumer uses it; the hot paths'
# instruction counts against their baseline; its Debian packages; host build with
# AddressSanitizer and UndefinedBehaviorSanitizer and its tests (a fixed-seed fault campaign
# among them, CTest label "campaign"); static checks; 32-bit ARM build and tests under
# qemu-arm (a shorter campaign); the suite under ThreadSanitizer; a sample of the mutants,
# each killed by the suite; fuzz smoke with corpus replay; ABI against the baselines; the
# coverage gate.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup-deps.sh

step() { echo "=== $1 ($(date -u +%T))"; }

step "kit: release build, install, consumer programs"
scripts/ci-install.sh
step "bench: instructions per call against bench/baseline.json, ratios to floors"
scripts/bench.sh --check build/release-host
step "packages: Debian packages, lintian, consumer programs against the unpacked packages"
scripts/packages.sh --check

for preset in host armhf; do
  step "${preset}: configure and build"
  cmake --preset "${preset}" >/dev/null
  cmake --build --preset "${preset}"
  step "${preset}: test"
  ctest --preset "${preset}"
  if [[ ${preset} == host ]]; then
    step "lint: clang-tidy and clang-format"
    scripts/lint.sh build/host
  fi
done

step "tsan: build and test under ThreadSanitizer"
scripts/ci-tsan.sh
step "mutants: a fixed sample, one per library folder, each killed by the suite"
scripts/mutate.sh --sample
step "fuzz smoke: every target replays its seeds, then runs 20 s"
scripts/fuzz.sh 20
step "abi: no incompatible change against abi/"
scripts/abi.sh
step "coverage: library lines at least 95 %"
scripts/coverage.sh
step "done"
