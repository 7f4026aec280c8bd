#!/usr/bin/env bash
# Benchmarks of the library's hot paths, each operation beside its floor (the
# platform calls it makes, replayed, and the file work it must do).
#
#   scripts/bench.sh [benchmark flags]      times: one table of time, ratio and
#                                           allocations per call (e.g.
#                                           --benchmark_filter=Sensor)
#   scripts/bench.sh --check [BUILD]        instructions per call under callgrind
#                                           against bench/baseline.json and the
#                                           ratio limits of bench/ratio-limits.txt;
#                                           fails on either
#   scripts/bench.sh --update-baseline [BUILD]   rewrites bench/baseline.json
#
# BUILD is a configured release tree (default: preset host-release, configured
# here); counts hold for the compiler and flags the baseline names.
set -euo pipefail
cd "$(dirname "$0")/.."

mode=table
if [[ ${1:-} == --check || ${1:-} == --update-baseline ]]; then
  mode=${1#--}
  shift
fi
build=build/host-release
if [[ $mode != table && $# -gt 0 ]]; then
  build=$1
  shift
fi

scripts/setup-deps.sh

launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
if [[ $build == build/host-release ]]; then
  cmake --preset host-release "${launcher[@]}" >/dev/null
fi
cmake --build "$build" --target znpdk-bench -j2 >/dev/null
bench=$build/bench/znpdk-bench

if [[ $mode == table ]]; then
  # The fastest of several interleaved repetitions: other work on the machine
  # only ever adds time.
  exec "$bench" --table --benchmark_repetitions="${BENCH_REPETITIONS:-5}" \
    --benchmark_enable_random_interleaving=true --benchmark_min_time="${BENCH_MIN_TIME:-0.2}" "$@"
fi

baseline=bench/baseline.json
limits=bench/ratio-limits.txt
tmp=$(mktemp -d /tmp/znpdk-bench-count-XXXXXX)
trap 'rm -rf "$tmp"' EXIT

# Calls per case: the baseline's own, so that one-off costs weigh the same.
calls=200
if [[ $mode == check ]]; then
  calls=$(sed -n 's/^ *"calls": *\([0-9]*\).*/\1/p' "$baseline")
fi

# Instructions per call of each case and floor: "name count" lines. The C
# library picks its string and memory routines by the CPU's features; held to
# the x86-64 base set, every x86-64 machine counts the same.
hwcaps=-AVX,-AVX2,-AVX512F,-AVX512VL,-AVX512BW,-ERMS,-FSRM,-BMI1,-BMI2,-LZCNT,-MOVBE,-POPCNT,-RTM
hwcaps+=,-SSE4_1,-SSE4_2,-SSSE3,-FMA,-F16C
[[ $(uname -m) == x86_64 ]] && export GLIBC_TUNABLES=glibc.cpu.hwcaps=${hwcaps}
valgrind --tool=callgrind --collect-atstart=no --combine-dumps=yes --callgrind-out-file="$tmp/callgrind.out" \
  "$bench" --count="$calls" >"$tmp/log" 2>&1 || { cat "$tmp/log" >&2; exit 1; }
awk -v n="$calls" '/^desc: Trigger: Client Request: / { name = $5 }
  /^totals: / && name != "" { printf "%s %.1f\n", name, $2 / n; name = "" }' "$tmp/callgrind.out" >"$tmp/counts"

cxx=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")
type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$build/CMakeCache.txt")
cpu=$(uname -m)$([[ -n ${GLIBC_TUNABLES:-} ]] && echo ", base instruction set")
system=$(sed -n 's/^PRETTY_NAME="\(.*\)"$/\1/p' /etc/os-release)
taken_on="$system, $cpu, $("$cxx" --version | head -1), $type, $(valgrind --version)"

if [[ $mode == update-baseline ]]; then
  awk -v taken_on="$taken_on" -v calls="$calls" '
    { count[$1] = $2; if ($1 !~ /\/floor$/) order[++n] = $1 }
    END {
      printf "{\n  \"taken_on\": \"%s\",\n  \"calls\": %d,\n  \"cases\": {\n", taken_on, calls
      for (i = 1; i <= n; ++i) {
        c = order[i]
        printf "    \"%s\": {\"instructions\": %.1f, \"floor\": %.1f, \"ratio\": %.3f}%s\n", c, count[c],
               count[c "/floor"], count[c] / count[c "/floor"], i < n ? "," : ""
      }
      printf "  }\n}\n"
    }' "$tmp/counts" >"$baseline"
  echo "bench: $baseline rewritten ($calls calls per case; $taken_on)"
  exit 0
fi

then=$(sed -n 's/^ *"taken_on": *"\(.*\)",$/\1/p' "$baseline")
if [[ $then != "$taken_on" ]]; then
  echo "note: baseline taken on: $then" >&2
  echo "      this run:          $taken_on" >&2
fi
# The table; fails when a case grew more than 5 % over its baseline, or its
# ratio to its floor passed its limit, or a case has no baseline or limit.
awk '
  FILENAME == ARGV[1] && /^[^#]/ && NF == 2 { limit[$1] = $2; next }
  FILENAME == ARGV[2] && /"instructions"/ {
    split($0, q, "\""); line = $0; sub(/^[^{]*[{]/, "", line); gsub(/[^0-9.]/, " ", line); split(line, v, " ")
    base[q[2]] = v[1]; next
  }
  FILENAME == ARGV[3] { count[$1] = $2; if ($1 !~ /\/floor$/) order[++n] = $1 }
  END {
    fmt = "%-44s %10s %10s %8s %10s %7s %6s  %s\n"
    printf fmt, "case", "instr/call", "baseline", "change", "floor", "ratio", "limit", "verdict"
    bad = 0
    for (i = 1; i <= n; ++i) {
      c = order[i]; op = count[c]; fl = count[c "/floor"]; ratio = op / fl
      why = ""
      if (!(c in base)) {
        why = "no baseline"; change = "-"
      } else {
        pct = (op / base[c] - 1) * 100; change = sprintf("%+.1f%%", pct)
        if (pct > 5) why = "more than 5 % over baseline"
      }
      if (!(c in limit)) why = why (why ? "; " : "") "no ratio limit"
      else if (ratio > limit[c]) why = why (why ? "; " : "") "ratio over limit"
      verdict = why ? "FAIL: " why : c in base && pct < -5 ? "ok, faster: update the baseline" : "ok"
      bad += verdict ~ /^FAIL/
      printf fmt, c, sprintf("%.1f", op), c in base ? sprintf("%.1f", base[c]) : "-", change,
             sprintf("%.1f", fl), sprintf("%.3f", ratio), c in limit ? limit[c] : "-", verdict
      delete base[c]
    }
    for (c in base) { printf fmt, c, "-", base[c], "-", "-", "-", "-", "FAIL: case gone, update the baseline"; ++bad }
    if (bad) { printf "bench: %d case(s) failed\n", bad; exit 1 }
    print "bench: every case within 5 % of its baseline and under its ratio limit"
  }' "$limits" "$baseline" "$tmp/counts"
