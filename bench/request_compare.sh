#!/bin/sh
# Before and after, in one run: BM_Request of two builds of request_bench (for
# example today's main and a branch), side by side.
#
#   bench/request_compare.sh time  BEFORE_BUILD AFTER_BUILD [rounds] [cases]
#   bench/request_compare.sh count BEFORE_BUILD AFTER_BUILD [cases]
#
# cases: "photo:tenths_mp" pairs (photo 0 coffee, 1 189080, 2 person1; tenths
# of a megapixel), default "0:3 2:3 1:3 0:120 2:120 1:120".
#
# time:  rounds x (before, after) for every case, the two binaries taking
#        turns so that a change in the machine's load hits both; each run is
#        BM_Request's three requests. Prints the median wall time per request
#        of each build and their ratio, and the same for the CPU time of the
#        calling thread (Google Benchmark's cpu_time). Other work on the machine still shows:
#        note the load average printed with the table.
# count: instructions per request under callgrind (--separate-threads=yes):
#        on the calling thread inside processSegment ("caller"), and that
#        plus every thread the request starts ("total"), the mean of the
#        three requests. Slow: a few minutes per 0.3 MP case, half an hour
#        per 12 MP one.
set -eu
MODE=$1
BEFORE=$2
AFTER=$3
shift 3
if [ "$MODE" = time ]; then
  ROUNDS=${1:-5}
  [ $# -gt 0 ] && shift
fi
CASES=${*:-"0:3 2:3 1:3 0:120 2:120 1:120"}
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT

filter() { echo "BM_Request/photo:${1%%:*}/tenths_mp:${1##*:}/"; }

median() { sort -g | awk '{v[NR]=$1} END {if (NR % 2) print v[(NR+1)/2]; else print (v[NR/2]+v[NR/2+1])/2}'; }

if [ "$MODE" = time ]; then
  echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"
  for c in $CASES; do
    f=$(filter "$c")
    : >"$WORK/before" ; : >"$WORK/after"
    r=0
    while [ $r -lt "$ROUNDS" ]; do
      for side in before after; do
        if [ $side = before ]; then b=$BEFORE; else b=$AFTER; fi
        "$b/bench/request_bench" --benchmark_filter="$f" --benchmark_format=csv 2>/dev/null |
          awk -F, -v f="$f" 'index($1, f) {print $3, $4}' >>"$WORK/$side"
      done
      r=$((r + 1))
    done
    mb=$(cut -d' ' -f1 "$WORK/before" | median)
    ma=$(cut -d' ' -f1 "$WORK/after" | median)
    cb=$(cut -d' ' -f2 "$WORK/before" | median)
    ca=$(cut -d' ' -f2 "$WORK/after" | median)
    printf '%-8s wall %8.1f -> %8.1f ms (%.3f)   calling thread cpu %8.1f -> %8.1f ms (%.3f)\n' "$c" "$mb" "$ma" \
      "$(echo "$ma $mb" | awk '{print $1 / $2}')" "$cb" "$ca" "$(echo "$ca $cb" | awk '{print $1 / $2}')"
  done
  echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"
  exit 0
fi

# One callgrind run (--separate-threads=yes) of the benchmark matching $2 of
# build $1, written to $WORK/$3 as "thread-1 other-threads" instruction
# counts; with $4 = toggle only processSegment is collected (and then on the
# calling thread alone: a thread's own stack never enters it).
countRun() {
  out=$WORK/cg.$3
  toggle=
  [ "${4:-}" = toggle ] && toggle="--demangle=no --toggle-collect=_Z14processSegmentiiiPjPh"
  # shellcheck disable=SC2086
  # The library's clock runs backwards (see request_bench.cpp): under
  # callgrind a request would otherwise run into its ten-second budget.
  SEGCORE_BENCH_CLOCK_REVERSED=1 valgrind --tool=callgrind --separate-threads=yes $toggle --callgrind-out-file="$out" \
    "$1/bench/request_bench" --benchmark_filter="$2" >/dev/null 2>&1
  main=0
  others=0
  for file in "$out"-*; do
    n=$(awk '/^(summary|totals):/ {print $2; exit}' "$file")
    case "$file" in
      *-01) main=${n:-0} ;;
      *) others=$((others + ${n:-0})) ;;
    esac
  done
  rm -f "$out" "$out"-*
  echo "$main $others" >"$WORK/$3"
}

# Per request (BM_Request makes three): caller = processSegment on the
# calling thread (collected only inside it); total = caller + every other
# thread of BM_Request less the other threads of its set-up alone
# (BM_RequestSetUp: the photo's conversion in slices on large photos, the
# history's page touching). Two runs at a time.
for c in $CASES; do
  f="photo:${c%%:*}/tenths_mp:${c##*:}/"
  for side in before after; do
    if [ $side = before ]; then b=$BEFORE; else b=$AFTER; fi
    countRun "$b" "BM_Request/$f" "$side.caller" toggle &
    countRun "$b" "BM_Request/$f" "$side.request" &
    wait
    countRun "$b" "BM_RequestSetUp/$f" "$side.setup"
    read -r caller _ <"$WORK/$side.caller"
    read -r _ w1 <"$WORK/$side.request"
    read -r _ w0 <"$WORK/$side.setup"
    echo "$((caller / 3)) $(((caller + w1 - w0) / 3))" >"$WORK/$side.counts"
  done
  read -r cb tb <"$WORK/before.counts"
  read -r ca ta <"$WORK/after.counts"
  printf '%-10s caller %14d -> %14d (%.3f)   total %14d -> %14d (%.3f)\n' "$c" "$cb" "$ca" \
    "$(echo "$ca $cb" | awk '{print $1 / $2}')" "$tb" "$ta" "$(echo "$ta $tb" | awk '{print $1 / $2}')"
done
