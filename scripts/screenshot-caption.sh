#!/usr/bin/env bash
# On a private X display (Xvfb + openbox): serves the demo catalog, starts Orvane, opens the
# picker, searches, presses Ctrl+E on the first result, types a top and a bottom line, and
# saves a PNG of the panel with its caption preview.
# Usage: scripts/screenshot-caption.sh [OUT.png]   (default build/screenshots/caption.png)
# Environment: CAPTION_QUERY, CAPTION_TOP, CAPTION_BOTTOM change what is typed.
set -euo pipefail
cd "$(dirname "$0")/.."
out=${1:-build/screenshots/caption.png}
query=${CAPTION_QUERY:-cat}
top=${CAPTION_TOP:-when the build is green}
bottom=${CAPTION_BOTTOM:-on the first try}

source scripts/lib/desktop-session.sh
session_prepare
mkdir -p "$(dirname "$out")"
session_start_display
session_start_server
session_start_orvane

xdotool key ctrl+m
window=$(timeout 10 xdotool search --sync --onlyvisible --name '^Orvane$' | head -n 1)
[[ -n $window ]] || { echo "the panel did not open:" >&2; cat "$work/orvane.log" >&2; exit 1; }
xdotool type --delay 40 "$query"
sleep 1 # the results and their thumbnails
xdotool key ctrl+e
sleep 1 # the full image: usually prefetched already, else fetched from 127.0.0.1
xdotool type --delay 40 "$top"
xdotool key Tab
xdotool type --delay 40 "$bottom"
sleep 1 # the last keystrokes' preview
build/dev/tools/orvane-screenshot "$out" "$window"
echo "screenshot: $out"
xdotool key Escape
