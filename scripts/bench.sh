#!/usr/bin/env bash
# Builds a release tree and prints one table of the benchmarks: each library
# operation beside its floor (the platform calls it makes, replayed, and the
# file work it must do), their ratio and the heap allocations per call.
# Extra arguments go to the benchmark binary (e.g. --benchmark_filter=Sensor).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup-deps.sh

launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
cmake --preset host-release "${launcher[@]}" >/dev/null
cmake --build build/host-release --target znpdk-bench -j2 >/dev/null

# The fastest of several interleaved repetitions: other work on the machine
# only ever adds time.
build/host-release/bench/znpdk-bench --table --benchmark_repetitions="${BENCH_REPETITIONS:-5}" \
  --benchmark_enable_random_interleaving=true --benchmark_min_time="${BENCH_MIN_TIME:-0.2}" "$@"
