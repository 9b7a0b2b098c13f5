#!/bin/sh
# Builds the library and its tests with AddressSanitizer + UndefinedBehaviorSanitizer
# and runs every test; then builds the tests that start threads with
# ThreadSanitizer and runs them. Benchmarks and tools are left out of both builds.
#
# Usage: scripts/sanitizers.sh [asan|tsan|all]     (default: all)
# Environment:
#   ASAN_BUILD  build directory of the ASan+UBSan build (default: build-asan)
#   TSAN_BUILD  build directory of the TSan build       (default: build-tsan)
#   JOBS        parallel build and test jobs             (default: 2)
#
# Any sanitizer report fails the run: the builds use -fno-sanitize-recover=all
# and the runtime options below turn every report into a non-zero exit.
set -eu
cd "$(dirname "$0")/.."
WHAT=${1:-all}
ASAN_BUILD=${ASAN_BUILD:-build-asan}
TSAN_BUILD=${TSAN_BUILD:-build-tsan}
JOBS=${JOBS:-2}

# The tests that start threads carry the ctest label "threads"; the list is
# SEGCORE_THREADED_TESTS in tests/CMakeLists.txt, and the target
# threaded_tests builds their programs.

sh scripts/setup.sh

configure() {  # build-dir sanitizers
  cmake -S . -B "$1" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSEGCORE_WERROR=ON \
    -DSEGCORE_SANITIZE="$2" -DSEGCORE_BENCH=OFF -DSEGCORE_TOOLS=OFF >/dev/null
}

stamp() { date +%s; }

if [ "$WHAT" = all ] || [ "$WHAT" = asan ]; then
  t0=$(stamp)
  configure "$ASAN_BUILD" address,undefined
  cmake --build "$ASAN_BUILD" -j"$JOBS"
  t1=$(stamp)
  # detect_leaks: a test that leaks fails. The library allocates its context
  # state as globals that a test may leave for the process exit to reclaim;
  # LeakSanitizer does not count memory still reachable from globals.
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:strict_string_checks=1:detect_stack_use_after_return=1 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir "$ASAN_BUILD" --output-on-failure -j"$JOBS"
  t2=$(stamp)
  echo "sanitizers: asan+ubsan build $((t1 - t0)) s, tests $((t2 - t1)) s"
fi

if [ "$WHAT" = all ] || [ "$WHAT" = tsan ]; then
  t0=$(stamp)
  configure "$TSAN_BUILD" thread
  cmake --build "$TSAN_BUILD" --target threaded_tests -j"$JOBS"
  t1=$(stamp)
  # Only the threaded programs were built; the others are not run (their
  # placeholders carry no label).
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --test-dir "$TSAN_BUILD" --output-on-failure -j"$JOBS" -L threads
  t2=$(stamp)
  echo "sanitizers: tsan build $((t1 - t0)) s, tests $((t2 - t1)) s"
fi
