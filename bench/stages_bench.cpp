// The stages of a request, timed inside the real pipeline.
//
// This program links its own build of the engine and the interface with the
// stage marks compiled in (support/stage_marks.h, SEGCORE_STAGE_MARKS) and
// defines the function the marks call: each mark ends the running stage and
// starts the next, so the stages are the request's own code paths - the
// trial cuts side by side, the cuts after them, the re-cut - not a copy.
//
// BM_RequestStages makes request_bench's BM_Request (the rectangle on
// photo 0 coffee, 1 189080 or 2 person1, at 0.3, 3 and 12 megapixels) and
// reports per request, in milliseconds:
//   reduce_weights  setSourceImage + initSegmentationEngine (working image,
//                   grey test, neighbour weights, the history's planes)
//   labels_box ... output   the stages of processSegment (support/stage_marks.h)
//   request         processSegment, timed around the call
//   unmarked        request less the stages: the call's entry and checks up
//                   to the first mark; a large value means a stage of the
//                   pipeline has lost its mark.
#include <benchmark/benchmark.h>

#include <chrono>
#include <vector>

#include "bench/bench_photos.h"
#include "support/stage_marks.h"

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point t0) { return std::chrono::duration<double, std::milli>(Clock::now() - t0).count(); }

// The running stage and since when; kDone is not timed. Marks are passed on
// the request's calling thread only.
stagemarks::Stage g_current = stagemarks::kDone;
Clock::time_point g_since;
double g_ms[stagemarks::kStages] = {};

}  // namespace

void stagemarks::reached(Stage next) {
  const Clock::time_point now = Clock::now();
  if (g_current != kDone) g_ms[g_current] += std::chrono::duration<double, std::milli>(now - g_since).count();
  g_current = next;
  g_since = now;
}

namespace {

void BM_RequestStages(benchmark::State& state) {
  const benchphotos::Photo* named = benchphotos::photoArg(state);
  if (named == nullptr) return;
  const benchphotos::Photo& p = *named;
  benchphotos::RequestBuffers b;
  std::vector<unsigned char> mask(p.argb.size());
  double reduceMs = 0.0;
  double requestMs = 0.0;
  std::fill(g_ms, g_ms + stagemarks::kStages, 0.0);
  for (auto _ : state) {
    state.PauseTiming();
    benchphotos::prepareRequest(p, &b);
    state.ResumeTiming();
    const Clock::time_point t0 = Clock::now();
    setSourceImage(p.width, p.height, b.photo.data());
    initSegmentationEngine(0);
    reduceMs += msSince(t0);
    setCurrentMarkerVector(static_cast<int>(b.border.size()), b.border.data());
    setMarkerImage(p.width, p.height, b.grid.data(), 0);
    const Clock::time_point t1 = Clock::now();
    processSegment(0, 0, 0, b.preview.data(), mask.data());
    stagemarks::reached(stagemarks::kDone);
    requestMs += msSince(t1);
  }
  deinitSegmentation();
  const char* names[stagemarks::kStages] = {"labels_box", "colour_models", "trial_cuts", "graph_build", "maxflow",
                                            "recut", "post_process", "history", "output", nullptr};
  double stages = 0.0;
  for (int s = 0; s < stagemarks::kDone; ++s) {
    state.counters[names[s]] = benchmark::Counter(g_ms[s], benchmark::Counter::kAvgIterations);
    stages += g_ms[s];
  }
  state.counters["reduce_weights"] = benchmark::Counter(reduceMs, benchmark::Counter::kAvgIterations);
  state.counters["request"] = benchmark::Counter(requestMs, benchmark::Counter::kAvgIterations);
  state.counters["unmarked"] = benchmark::Counter(requestMs - stages, benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_RequestStages)
    ->ArgsProduct({{0, 1, 2}, {3, 30, 120}})
    ->ArgNames({"photo", "tenths_mp"})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

}  // namespace
