// Block-parallel max-flow against the serial solver on the same graphs
// (bench/graph_fixtures.h): the 320 x 240 working-image graph (lambda 50) and
// the full-resolution band graphs of 3 MP (2000 x 1500) and 12 MP
// (4000 x 3000).
//
// Args: graph (0 = 320x240, 1 = 3 MP, 2 = 12 MP), threads (1 = serial).
// Time is wall-clock time, CPU is the whole process's CPU time (all solver
// threads). Each iteration restores the graph as built (not timed). Counters:
// side_mismatch = nodes whose side differs from the serial cut (0 expected),
// flow = the graph's flow field after the cut.
//
// BM_ParallelCriticalPath runs the same phases one after another on one
// thread and times every piece in thread CPU time (robust on a shared
// machine): the id and partition work, each block's solve, each merge. From
// that it estimates the wall time on as many free cores as threads:
// est_wall_ms = (ids + partition) / n + slowest block + the slowest merge of
// every round; total_cpu_ms is the sum of all pieces; serial_cpu_ms is the
// serial solver's CPU time on the same graph.
//
// g_cancelTimer stays null here: the solver writes that timer on every check,
// which several threads must not do at once.
#include <benchmark/benchmark.h>

#include <time.h>

#include <algorithm>
#include <vector>

#include "bench/graph_fixtures.h"
#include "graph/parallel_gc.h"
#include "graph/veldse_graph.h"
#include "interface/veldse_marker.h"

namespace {

using graph_fixtures::buildBand;
using graph_fixtures::buildWholeImage;
using graph_fixtures::BuiltGraph;

struct Fixture {
  BuiltGraph built;
  std::vector<int> serialSides;  // getTreeofNode per node after a serial cut
};

Fixture* fixture(int id) {
  static Fixture fixtures[3];
  Fixture& f = fixtures[id];
  if (f.built.graph) return &f;
  if (id == 0) f.built = buildWholeImage(50.0);
  if (id == 1) f.built = buildBand(2000, 1500);
  if (id == 2) f.built = buildBand(4000, 3000);
  if (!f.built.graph) return &f;
  VELDSEGraph& g = *f.built.graph;
  g.m_threads = 0;
  g.maxFlow();
  f.serialSides.resize(g.m_nodeCount);
  for (int i = 0; i < g.m_nodeCount; ++i) f.serialSides[i] = g.getTreeofNode(i);
  f.built.restore();
  return &f;
}

void BM_ParallelMaxFlow(benchmark::State& state) {
  Fixture* f = fixture(static_cast<int>(state.range(0)));
  const int threads = static_cast<int>(state.range(1));
  if (!f->built.graph) {
    state.SkipWithError("samples/coffee.png not readable");
    return;
  }
  VELDSEGraph& g = *f->built.graph;
  for (auto _ : state) {
    state.PauseTiming();
    f->built.restore();
    g.m_threads = threads;
    VELDSEMarker::m_exitApp = false;
    state.ResumeTiming();
    benchmark::DoNotOptimize(g.maxFlow());
  }
  int mismatch = 0;
  for (int i = 0; i < g.m_nodeCount; ++i) mismatch += g.getTreeofNode(i) != f->serialSides[i];
  state.counters["side_mismatch"] = mismatch;
  state.counters["flow"] = g.m_flow;
  state.counters["nodes"] = g.m_nodeCount;
  g.m_threads = 0;
  f->built.restore();
}

double threadCpuMs() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return ts.tv_sec * 1e3 + ts.tv_nsec * 1e-6;
}

