#!/usr/bin/env bash
# Measures orvane-server's search latency on 127.0.0.1 with wrk: p50/p95/p99 and requests/s for
# 1, 16 and 64 concurrent keep-alive clients on synthetic catalogs of 10,000 and 100,000 items.
# Each row is measured for
#   server    POST /indexes/memes/search, the ranking clients get (bm25 + learned boosts),
#   fts5      POST /bench/fts5-search, the plain FTS5 bm25 query answered the same way
#             (same HTTP server, same request and answer shape): the reference,
#   hybrid    the server's search with {"hybrid":{"semanticRatio":0.5}} (WordNet relatives).
# Queries rotate through the generator's 100 queries, limit 60 as the app asks. The server's
# resident memory (VmRSS, peak VmHWM) is read after each catalog's runs. Not part of CI.
# Usage: scripts/measure-search.sh [BUILD_DIR] [SECONDS_PER_RUN]
set -euo pipefail

build=${1:-build/dev}
seconds=${2:-8}
server=$build/src/server/orvane-server
gen=$build/bench/glimmet-catalog-gen
[[ -x "$server" ]] || { echo "no server binary at $server" >&2; exit 2; }
[[ -x "$gen" ]] || { echo "no catalog generator at $gen (build target glimmet-catalog-gen)" >&2; exit 2; }
command -v wrk >/dev/null || { echo "wrk missing (Debian package wrk)" >&2; exit 2; }

work=$(mktemp -d)
pid=""
cleanup() {
    [[ -n "$pid" ]] && kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

# wrk's request generator: one POST per query in turn; done() prints the row's figures.
cat >"$work/search.lua" <<'LUA'
local queries = {}
for q in io.open(os.getenv("QUERIES")):read("*a"):gmatch('"(.-)"') do
    queries[#queries + 1] = q
end
local hybrid = os.getenv("HYBRID") == "1"
wrk.method = "POST"
wrk.headers["Content-Type"] = "application/json"
wrk.headers["Authorization"] = "Bearer bench"
local counter = 0
function request()
    counter = counter + 1
    local q = queries[(counter % #queries) + 1]
    local body = '{"q":"' .. q .. '","limit":60'
    if hybrid then
        body = body .. ',"hybrid":{"embedder":"wordnet","semanticRatio":0.5}'
    end
    return wrk.format(nil, nil, nil, body .. "}")
end
function done(summary, latency, requests)
    local errors = summary.errors.status + summary.errors.connect + summary.errors.read +
                   summary.errors.write + summary.errors.timeout
    io.write(string.format("%8.2f %8.2f %8.2f %10.0f %7d\n", latency:percentile(50) / 1000,
                           latency:percentile(95) / 1000, latency:percentile(99) / 1000,
                           summary.requests / (summary.duration / 1e6), errors))
end
LUA

rss() { awk -v k="$1:" '$1 == k { printf "%.0f MB", $2 / 1024 }' "/proc/$pid/status"; }

printf "%-7s %-7s %7s %8s %8s %8s %10s %7s\n" items route clients "p50 ms" "p95 ms" "p99 ms" "req/s" errors
for items in 10000 100000; do
    catalog=$work/catalog-$items
    mkdir -p "$catalog"
    "$gen" --size "$items" --out "$catalog/index.json" --queries "$work/queries-$items.json" >/dev/null
    "$server" --root "$catalog" --port 0 --data "$work/data-$items" --search-key bench \
        --search-rate 0 --bench-reference >"$work/server.log" 2>&1 &
    pid=$!
    port=""
    for _ in $(seq 600); do
        port=$(grep -o 'at http://127\.0\.0\.1:[0-9]*/' "$work/server.log" | grep -o '[0-9]*/$' |
            tr -d / || true)
        [[ -n "$port" ]] && break
        sleep 0.1
    done
    [[ -n "$port" ]] || { cat "$work/server.log" >&2; exit 1; }
    for clients in 1 16 64; do
        threads=$((clients < 2 ? 1 : 2))
        for route in server fts5 hybrid; do
            path=/indexes/memes/search
            [[ $route == fts5 ]] && path=/bench/fts5-search
            printf "%-7s %-7s %7s " "$items" "$route" "$clients"
            QUERIES=$work/queries-$items.json HYBRID=$([[ $route == hybrid ]] && echo 1 || echo 0) \
                wrk -t "$threads" -c "$clients" -d "${seconds}s" --timeout 5s \
                -s "$work/search.lua" "http://127.0.0.1:$port$path" | tail -n 1
        done
    done
    echo "        server memory with $items items: $(rss VmRSS) resident, peak $(rss VmHWM)"
    kill "$pid" && wait "$pid" 2>/dev/null || true
    pid=""
done
