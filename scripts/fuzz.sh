#!/bin/sh
# Builds the libFuzzer target (clang, with AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs it for a bounded time from the
# committed seed corpus.
#
# Usage: scripts/fuzz.sh [seconds]        (default: 180)
# Environment:
#   FUZZ_BUILD  build directory (default: build-fuzz)
#   JOBS        parallel build jobs (default: 2)
#   FUZZ_WORK   where new corpus entries and crash files go
#               (default: $FUZZ_BUILD/fuzz-work; fuzz/corpus/ stays as committed)
#
# Exit status is non-zero when the fuzzer finds a crash, a leak, a sanitizer
# report or a failed check; the reproducer is in $FUZZ_WORK/crash-* and
# can be replayed with: $FUZZ_BUILD/fuzz/session_fuzz <file>
set -eu
cd "$(dirname "$0")/.."
SECONDS_TO_RUN=${1:-180}
FUZZ_BUILD=${FUZZ_BUILD:-build-fuzz}
JOBS=${JOBS:-2}
FUZZ_WORK=${FUZZ_WORK:-$FUZZ_BUILD/fuzz-work}

# clang and its libFuzzer runtime come from Debian.
sh scripts/setup.sh clang-14 libclang-rt-14-dev

cmake -S . -B "$FUZZ_BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 \
  -DSEGCORE_WERROR=ON -DSEGCORE_SANITIZE=address,undefined -DSEGCORE_FUZZ=ON \
  -DSEGCORE_TESTS=OFF -DSEGCORE_BENCH=OFF -DSEGCORE_TOOLS=OFF >/dev/null
cmake --build "$FUZZ_BUILD" --target session_fuzz -j"$JOBS"

mkdir -p "$FUZZ_WORK/corpus"
# The library logs its size checks to stderr on the host; keep the run quiet.
SEGCORE_LOG_QUIET=1 \
ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1 \
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  "$FUZZ_BUILD/fuzz/session_fuzz" -max_total_time="$SECONDS_TO_RUN" -timeout=60 \
  -rss_limit_mb=4096 -max_len=4096 -print_final_stats=1 \
  -artifact_prefix="$FUZZ_WORK/" "$FUZZ_WORK/corpus" fuzz/corpus