void BM_ParallelCriticalPath(benchmark::State& state) {
  Fixture* f = fixture(static_cast<int>(state.range(0)));
  const int n = static_cast<int>(state.range(1));
  if (!f->built.graph) {
    state.SkipWithError("samples/coffee.png not readable");
    return;
  }
  VELDSEGraph& g = *f->built.graph;
  double serial = 0.0, split = 0.0, blockMax = 0.0, mergePath = 0.0, total = 0.0;
  int rounds = 0;
  for (auto _ : state) {
    f->built.restore();
    VELDSEMarker::m_exitApp = false;
    double t = threadCpuMs();
    g.maxFlow();
    serial = threadCpuMs() - t;
    f->built.restore();

    ParallelGC pgc(&g, n);
    t = threadCpuMs();
    for (int by = 0; by < pgc.m_blockRows; ++by) {
      for (int bx = 0; bx < pgc.m_blockCols; ++bx) pgc.AssignIDs(by, bx);
    }
    for (int by = 0; by < pgc.m_blockRows; ++by) {
      for (int bx = 0; bx < pgc.m_blockCols; ++bx) pgc.PartitionGraph(by, bx);
    }
    split = threadCpuMs() - t;
    total = split;
    blockMax = 0.0;
    for (int k = 0; k < n; ++k) {
      t = threadCpuMs();
      pgc.m_blockGraphs[k]->InitBlock();
      pgc.m_blockGraphs[k]->maxFlowSerialCall();
      const double ms = threadCpuMs() - t;
      blockMax = std::max(blockMax, ms);
      total += ms;
    }
    mergePath = 0.0;
    rounds = 0;
    for (int remaining = n; remaining >= 2;) {
      std::vector<int> started;
      std::fill(pgc.m_busy, pgc.m_busy + n, 0);
      double roundMax = 0.0;
      for (blockEdges* p : pgc.m_pairs) {
        if (pgc.m_busy[p->first] || pgc.m_busy[p->second]) continue;
        pgc.m_busy[p->first] = pgc.m_busy[p->second] = 1;
        started.push_back(p->first);
        started.push_back(p->second);
      }
      if (started.empty()) break;
      for (size_t k = 0; k < started.size(); k += 2) {
        t = threadCpuMs();
        pgc.m_blockGraphs[pgc.MergeBlocks(started[k], started[k + 1])]->maxFlowSerialCall();
        const double ms = threadCpuMs() - t;
        roundMax = std::max(roundMax, ms);
        total += ms;
      }
      for (size_t k = 0; k < started.size(); k += 2) pgc.MakeNeighbourChanges(started[k], started[k + 1]);
      remaining -= static_cast<int>(started.size() / 2);
      mergePath += roundMax;
      ++rounds;
    }
  }
  int mismatch = 0;
  for (int i = 0; i < g.m_nodeCount; ++i) mismatch += g.getTreeofNode(i) != f->serialSides[i];
  state.counters["side_mismatch"] = mismatch;
  state.counters["serial_cpu_ms"] = serial;
  state.counters["total_cpu_ms"] = total;
  state.counters["split_ms"] = split;
  state.counters["block_max_ms"] = blockMax;
  state.counters["merge_path_ms"] = mergePath;
  state.counters["rounds"] = rounds;
  state.counters["est_wall_ms"] = split / n + blockMax + mergePath;
  f->built.restore();
}

BENCHMARK(BM_ParallelCriticalPath)
    ->ArgNames({"graph", "threads"})
    ->Args({0, 2})->Args({0, 4})->Args({1, 2})->Args({1, 4})->Args({2, 2})->Args({2, 4})
    ->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(3);

BENCHMARK(BM_ParallelMaxFlow)
    ->ArgNames({"graph", "threads"})
    ->Args({0, 1})->Args({0, 2})->Args({0, 4})
    ->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime()
    ->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_ParallelMaxFlow)
    ->ArgNames({"graph", "threads"})
    ->Args({1, 1})->Args({1, 2})->Args({1, 4})
    ->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime()
    ->Iterations(3)->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK(BM_ParallelMaxFlow)
    ->ArgNames({"graph", "threads"})
    ->Args({2, 1})->Args({2, 2})->Args({2, 4})
    ->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime()
    ->Iterations(2)->Repetitions(3)->ReportAggregatesOnly(true);

}  // namespace
