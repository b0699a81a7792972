#!/usr/bin/env bash
# On a private X display (Xvfb + openbox): serves the demo catalog, starts Orvane and a
# pcmanfm window, searches "cat", presses on the first result and drags it over the file
# manager, then takes a screenshot while the drag is under way (the thumbnail under the
# pointer). The drag is then dropped, so the folder receives the image.
# Usage: scripts/screenshot-drag.sh [OUT.png] [PAYLOAD a|b|c]   (default build/screenshots/drag.png, b)
set -euo pipefail
cd "$(dirname "$0")/.."
out=${1:-build/screenshots/drag.png}
payload=${2:-b}
source scripts/lib/desktop-session.sh
session_prepare
mkdir -p "$(dirname "$out")"
session_start_display
mkdir -p "$XDG_CONFIG_HOME/Glimmet" "$work/Pictures"
printf '{"dragPayload": "%s"}\n' "$payload" >"$XDG_CONFIG_HOME/Glimmet/settings.json"
session_start_server

# The drop target, below where the panel opens.
pcmanfm "$work/Pictures" >/dev/null 2>&1 &
pids+=($!)
xdotool search --sync --onlyvisible --name '^Pictures$' windowmove 100 560 windowsize 1000 220 >/dev/null

session_start_orvane

xdotool key ctrl+m
panel=$(xdotool search --sync --onlyvisible --name '^Orvane$' | head -n 1)
xdotool type --delay 40 cat
sleep 2 # let the visible thumbnails and the first full images arrive
eval "$(xdotool getwindowgeometry --shell "$panel")"
# The first cell: below the search field and the tabs.
cx=$((X + 70)) cy=$((Y + 150))
xdotool mousemove $cx $cy mousedown 1
# Small steps with short pauses: the drop target answers each position before the next.
for i in $(seq 1 20); do
    xdotool mousemove $((cx + i * 15)) $((cy + i * 23)) sleep 0.03
done
xdotool mousemove $((cx + 302)) $((cy + 460)) sleep 0.3
build/dev/tools/orvane-screenshot "$out"
echo "screenshot: $out"
xdotool mousemove $((cx + 304)) $((cy + 460)) sleep 0.3 mouseup 1
for _ in $(seq 50); do [[ -n $(ls "$work/Pictures") ]] && break; sleep 0.1; done
echo "dropped into the folder: $(ls "$work/Pictures")"
grep '"method":"drag"' "$work/state/Glimmet/spike.jsonl" || echo "no drag insert logged"
