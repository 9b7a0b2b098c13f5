#!/bin/sh
# Instructions per step of the band max-flow (the full-resolution re-cut) on
# one BM_Request case of request_bench, for one or two builds side by side.
#
#   bench/maxflow_steps.sh STEPS_BUILD BUILD [BUILD2] [photo:tenths_mp]
#
# STEPS_BUILD: a build configured with -DCMAKE_CXX_FLAGS=-DSEGCORE_SOLVER_STEP_COUNTS
#   (graph/solver_core.h): its request_bench, run natively, prints how many
#   growth node visits, augmentations and orphans (taken from the queue) the
#   band and grid solvers made. The step sequence is the same in every build
#   that passes the golden check, so one count serves them all.
# BUILD, BUILD2: ordinary builds (RelWithDebInfo: the attribution needs the
#   debug line tables). Each runs under callgrind (--separate-threads=yes
#   --dump-instr=yes, the library's clock reversed as in request_compare.sh),
#   the two at once. bench/maxflow_steps.py then maps every executed
#   instruction of the library through addr2line's inline chain to the band
#   or grid solver and to growth (serialLoop's active-node visits), augmentation
#   (augmentPath, pushHalf) or adoption (adoptOrphan and the orphan loop).
#   "caller" is processSegment's inclusive count on the calling thread: it
#   varies from run to run, as the band's separate pieces (and other sliced
#   passes) go to whichever thread takes them first; "all threads" is every
#   instruction of the run, the benchmark's set-up included. The band's
#   clock reads after each visit are kept apart ("clock"): they begin when
#   the limit's watcher wakes, after some seconds of real time.
#   With KEEP=dir in the environment the callgrind files are kept there.
#
# Every figure covers BM_Request's three requests; per request, divide by 3.
# The case defaults to 0:120 (coffee, 12 MP: about ten minutes per build).
set -eu
STEPS=$1
shift
BUILDS=
CASE=0:120
for a in "$@"; do
  case "$a" in
    *:*) CASE=$a ;;
    *) BUILDS="$BUILDS $a" ;;
  esac
done
HERE=$(cd "$(dirname "$0")" && pwd)
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
KEEP=${KEEP:-}
FILTER="BM_Request/photo:${CASE%%:*}/tenths_mp:${CASE##*:}/"

SEGCORE_BENCH_CLOCK_REVERSED=1 "$STEPS/bench/request_bench" --benchmark_filter="$FILTER" 2>&1 >/dev/null |
  grep '^solver steps band' >"$WORK/steps"
# "solver steps band: visits V augmentations A orphans O"
read -r _ _ _ _ VISITS _ AUGS _ ORPHANS <"$WORK/steps"

n=0
for b in $BUILDS; do
  n=$((n + 1))
  SEGCORE_BENCH_CLOCK_REVERSED=1 valgrind --tool=callgrind --separate-threads=yes --dump-instr=yes \
    --callgrind-out-file="$WORK/cg$n" "$b/bench/request_bench" --benchmark_filter="$FILTER" >/dev/null 2>&1 &
done
wait

echo "case $CASE, three requests: band visits $VISITS, augmentations $AUGS, orphans $ORPHANS"
n=0
for b in $BUILDS; do
  n=$((n + 1))
  src=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$b/CMakeCache.txt")
  lib=$(ls "$b"/libSegmentationCore*.so | head -1)
  python3 "$HERE/maxflow_steps.py" "$lib" "$src/graph/solver_core.h" "$WORK/cg$n"-* >"$WORK/split$n"
  if [ -n "$KEEP" ]; then
    mkdir -p "$KEEP"
    for file in "$WORK/cg$n"-*; do cp "$file" "$KEEP/$(basename "$b").${file##*/}"; done
  fi
  get() { awk -v a="$1" -v b="$2" '$1 == a && $2 == b {print $3}' "$WORK/split$n"; }
  g=$(get growth band)
  a=$(get augmentation band)
  o=$(get adoption band)
  k=$(get clock band)
  r=$(get other band)
  c=$(get caller processSegment)
  t=$(get all threads)
  echo "$b:"
  printf '  band growth       %13d  %7.1f per visit\n' "$g" "$(echo "$g $VISITS" | awk '{print $1 / $2}')"
  printf '  band augmentation %13d  %7.1f per augmentation\n' "$a" "$(echo "$a $AUGS" | awk '{print $1 / $2}')"
  printf '  band adoption     %13d  %7.1f per orphan\n' "$o" "$(echo "$o $ORPHANS" | awk '{print $1 / $2}')"
  printf '  band clock reads  %13d\n' "$k"
  printf '  band other        %13d\n' "$r"
  printf '  band solver total %13d\n' "$((g + a + o + k + r))"
  printf '  caller (processSegment, calling thread) %d, %d per request\n' "$c" "$((c / 3))"
  printf '  all threads %d\n' "$t"
done
