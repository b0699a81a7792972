#!/usr/bin/env bash
# On a private X display (Xvfb + openbox): starts the catalog server on the demo catalog and
# Orvane, takes a screenshot of the panel showing results for "cat"
# (build/screenshots/panel-cat.png), measures hotkey → panel mapped over 20 runs, and
# prints Orvane's memory with the catalog loaded.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
mkdir -p build/screenshots
scripts/build.sh dev >build/build.log 2>&1 || { tail -n 40 build/build.log >&2; exit 1; }
scripts/build-demo-catalog.sh build/demo-catalog

work=$(mktemp -d)
pids=()
cleanup() { kill "${pids[@]}" 2>/dev/null || true; rm -rf "$work"; }
trap cleanup EXIT

display=:$((200 + RANDOM % 600))
Xvfb "$display" -screen 0 1280x800x24 -nolisten tcp >/dev/null 2>&1 &
pids+=($!)
export DISPLAY=$display
for _ in $(seq 100); do xdotool getmouselocation >/dev/null 2>&1 && break; sleep 0.1; done
openbox --sm-disable >/dev/null 2>&1 &
pids+=($!)
for _ in $(seq 100); do xprop -root _NET_SUPPORTING_WM_CHECK 2>/dev/null | grep -q 'window id' && break; sleep 0.1; done

export XDG_DATA_HOME=$work/data XDG_CACHE_HOME=$work/cache XDG_CONFIG_HOME=$work/config XDG_STATE_HOME=$work/state
build/dev/src/server/orvane-server --root build/demo-catalog --port 0 >"$work/server.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do grep -q serving "$work/server.log" && break; sleep 0.1; done
export MEME_SERVER=$(grep -o 'http://127.0.0.1:[0-9]*' "$work/server.log" | head -n 1)
build/dev/src/app/orvane >"$work/orvane.log" 2>&1 &
orvane=$!
pids+=($orvane)
# Ready once the catalog is indexed.
for _ in $(seq 300); do grep -q '"index_loaded"' "$work/state/Glimmet/spike.jsonl" 2>/dev/null && break; sleep 0.1; done

xdotool key ctrl+m
window=$(xdotool search --sync --onlyvisible --name '^Orvane$' | head -n 1)
xdotool type --delay 40 cat
sleep 2 # let the visible thumbnails arrive
build/dev/tools/orvane-screenshot build/screenshots/panel-cat.png
echo "screenshot: build/screenshots/panel-cat.png"
xdotool key Escape
sleep 0.5

build/dev/bench/orvane-show-latency --window "$window" --runs 20
echo "memory: orvane RSS $(awk '/VmRSS/ {printf "%.1f MB", $2 / 1024}' /proc/$orvane/status) with $(grep -o 'index.json: [0-9]* items' "$work/server.log")"
