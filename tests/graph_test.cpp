// Grid graph and serial max-flow: construction, worked cases, adoption rules,
// cancel and time-out, and a randomized cross-check against Dinic's algorithm
// over an explicit edge list.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <new>
#include <queue>
#include <random>
#include <string>
#include <vector>

#include "graph/veldse_graph.h"
#include "interface/veldse_marker.h"
#include "support/cpu_timer.h"
#include "tests/maxflow_reference.h"

namespace {

using maxflow_reference::build;
using maxflow_reference::earlierNeighbour;
using maxflow_reference::emptyGrid;
using maxflow_reference::GridCase;
using maxflow_reference::randomGrid;
using maxflow_reference::Reference;
using maxflow_reference::setEdge;
using maxflow_reference::solveReference;

void expectSameCut(const GridCase& gc, VELDSEGraph* g, float flow) {
  const Reference ref = solveReference(gc);
  EXPECT_EQ(static_cast<double>(flow), static_cast<double>(ref.flow));
  int wrong = 0, first = -1;
  for (int i = 0; i < gc.w * gc.h; ++i) {
    if (g->getTreeofNode(i) != (ref.sinkSide[i] ? 1 : 0)) {
      if (wrong++ == 0) first = i;
    }
  }
  EXPECT_EQ(wrong, 0) << "first differing node " << first;
}

// ---------------------------------------------------------------------------

TEST(VELDSEGraphConstruction, AllocatesAtLeastSixteenOfEachAndStartsEmpty) {
  VELDSEGraph g(1, 3, 1, 1, 0);
  ASSERT_NE(g.m_nodes, nullptr);
  ASSERT_NE(g.m_caps, nullptr);
  EXPECT_EQ(g.m_nodeMax - g.m_nodes, 16);
  EXPECT_EQ(g.m_capMax - g.m_caps, 32);
  EXPECT_EQ(g.m_nodeCount, 0);
  EXPECT_EQ(g.m_capCount, 0);
  EXPECT_EQ(g.m_flow, 0.0f);
  EXPECT_EQ(g.m_activeHead, nullptr);
  EXPECT_EQ(g.m_orphanHead, nullptr);
}

TEST(VELDSEGraphConstruction, OffsetsGiveEachSlotsHead) {
  const int w = 7;
  VELDSEGraph g(w * 5, 8 * w * 5, w, 5, 0);
  const int expected[8] = {-1, -1, 0, -w - 1, 0, -w, 0, 1 - w};
  for (int k = 0; k < 8; ++k) EXPECT_EQ(g.m_offsets[k], expected[k]);
  const int i = 2 * w + 3;
  const int heads[8] = {i - 1, i, i - w - 1, i, i - w, i, i - w + 1, i};
  for (int k = 0; k < 8; ++k) {
    SCOPED_TRACE(k);
    EXPECT_EQ(g.headOfSlot(8 * i + k), heads[k]);
  }
}

TEST(VELDSEGraphConstruction, AddNodeAndAddEdgeFillInOrder) {
  VELDSEGraph g(4, 32, 2, 2, 0);
  g.addNode(0);
  EXPECT_EQ(g.m_nodeCount, 0);
  g.addNode(3);
  EXPECT_EQ(g.m_nodeCount, 3);
  EXPECT_EQ(g.m_nodeLast, g.m_nodes + 3);
  EXPECT_EQ(g.m_nodes[2].parent, VELDSEGraph::NONE);
  EXPECT_EQ(g.m_nodes[2].tree, VELDSEGraph::FREE_TREE);
  g.addEdge(99, -7, 1.5f, 2.5f, false);
  g.addEdge(0, 0, 1.5f, 2.5f, true);
  EXPECT_EQ(g.m_capCount, 4);
  EXPECT_EQ(g.m_caps[0], 1.5f);
  EXPECT_EQ(g.m_caps[1], 2.5f);
  EXPECT_EQ(g.m_caps[2], -2.0f);
  EXPECT_EQ(g.m_caps[3], -2.0f);
}

TEST(VELDSEGraphConstruction, AddtWeightsCancelsTheCommonPartAsFlow) {
  VELDSEGraph g(1, 4, 1, 1, 0);
  g.addNode(1);
  g.addtWeights(0, 5.0f, 3.0f);
  EXPECT_EQ(g.m_flow, 3.0f);
  EXPECT_EQ(g.m_nodes[0].trCap, 2.0f);
  g.addtWeights(0, 0.0f, 4.0f);
  EXPECT_EQ(g.m_flow, 5.0f);
  EXPECT_EQ(g.m_nodes[0].trCap, -2.0f);
  g.addtWeights(0, 1.0f, -1.0f);  // sink side grows by 2, source by 1
  EXPECT_EQ(g.m_flow, 6.0f);
  EXPECT_EQ(g.m_nodes[0].trCap, 0.0f);
}

TEST(VELDSEGraphConstruction, AddToEdgeChangesOnlyAPresentNeighbourPair) {
  GridCase gc = emptyGrid(3, 3);
  setEdge(&gc, 5, 0, 1, 1);  // 5 - 4
  setEdge(&gc, 7, 2, 1, 1);  // 7 - 4
  VELDSEGraph g(9, 72, 3, 3, 0);
  build(gc, &g);
  const std::vector<float> before(g.m_caps, g.m_caps + g.m_capCount);
  struct Row {
    int i, j;
  };
  for (const Row& r : {Row{4, 8}, Row{4, 0}, Row{4, 3}, Row{2, 3}, Row{4, 4}}) {
    SCOPED_TRACE(std::to_string(r.i) + "->" + std::to_string(r.j));
    g.addToEdge(r.i, r.j, 3.0f, 4.0f);
    EXPECT_EQ(std::vector<float>(g.m_caps, g.m_caps + g.m_capCount), before);
  }
  g.addToEdge(4, 5, 3.0f, 4.0f);  // 4 -> 5 is slot 8*5+1
  EXPECT_EQ(g.m_caps[8 * 5 + 1], 4.0f);
  EXPECT_EQ(g.m_caps[8 * 5 + 0], 5.0f);
  g.addToEdge(4, 7, 2.0f, 0.5f);  // 4 -> 7 is slot 8*7+5
  EXPECT_EQ(g.m_caps[8 * 7 + 5], 3.0f);
  EXPECT_EQ(g.m_caps[8 * 7 + 4], 1.5f);
}

TEST(VELDSEGraphConstruction, ResetAndResetNew) {
  GridCase gc = emptyGrid(2, 2);
  setEdge(&gc, 1, 0, 3, 3);
  gc.terminals[0] = {{4, 1}};
  VELDSEGraph g(4, 32, 2, 2, 0);
  build(gc, &g);
  g.maxFlow();
  EXPECT_EQ(g.resetNew(), 0);
  EXPECT_EQ(g.m_nodeCount, 4);
  EXPECT_EQ(g.m_capCount, 32);
  EXPECT_EQ(g.m_flow, 0.0f);
  for (int s = 0; s < 32; ++s) EXPECT_EQ(g.m_caps[s], 0.0f) << s;
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(g.m_nodes[i].tree, VELDSEGraph::FREE_TREE);
    EXPECT_EQ(g.m_nodes[i].trCap, 0.0f);
    EXPECT_EQ(g.m_nodes[i].nextActive, nullptr);
  }
  nodes* const arr = g.m_nodes;
  g.reset();
  EXPECT_EQ(g.m_nodeCount, 0);
  EXPECT_EQ(g.m_capCount, 0);
  EXPECT_EQ(g.m_capLast, g.m_caps);
  EXPECT_EQ(g.m_nodes, arr);
}

