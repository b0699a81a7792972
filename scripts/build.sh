#!/usr/bin/env bash
# Configures and builds one CMake preset (dev by default).
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-dev}
[[ -f build/$preset/CMakeCache.txt ]] || cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j"$(nproc)"
