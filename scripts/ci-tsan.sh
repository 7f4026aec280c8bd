#!/usr/bin/env bash
# ThreadSanitizer: builds the library, the simulated platform and the tests
# (not the simulator command) and runs every test under it, the thread
# stress included. Any report fails its test; nothing is suppressed.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset tsan >/dev/null
mapfile -t targets < <(for f in tests/test_*.cpp; do basename "$f" .cpp; done)
cmake --build --preset tsan --target "${targets[@]}"
ctest --preset tsan
