#!/bin/sh
# Leak check and memory figures for a long session through the exported
# functions (tools/session_soak: 100 mixed requests on one photo, then 20
# contexts in a row).
#
#  1. LeakSanitizer: the session on samples/coffee.png (600 x 400, reduced for
#     the cut and re-cut at full size) in the ASan+UBSan build; any definite
#     or indirect leak, or any sanitizer report, fails the run.
#  2. valgrind memcheck: the same session on a 0.06-megapixel copy of the
#     photo (valgrind is ~30 times slower; a larger photo runs the cuts into
#     the engine's 10 s time-out); definite and indirect leaks fail the run.
#  3. Peak memory per request for 3- and 12-megapixel photos, plain build
#     (printed by session_soak, plus the process maximum from /usr/bin/time).
#
# Usage: scripts/leakcheck.sh [lsan|valgrind|memory|all]      (default: all)
# Environment: ASAN_BUILD (default build-asan), BUILD (default build), JOBS (2)
set -eu
cd "$(dirname "$0")/.."
WHAT=${1:-all}
ASAN_BUILD=${ASAN_BUILD:-build-asan}
BUILD=${BUILD:-build}
JOBS=${JOBS:-2}

sh scripts/setup.sh valgrind time
export SEGCORE_LOG_QUIET=1

if [ "$WHAT" = all ] || [ "$WHAT" = lsan ]; then
  cmake -S . -B "$ASAN_BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSEGCORE_WERROR=ON \
    -DSEGCORE_SANITIZE=address,undefined -DSEGCORE_BENCH=OFF -DSEGCORE_TOOLS=ON >/dev/null
  cmake --build "$ASAN_BUILD" --target session_soak -j"$JOBS"
  echo "leakcheck: LeakSanitizer, 100 requests and 20 contexts"
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    "$ASAN_BUILD/tools/session_soak" --requests 100 --contexts 20
fi

if [ "$WHAT" = all ] || [ "$WHAT" = valgrind ] || [ "$WHAT" = memory ]; then
  cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSEGCORE_WERROR=ON >/dev/null
  cmake --build "$BUILD" --target session_soak -j"$JOBS"
fi

if [ "$WHAT" = all ] || [ "$WHAT" = valgrind ]; then
  echo "leakcheck: valgrind, 100 requests and 20 contexts"
  valgrind --leak-check=full --errors-for-leak-kinds=definite,indirect --error-exitcode=1 \
    --show-leak-kinds=definite,indirect --undef-value-errors=no \
    "$BUILD/tools/session_soak" --megapixels 0.06 --requests 100 --contexts 20
fi

if [ "$WHAT" = all ] || [ "$WHAT" = memory ]; then
  for mp in 3 12; do
    echo "leakcheck: memory, $mp-megapixel photo"
    /usr/bin/time -f "process maximum resident %M KiB, %e s" \
      "$BUILD/tools/session_soak" --megapixels "$mp" --requests 10 --contexts 0
  done
fi
