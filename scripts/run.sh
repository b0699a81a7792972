#!/usr/bin/env bash
# Installs what Orvane needs, builds it, builds the demo catalog once, serves it on
# 127.0.0.1 and starts the picker (Ctrl+M opens it). Without a desktop it prints what the
# picker finds for "cat" instead. Extra arguments go to orvane.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
mkdir -p build
scripts/build.sh dev >build/build.log 2>&1 || { tail -n 40 build/build.log >&2; exit 1; }
scripts/build-demo-catalog.sh build/demo-catalog

port=${ORVANE_DEMO_PORT:-8787}
log=build/orvane-server.log
build/dev/src/server/orvane-server --root build/demo-catalog --port "$port" >"$log" 2>&1 &
server=$!
trap 'kill $server 2>/dev/null || true' EXIT
# The server prints its address once it listens.
for _ in $(seq 100); do
    grep -q "serving" "$log" 2>/dev/null && break
    kill -0 $server 2>/dev/null || { cat "$log" >&2; exit 1; }
    sleep 0.1
done
head -n 1 "$log"
export MEME_SERVER="http://127.0.0.1:$port"

if [[ -z ${DISPLAY:-} && -z ${WAYLAND_DISPLAY:-} ]]; then
    echo "No desktop found (DISPLAY is not set): showing what the picker finds for \"cat\"."
    build/dev/src/app/orvane --query cat "$@"
    exit
fi
echo "Orvane is running: press Ctrl+M anywhere to open the picker. Quit from its menu."
build/dev/src/app/orvane "$@"
