// Grid graph and serial max-flow: worked cases, adoption rules, cancel and
// time-out, and a randomized cross-check against Dinic's algorithm over an
// explicit edge list.
#include "graph/solver_core.h"
#include "graph/veldse_graph.h"
#include "interface/veldse_marker.h"
#include "support/cpu_timer.h"
#include "tests/maxflow_reference.h"
#include "tests/test_support.h"

#include <cmath>
#include <limits>
#include <vector>

namespace {

using maxflow_reference::build;
using maxflow_reference::emptyGrid;
using maxflow_reference::expectSameCut;
using maxflow_reference::fullGrid;
using maxflow_reference::GridCase;
using maxflow_reference::setEdge;

const int T = VELDSEGraph::TERMINAL, O = VELDSEGraph::NONE;
const int SRC = VELDSEGraph::SOURCE_TREE, SNK = VELDSEGraph::SINK_TREE, FREE = VELDSEGraph::FREE_TREE;

TEST(VELDSEGraphMaxFlow, WorkedCases) {
  struct Case {
    const char* name;
    GridCase gc;
    float flow;
    std::vector<int> trees;
  };  // trees: getTreeofNode per node
  std::vector<Case> cases = {
      {"1x1 source", emptyGrid(1, 1), 3, {0}},
      {"1x1 sink", emptyGrid(1, 1), 3, {1}},
      {"two nodes joined by 2", emptyGrid(2, 1), 2, {0, 1}},
      {"no terminal links", fullGrid(3, 2, 4), 0, {0, 0, 0, 0, 0, 0}},
      // The middle column is cut off: it stays free (source side).
      {"isolated middle", emptyGrid(3, 3), 0, {0, 0, 1, 0, 0, 1, 0, 0, 1}},
      {"chain bottleneck", emptyGrid(3, 1), 1, {0, 0, 1}},
      {"centre with all neighbours absent", fullGrid(3, 3, 5), 7, std::vector<int>(9, 0)}};
  cases[0].gc.terminals[0] = {{5, 3}};
  cases[1].gc.terminals[0] = {{3, 5}};
  cases[2].gc.terminals = {{{5, 0}}, {{0, 3}}};
  setEdge(&cases[2].gc, 1, 0, 2, 2);
  for (int r = 0; r < 3; ++r) {
    cases[4].gc.terminals[3 * r] = {{4, 0}};
    cases[4].gc.terminals[3 * r + 2] = {{0, 4}};
  }
  cases[5].gc.terminals = {{{9, 0}}, {}, {{0, 9}}};
  setEdge(&cases[5].gc, 1, 0, 0, 5);  // 0 -> 1 is 5
  setEdge(&cases[5].gc, 2, 0, 7, 1);  // 1 -> 2 is 1
  GridCase& centre = cases[6].gc;
  for (int p = 0; p < 36; ++p)
    if (p / 4 == 4 || maxflow_reference::earlierNeighbour(3, p / 4, p % 4) == 4) centre.absent[p] = true;
  centre.terminals[0] = {{7, 0}};
  centre.terminals[8] = {{0, 7}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    VELDSEGraph g(c.gc.w * c.gc.h, 8 * c.gc.w * c.gc.h, c.gc.w, c.gc.h, 0);
    build(c.gc, &g);
    EXPECT_EQ(g.maxFlow(), c.flow);
    std::vector<int> trees;
    for (int i = 0; i < c.gc.w * c.gc.h; ++i) trees.push_back(g.getTreeofNode(i));
    EXPECT_EQ(trees, c.trees);
    expectSameCut(c.gc, &g, g.m_flow);
  }
  // The centre of the last case is never reached by either tree.
  VELDSEGraph g(9, 72, 3, 3, 0);
  build(centre, &g);
  g.maxFlow();
  EXPECT_TRUE(g.m_nodes[4].tree == FREE && g.m_nodes[4].parent == VELDSEGraph::NONE);
}

// A 5x5 grid, every pair present with capacity 1 both ways, the orphan at the
// centre (12). Its neighbours in the fixed order: left 11, upper-left 6, up 7,
// upper-right 8, right 13, lower-right 18, down 17, lower-left 16.
class VELDSEGraphAdoption : public ::testing::Test {
 protected:
  static constexpr int kOrphan = 12;
  VELDSEGraphAdoption() : g_(25, 200, 5, 5, 0) { build(fullGrid(5, 5, 1), &g_); }