TEST(VELDSEGraphQueues, ActiveQueueIsFifoWithoutDuplicates) {
  VELDSEGraph g(3, 24, 3, 1, 0);
  g.addNode(3);
  nodes* n = g.m_nodes;
  g.AddToActiveQueue(n + 2);
  EXPECT_EQ(n[2].nextActive, n + 2);
  g.AddToActiveQueue(n + 0);
  g.AddToActiveQueue(n + 2);
  g.AddToActiveQueue(n + 1);
  EXPECT_EQ(g.GetTopActiveQueueNode(), n + 2);
  EXPECT_EQ(n[2].nextActive, n + 0);  // left for the caller to clear
  EXPECT_EQ(g.GetTopActiveQueueNode(), n + 0);
  EXPECT_EQ(g.GetTopActiveQueueNode(), n + 1);
  EXPECT_EQ(g.GetTopActiveQueueNode(), nullptr);
}

TEST(VELDSEGraphQueues, OrphanQueueClearsParentAndLinks) {
  VELDSEGraph g(3, 24, 3, 1, 0);
  g.addNode(3);
  nodes* n = g.m_nodes;
  n[1].parent = 0;
  g.AddToOrphanQueue(n + 1);
  g.AddToOrphanQueue(n + 0);
  g.AddToOrphanQueue(n + 1);
  EXPECT_EQ(n[1].parent, VELDSEGraph::NONE);
  EXPECT_EQ(g.GetTopOrphanQueueNode(), n + 1);
  EXPECT_EQ(n[1].nextOrphan, nullptr);
  EXPECT_EQ(g.GetTopOrphanQueueNode(), n + 0);
  EXPECT_EQ(g.GetTopOrphanQueueNode(), nullptr);
}

