#!/usr/bin/env bash
# On a private X display (Xvfb + openbox): starts the catalog server on the demo catalog and
# Orvane, takes a screenshot of the panel showing results for "cat"
# (build/screenshots/panel-cat.png), measures hotkey → panel mapped over 20 runs, and
# prints Orvane's memory with the catalog loaded.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/desktop-session.sh
session_prepare
mkdir -p build/screenshots
session_start_display
session_start_server
session_start_orvane

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
