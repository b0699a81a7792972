#!/usr/bin/env bash
# Prints paste latencies (median of 20) measured on a private X display: Enter until the
# target program receives Ctrl+V for a cached image, and Enter until an uncached image
# (downloaded from the local catalog server) is on the clipboard.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh dev >/dev/null
build/dev/tests/insert/desktop_insert_tests --gtest_also_run_disabled_tests \
    --gtest_filter='*MeasuresPasteLatency*' 2>/dev/null | grep '^paste latency'
