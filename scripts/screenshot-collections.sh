#!/usr/bin/env bash
# On a private X display (Xvfb + openbox): serves the demo catalog, starts Orvane, opens the
# picker on the Collections tab (the whole list, or a search of it), opens the first one and
# searches inside it, saving a PNG of the panel at each step.
# Usage: scripts/screenshot-collections.sh [OUT_DIR]   (default build/screenshots)
# Environment: COLLECTION_QUERY and STICKER_QUERY change what is typed.
set -euo pipefail
cd "$(dirname "$0")/.."
out=${1:-build/screenshots}
list_query=${COLLECTION_QUERY:-}
sticker_query=${STICKER_QUERY:-cat}

source scripts/lib/desktop-session.sh
session_prepare
mkdir -p "$out"
session_start_display
session_start_server
session_start_orvane

# Without a tray the first opening shows where the menu went; the second is the plain panel.
xdotool key ctrl+m
window=$(timeout 10 xdotool search --sync --onlyvisible --name '^Orvane$' | head -n 1)
[[ -n $window ]] || { echo "the panel did not open:" >&2; cat "$work/orvane.log" >&2; exit 1; }
xdotool key Escape
sleep 0.5
xdotool key ctrl+m
sleep 0.5
xdotool key Tab
[[ -z $list_query ]] || xdotool type --delay 40 "$list_query"
sleep 1 # the covers
build/dev/tools/orvane-screenshot "$out/collections.png" "$window"
echo "screenshot: $out/collections.png"
xdotool key Return
xdotool type --delay 40 "$sticker_query"
sleep 1 # the stickers' thumbnails
build/dev/tools/orvane-screenshot "$out/open-collection.png" "$window"
echo "screenshot: $out/open-collection.png"
xdotool key Escape
