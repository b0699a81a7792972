#!/usr/bin/env bash
# Builds the fuzz preset and runs every libFuzzer target (tests/fuzz/*_fuzz) for a while,
# two at a time, starting from the seeds in tests/fuzz/corpus/<target>/.
# Usage: scripts/fuzz.sh [seconds-per-target]   (default 60; FUZZ_JOBS=n runs n at a time)
# Prints executions and crashes per target and exits non-zero when any target crashed.
# Inputs that reach new code collect in build/fuzz/corpus/<target>/ and are reused by the
# next run; a crashing input is kept in build/fuzz/artifacts/<target>/ with the log beside it.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
jobs=${FUZZ_JOBS:-2}
build=build/fuzz

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

targets=()
for exe in "$build"/tests/fuzz/*_fuzz; do
    [[ -x "$exe" ]] && targets+=("$(basename "$exe")")
done
[[ ${#targets[@]} -gt 0 ]] || { echo "fuzz: no targets built" >&2; exit 1; }

run_one() {
    local name=$1
    local work=$build/corpus/$name artifacts=$build/artifacts/$name
    local args=(-max_total_time="$seconds" -print_final_stats=1 -timeout=30 -rss_limit_mb=2048
        -artifact_prefix="$artifacts/")
    rm -rf "$artifacts"
    mkdir -p "$work" "$artifacts"
    [[ -f tests/fuzz/$name.dict ]] && args+=(-dict="tests/fuzz/$name.dict")
    local seeds=()
    [[ -d tests/fuzz/corpus/$name ]] && seeds+=("tests/fuzz/corpus/$name")
    local rc=0
    "$build/tests/fuzz/$name" "${args[@]}" "$work" "${seeds[@]}" >"$artifacts/log" 2>&1 || rc=$?
    echo "$rc" >"$artifacts/rc"
}
export -f run_one
export build seconds

echo "fuzz: ${#targets[@]} targets, ${seconds} s each, ${jobs} at a time"
printf '%s\n' "${targets[@]}" | xargs -P "$jobs" -I{} bash -c 'run_one "$1"' _ {}

failed=0
printf '%-32s %14s %8s\n' target executions crashes
for name in "${targets[@]}"; do
    artifacts=$build/artifacts/$name
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$artifacts/log" | tail -n1)
    crashes=$(find "$artifacts" -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' \
        -o -name 'oom-*' | wc -l)
    rc=$(cat "$artifacts/rc")
    # A target that died without leaving an input still failed.
    [[ "$rc" != 0 && "$crashes" == 0 ]] && crashes=1
    printf '%-32s %14s %8s\n' "$name" "${execs:-?}" "$crashes"
    if [[ "$crashes" != 0 ]]; then
        failed=1
        echo "  log: $artifacts/log"
        # CI keeps only what is printed: the end of the log and each input in base64.
        tail -n 40 "$artifacts/log" | sed 's/^/  | /'
        find "$artifacts" -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' -o -name 'oom-*' |
            while read -r input; do
                echo "  input: $input"
                head -c 4096 "$input" | base64 -w 100 | sed 's/^/    /'
            done
    fi
done
exit "$failed"
