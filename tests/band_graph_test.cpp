// Band graph: the grid graph over a subset of its pixels must solve exactly as
// the full grid does when every other pixel is isolated (no terminal link, all
// its pairs absent) - same trees, same residual capacities, same flow, bit for
// bit - since the full-resolution re-cut relies on it to leave its masks
// unchanged. Checked on random grids with random fixed pixels (from none to
// nearly all, one-pixel rows and columns included), on large bands in
// separate pieces, which are solved side by side, and with terminal weights
// that are not finite: a band colour that neither model can produce gets
// +inf on both links, so its terminal capacity is NaN, and such a node must
// start free in the band exactly as it does in the grid.
#include "graph/band_graph.h"
#include "graph/veldse_graph.h"
#include "interface/veldse_marker.h"
#include "tests/maxflow_reference.h"
#include "tests/test_support.h"

#include <limits>
#include <utility>

namespace {

using maxflow_reference::earlierNeighbour;
using maxflow_reference::GridCase;
using maxflow_reference::randomGrid;
using maxflow_reference::TerminalCall;

const float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();

// addtWeights calls per node, in float (so that they may be infinite or NaN).
using Terminals = std::vector<std::vector<std::pair<float, float>>>;

Terminals floatTerminals(const GridCase& gc) {
  Terminals t(gc.terminals.size());
  for (size_t i = 0; i < t.size(); ++i)
    for (const TerminalCall& c : gc.terminals[i])
      t[i].push_back({static_cast<float>(c.source), static_cast<float>(c.sink)});
  return t;
}

// Equal, or both NaN: a NaN terminal capacity must stay NaN in both solvers.
bool sameFloat(float a, float b) { return (std::isnan(a) && std::isnan(b)) || a == b; }

// gc with the pixels marked in `fixed` isolated, as the re-cut's fixed pixels
// are in the full grid.
GridCase isolate(GridCase gc, const std::vector<bool>& fixed) {
  for (int i = 0; i < gc.w * gc.h; ++i) {
    if (fixed[i]) gc.terminals[i].clear();
    for (int k = 0; k < 4; ++k) {
      const int j = earlierNeighbour(gc.w, i, k);
      if (fixed[i] || (j >= 0 && fixed[j])) gc.absent[4 * i + k] = true;
    }
  }
  return gc;
}

// The grid of gc (its terminal calls replaced by `terminals`) and the band of
// its non-fixed pixels, built and solved. With `initOnly` both solvers are
// asked to stop before their first visit (the cancel flag is set), so what
// is compared is the tree initialisation alone.
struct Solved {
  VELDSEGraph grid;
  VELDSEGraph* band = nullptr;
  std::vector<int> pixel;  // band node -> grid node
  float gridFlow = 0.0f, bandFlow = 0.0f;
  explicit Solved(int n, int w, int h) : grid(n, 8 * n, w, h, 0) {}
  ~Solved() { delete band; }
  Solved(const Solved&) = delete;
  Solved& operator=(const Solved&) = delete;
};

void solveBoth(const GridCase& gc, const Terminals& terminals, const std::vector<bool>& fixed, bool initOnly,
               Solved* out) {
  const int n = gc.w * gc.h;
  GridCase edgesOnly = gc;
  for (auto& t : edgesOnly.terminals) t.clear();
  out->grid.reset();
  maxflow_reference::build(edgesOnly, &out->grid);
  for (int i = 0; i < n; ++i)
    for (const auto& t : terminals[i]) out->grid.addtWeights(i, t.first, t.second);

  std::vector<int> index(n, -1);
  std::vector<int>& pixel = out->pixel;
  for (int p = 0; p < n; ++p) {
    if (fixed[p]) continue;
    index[p] = static_cast<int>(pixel.size());
    pixel.push_back(p);
  }
  const int m = static_cast<int>(pixel.size());
  out->band = createBandGraph(m, gc.w, gc.h);
  VELDSEGraph* band = out->band;
  ASSERT_TRUE(band->m_nodes != nullptr && band->m_caps != nullptr);
  band->reset();
  band->addNode(m);
  for (int i = 0; i < m; ++i) {
    int earlier[4];
    for (int k = 0, j; k < 4; ++k) earlier[k] = (j = earlierNeighbour(gc.w, pixel[i], k)) < 0 ? -1 : index[j];
    setBandNeighbours(band, i, earlier[0], earlier[1], earlier[2], earlier[3]);
    for (int k = 0, a = 4 * pixel[i]; k < 4; ++k, ++a)
      band->addEdge(i, earlier[k], static_cast<float>(gc.cap[a]), static_cast<float>(gc.revCap[a]),
                    gc.absent[a]);
  }
  for (int i = 0; i < m; ++i)
    for (const auto& t : terminals[pixel[i]]) band->addtWeights(i, t.first, t.second);

  VELDSEMarker::m_exitApp = initOnly;
  out->gridFlow = out->grid.maxFlow();
  out->bandFlow = bandMaxFlow(band);
  VELDSEMarker::m_exitApp = false;
}

// Solves on the full grid and on the band of non-fixed pixels and expects
// every observable of the band's nodes to agree exactly.
void expectSameSolve(const GridCase& gc, const Terminals& terminals, const std::vector<bool>& fixed) {
  Solved s(gc.w * gc.h, gc.w, gc.h);
  solveBoth(gc, terminals, fixed, false, &s);
  if (testing::Test::HasFatalFailure()) return;
  const VELDSEGraph* band = s.band;
  EXPECT_TRUE(sameFloat(s.bandFlow, s.gridFlow)) << s.bandFlow << " against " << s.gridFlow;
  const int m = static_cast<int>(s.pixel.size());
  for (int i = 0; i < m; ++i) {
    const nodes& b = band->m_nodes[i];
    const nodes& g = s.grid.m_nodes[s.pixel[i]];
    SCOPED_TRACE("pixel " + std::to_string(s.pixel[i]));
    ASSERT_EQ(s.band->getTreeofNode(i), s.grid.getTreeofNode(s.pixel[i]));
    ASSERT_EQ(b.tree, g.tree);
    ASSERT_TRUE(sameFloat(b.trCap, g.trCap)) << b.trCap << " against " << g.trCap;
    ASSERT_EQ(b.parent < 0 ? b.parent : 0, g.parent < 0 ? g.parent : 0);
    for (int slot = 0; slot < 8; ++slot)
      ASSERT_EQ(band->m_caps[8 * i + slot], s.grid.m_caps[8 * s.pixel[i] + slot]) << "slot " << slot;
  }
  // Later neighbours are found through the table written for earlier ones.
  for (int i = 0; i < m; ++i)
    for (int k = 0, j; k < 4; ++k)
      if ((j = bandNeighbour(band, i, k)) >= 0) {
        ASSERT_EQ(bandNeighbour(band, j, k + 4), i);
      }
}

// Random terminal calls with a share of non-finite ones: +inf on both links
// (NaN, as a colour both models rule out), +inf on one link (an infinite
// capacity of either sign), and NaN handed in directly. Fixed pixels keep
// none, as in the re-cut.
Terminals withNonFinite(const GridCase& gc, const std::vector<bool>& fixed, std::mt19937* rng, int percent) {
  auto uni = [rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(*rng); };
  Terminals t = floatTerminals(gc);
  for (size_t p = 0; p < t.size(); ++p) {
    std::vector<std::pair<float, float>>& calls = t[p];
    if (fixed[p]) {
      calls.clear();
      continue;
    }
    if (uni(1, 100) > percent) continue;
    const float finite = static_cast<float>(uni(-5, 25));
    const std::pair<float, float> kinds[4] = {{kInf, kInf}, {kInf, finite}, {finite, kInf}, {kNaN, finite}};
    const int kind = uni(0, 4);
    if (kind < 4) {
      calls.push_back(kinds[kind]);
    } else {
      calls.insert(calls.begin(), {kInf, kInf});  // NaN first, then a finite call
    }
  }
  return t;
}

// Small random grids, with terminal weights all finite and with a share of
// non-finite ones.
TEST(BandGraph, RandomGridsSolveAsTheFullGrid) {
  const struct {
    const char* name;
    unsigned seed;
    int rounds, unfixedEvery, maxFixedPct;  // every unfixedEvery-th round has no fixed pixel
    bool nonFinite;
  } kinds[] = {{"finite", 20261123, 1500, 5, 90, false}, {"non-finite", 230, 600, 4, 80, true}};
  for (const auto& kind : kinds) {
    std::mt19937 rng(kind.seed);
    auto uni = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    for (int round = 0; round < kind.rounds; ++round) {
      const int w = uni(1, 18), h = uni(1, 18);
      const GridCase base = randomGrid(&rng, w, h);
      const int fixedPct = round % kind.unfixedEvery == 0 ? 0 : uni(5, kind.maxFixedPct);
      std::vector<bool> fixed(w * h);
      for (int p = 0; p < w * h; ++p) fixed[p] = uni(1, 100) <= fixedPct;
      const GridCase gc = isolate(base, fixed);
      SCOPED_TRACE(testing::Message() << kind.name << " round " << round << ", " << w << "x" << h);
      const Terminals terminals =
          kind.nonFinite ? withNonFinite(gc, fixed, &rng, uni(5, 60)) : floatTerminals(gc);
      expectSameSolve(gc, terminals, fixed);
      if (HasFatalFailure()) return;
    }
  }
}

// Large enough for its separate pieces to be solved on threads of their own.
TEST(BandGraph, LargeBandInPiecesSolvesAsTheFullGrid) {
  std::mt19937 rng(11);
  const struct {
    int fixedEvery;  // a fixed column every fixedEvery columns, besides 1 pixel in 20
    int nonFinitePct;
  } bands[] = {{120, 0}, {7, 0}, {50, 5}};
  for (const auto& band : bands) {
    SCOPED_TRACE(testing::Message() << "fixed column every " << band.fixedEvery << ", " << band.nonFinitePct
                                    << "% non-finite terminal weights");
    const int w = 600, h = 400;
    const GridCase base = randomGrid(&rng, w, h);
    std::vector<bool> fixed(w * h);
    for (int p = 0; p < w * h; ++p)
      fixed[p] = (p % w) % band.fixedEvery == band.fixedEvery - 1 || rng() % 20 == 0;
    const GridCase gc = isolate(base, fixed);
    expectSameSolve(gc, withNonFinite(gc, fixed, &rng, band.nonFinitePct), fixed);
  }
}

// A band two pixels wide down the side of a tall box, fed at its two ends:
// the trees meet in the middle, and each half of an augmenting path runs
// past the 1024 slots the augmentation records on its first pass, so the
// push walks the parent chains a second time.
TEST(BandGraph, LongPathsSolveAsTheFullGrid) {
  std::mt19937 rng(29);
  const int w = 6, h = 2600;
  GridCase gc = maxflow_reference::fullGrid(w, h, 0);
  std::uniform_int_distribution<int> capacity(1, 9);
  for (int p = 0; p < 4 * w * h; ++p) {
    if (gc.absent[p]) continue;
    gc.cap[p] = capacity(rng);
    gc.revCap[p] = capacity(rng);
  }
  std::vector<bool> fixed(w * h);
  for (int p = 0; p < w * h; ++p) fixed[p] = p % w >= 2;  // band: columns 0 and 1
  gc.terminals[0] = {{60, 0}};
  gc.terminals[w * (h - 1) + 1] = {{0, 60}};
  const GridCase band = isolate(gc, fixed);
  expectSameSolve(band, floatTerminals(band), fixed);
}

// Three nodes in a row joined by links of 2 both ways: a colour both models
// rule out (+inf on both links: NaN), one that only the object model allows
// (+inf from the source: trCap +inf) and one that only the background model
// allows (+inf to the sink: trCap -inf).
TEST(BandGraph, NonFiniteTerminalsWorkedExample) {
  GridCase gc = maxflow_reference::fullGrid(3, 1, 2);
  const Terminals terminals = {{{kInf, kInf}}, {{kInf, 0.0f}}, {{0.0f, kInf}}};
  const std::vector<bool> none(3, false);
  {
    // Start: NaN free, +inf source, -inf sink.
    Solved s(3, 3, 1);
    solveBoth(gc, terminals, none, true, &s);
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_TRUE(std::isnan(s.band->m_nodes[0].trCap));
    const int expected[3] = {VELDSEGraph::FREE_TREE, VELDSEGraph::SOURCE_TREE, VELDSEGraph::SINK_TREE};
    for (int i = 0; i < 3; ++i) {
      SCOPED_TRACE(i);
      EXPECT_EQ(s.grid.m_nodes[i].tree, expected[i]);
      EXPECT_EQ(s.band->m_nodes[i].tree, expected[i]);
    }
  }
  // Solved: the middle node pushes 2 into the sink node and grows into the
  // free NaN node, which thus ends on the object side. Had the NaN node
  // started in the sink tree, the middle node would have reached the sink
  // through it first and it would end on the background side.
  Solved s(3, 3, 1);
  solveBoth(gc, terminals, none, false, &s);
  ASSERT_FALSE(HasFatalFailure());
  const int side[3] = {0, 0, 1};
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(s.grid.getTreeofNode(i), side[i]);
    EXPECT_EQ(s.band->getTreeofNode(i), side[i]);
  }
  // The pair of nodes 1 and 2 is stored at node 2: 2 -> 1 took the 2 back,
  // 1 -> 2 is saturated; 0 and 1 carried nothing.
  EXPECT_EQ(s.band->m_caps[8 * 2 + 0], 4.0f);
  EXPECT_EQ(s.band->m_caps[8 * 2 + 1], 0.0f);
  EXPECT_EQ(s.band->m_caps[8 * 1 + 0], 2.0f);
  EXPECT_EQ(s.band->m_caps[8 * 1 + 1], 2.0f);
  expectSameSolve(gc, terminals, none);
}

}  // namespace
