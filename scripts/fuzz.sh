#!/usr/bin/env bash
# Builds the fuzz targets (clang, libFuzzer, AddressSanitizer + UBSan, on the
# simulated platform), replays every seed corpus and fuzzes each target for
# SECONDS (default 20). Fails on any crash, leak, time-out or broken
# expectation; the input that found it is left in build/fuzz/findings/.
#   scripts/fuzz.sh [SECONDS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-20}
shift || true
targets=("$@")
((${#targets[@]})) || targets=(escalation save_file fan_debug paths scenario ipmi_serve)

# Largest input per target: whole table sets and save files need room.
declare -A max_len=([escalation]=20000 [save_file]=20480 [fan_debug]=4096 [paths]=1024 [scenario]=8192 [ipmi_serve]=2048)
# Read-only seeds beside the target's own corpus.
declare -A extra=([scenario]=scenarios)

build=build/fuzz
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD}
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
if [[ ! -f ${build}/CMakeCache.txt ]]; then
  CC=clang CXX=clang++ cmake -S . -B "${build}" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DZNPDK_SANITIZE=ON -DZNPDK_FUZZ=ON "${launcher[@]}" >/dev/null
fi
cmake --build "${build}" -j2 --target "${targets[@]/#/fuzz_}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
failed=()
for t in "${targets[@]}"; do
  bin=${build}/fuzz/fuzz_${t}
  work=${build}/corpus/${t}
  findings=${build}/findings
  mkdir -p "${work}" "${findings}"
  log=${build}/fuzz_${t}.log
  seeds=(fuzz/corpus/${t})
  [[ -n ${extra[$t]:-} ]] && seeds+=("${extra[$t]}")
  echo "=== fuzz_${t}: replay ${seeds[*]}, then ${seconds} s"
  # New inputs go to the work corpus only; the repository's seeds stay as they are.
  if ! "${bin}" -runs=0 -max_len="${max_len[$t]}" "${seeds[@]}" >"${log}" 2>&1 ||
    ! "${bin}" -max_total_time="${seconds}" -max_len="${max_len[$t]}" -timeout=25 -rss_limit_mb=2560 \
      -print_final_stats=1 -artifact_prefix="${findings}/${t}-" "${work}" "${seeds[@]}" >>"${log}" 2>&1; then
    failed+=("${t}")
    grep -E 'ERROR|SUMMARY|expectation|not a ScenarioError|Test unit written' "${log}" | head -20 || true
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "${log}" | tail -1)
  echo "    executions ${runs:-0}, corpus $(find "${work}" -type f | wc -l) inputs (log ${log})"
done

if ((${#failed[@]})); then
  echo "fuzz: FAILED: ${failed[*]}" >&2
  exit 1
fi
echo "fuzz: ${#targets[@]} targets, no findings"
