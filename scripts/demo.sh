#!/bin/sh
# Demo on a fresh Debian 12 machine (run as root for the package set-up):
# installs the dependencies, builds the library and the segmenter, and cuts
# the coffee cup, its saucer and the spoon's bowl out of samples/coffee.png
# (a free photo, CC0): a rectangle round cup and saucer, then one object
# stroke over what the rectangle alone leaves out (the cup's white rim, the
# coffee and the highlight on the handle).
# Prints where the picture with photo, mask and preview side by side is.
# Usage: scripts/demo.sh [output-folder]   (default: out/demo in the repository)
set -eu
cd "$(dirname "$0")/.."
OUT=${1:-out/demo}
BUILD=${BUILD:-build}
sh scripts/setup.sh
cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$BUILD" --target segment_photo side_by_side -j"$(nproc)"
mkdir -p "$OUT"
# The stroke as a finger would draw it, zig-zagging over rim and coffee and
# down to the handle's highlight, in photo pixels (x y per line); drawn at
# segment_photo's default width, 3 % of the photo's mean side.
cat >"$OUT/stroke.txt" <<'POINTS'
185 110
240 60
300 45
360 55
400 100
300 90
350 130
230 125
215 160
370 160
340 195
240 195
228 256
POINTS
"$BUILD/tools/segment_photo" samples/coffee.png --rect 65,50,485,392 --object "$OUT/stroke.txt" -o "$OUT"
"$BUILD/tools/side_by_side" "$OUT/side_by_side.png" samples/coffee.png=photo "$OUT/mask.png=mask (object white)" \
  "$OUT/preview.png=preview (library's outline)"
echo "demo: the mask, the preview, the outline and the request times are in $(cd "$OUT" && pwd)"
echo "demo: photo, mask and preview side by side: $(cd "$OUT" && pwd)/side_by_side.png"
