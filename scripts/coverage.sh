#!/usr/bin/env bash
# Line and branch coverage of the library's own sources by the test suite
# (gcc --coverage, build/coverage), as text and HTML; fails below 95 % of lines.
#   scripts/coverage.sh [MIN_LINE_PERCENT]
set -euo pipefail
cd "$(dirname "$0")/.."

min=${1:-95}
build=build/coverage
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD}
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
if [[ ! -f ${build}/CMakeCache.txt ]]; then
  CC=gcc CXX=g++ cmake -S . -B "${build}" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DZNPDK_COVERAGE=ON \
    "${launcher[@]}" >/dev/null
fi
cmake --build "${build}" -j2
find "${build}" -name '*.gcda' -delete
ctest --test-dir "${build}" -j2 --output-on-failure --timeout 600

mkdir -p "${build}/html"
# Exception edges and compiler-made branches say nothing about the tests.
gcovr --root . --object-directory "${build}" \
  --filter 'sensor/' --filter 'component/' --filter 'interconnect/' --filter 'misc/' --filter 'psu/' \
  --filter 'fan/' --exclude-throw-branches --exclude-unreachable-branches \
  --txt "${build}/coverage.txt" --html-details "${build}/html/index.html" --print-summary \
  --fail-under-line "${min}" "${build}" | tee "${build}/summary.txt"
cat "${build}/coverage.txt"
echo "coverage: report ${build}/coverage.txt, ${build}/html/index.html"
