// The three trial cuts side by side.
//
// The trials start from the same initial labels and keep the models fitted
// for the first one; only the smoothness weight differs. Their terminal
// weights are therefore worked out once, and each trial is built and solved
// on a graph of its own by the serial solver: given the models, a trial's
// cut depends on nothing another trial does, so the labels are those of
// cutting one after the other. With one core (or when the memory for more
// graphs cannot be had) the trials run one after the other on the request's
// graph, still with the shared weights.

#include <memory>
#include <new>
#include <vector>

#include "engine/working_cuts.h"
#include "graph/solver_core.h"
#include "interface/veldse_marker.h"
#include "support/cpu_timer.h"
#include "support/owned.h"
#include "support/slices.h"
#include "support/veld_memory.h"

namespace workingcuts {

void (*g_trialStarts)(int trial) = nullptr;

namespace {

const int kTrials = 3;

// Whether a trial may be followed by the next: not after a cancel, nor once
// the request's ten seconds are spent (the driver abandons the request then,
// as after any cut). The timer is only read: workers may ask at once.
bool stopAfterTrial() {
  if (VELDSEMarker::m_exitApp.load(std::memory_order_relaxed)) return true;
  const CpuTimer* t = g_cancelTimer;
  if (t == nullptr) return false;
  return elapsedMsSoFar(t) > VELDSEGraph::TIME_LIMIT_MS;
}

// The weights of the trials, as the weight selection sets them for each
// (this leaves the last trial's weight and a copy of the initial labels in
// place, as before its cut in the one-at-a-time order); each trial writes its
// cut into a copy of the initial labels.
void prepareTrials(VELDSEHybrid& h, double lambdas[kTrials]) {
  lambdas[0] = h.m_lambda;
  for (int k = 1; k < kTrials; ++k) {
    h.parallelLamdaSwtich(k);
    lambdas[k] = h.m_lambda;
  }
  for (int k = 0; k < kTrials; ++k) h.m_iterLabel[k] = cloneImage(h.m_cropLabelInit);
}

// No room for the shared weights: each trial builds its own graph, as any
// other cut does.
void trialsOneAtATime(VELDSEHybrid& h, const double lambdas[kTrials], RecordedClusters* record,
                      const BoxPalette* palette) {
  for (int k = 0; k < kTrials; ++k) {
    h.m_lambda = lambdas[k];
    wholeBoxGraph(h, record, palette);
    if (g_trialStarts != nullptr) g_trialStarts(k);
    h.m_graph->maxFlow();
    writeCut(h.m_graph, h.m_iterLabel[k]);
    if (stopAfterTrial()) return;
  }
  cvCopy(h.m_iterLabel[kTrials - 1], h.m_cropLabel);
}

// Up to wanted - 1 graphs beside the request's own, made here so that no
// worker allocates; fewer (down to none) when memory runs short.
std::vector<std::unique_ptr<VELDSEGraph>> extraGraphs(int wanted, int width, int height) {
  const int n = width * height;
  std::vector<std::unique_ptr<VELDSEGraph>> extra;
  try {
    extra.reserve(static_cast<size_t>(wanted - 1));
  } catch (const std::bad_alloc&) {
  }
  while (static_cast<int>(extra.size()) + 1 < wanted && extra.capacity() > extra.size()) {
    std::unique_ptr<VELDSEGraph> g(new (std::nothrow) VELDSEGraph(n, 8 * n, width, height, 0));
    if (g == nullptr || g->m_nodes == nullptr || g->m_caps == nullptr) break;
    extra.push_back(std::move(g));
  }
  return extra;
}

// The trials in slices, one graph per slice (graphs[0 .. parts-1]), all
// filled from the shared weights.
void trialsSideBySide(VELDSEHybrid& h, VELDSEGraph* const graphs[kTrials], int parts, const float* weights,
                      const double lambdas[kTrials]) {
  std::vector<int> bounds;
  if (!slices::equalBounds(kTrials, parts, &bounds)) {
    bounds.clear();
  }
  // One time-limit watcher for all trials: with two workers and the calling
  // thread, four threads at most.
  const graphcore::LimitWatch limit;
  const auto run = [&](int t0, int t1) {
    // A slice's graph is the one of the slice it starts (a slice whose thread
    // could not be started runs on the calling thread with its own graph).
    int p = 0;
    while (p + 1 < static_cast<int>(bounds.size()) - 1 && bounds[static_cast<size_t>(p) + 1] <= t0) ++p;
    VELDSEGraph* g = graphs[p];
    for (int k = t0; k < t1; ++k) {
      fillGraph(h, g, weights, lambdas[k]);
      if (g_trialStarts != nullptr) g_trialStarts(k);
      g->maxFlow(limit);
      writeCut(g, h.m_iterLabel[k]);
      if (stopAfterTrial()) return;
    }
  };
  if (bounds.empty()) {
    run(0, kTrials);
  } else {
    slices::runSlices(bounds, run);
  }
  cvCopy(h.m_iterLabel[kTrials - 1], h.m_cropLabel);
}

}  // namespace

void trialCuts(VELDSEHybrid& h, RecordedClusters* record, const BoxPalette* palette) {
  const int width = h.m_boundWidth;
  const int height = h.m_boundHeight;
  const int n = width * height;
  double lambdas[kTrials];
  prepareTrials(h, lambdas);

  const owned::Tracked<float> pairs(static_cast<float*>(VELD_Malloc_Msg(
      static_cast<unsigned int>(8 * static_cast<unsigned long>(n > 0 ? n : 1)), "trialCuts", 88)));
  if (pairs.get() == nullptr) {
    trialsOneAtATime(h, lambdas, record, palette);
    return;
  }
  terminalWeights(h, h.m_cropLabelInit, pairs.get(), record, palette);

  // One graph per slice of trials: the request's own and, with the cores for
  // it, up to two more.
  const int wanted = slices::partsFor(kTrials, static_cast<long>(n) >= slices::parallelItems());
  const std::vector<std::unique_ptr<VELDSEGraph>> extra = extraGraphs(wanted, width, height);
  const int parts = 1 + static_cast<int>(extra.size());
  VELDSEGraph* graphs[kTrials] = {h.m_graph, nullptr, nullptr};
  for (int p = 1; p < parts; ++p) graphs[p] = extra[static_cast<size_t>(p - 1)].get();
  trialsSideBySide(h, graphs, parts, pairs.get(), lambdas);
}

}  // namespace workingcuts