TEST(VELDSEGraphMaxFlow, WorkedCases) {
  struct Case {
    const char* name;
    GridCase gc;
    float flow;
    std::vector<int> trees;  // getTreeofNode per node
  };
  std::vector<Case> cases;
  {
    Case c{"1x1 source", emptyGrid(1, 1), 3.0f, {0}};
    c.gc.terminals[0] = {{5, 3}};
    cases.push_back(c);
    c = Case{"1x1 sink", emptyGrid(1, 1), 3.0f, {1}};
    c.gc.terminals[0] = {{3, 5}};
    cases.push_back(c);
  }
  {
    Case c{"two nodes joined by 2", emptyGrid(2, 1), 2.0f, {0, 1}};
    c.gc.terminals[0] = {{5, 0}};
    c.gc.terminals[1] = {{0, 3}};
    setEdge(&c.gc, 1, 0, 2, 2);
    cases.push_back(c);
  }
  {
    Case c{"no terminal links", emptyGrid(3, 2), 0.0f, {0, 0, 0, 0, 0, 0}};
    for (int i = 1; i < 6; ++i) setEdge(&c.gc, i, i >= 3 ? 2 : 0, 4, 4);
    cases.push_back(c);
  }
  {
    // Column 0 source, column 2 sink, the middle column cut off on every
    // side: it stays free (source side) and the two outer columns do not meet.
    Case c{"isolated middle", emptyGrid(3, 3), 0.0f, {0, 0, 1, 0, 0, 1, 0, 0, 1}};
    for (int r = 0; r < 3; ++r) {
      c.gc.terminals[3 * r] = {{4, 0}};
      c.gc.terminals[3 * r + 2] = {{0, 4}};
    }
    cases.push_back(c);
  }
  {
    // Path 0 -> 1 -> 2 with a bottleneck 1 on the second edge; node 1 ends on
    // the source side, node 2 on the sink side.
    Case c{"chain bottleneck", emptyGrid(3, 1), 1.0f, {0, 0, 1}};
    c.gc.terminals[0] = {{9, 0}};
    c.gc.terminals[2] = {{0, 9}};
    setEdge(&c.gc, 1, 0, 0, 5);  // 0 -> 1 is 5
    setEdge(&c.gc, 2, 0, 7, 1);  // 1 -> 2 is 1
    cases.push_back(c);
  }
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
}

