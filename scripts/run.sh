#!/usr/bin/env bash
# Installs what Orvane needs, builds it and runs it. Extra arguments go to orvane.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh dev
exec build/dev/src/app/orvane --print-config "$@"