  // Slot leading from a to its neighbour b.
  int slotTo(int a, int b) const {
    for (int owner : {a, b})
      for (int s = 8 * owner; s < 8 * owner + 8; ++s)
        if (g_.headOfSlot(s) == b && g_.headOfSlot(s ^ 1) == a) return s;
    ADD_FAILURE() << a << " and " << b << " are not neighbours";
    return -100;
  }
  // parent: TERMINAL, NONE (an orphan of the tree) or a neighbour node.
  void hang(int node, int tree, int parent) {
    g_.m_nodes[node].tree = tree;
    g_.m_nodes[node].parent = parent < 0 ? parent : slotTo(node, parent);
  }
  std::vector<int> drain(bool orphans) {
    std::vector<int> out;
    while (nodes* q = orphans ? g_.GetTopOrphanQueueNode() : g_.GetTopActiveQueueNode())
      out.push_back(static_cast<int>(q - g_.m_nodes));
    return out;
  }
  VELDSEGraph g_;
};

TEST_F(VELDSEGraphAdoption, NearestOriginWinsAndTiesGoToTheEarlierSlot) {
  struct Case {
    const char* name;
    bool sinkSide;
    std::vector<std::pair<int, int>> hangs;  // node, parent
    int saturated;  // neighbour whose residual edge towards the orphan's parent side is 0, or -1
    int expected;   // new parent node, or -1 for freed
    bool hangInOtherTree = false;
  };
  const std::vector<Case> cases = {
      {"left beats up", false, {{7, T}, {11, T}}, -1, 11},
      {"upper-right beats right", false, {{13, T}, {8, T}}, -1, 8},
      {"lower-right beats down", false, {{17, T}, {18, T}}, -1, 18},
      {"down beats lower-left", false, {{16, T}, {17, T}}, -1, 17},
      {"shorter chain beats earlier slot", false, {{10, T}, {11, 10}, {17, T}}, -1, 17},
      {"equal chains: earlier slot", false, {{10, T}, {11, 10}, {14, T}, {13, 14}}, -1, 11},
      {"long chain loses", false, {{0, T}, {5, 0}, {10, 5}, {11, 10}, {14, T}, {13, 14}}, -1, 13},
      {"chain ending in an orphan is rejected", false, {{10, O}, {11, 10}, {14, T}, {13, 14}}, -1, 13},
      {"orphan neighbour is no candidate", false, {{11, O}, {16, T}}, -1, 16},
      {"saturated residual skips", false, {{11, T}, {7, T}}, 11, 7},
      {"other tree is no candidate", false, {{17, T}}, -1, -1, true},
      {"sink: left beats up", true, {{7, T}, {11, T}}, -1, 11},
      {"sink: shorter chain wins", true, {{10, T}, {11, 10}, {17, T}}, -1, 17},
      {"sink: saturated residual skips", true, {{11, T}, {7, T}}, 11, 7},
      {"sink: no candidate frees the orphan", true, {{11, T}}, 11, -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    g_.reset();
    build(fullGrid(5, 5, 1), &g_);
    const int tree = c.sinkSide ? SNK : SRC;
    for (auto [node, parent] : c.hangs) hang(node, c.sinkSide != c.hangInOtherTree ? SNK : SRC, parent);
    // Source tree: flow comes from the parent (j -> o); sink tree: o -> j.
    if (c.saturated >= 0)
      g_.m_caps[c.sinkSide ? slotTo(kOrphan, c.saturated) : slotTo(c.saturated, kOrphan)] = 0.0f;
    hang(kOrphan, tree, O);
    nodes* o = g_.m_nodes + kOrphan;
    c.sinkSide ? g_.ProcessSinkOrphans(o) : g_.ProcessSourceOrphans(o);
    EXPECT_EQ(o->parent, c.expected < 0 ? VELDSEGraph::NONE : slotTo(kOrphan, c.expected));
    EXPECT_EQ(o->tree, c.expected < 0 ? FREE : tree);
    EXPECT_EQ(o->nextActive, nullptr);
  }
}

TEST_F(VELDSEGraphAdoption, FreedOrphanRequeuesItsTreeAndOrphansItsChildren) {
  // 11 hangs on the terminal but its edge into 12 is saturated; 13 is 12's
  // child; 7 is an orphan waiting in the queue; 17 is in the sink tree.
  hang(11, SRC, T);
  g_.m_caps[slotTo(11, kOrphan)] = 0.0f;
  hang(13, SRC, kOrphan);
  hang(7, SRC, O);
  g_.AddToOrphanQueue(g_.m_nodes + 7);
  hang(17, SNK, T);
  hang(kOrphan, SRC, O);
  g_.ProcessSourceOrphans(g_.m_nodes + kOrphan);
  EXPECT_EQ(g_.m_nodes[kOrphan].tree, FREE);
  // Up 7 (which may be re-adopted and must then grow back into 12), right 13.
  EXPECT_EQ(drain(false), (std::vector<int>{7, 13}));
  EXPECT_EQ(drain(true), (std::vector<int>{7, 13}));
  EXPECT_TRUE(g_.m_nodes[13].parent == VELDSEGraph::NONE && g_.m_nodes[13].tree == SRC);
}

class VELDSEGraphCancel : public ::testing::Test {
 protected:
  void TearDown() override {
    VELDSEMarker::m_exitApp = false;
    destroy_timer(g_cancelTimer);
    g_cancelTimer = nullptr;
  }
};

// Two sources and two sinks in a 2x2 grid fully joined with capacity 3: a run
// stopped early has pushed only the first path; a run resumed without the flag
// and the timer ends with the full flow.
TEST_F(VELDSEGraphCancel, FlagOrTimerOverTenSecondsStopsAfterTheFirstVisit) {
  GridCase gc = fullGrid(2, 2, 3);
  gc.terminals = {{{6, 1}}, {{0, 6}}, {{6, 0}}, {{2, 6}}};
  const float full = static_cast<float>(maxflow_reference::solveReference(gc).flow);
  // Flag set before: only the terminal flow. Over the limit: node 0 grows
  // into nothing and finds sink node 1 (+3), then stops.
  const struct {
    const char* name;
    bool flag;
    int secondsAgo;
    float flow;
  } cases[] = {{"flag set before the run", true, -1, 3.0f},
               {"9 s used", false, 9, full},
               {"11 s used", false, 11, 6.0f}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    VELDSEGraph g(4, 32, 2, 2, 0);
    build(gc, &g);
    if (c.secondsAgo >= 0) {
      g_cancelTimer = create_timer();
      start_cpu_timer(g_cancelTimer);
      g_cancelTimer->start.tv_sec -= c.secondsAgo;
    }
    VELDSEMarker::m_exitApp = c.flag;
    EXPECT_EQ(g.maxFlow(), c.flow);
    EXPECT_EQ(VELDSEMarker::m_exitApp.load(), c.flow != full);
    EXPECT_EQ(g_cancelTimer != nullptr && g_cancelTimer->stopped == 1, c.secondsAgo > 10);
    TearDown();
    EXPECT_EQ(g.maxFlowSerialCall(), full);
  }
}

// The limit passing while the solver runs (watched from a second thread, the
// clock read on every visit near the limit): the run stops and raises the flag
// itself. The grid takes seconds to solve; its timer started 20 ms short of
// the limit.
TEST_F(VELDSEGraphCancel, LimitPassingDuringTheRunStopsIt) {
  std::mt19937 rng(3);
  const int w = 1000, h = 1000;
  const GridCase gc = maxflow_reference::randomGrid(&rng, w, h);
  VELDSEGraph g(w * h, 8 * w * h, w, h, 0);
  g.reset();
  build(gc, &g);
  g_cancelTimer = create_timer();
  start_cpu_timer(g_cancelTimer);
  g_cancelTimer->start.tv_usec -= 20000;
  g_cancelTimer->start.tv_sec -= 9;
  g.maxFlow();
  EXPECT_TRUE(VELDSEMarker::m_exitApp.load());
  ASSERT_EQ(g_cancelTimer->stopped, 1);
  // Stopped at the first visit after the limit, not before it.
  EXPECT_GT(get_elapsed_time_in_millisec(g_cancelTimer), VELDSEGraph::TIME_LIMIT_MS);
  // Some node was left on the queue: the run did not finish.
  EXPECT_NE(g.m_activeHead, nullptr);
}

TEST(VELDSEGraphCrossCheck, RandomGridsMatchDinicAlsoAfterReset) {
  std::mt19937 rng(20240611u);
  for (int t = 0; t < 1200; ++t) {
    SCOPED_TRACE("grid " + std::to_string(t));
    const int w = std::uniform_int_distribution<int>(1, 20)(rng),
              h = std::uniform_int_distribution<int>(1, 20)(rng);
    VELDSEGraph g(w * h, 8 * w * h, w, h, 0);
    ASSERT_NE(g.m_nodes, nullptr);
    nodes* const arr = g.m_nodes;
    for (int round = 0; round < 2; ++round) {  // the same object rebuilt after reset
      SCOPED_TRACE(round);
      g.reset();
      const GridCase gc = maxflow_reference::randomGrid(&rng, w, h);
      build(gc, &g);
      EXPECT_EQ(g.m_nodes, arr);
      expectSameCut(gc, &g, g.maxFlow());
    }
  }
}

// Strips long enough that each half of an augmenting path exceeds a thousand
// nodes: the trees grow from both ends and meet in the middle.
TEST(VELDSEGraphCrossCheck, LongPathsMatchDinic) {
  std::mt19937 rng(77u);
  for (auto [w, h] : {std::pair{3000, 1}, {1, 2600}, {2, 2400}}) {
    SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
    GridCase gc = fullGrid(w, h, 0);
    std::uniform_int_distribution<int> capacity(1, 9);
    for (int p = 0; p < 4 * w * h; ++p) {
      if (gc.absent[p]) continue;
      gc.cap[p] = capacity(rng);
      gc.revCap[p] = capacity(rng);
    }
    gc.terminals[0] = {{50, 0}};
    gc.terminals[w * h - 1] = {{0, 50}};
    VELDSEGraph g(w * h, 8 * w * h, w, h, 0);
    build(gc, &g);
    expectSameCut(gc, &g, g.maxFlow());
  }
}

// The solver tests capacities on their bits; each test must answer exactly
// as the float compare it replaces, for signed zeros, NaN of either sign,
// infinities, subnormals and the values next to ABSENT_EDGE.
TEST(CapacityBits, AnswerAsTheFloatCompares) {
  const float absent = VELDSEGraph::ABSENT_EDGE;
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float values[] = {0.0f,
                          -0.0f,
                          absent,
                          -absent,
                          std::nextafter(absent, 0.0f),
                          std::nextafter(absent, -inf),
                          std::numeric_limits<float>::denorm_min(),
                          -std::numeric_limits<float>::denorm_min(),
                          1.0f,
                          -1.0f,
                          inf,
                          -inf,
                          nan,
                          -nan};
  for (const float c : values) {
    SCOPED_TRACE(::testing::Message() << "capacity " << c << (std::signbit(c) ? " (sign set)" : ""));
    EXPECT_EQ(graphcore::isZero(c), c == 0.0f);
    EXPECT_EQ(graphcore::isAbsent(c), c == absent);
    EXPECT_EQ(graphcore::residual(c), c != 0.0f && c != absent);
  }
}

// Row of node i without a divide: checked against the hardware division for
// the edge divisors (1, powers of two and their neighbours, the largest int)
// and the edge dividends of each (around every multiple near 0 and near the
// top of the int range, the largest int itself), plus a sweep in between.
TEST(RowDivider, MatchesDivisionAtEdgeDividendsAndDivisors) {
  std::vector<int> divisors = {1, 2, 3, 5, 7, 320, 641, 4095, 4096, 4097, 65535, 65536, 65537, 1000003};
  for (int l = 20; l <= 30; l += 5) {
    divisors.push_back((1 << l) - 1);
    divisors.push_back(1 << l);
    divisors.push_back((1 << l) + 1);
  }
  divisors.push_back(std::numeric_limits<int>::max() - 1);
  divisors.push_back(std::numeric_limits<int>::max());
  const long long kTop = std::numeric_limits<int>::max();
  for (const int w : divisors) {
    SCOPED_TRACE(::testing::Message() << "divisor " << w);
    const graphcore::RowDivider div(w);
    std::vector<long long> dividends = {0, 1, kTop, kTop - 1};
    for (long long k = 0; k <= 3; ++k) {
      for (long long d = -1; d <= 1; ++d) {
        dividends.push_back(k * w + d);
        dividends.push_back((kTop / w - k) * w + d);
      }
    }
    for (long long i = 0; i <= kTop; i += kTop / 9973) dividends.push_back(i);
    for (const long long i : dividends) {
      if (i < 0 || i > kTop) continue;
      ASSERT_EQ(div.row(static_cast<int>(i)), static_cast<int>(i / w)) << "dividend " << i;
    }
  }
}

// Every dividend of a small grid's node range, for every width up to 64.
TEST(RowDivider, MatchesDivisionForEveryNodeOfSmallGrids) {
  for (int w = 1; w <= 64; ++w) {
    SCOPED_TRACE(::testing::Message() << "width " << w);
    const graphcore::RowDivider div(w);
    for (int i = 0; i < 64 * w; ++i) ASSERT_EQ(div.row(i), i / w) << "node " << i;
  }
}

}  // namespace
