#!/usr/bin/env bash
# Builds the demo catalog (OpenMoji emoji rendered to PNG and WebP, with index.json,
# stickers.json, collections.json and index_stress.json) once; later runs reuse it.
# Usage: scripts/build-demo-catalog.sh [OUT_DIR]   (default build/demo-catalog)
# Environment: GLIMMET_BUILD_DIR, the CMake build folder holding the tool (default build/dev).
set -euo pipefail
cd "$(dirname "$0")/.."

openmoji_version=17.0.0
out=${1:-build/demo-catalog}
build_dir=${GLIMMET_BUILD_DIR:-build/dev}
cache=build/openmoji-cache/$openmoji_version
tool=$build_dir/tools/orvane-democatalog

if [[ ! -x $tool ]]; then
    if [[ ! -f $build_dir/CMakeCache.txt ]]; then
        cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    fi
    cmake --build "$build_dir" --target orvane-democatalog >/dev/null
fi

stamp="openmoji $openmoji_version, builder $("$tool" --version | awk '{print $NF}')"
if [[ -f $out/.complete && "$(cat "$out/.complete")" == "$stamp" ]]; then
    exit 0
fi

if [[ ! -f $cache/package/data/openmoji.json ]]; then
    command -v npm >/dev/null || { echo "build-demo-catalog: npm is needed to fetch openmoji" >&2; exit 1; }
    rm -rf "$cache" && mkdir -p "$cache"
    tarball=$(cd "$cache" && npm pack --silent "openmoji@$openmoji_version" 2>/dev/null | tail -n 1) || true
    if [[ -z $tarball || ! -f $cache/$tarball ]]; then
        echo "build-demo-catalog: could not fetch openmoji@$openmoji_version with npm" >&2
        exit 1
    fi
    tar -xzf "$cache/$tarball" -C "$cache" package/package.json package/LICENSE.txt \
        package/data/openmoji.json package/color/svg
    rm -f "$cache/$tarball"
fi

QT_QPA_PLATFORM=offscreen "$tool" --openmoji "$cache/package" --out "$out"
echo "$stamp" >"$out/.complete"
