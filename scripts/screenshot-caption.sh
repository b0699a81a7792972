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

scripts/install-deps.sh
mkdir -p build "$(dirname "$out")"
[[ -f build/dev/CMakeCache.txt ]] || cmake --preset dev >/dev/null
cmake --build build/dev --target orvane orvane-server orvane-screenshot >build/build.log 2>&1 ||
    { tail -n 40 build/build.log >&2; exit 1; }
scripts/build-demo-catalog.sh build/demo-catalog

work=$(mktemp -d)
pids=()
cleanup() { kill "${pids[@]}" 2>/dev/null || true; rm -rf "$work"; }
trap cleanup EXIT

# Xvfb picks a free display itself and names it on fd 3.
Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp 3>"$work/display" >/dev/null 2>&1 &
pids+=($!)
for _ in $(seq 100); do [[ -s $work/display ]] && break; sleep 0.1; done
export DISPLAY=:$(cat "$work/display")
openbox --sm-disable >"$work/openbox.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do xprop -root _NET_SUPPORTING_WM_CHECK 2>/dev/null | grep -q 'window id' && break; sleep 0.1; done
xprop -root _NET_SUPPORTING_WM_CHECK | grep -q 'window id' ||
    { echo "openbox did not start:" >&2; cat "$work/openbox.log" >&2; exit 1; }

export XDG_DATA_HOME=$work/data XDG_CACHE_HOME=$work/cache XDG_CONFIG_HOME=$work/config XDG_STATE_HOME=$work/state
build/dev/src/server/orvane-server --root build/demo-catalog --port 0 >"$work/server.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do grep -q serving "$work/server.log" && break; sleep 0.1; done
export MEME_SERVER=$(grep -o 'http://127.0.0.1:[0-9]*' "$work/server.log" | head -n 1)
build/dev/src/app/orvane >"$work/orvane.log" 2>&1 &
pids+=($!)
# Ready once the catalog is indexed.
for _ in $(seq 300); do grep -q '"index_loaded"' "$work/state/Glimmet/spike.jsonl" 2>/dev/null && break; sleep 0.1; done

grep -q '"index_loaded"' "$work/state/Glimmet/spike.jsonl" ||
    { echo "the catalog did not load:" >&2; cat "$work/orvane.log" >&2; exit 1; }

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