TEST(VELDSEGraphMaxFlow, NodeWithAllNeighboursAbsentIsNeverReached) {
  // 3x3, every edge present with capacity 5 except those of the centre.
  GridCase gc = emptyGrid(3, 3);
  for (int i = 0; i < 9; ++i) {
    for (int k = 0; k < 4; ++k) {
      const int j = earlierNeighbour(3, i, k);
      if (j >= 0 && i != 4 && j != 4) setEdge(&gc, i, k, 5, 5);
    }
  }
  gc.terminals[0] = {{7, 0}};
  gc.terminals[8] = {{0, 7}};
  VELDSEGraph g(9, 72, 3, 3, 0);
  build(gc, &g);
  EXPECT_EQ(g.maxFlow(), 7.0f);
  EXPECT_EQ(g.m_nodes[4].tree, VELDSEGraph::FREE_TREE);
  EXPECT_EQ(g.m_nodes[4].parent, VELDSEGraph::NONE);
  EXPECT_EQ(g.getTreeofNode(4), 0);
  expectSameCut(gc, &g, g.m_flow);
}

TEST(VELDSEGraphMaxFlow, AugmentationSaturatesTheBottleneckAndQueuesOrphansSinkSideFirst) {
  // 4x1 chain with a hand-made pair of trees: 0 <- 1 (source), 2 -> 3 (sink),
  // every capacity on the path 2, so every edge and both roots saturate.
  GridCase gc = emptyGrid(4, 1);
  for (int i = 1; i < 4; ++i) setEdge(&gc, i, 0, 2, 2);
  gc.terminals[0] = {{2, 0}};
  gc.terminals[3] = {{0, 2}};
  VELDSEGraph g(4, 32, 4, 1, 0);
  build(gc, &g);
  nodes* n = g.m_nodes;
  auto hang = [&](int i, int tree, int parent) {
    n[i].tree = tree;
    n[i].parent = parent;
  };
  hang(0, VELDSEGraph::SOURCE_TREE, VELDSEGraph::TERMINAL);
  hang(1, VELDSEGraph::SOURCE_TREE, 8 * 1 + 0);  // 1 -> 0
  hang(3, VELDSEGraph::SINK_TREE, VELDSEGraph::TERMINAL);
  hang(2, VELDSEGraph::SINK_TREE, 8 * 3 + 1);  // 2 -> 3
  g.AugmentPath(8 * 2 + 1);                    // middle edge 1 -> 2
  EXPECT_EQ(g.m_flow, 2.0f);
  EXPECT_EQ(g.m_caps[8 * 2 + 1], 0.0f);
  EXPECT_EQ(g.m_caps[8 * 2 + 0], 4.0f);
  EXPECT_EQ(n[0].trCap, 0.0f);
  EXPECT_EQ(n[3].trCap, 0.0f);
  std::vector<int> order;  // nodes
  while (nodes* o = g.GetTopOrphanQueueNode()) {
    order.push_back(static_cast<int>(o - n));
    EXPECT_EQ(o->parent, VELDSEGraph::NONE);
  }
  EXPECT_EQ(order, (std::vector<int>{2, 3, 1, 0}));
}

// Adoption tests: a 5x5 grid, every pair present with capacity 1 both ways,
// the orphan at the centre (12). Its neighbours in the fixed order: left 11,
// upper-left 6, up 7, upper-right 8, right 13, lower-right 18, down 17,
// lower-left 16; the other nodes are not adjacent and serve as chain links.
class VELDSEGraphAdoption : public ::testing::Test {
 protected:
  static constexpr int kOrphan = 12;

  VELDSEGraphAdoption() : g_(25, 200, 5, 5, 0) { rebuild(); }

