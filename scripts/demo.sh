#!/usr/bin/env bash
# Builds the simulator and runs its default scenario on the simulated machine.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup-deps.sh

cmake --preset host-release >/dev/null
cmake --build --preset host-release --target znpdk-sim >/dev/null
exec build/host-release/tools/znpdk-sim/znpdk-sim demo "$@"
