#!/bin/sh
# Compares (or records) the digests of every output of the large golden corpus:
# 3 and 12 megapixel photos and the GrabCut photos at native size and
# enlarged. Speed work must leave them byte-identical.
# Usage: scripts/golden.sh [check|record] [build-dir] [dataset-dir]
set -eu
cd "$(dirname "$0")/.."
MODE=${1:-check}
BUILD=${2:-build}
DATASET=${3:-../shared/datasets/grabcut}
cmake --build "$BUILD" --target golden_outputs -j"$(nproc)" >/dev/null
if [ ! -f "$DATASET/rects.tsv" ]; then
  echo "golden: no GrabCut photos under $DATASET" >&2
  exit 1
fi
"$BUILD/tools/golden_outputs" --corpus large --dataset "$DATASET" --"$MODE" tests/golden/large.txt
