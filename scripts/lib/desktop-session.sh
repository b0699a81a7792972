# Sourced by the scripts that show Orvane on a private X display (Xvfb + openbox) with the demo
# catalog served locally. Run from the repository root, under `set -euo pipefail`.
#
#   session_prepare            install packages, build, render the demo catalog once
#   session_start_display      Xvfb + openbox; exports DISPLAY and a private XDG_* tree in $work
#   session_start_server       orvane-server on the demo catalog; exports MEME_SERVER
#   session_start_orvane       Orvane, waiting until its catalog is indexed; sets $orvane (pid)
#
# Everything started is stopped, and $work removed, when the script exits.

session_prepare() {
    scripts/install-deps.sh
    mkdir -p build
    scripts/build.sh dev >build/build.log 2>&1 || { tail -n 40 build/build.log >&2; exit 1; }
    scripts/build-demo-catalog.sh build/demo-catalog
}

work=$(mktemp -d)
pids=()
session_cleanup() { kill "${pids[@]}" 2>/dev/null || true; rm -rf "$work"; }
trap session_cleanup EXIT

session_start_display() {
    # Xvfb picks a free display itself and names it on fd 3.
    Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp 3>"$work/display" >/dev/null 2>&1 &
    pids+=($!)
    for _ in $(seq 100); do [[ -s $work/display ]] && break; sleep 0.1; done
    export DISPLAY=:$(cat "$work/display")
    openbox --sm-disable >"$work/openbox.log" 2>&1 &
    pids+=($!)
    for _ in $(seq 100); do
        xprop -root _NET_SUPPORTING_WM_CHECK 2>/dev/null | grep -q 'window id' && break
        sleep 0.1
    done
    xprop -root _NET_SUPPORTING_WM_CHECK | grep -q 'window id' ||
        { echo "openbox did not start:" >&2; cat "$work/openbox.log" >&2; exit 1; }
    export XDG_DATA_HOME=$work/data XDG_CACHE_HOME=$work/cache XDG_CONFIG_HOME=$work/config \
        XDG_STATE_HOME=$work/state
}

session_start_server() {
    build/dev/src/server/orvane-server --root build/demo-catalog --port 0 >"$work/server.log" 2>&1 &
    pids+=($!)
    for _ in $(seq 100); do grep -q serving "$work/server.log" && break; sleep 0.1; done
    MEME_SERVER=$(grep -o 'http://127.0.0.1:[0-9]*' "$work/server.log" | head -n 1)
    export MEME_SERVER
}

session_start_orvane() {
    build/dev/src/app/orvane >"$work/orvane.log" 2>&1 &
    orvane=$!
    pids+=($orvane)
    local spike=$work/state/Glimmet/spike.jsonl
    for _ in $(seq 300); do grep -q '"index_loaded"' "$spike" 2>/dev/null && break; sleep 0.1; done
    grep -q '"index_loaded"' "$spike" ||
        { echo "the catalog did not load:" >&2; cat "$work/orvane.log" >&2; exit 1; }
}
