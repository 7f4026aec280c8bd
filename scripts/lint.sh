#!/usr/bin/env bash
# Static checks: clang-tidy over the library's own sources (with the host
# build's compile commands) and clang-format over every C/C++ file.
# Usage: scripts/lint.sh [build-dir]   (default build/host)
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build/host}
if [ ! -f "${build}/compile_commands.json" ]; then
  cmake --preset host -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null
fi

mapfile -t library < <(git ls-files 'sensor/*.cpp' 'component/*.cpp' 'interconnect/*.cpp' \
  'misc/*.cpp' 'psu/*.cpp' 'fan/*.cpp')
echo "=== clang-tidy: ${#library[@]} library sources"
clang-tidy -p "${build}" --quiet "${library[@]}"

mapfile -t sources < <(git ls-files '*.c' '*.cpp' '*.h')
echo "=== clang-format: ${#sources[@]} files"
clang-format --dry-run --Werror "${sources[@]}"
echo "lint: clean"