  void rebuild() {
    GridCase gc = emptyGrid(5, 5);
    for (int i = 0; i < 25; ++i) {
      for (int k = 0; k < 4; ++k) {
        if (earlierNeighbour(5, i, k) >= 0) setEdge(&gc, i, k, 1, 1);
      }
    }
    g_.reset();
    build(gc, &g_);
  }

  // Slot leading from a to its neighbour b.
  int slotTo(int a, int b) const {
    for (int owner : {a, b}) {
      for (int s = 8 * owner; s < 8 * owner + 8; ++s) {
        if (g_.headOfSlot(s) == b && g_.headOfSlot(s ^ 1) == a) return s;
      }
    }
    ADD_FAILURE() << a << " and " << b << " are not neighbours";
    return -100;
  }

  // parent: TERMINAL, NONE (an orphan of the tree) or a neighbour node.
  void hang(int node, int tree, int parent) {
    g_.m_nodes[node].tree = tree;
    g_.m_nodes[node].parent = parent < 0 ? parent : slotTo(node, parent);
  }

  VELDSEGraph g_;
};

TEST_F(VELDSEGraphAdoption, NearestOriginWinsAndTiesGoToTheEarlierSlot) {
  const int T = VELDSEGraph::TERMINAL, O = VELDSEGraph::NONE;
  struct Hang {
    int node, parent;
  };
  struct Case {
    const char* name;
    bool sinkSide;
    std::vector<Hang> hangs;
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
    rebuild();
    const int tree = c.sinkSide ? VELDSEGraph::SINK_TREE : VELDSEGraph::SOURCE_TREE;
    const int other = c.sinkSide ? VELDSEGraph::SOURCE_TREE : VELDSEGraph::SINK_TREE;
    for (const Hang& h : c.hangs) {
      hang(h.node, c.hangInOtherTree ? other : tree, h.parent);
    }
    if (c.saturated >= 0) {
      // Source tree: flow comes from the parent (j -> o); sink tree: o -> j.
      g_.m_caps[c.sinkSide ? slotTo(kOrphan, c.saturated) : slotTo(c.saturated, kOrphan)] = 0.0f;
    }
    hang(kOrphan, tree, O);
    nodes* o = g_.m_nodes + kOrphan;
    if (c.sinkSide) {
      g_.ProcessSinkOrphans(o);
    } else {
      g_.ProcessSourceOrphans(o);
    }
    if (c.expected < 0) {
      EXPECT_EQ(o->parent, VELDSEGraph::NONE);
      EXPECT_EQ(o->tree, VELDSEGraph::FREE_TREE);
    } else {
      EXPECT_EQ(o->parent, slotTo(kOrphan, c.expected));
      EXPECT_EQ(o->tree, tree);
    }
    EXPECT_EQ(o->nextActive, nullptr);
  }
}

TEST_F(VELDSEGraphAdoption, FreedOrphanRequeuesItsTreeAndOrphansItsChildren) {
  // Source orphan 12 finds no parent: 11 hangs on the terminal but its edge
  // into 12 is saturated; 13 is 12's child; 7 is itself an orphan waiting in
  // the queue; 17 is in the sink tree.
  const int T = VELDSEGraph::TERMINAL, O = VELDSEGraph::NONE;
  hang(11, VELDSEGraph::SOURCE_TREE, T);
  g_.m_caps[slotTo(11, kOrphan)] = 0.0f;
  hang(13, VELDSEGraph::SOURCE_TREE, kOrphan);
  hang(7, VELDSEGraph::SOURCE_TREE, O);
  g_.AddToOrphanQueue(g_.m_nodes + 7);
  hang(17, VELDSEGraph::SINK_TREE, T);
  hang(kOrphan, VELDSEGraph::SOURCE_TREE, O);
  g_.ProcessSourceOrphans(g_.m_nodes + kOrphan);

  EXPECT_EQ(g_.m_nodes[kOrphan].tree, VELDSEGraph::FREE_TREE);
  std::vector<int> active, orphans;
  while (nodes* q = g_.GetTopActiveQueueNode()) active.push_back(static_cast<int>(q - g_.m_nodes));
  while (nodes* q = g_.GetTopOrphanQueueNode()) orphans.push_back(static_cast<int>(q - g_.m_nodes));
  // In neighbour order: up 7 (the waiting orphan, which may be re-adopted and
  // must then grow back into 12), right 13. Not 11 (no residual), not 17.
  EXPECT_EQ(active, (std::vector<int>{7, 13}));
  EXPECT_EQ(orphans, (std::vector<int>{7, 13}));
  EXPECT_EQ(g_.m_nodes[13].parent, VELDSEGraph::NONE);
  EXPECT_EQ(g_.m_nodes[13].tree, VELDSEGraph::SOURCE_TREE);
}

