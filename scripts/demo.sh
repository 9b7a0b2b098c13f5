#!/bin/sh
# Demo on a fresh Debian 12 machine (run as root for the package set-up):
# installs the dependencies, builds the library and the segmenter, and cuts the
# coffee cup out of samples/coffee.png with a rectangle round cup and saucer.
# Usage: scripts/demo.sh [output-folder]   (default: out/demo in the repository)
set -eu
cd "$(dirname "$0")/.."
OUT=${1:-out/demo}
BUILD=${BUILD:-build}
sh scripts/setup.sh
cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$BUILD" --target segment_photo -j"$(nproc)"
"$BUILD/tools/segment_photo" samples/coffee.png --rect 65,50,485,392 -o "$OUT"
echo "demo: the mask, the preview and the outline are in $(cd "$OUT" && pwd)"
