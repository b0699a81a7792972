#!/usr/bin/env bash
# Orvane's resident footprint and start-up, on a private X display (Xvfb + openbox) with the
# demo catalog served locally.
#
# For the 10,000-item stress catalog and for the demo catalog: launches Orvane on an empty data
# folder (the catalog comes from the server) and once more with the catalog on disk; each time
# opens the panel with the hotkey, types "cat", closes it, waits until the process is idle and
# prints its memory from /proc (RSS, Pss, anonymous, the malloc heap) with a breakdown by
# mapping. Then prints launch → searchable: `orvane --startup-bench` on the stress index on
# disk, in-process figures and the whole process's median of 5 runs.
#
#   bash scripts/measure-footprint.sh              everything
#   bash scripts/measure-footprint.sh --heaptrack  also the heap's top allocators when idle
#   SKIP_PREPARE=1 bash scripts/measure-footprint.sh   use the build and catalog as they are
#   QUERIES="cat dog happy" bash scripts/measure-footprint.sh   type these instead of "cat"
#   CATALOGS=demo bash scripts/measure-footprint.sh            only the demo catalog
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/desktop-session.sh
heaptrack=false
[[ ${1:-} == --heaptrack ]] && heaptrack=true
[[ -n ${SKIP_PREPARE:-} ]] || session_prepare
session_start_display
session_start_server

# Memory of $1 by kind of mapping, in MB.
print_memory() {
    local pid=$1 label=$2
    awk -v label="$label" '
        /^Rss:/ { rss = $2 } /^Pss:/ { pss = $2 } /^Pss_Anon:/ { pssAnon = $2 }
        /^Pss_File:/ { pssFile = $2 } /^Anonymous:/ { anon = $2 }
        END { printf "%s: RSS %.1f MB, Pss %.1f MB (anon %.1f, file %.1f), anonymous %.1f MB\n",
              label, rss / 1024, pss / 1024, pssAnon / 1024, pssFile / 1024, anon / 1024 }
    ' "/proc/$pid/smaps_rollup"
    # Each mapping's resident pages, summed per kind.
    awk '
        /^[0-9a-f]+-[0-9a-f]+ / {
            path = $6
            if (path == "[heap]") kind = "malloc heap ([heap])"
            else if (path ~ /^\[stack/) kind = "stacks"
            else if (path == "") kind = "other anonymous (arenas, thread stacks, mmap)"
            else if (path ~ /\/plugins\//) kind = "Qt plugins"
            else if (path ~ /libQt6/) kind = "Qt libraries"
            else if (path ~ /\.(ttf|otf|pcf|pfb)/ || path ~ /fontconfig/) kind = "fonts"
            else if (path ~ /\.sqlite/) kind = "index files"
            else if (path ~ /\.so/) kind = "other libraries"
            else if (path ~ /^\/(dev|memfd|SYSV)/ || path ~ /drm|shm/) kind = "shared memory"
            else kind = "other files"
            next
        }
        /^Rss:/ { total[kind] += $2 }
        END { for (k in total) if (total[k] >= 100) printf "    %-46s %6.1f MB\n", k, total[k] / 1024 }
    ' "/proc/$pid/smaps"
    local plugins
    plugins=$(grep -o '/plugins/[^ ]*\.so' "/proc/$pid/maps" | sort -u | sed 's|.*/plugins/||' |
        tr '\n' ' ')
    echo "    Qt plugins loaded: ${plugins:-none}"
    echo "    threads: $(ls "/proc/$pid/task" | wc -l)"
}

# Waits until the RSS of $1 stays the same for two seconds (at most 30 s).
wait_idle() {
    local pid=$1 last=0 same=0
    for _ in $(seq 60); do
        local now
        now=$(awk '/^Rss:/ { print $2 }' "/proc/$pid/smaps_rollup")
        if [[ $now == "$last" ]]; then
            same=$((same + 1))
            [[ $same -ge 4 ]] && return
        else
            same=0
        fi
        last=$now
        sleep 0.5
    done
}

# One launch on the current data folder: shows the panel, searches, hides it, measures.
measure_launch() {
    local label=$1 spike=$work/state/Glimmet/spike.jsonl
    rm -f "$spike"
    if $heaptrack; then
        heaptrack -o "$work/heaptrack" build/dev/src/app/orvane >"$work/orvane.log" 2>&1 &
    else
        build/dev/src/app/orvane >"$work/orvane.log" 2>&1 &
    fi
    local launcher=$!
    pids+=("$launcher")
    # heaptrack slows a launch tenfold.
    for _ in $(seq 3000); do grep -q '"index_loaded"' "$spike" 2>/dev/null && break; sleep 0.1; done
    grep -q '"index_loaded"' "$spike" ||
        { echo "the catalog did not load:" >&2; cat "$work/orvane.log" >&2; exit 1; }
    local pid=$launcher
    $heaptrack && pid=$(pgrep -n -P "$launcher" -x orvane || pgrep -n -x orvane)
    # The server's answer, which may replace the catalog, comes after the disk copy.
    sleep 1
    xdotool key ctrl+m
    xdotool search --sync --onlyvisible --name '^Orvane$' >/dev/null
    for query in ${QUERIES:-cat}; do
        xdotool key ctrl+a
        xdotool type --delay 60 "$query"
        sleep 1 # the visible thumbnails arrive
    done
    xdotool key Escape
    wait_idle "$pid"
    print_memory "$pid" "$label"
    if $heaptrack; then
        # Killed outright, nothing is freed: what is still allocated is the idle heap.
        kill -KILL "$pid"
        wait "$launcher" 2>/dev/null || true
        local data
        data=$(ls "$work"/heaptrack.* | head -n 1)
        heaptrack_print --print-leaks 1 --print-peaks 0 --print-allocators 0 \
            --print-temporary 0 -n 12 \
            "$data" 2>/dev/null | awk '/^MEMORY LEAKS/ { on = 1 } on && n++ < 120'
        rm -f "$data"
    else
        kill "$pid"
        wait "$pid" 2>/dev/null || true
    fi
}

# Stress last: launch → searchable reads its index from the data folder the launches leave.
for catalog in ${CATALOGS:-demo stress}; do
    rm -rf "$work/data" "$work/cache" "$work/config" "$work/state"
    mkdir -p "$work/config/Glimmet"
    [[ $catalog == stress ]] && echo '{"stressIndex": true}' >"$work/config/Glimmet/settings.json"
    measure_launch "$catalog catalog, first launch"
    measure_launch "$catalog catalog, catalog on disk"
done

echo
whole_process() { # median of 5 runs of orvane with the arguments given, in ms
    local times=()
    for _ in 1 2 3 4 5; do
        local start
        start=$(date +%s%N)
        build/dev/src/app/orvane "$@" >/dev/null
        times+=($((($(date +%s%N) - start) / 1000000)))
    done
    echo "$(printf '%s\n' "${times[@]}" | sort -n | sed -n 3p) ms (${times[*]})"
}
# Waits for the server's answer too, as the command's output depends on it.
echo "orvane --query cat, last catalog on disk, whole process: median $(whole_process --query cat)"
if build/dev/src/app/orvane --help | grep -q -- --startup-bench; then
    build/dev/src/app/orvane --startup-bench
    echo "orvane --startup-bench, whole process: median $(whole_process --startup-bench)"
fi
