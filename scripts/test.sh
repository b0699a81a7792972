#!/usr/bin/env bash
# Installs what the tests need, builds, runs every test, then a one-minute fuzz run per
# fuzz target.
# Usage: scripts/test.sh [dev|asan|tsan]
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-dev}
scripts/install-deps.sh
scripts/build.sh "$preset"
# Everything the desktop suites need was just installed: a display that fails is an error.
export GLIMMET_DESKTOP_TESTS=required
ctest --preset "$preset" -j"$(nproc)"
scripts/fuzz.sh 60
