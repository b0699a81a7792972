#!/usr/bin/env bash
# Installs the Debian packages the project builds, runs and tests with.
# Idempotent and quiet: prints nothing when everything is already there.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config git
    qt6-base-dev qt6-image-formats-plugins qt6-svg-dev
    libsqlite3-dev nlohmann-json3-dev libcpp-httplib-dev libssl-dev
    libmicrohttpd-dev zlib1g-dev
    # orvane-server's hybrid search reads WordNet's database; scripts/measure-search.sh loads
    # the server with wrk.
    wordnet-base wrk
    # scripts/measure-footprint.sh --heaptrack: the idle heap by call site.
    heaptrack
    # orvane-server's tagging reads the text on pictures with Tesseract and its English model.
    libtesseract-dev tesseract-ocr-eng
    # The user's own emoji: their Unicode names and properties from ICU, their pictures drawn
    # with the colour emoji font.
    libicu-dev fonts-noto-color-emoji
    libgtest-dev libgmock-dev libbenchmark-dev
    libxcb1-dev libxcb-xtest0-dev libxcb-keysyms1-dev libxcb-xfixes0-dev libxcb-xkb-dev
    xvfb openbox xdotool xclip dbus-x11 x11-utils fonts-dejavu-core
    # The accessibility bus, through which a paste asks what has the keyboard, and GTK's
    # bridge to it.
    at-spi2-core libatk-adaptor
    # Programs the paste tests paste into, a tray for the tray test, setxkbmap; a file
    # manager the drag tests drop into.
    mousepad chromium trayer x11-xkb-utils pcmanfm
    # The fuzz targets: clang with libFuzzer and the sanitizer runtimes.
    clang libclang-rt-dev
)
# The demo catalog's art comes from the npm registry: any Node.js with npm will do.
command -v npm >/dev/null || packages+=(npm)

missing=()
for p in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
    [[ "$status" == "install ok installed" ]] || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

sudo=""
[[ $(id -u) -eq 0 ]] || sudo="sudo"
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
