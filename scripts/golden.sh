#!/bin/sh
# Compares (or records) the digests of every output of a golden corpus: "large"
# (3 and 12 megapixel photos, the GrabCut photos at native size and enlarged;
# about a minute) or "huge" (two 50 megapixel photos). Speed work must leave
# them byte-identical. The small corpus runs with the tests.
# Usage: scripts/golden.sh [check|record] [large|huge] [build-dir] [dataset-dir]
set -eu
cd "$(dirname "$0")/.."
MODE=${1:-check}
CORPUS=${2:-large}
BUILD=${3:-build}
DATASET=${4:-../shared/datasets/grabcut}
cmake --build "$BUILD" --target golden_outputs -j"$(nproc)" >/dev/null
if [ ! -f "$DATASET/rects.tsv" ]; then
  echo "golden: no GrabCut photos under $DATASET" >&2
  exit 1
fi
"$BUILD/tools/golden_outputs" --corpus "$CORPUS" --dataset "$DATASET" --"$MODE" "tests/golden/$CORPUS.txt"
