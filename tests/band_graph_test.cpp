// Band graph: the grid graph over a subset of its pixels must solve exactly as
// the full grid does when every other pixel is isolated (no terminal link, all
// its pairs absent) - same trees, same residual capacities, same flow, bit for
// bit - since the full-resolution re-cut relies on it to leave its masks
// unchanged. Checked on random grids with random fixed pixels (from none to
// nearly all, one-pixel rows and columns included), and on large bands in
// separate pieces, which are solved side by side.
#include "graph/band_graph.h"
#include "graph/veldse_graph.h"
#include "tests/maxflow_reference.h"
#include "tests/test_support.h"

namespace {

using maxflow_reference::earlierNeighbour;
using maxflow_reference::GridCase;
using maxflow_reference::randomGrid;
using maxflow_reference::TerminalCall;

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

// Solves gc on the full grid and on the band of non-fixed pixels and expects
// every observable of the band's nodes to agree exactly.
void expectSameSolve(const GridCase& gc, const std::vector<bool>& fixed) {
  const int n = gc.w * gc.h;
  VELDSEGraph grid(n, 8 * n, gc.w, gc.h, 0);
  grid.reset();
  maxflow_reference::build(gc, &grid);
  const float gridFlow = grid.maxFlow();

  std::vector<int> index(n, -1), pixel;
  for (int p = 0; p < n; ++p)
    if (!fixed[p]) index[p] = static_cast<int>(pixel.size()), pixel.push_back(p);
  const int m = static_cast<int>(pixel.size());
  VELDSEGraph* band = createBandGraph(m, gc.w, gc.h);
  ASSERT_TRUE(band->m_nodes != nullptr && band->m_caps != nullptr);
  band->reset();
  band->addNode(m);
  for (int i = 0; i < m; ++i) {
    int earlier[4];
    for (int k = 0, j; k < 4; ++k) earlier[k] = (j = earlierNeighbour(gc.w, pixel[i], k)) < 0 ? -1 : index[j];
    setBandNeighbours(band, i, earlier[0], earlier[1], earlier[2], earlier[3]);
    for (int k = 0, a = 4 * pixel[i]; k < 4; ++k, ++a)
      band->addEdge(i, earlier[k], static_cast<float>(gc.cap[a]), static_cast<float>(gc.revCap[a]), gc.absent[a]);
  }
  for (int i = 0; i < m; ++i)
    for (const TerminalCall& t : gc.terminals[pixel[i]])
      band->addtWeights(i, static_cast<float>(t.source), static_cast<float>(t.sink));
  EXPECT_EQ(bandMaxFlow(band), gridFlow);
  for (int i = 0; i < m; ++i) {
    const nodes& b = band->m_nodes[i];
    const nodes& g = grid.m_nodes[pixel[i]];
    SCOPED_TRACE("pixel " + std::to_string(pixel[i]));
    ASSERT_EQ(band->getTreeofNode(i), grid.getTreeofNode(pixel[i]));
    ASSERT_EQ(b.tree, g.tree);
    ASSERT_EQ(b.trCap, g.trCap);
    ASSERT_EQ(b.parent < 0 ? b.parent : 0, g.parent < 0 ? g.parent : 0);
    for (int s = 0; s < 8; ++s) ASSERT_EQ(band->m_caps[8 * i + s], grid.m_caps[8 * pixel[i] + s]) << "slot " << s;
  }
  // Later neighbours are found through the table written for earlier ones.
  for (int i = 0; i < m; ++i)
    for (int k = 0, j; k < 4; ++k)
      if ((j = bandNeighbour(band, i, k)) >= 0) { ASSERT_EQ(bandNeighbour(band, j, k + 4), i); }
  delete band;
}

TEST(BandGraph, RandomGridsSolveAsTheFullGrid) {
  std::mt19937 rng(20261123);
  auto uni = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  for (int round = 0; round < 1500; ++round) {
    const int w = uni(1, 18), h = uni(1, 18);
    const GridCase base = randomGrid(&rng, w, h);
    const int fixedPct = round % 5 == 0 ? 0 : uni(5, 90);
    std::vector<bool> fixed(w * h);
    for (int p = 0; p < w * h; ++p) fixed[p] = uni(1, 100) <= fixedPct;
    SCOPED_TRACE(testing::Message() << "round " << round << ", " << w << "x" << h);
    expectSameSolve(isolate(base, fixed), fixed);
    if (HasFatalFailure()) return;
  }
}

// Large enough for its separate pieces to be solved on threads of their own.
TEST(BandGraph, LargeBandInPiecesSolvesAsTheFullGrid) {
  std::mt19937 rng(11);
  for (int fixedEvery : {120, 7}) {
    SCOPED_TRACE("fixed column every " + std::to_string(fixedEvery));
    const int w = 600, h = 400;
    const GridCase base = randomGrid(&rng, w, h);
    std::vector<bool> fixed(w * h);
    for (int p = 0; p < w * h; ++p) fixed[p] = (p % w) % fixedEvery == fixedEvery - 1 || rng() % 20 == 0;
    expectSameSolve(isolate(base, fixed), fixed);
  }
}

}  // namespace