class VELDSEGraphCancel : public ::testing::Test {
 protected:
  void TearDown() override {
    VELDSEMarker::m_exitApp = false;
    destroy_timer(g_cancelTimer);
    g_cancelTimer = nullptr;
  }
  // Two sources and two sinks in a 2x2 grid fully joined with capacity 3.
  static GridCase grid() {
    GridCase gc = emptyGrid(2, 2);
    for (int i = 0; i < 4; ++i) {
      for (int k = 0; k < 4; ++k) {
        if (earlierNeighbour(2, i, k) >= 0) setEdge(&gc, i, k, 3, 3);
      }
    }
    gc.terminals = {{{6, 1}}, {{0, 6}}, {{6, 0}}, {{2, 6}}};
    return gc;
  }
};

TEST_F(VELDSEGraphCancel, PresetFlagReturnsTheTerminalFlow) {
  const GridCase gc = grid();
  VELDSEGraph g(4, 32, 2, 2, 0);
  build(gc, &g);
  VELDSEMarker::m_exitApp = true;
  EXPECT_EQ(g.maxFlow(), 3.0f);
  VELDSEMarker::m_exitApp = false;
  EXPECT_EQ(g.maxFlowSerialCall(), static_cast<float>(solveReference(gc).flow));
}

TEST_F(VELDSEGraphCancel, TimeOutAfterTheFirstVisitSetsTheFlag) {
  const GridCase gc = grid();
  VELDSEGraph g(4, 32, 2, 2, 0);
  build(gc, &g);
  g_cancelTimer = create_timer();
  start_cpu_timer(g_cancelTimer);
  g_cancelTimer->start.tv_sec -= 11;
  // Node 0 is visited first: it grows into nothing (all neighbours are in a
  // tree) and finds sink node 1, augmenting by 3; then the check stops the run.
  EXPECT_EQ(g.maxFlow(), 6.0f);
  EXPECT_TRUE(VELDSEMarker::m_exitApp.load());
  EXPECT_EQ(g_cancelTimer->stopped, 1);
}

TEST_F(VELDSEGraphCancel, TimerWithinTheLimitDoesNotStopTheRun) {
  const GridCase gc = grid();
  VELDSEGraph g(4, 32, 2, 2, 0);
  build(gc, &g);
  g_cancelTimer = create_timer();
  start_cpu_timer(g_cancelTimer);
  g_cancelTimer->start.tv_sec -= 9;
  EXPECT_EQ(g.maxFlow(), static_cast<float>(solveReference(gc).flow));
  EXPECT_FALSE(VELDSEMarker::m_exitApp.load());
}

