#!/usr/bin/env bash
# Prints paste latencies (median of 20) measured on a private X display: Enter until the
# target program receives Ctrl+V for a cached image, and Enter until an uncached image
# (downloaded from the local catalog server) is on the clipboard.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh dev >/dev/null
build/dev/bench/orvane-paste-latency 2>/dev/null | grep '^paste latency'
