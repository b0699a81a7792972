#!/usr/bin/env bash
# Measures a catalog server binary under hostile and busy clients on 127.0.0.1:
#   1. a normal client's latency while 200 idle and 20 trickling connections are open,
#   2. the server's peak memory (VmHWM) for 4 concurrent 300-part Range requests on a 300 MB file,
#   3. keep-alive small-file requests/s with 200 clients.
# Each scenario gets a freshly started server, so its peak memory is that scenario's own.
# Usage: scripts/measure-server.sh [SERVER_BINARY] [LOAD_TOOL]
set -euo pipefail

server=${1:-build/dev/src/server/orvane-server}
load=${2:-build/dev/bench/orvane-server-load}
[[ -x "$server" ]] || { echo "no server binary at $server" >&2; exit 2; }
[[ -x "$load" ]] || { echo "no load tool at $load (build target orvane-server-load)" >&2; exit 2; }

work=$(mktemp -d)
pid=""
cleanup() {
    [[ -n "$pid" ]] && kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

# The catalog: a small index, a small image and a 300 MB file (sparse: cheap to make, and the
# server still has to read or send every byte).
catalog=$work/catalog
mkdir -p "$catalog/f" "$catalog/t"
cat >"$catalog/index.json" <<'JSON'
[{"id":"a","description":"a cat","keywords":["cat"],"template":"","emotions":[],"use_cases":[],
  "actions":[],"ocr_text":"","thumb":"/t/1.webp","full":"/f/1.png","width":1,"height":1,"bytes":4096}]
JSON
head -c 4096 /dev/urandom >"$catalog/f/1.png"
truncate -s 300M "$catalog/big.bin"
size=$(stat -c %s "$catalog/big.bin")

port=""
start_server() {
    "$server" --root "$catalog" --port 0 >"$work/server.log" 2>&1 &
    pid=$!
    for _ in $(seq 100); do
        port=$(grep -o 'at http://127\.0\.0\.1:[0-9]*/' "$work/server.log" | grep -o '[0-9]*/$' |
            tr -d / || true)
        [[ -n "$port" ]] && return 0
        sleep 0.1
    done
    echo "server did not start:" >&2
    cat "$work/server.log" >&2
    exit 1
}
stop_server() {
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
    pid=""
}
peak() { awk '/VmHWM/ {printf "%.0f MB", $2 / 1024}' "/proc/$pid/status"; }

echo "server: $server"
start_server
"$load" latency --port "$port" --path /f/1.png --idle 200 --trickle 20 --requests 100 --seconds 90
stop_server

start_server
"$load" ranges --port "$port" --path /big.bin --size "$size" --parts 300 --clients 4
echo "ranges: server peak memory (VmHWM) $(peak)"
stop_server

start_server
"$load" keepalive --port "$port" --path /f/1.png --clients 200 --seconds 10
echo "keepalive: server peak memory (VmHWM) $(peak)"
stop_server