TEST(VELDSEGraphBlocks, BlockViewSharesArraysAndInitialisesItsOwnRectangle) {
  // 5x3 grid, two blocks of 3x3: the second covers columns 3-5 (5 is outside).
  VELDSEGraph g(15, 120, 5, 3, 0);
  g.addNode(15);
  for (int i = 0; i < 15; ++i) g.addtWeights(i, static_cast<float>(i % 3), 1.0f);
  // A view owns nothing and is never destroyed (its destructor would free the
  // shared arrays): give it storage of its own.
  alignas(VELDSEGraph) unsigned char storage[sizeof(VELDSEGraph)];
  VELDSEGraph* view = new (storage) VELDSEGraph(&g, 0, 1, 3, 3);
  EXPECT_EQ(view->m_nodes, g.m_nodes);
  EXPECT_EQ(view->m_caps, g.m_caps);
  EXPECT_EQ(view->m_flow, g.m_flow);
  view->InitBlock();
  EXPECT_EQ(view->m_flow, 0.0f);
  std::vector<int> queued;
  while (nodes* q = view->GetTopActiveQueueNode()) queued.push_back(static_cast<int>(q - g.m_nodes));
  EXPECT_EQ(queued, (std::vector<int>{3, 8, 9, 14}));  // trCap 0 at 4 and 13
  EXPECT_EQ(g.m_nodes[4].tree, VELDSEGraph::FREE_TREE);
  EXPECT_EQ(g.m_nodes[13].tree, VELDSEGraph::FREE_TREE);
  EXPECT_EQ(g.m_nodes[8].tree, VELDSEGraph::SOURCE_TREE);
  EXPECT_EQ(g.m_nodes[3].tree, VELDSEGraph::SINK_TREE);
  EXPECT_EQ(g.m_nodes[0].nextActive, nullptr);  // other block untouched
  EXPECT_EQ(g.m_nodes[0].tree, VELDSEGraph::FREE_TREE);
}

TEST(VELDSEGraphCrossCheck, RandomGridsMatchDinic) {
  std::mt19937 rng(20240611u);
  for (int t = 0; t < 1200; ++t) {
    SCOPED_TRACE("grid " + std::to_string(t));
    const int w = std::uniform_int_distribution<int>(1, 20)(rng);
    const int h = std::uniform_int_distribution<int>(1, 20)(rng);
    VELDSEGraph g(w * h, 8 * w * h, w, h, 0);
    ASSERT_NE(g.m_nodes, nullptr);
    ASSERT_NE(g.m_caps, nullptr);
    g.reset();
    const GridCase first = randomGrid(&rng, w, h);
    build(first, &g);
    expectSameCut(first, &g, g.maxFlow());

    // The same graph object rebuilt after reset with a new network.
    SCOPED_TRACE("rebuilt after reset");
    nodes* const arr = g.m_nodes;
    g.reset();
    const GridCase second = randomGrid(&rng, w, h);
    build(second, &g);
    EXPECT_EQ(g.m_nodes, arr);
    expectSameCut(second, &g, g.maxFlow());
  }
}

// Strips long enough that each half of an augmenting path exceeds a thousand
// nodes: the trees grow from both ends and meet in the middle.
TEST(VELDSEGraphCrossCheck, LongPathsMatchDinic) {
  std::mt19937 rng(77u);
  struct Shape {
    int w, h;
  };
  for (const Shape& sh : {Shape{3000, 1}, Shape{1, 2600}, Shape{2, 2400}}) {
    SCOPED_TRACE(std::to_string(sh.w) + "x" + std::to_string(sh.h));
    GridCase gc = emptyGrid(sh.w, sh.h);
    for (int i = 0; i < sh.w * sh.h; ++i) {
      for (int k = 0; k < 4; ++k) {
        if (earlierNeighbour(sh.w, i, k) >= 0) {
          setEdge(&gc, i, k, std::uniform_int_distribution<int>(1, 9)(rng),
                  std::uniform_int_distribution<int>(1, 9)(rng));
        }
      }
    }
    gc.terminals[0] = {{50, 0}};
    gc.terminals[sh.w * sh.h - 1] = {{0, 50}};
    VELDSEGraph g(sh.w * sh.h, 8 * sh.w * sh.h, sh.w, sh.h, 0);
    build(gc, &g);
    expectSameCut(gc, &g, g.maxFlow());
  }
}

}  // namespace
