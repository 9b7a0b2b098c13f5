// Block-parallel max-flow and terminal links: block shapes, the partition and
// merge bookkeeping on small grids, a randomized cross-check of the cut
// against the serial solver and an independent Dinic reference, and the
// terminal weights against a serial evaluation of the same mixtures.
#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "colormodel/veldse_color_model.h"
#include "graph/parallel_gc.h"
#include "graph/veldse_graph.h"
#include "interface/veldse_marker.h"
#include "tests/maxflow_reference.h"

namespace {

using maxflow_reference::build;
using maxflow_reference::earlierNeighbour;
using maxflow_reference::expectSameCut;
using maxflow_reference::fullGrid;
using maxflow_reference::GridCase;
using maxflow_reference::randomGrid;
using maxflow_reference::solveReference;

// Value of the cut the final trees describe (sink tree against the rest),
// from the network as built.
int64_t cutValue(const GridCase& gc, VELDSEGraph* g) {
  int64_t total = 0;
  for (int i = 0; i < gc.w * gc.h; ++i) {
    int64_t src = 0, snk = 0;
    for (const auto& c : gc.terminals[i]) src += c.source, snk += c.sink;
    const bool iSink = g->getTreeofNode(i) == 1;
    total += iSink ? src : snk;
    for (int k = 0; k < 4; ++k) {
      const int p = 4 * i + k;
      if (gc.absent[p]) continue;
      const bool jSink = g->getTreeofNode(earlierNeighbour(gc.w, i, k)) == 1;
      total += !iSink && jSink ? gc.cap[p] : iSink && !jSink ? gc.revCap[p] : 0;
    }
  }
  return total;
}

// Indices of the absent capacity slots.
std::vector<int> absentSlots(const VELDSEGraph& g) {
  std::vector<int> out;
  for (int s = 0; s < g.m_capCount; ++s) {
    if (g.m_caps[s] == VELDSEGraph::ABSENT_EDGE) out.push_back(s);
  }
  return out;
}

int countEdges(const blockEdges* p) {
  int n = 0;
  for (const storedEdge* e = p->edges; e != nullptr; e = e->next) ++n;
  return n;
}

// Phases one and two (block ids, partition) on the test thread.
void partitionInPlace(ParallelGC* pgc) {
  for (int phase = 0; phase < 2; ++phase)
    for (int b = 0; b < pgc->m_blockRows * pgc->m_blockCols; ++b)
      phase ? pgc->PartitionGraph(b / pgc->m_blockCols, b % pgc->m_blockCols)
            : pgc->AssignIDs(b / pgc->m_blockCols, b % pgc->m_blockCols);
}

TEST(ParallelGCBlocks, ShapesForOneToSixteenThreads) {
  const struct { int n, cols, rows; } rows[] = {
      {1, 1, 1},  {2, 2, 1},  {3, 3, 1},  {4, 2, 2},   {5, 1, 5},  {6, 3, 2},   {7, 1, 7},  {8, 4, 2},
      {9, 3, 3},  {10, 5, 2}, {11, 1, 11}, {12, 4, 3}, {13, 1, 13}, {14, 2, 7}, {15, 5, 3}, {16, 4, 4},
  };
  VELDSEGraph g(101 * 61, 8 * 101 * 61, 101, 61, 0);
  g.addNode(101 * 61);
  for (const auto& r : rows) {
    SCOPED_TRACE(r.n);
    ParallelGC pgc(&g, r.n);
    EXPECT_EQ(pgc.m_blockCols, r.cols);
    EXPECT_EQ(pgc.m_blockRows, r.rows);
    EXPECT_EQ(pgc.m_blockWidth, (101 + r.cols - 1) / r.cols);
    EXPECT_EQ(pgc.m_blockHeight, (61 + r.rows - 1) / r.rows);
    for (int k = 0; k < r.n; ++k) {
      const VELDSEGraph* v = pgc.m_blockGraphs[k];
      EXPECT_EQ(v->m_blockRow * r.cols + v->m_blockCol, k);
      EXPECT_TRUE(v->m_nodes == g.m_nodes && v->m_caps == g.m_caps);
    }
  }
}

TEST(ParallelGCPartition, FiveByThreeWithTwoThreads) {
  // Two 3x3 blocks; the second covers columns 3-5, 5 being outside the grid.
  const GridCase gc = fullGrid(5, 3, 4);
  VELDSEGraph g(15, 120, 5, 3, 0);
  build(gc, &g);
  ParallelGC pgc(&g, 2);
  ASSERT_EQ(pgc.m_blockWidth, 3);
  ASSERT_EQ(pgc.m_blockHeight, 3);
  const size_t absentBefore = absentSlots(g).size();
  for (int bx : {0, 1}) pgc.AssignIDs(0, bx);
  // Interior nodes (6 in block 0, 9 in block 1) keep their free tree.
  const std::vector<int> ids = {0, 0, 0, 1, 1, 0, 2, 0, 1, 2, 0, 0, 0, 1, 1};
  for (int i = 0; i < 15; ++i) EXPECT_EQ(g.m_nodes[i].tree, ids[i]) << i;

  for (int bx : {0, 1}) pgc.PartitionGraph(0, bx);
  ASSERT_EQ(pgc.m_pairs.size(), 1u);
  blockEdges* pair = pgc.m_pairs[0];
  EXPECT_TRUE(pair->first == 0 && pair->second == 1);
  EXPECT_TRUE(pgc.m_blockTable[0][1] == pair && pgc.m_blockTable[1][0] == pair);
  // Newest first: node 12 right, upper-right; node 7 lower-right, right,
  // upper-right; node 2 lower-right, right.
  const std::vector<int> slots = {8 * 13 + 1, 8 * 12 + 6, 8 * 13 + 3, 8 * 8 + 1, 8 * 7 + 6, 8 * 8 + 3, 8 * 3 + 1};
  std::vector<int> got;
  for (const storedEdge* e = pair->edges; e != nullptr; e = e->next) {
    got.push_back(e->slot);
    EXPECT_EQ(e->revSlot, e->slot ^ 1);
    EXPECT_TRUE(e->cap == 4.0f && e->revCap == 4.0f);
    EXPECT_TRUE(g.m_caps[e->slot] == VELDSEGraph::ABSENT_EDGE && g.m_caps[e->revSlot] == VELDSEGraph::ABSENT_EDGE);
  }
  EXPECT_EQ(got, slots);
  // Those 7 pairs and no others are out.
  EXPECT_EQ(absentSlots(g).size(), absentBefore + 2 * 7);

  EXPECT_EQ(pgc.MergeBlocks(1, 0), 0);
  EXPECT_EQ(pair->edges, nullptr);
  EXPECT_EQ(absentSlots(g).size(), absentBefore);
  std::vector<int> queued;
  while (nodes* q = pgc.m_blockGraphs[0]->GetTopActiveQueueNode()) queued.push_back(static_cast<int>(q - g.m_nodes));
  // Tail then head of each restored edge, in list order, without repeats.
  EXPECT_EQ(queued, (std::vector<int>{12, 13, 8, 7, 3, 2}));
  pgc.MakeNeighbourChanges(0, 1);
  EXPECT_TRUE(pgc.m_pairs.empty());
  EXPECT_EQ(pgc.m_blockTable[0][1], nullptr);
}

TEST(ParallelGCPartition, PairWithoutPresentEdgesGetsNoRecord) {
  // 6x4 in 2x2 blocks of 3x2; every edge across the vertical border absent.
  GridCase gc = fullGrid(6, 4, 3);
  for (int p = 0; p < 96; ++p) {
    const int j = earlierNeighbour(6, p / 4, p % 4);
    if (j >= 0 && (p / 4 % 6 < 3) != (j % 6 < 3)) gc.absent[p] = true;
  }
  gc.terminals[0] = gc.terminals[5] = {{9, 0}};
  gc.terminals[18] = {{0, 9}};
  gc.terminals[23] = {{0, 7}};
  {
    VELDSEGraph g(24, 192, 6, 4, 0);
    build(gc, &g);
    ParallelGC pgc(&g, 4);
    partitionInPlace(&pgc);
    ASSERT_EQ(pgc.m_pairs.size(), 2u);
    EXPECT_TRUE(pgc.m_pairs[0]->first == 0 && pgc.m_pairs[0]->second == 2);
    EXPECT_TRUE(pgc.m_pairs[1]->first == 1 && pgc.m_pairs[1]->second == 3);
    for (int a = 0; a < 4; ++a)
      for (int b = 0; b < 4; ++b)
        EXPECT_EQ(pgc.m_blockTable[a][b] == nullptr, a % 2 != b % 2 || a == b) << a << "," << b;
    // Put the edges back so the graph is whole again before it is freed.
    pgc.MergeBlocks(0, 2);
    pgc.MergeBlocks(1, 3);
    pgc.MakeNeighbourChanges(0, 2);
    pgc.MakeNeighbourChanges(1, 3);
  }
  // Two merged halves remain unlinked: the run must end, and the halves are
  // each cut correctly.
  VELDSEGraph g(24, 192, 6, 4, 0);
  build(gc, &g);
  const std::vector<int> before = absentSlots(g);
  ParallelGC pgc(&g, 4);
  EXPECT_EQ(pgc.maxFlow(), 0);
  EXPECT_TRUE(pgc.m_pairs.empty());
  EXPECT_EQ(absentSlots(g), before);
  EXPECT_EQ(cutValue(gc, &g), solveReference(gc).flow);
  expectSameCut(gc, &g, g.m_flow);
}

TEST(ParallelGCPartition, MergedBlockTakesOverTheOtherBlocksPairs) {
  // 9x9 in 3x3 blocks of 3x3, all edges present: merge blocks 0 and 1.
  VELDSEGraph g(81, 648, 9, 9, 0);
  build(fullGrid(9, 9, 1), &g);
  ParallelGC pgc(&g, 9);
  partitionInPlace(&pgc);
  blockEdges* const* t0 = pgc.m_blockTable[0];
  blockEdges* const* t1 = pgc.m_blockTable[1];
  // Block 0 borders 1, 3 (below) and 4 (one corner edge); block 1 borders
  // 0, 2, 3 (its corner), 4 and 5.
  const int n03 = countEdges(t0[3]), n13 = countEdges(t1[3]);
  const int n04 = countEdges(t0[4]), n14 = countEdges(t1[4]);
  EXPECT_EQ(n04, 1);
  EXPECT_EQ(n13, 1);
  blockEdges* const p12 = t1[2];
  blockEdges* const p15 = t1[5];
  const storedEdge* const first03 = t0[3]->edges;
  const size_t pairsBefore = pgc.m_pairs.size();

  EXPECT_EQ(pgc.MergeBlocks(0, 1), 0);
  pgc.MakeNeighbourChanges(1, 0);
  // 0-1 is gone; 1-3 and 1-4 joined the existing 0-3 and 0-4 lists at
  // their end; 1-2 and 1-5 now belong to block 0.
  EXPECT_EQ(pgc.m_pairs.size(), pairsBefore - 3);
  EXPECT_EQ(countEdges(t0[3]), n03 + n13);
  EXPECT_EQ(countEdges(t0[4]), n04 + n14);
  EXPECT_EQ(t0[3]->edges, first03);
  EXPECT_EQ(t0[2], p12);
  EXPECT_EQ(t0[5], p15);
  EXPECT_EQ(pgc.m_blockTable[2][0], p12);
  EXPECT_TRUE(p12->first == 0 && p12->second == 2 && p15->first == 0);
  for (int k = 0; k < 9; ++k) EXPECT_TRUE(pgc.m_blockTable[1][k] == nullptr && pgc.m_blockTable[k][1] == nullptr) << k;
  for (const blockEdges* p : pgc.m_pairs) EXPECT_TRUE(p->first != 1 && p->second != 1);
}

// Random grids solved with several thread counts: same flow as the serial
// solver and as Dinic's, the reference's residual reachability as the sink
// side, and every edge back in the graph afterwards.
TEST(ParallelGCMaxFlow, RandomGridsMatchSerialAndReference) {
  std::mt19937 rng(5150u);
  for (int threads : {2, 3, 4, 6, 8}) {
    for (int t = 0; t < 120; ++t) {
      const bool large = t % 10 == 0;
      const int w = std::uniform_int_distribution<int>(1, large ? 70 : 24)(rng);
      const int h = std::uniform_int_distribution<int>(1, large ? 50 : 24)(rng);
      SCOPED_TRACE(std::to_string(threads) + " threads, grid " + std::to_string(t) + " " + std::to_string(w) + "x" +
                   std::to_string(h));
      const GridCase gc = randomGrid(&rng, w, h);
      VELDSEGraph serial(w * h, 8 * w * h, w, h, 0);
      build(gc, &serial);
      const float serialFlow = serial.maxFlow();

      VELDSEGraph g(w * h, 8 * w * h, w, h, threads);
      build(gc, &g);
      const std::vector<int> before = absentSlots(g);
      {
        ParallelGC pgc(&g, threads);
        EXPECT_EQ(pgc.maxFlow(), 0);
        EXPECT_TRUE(pgc.m_pairs.empty());
      }
      EXPECT_EQ(absentSlots(g), before);
      EXPECT_EQ(g.m_flow, serialFlow);
      EXPECT_EQ(cutValue(gc, &g), static_cast<int64_t>(serialFlow));
      expectSameCut(gc, &g, g.m_flow);
    }
  }
}

TEST(ParallelGCMaxFlow, GraphWithThreadsDispatchesAndReportsZero) {
  GridCase gc = fullGrid(8, 6, 2);
  for (int y = 0; y < 6; ++y) {
    gc.terminals[8 * y] = {{5, 0}};
    gc.terminals[8 * y + 7] = {{1, 4}};
  }
  for (int threads : {1, 2, 4}) {
    SCOPED_TRACE(threads);
    VELDSEGraph g(48, 384, 8, 6, threads);
    build(gc, &g);
    const float result = g.maxFlow();
    EXPECT_EQ(result, threads > 1 ? 0.0f : g.m_flow);
    EXPECT_EQ(cutValue(gc, &g), solveReference(gc).flow);
    expectSameCut(gc, &g, g.m_flow);
  }
}

TEST(ParallelGCMaxFlow, PresetCancelStillRestoresEveryEdge) {
  VELDSEGraph g(30 * 20, 8 * 600, 30, 20, 0);
  std::mt19937 rng(3u);
  build(randomGrid(&rng, 30, 20), &g);
  const std::vector<int> before = absentSlots(g);
  const float terminalFlow = g.m_flow;
  VELDSEMarker::m_exitApp = true;
  {
    ParallelGC pgc(&g, 4);
    EXPECT_EQ(pgc.maxFlow(), 0);
  }
  VELDSEMarker::m_exitApp = false;
  EXPECT_EQ(absentSlots(g), before);
  EXPECT_EQ(g.m_flow, terminalFlow);
}

// ---------------------------------------------------------------------------
// Terminal links

// A valid mixture with a dominant covariance diagonal, inverted by the model.
VELDSEColorModel randomModel(std::mt19937* rng) {
  std::uniform_real_distribution<double> u(0.0, 1.0);
  VELDSEColorModel m;
  double total = 0.0;
  for (int k = 0; k < 5; ++k) total += (m.weight[k] = 0.1 + u(*rng));
  for (int k = 0; k < 5; ++k) {
    m.weight[k] /= total;
    for (int c = 0; c < 3; ++c) m.mean[k][c] = 255.0 * u(*rng);
    double a[9];
    for (double& v : a) v = 20.0 * (u(*rng) - 0.5);
    for (int e = 0; e < 9; ++e)
      m.covariance[k][e] = 0.5 * (a[e] + a[3 * (e % 3) + e / 3]) + (e % 4 == 0 ? 2000.0 + 3000.0 * u(*rng) : 0.0);
  }
  m.setDeterminant();
  m.setInverseCovariance();
  return m;
}

// Serial evaluation of one mixture as the terminal links use it: differences
// in single precision, the quadratic form in double rounded to single, exp in
// double, the sum kept in single.
float mixtureDensity(const VELDSEColorModel& m, const uchar* px) {
  float sum = 0.0f;
  for (int k = 0; k < 5; ++k) {
    float d[3];
    for (int j = 0; j < 3; ++j) d[j] = static_cast<float>(px[j] - m.mean[k][j]);
    double quad = 0.0;
    for (int c = 0; c < 3; ++c) {
      double column = 0.0;
      for (int r = 0; r < 3; ++r) column += m.inverseCovariance[k][3 * r + c] * d[r];
      quad += column * d[c];
    }
    const float q = static_cast<float>(quad * -0.5);
    sum = static_cast<float>(sum + m.weight[k] * m.normFactor[k] * std::exp(static_cast<double>(q)));
  }
  return sum;
}

struct LinkCase {
  LinkCase(std::mt19937* rng, int w, int h) : img(h, w, CV_8UC3), labels(h, w, CV_8UC1) {
    cv::randu(img, cv::Scalar::all(0), cv::Scalar::all(256));
    cv::randu(labels, cv::Scalar(0), cv::Scalar(5));
    fg = randomModel(rng);
    bg = randomModel(rng);
  }
  // What the serial loop gives: addtWeights per pixel with the same rule.
  void serialLinks(double K, int sinkCode, int sourceCode, VELDSEGraph* g) const {
    for (int i = 0; i < img.rows * img.cols; ++i) {
      const uchar* px = img.data + 3 * i;
      if (labels.data[i] == sourceCode) g->addtWeights(i, static_cast<float>(K), 0.0f);
      else if (labels.data[i] == sinkCode) g->addtWeights(i, 0.0f, static_cast<float>(K));
      else g->addtWeights(i, -logf(mixtureDensity(bg, px)), -logf(mixtureDensity(fg, px)));
    }
  }
  cv::Mat img, labels;
  VELDSEColorModel fg, bg;
};

TEST(ParallelGCTerminalLinks, MatchTheSerialLoopForEveryBlockShape) {
  VELDSEMarker::m_noiseLevel = 0.1;
  std::mt19937 rng(909u);
  // 37 x 23 is divided evenly by none of these shapes.
  LinkCase lc(&rng, 37, 23);
  // The mixture evaluation agrees with the model's own density.
  for (int x = 0; x < 37; ++x) {
    const uchar* px = lc.img.ptr<uchar>(5) + 3 * x;
    const pixelVal s{{double(px[0]), double(px[1]), double(px[2])}};
    EXPECT_NEAR(mixtureDensity(lc.fg, px), lc.fg.GMMProb(s), 1e-4 * lc.fg.GMMProb(s));
  }
  const struct { int threads, sinkCode, sourceCode; } rows[] = {
      {2, 1, 2}, {3, 1, 2}, {4, 3, 4}, {5, 1, 2}, {6, 2, 1}, {8, 1, 2}, {12, 3, 3}};
  for (const auto& r : rows) {
    SCOPED_TRACE(r.threads);
    VELDSEGraph expected(37 * 23, 8 * 37 * 23, 37, 23, 0);
    expected.addNode(37 * 23);
    VELDSEGraph g(37 * 23, 8 * 37 * 23, 37, 23, r.threads);
    g.addNode(37 * 23);
    ParallelGC pgc(&g, r.threads);
    // The second round accumulates on top of the first.
    for (int round = 0; round < 2; ++round) {
      SCOPED_TRACE(round);
      lc.serialLinks(1000.0 + round, r.sinkCode, r.sourceCode, &expected);
      pgc.ComputeGMMProbsParallely(&lc.img, &lc.labels, 1000.0 + round, r.sinkCode, r.sourceCode, &lc.fg, &lc.bg,
                                   &g);
      int wrong = 0, first = -1;
      for (int i = 0; i < 37 * 23; ++i) {
        if (g.m_nodes[i].trCap != expected.m_nodes[i].trCap && wrong++ == 0) first = i;
      }
      EXPECT_EQ(wrong, 0) << "first differing node " << first;
      EXPECT_NEAR(g.m_flow, expected.m_flow, 1e-5 * expected.m_flow);
    }
    // A label equal to both codes ties the pixel to the source.
    for (int i = 0; i < 37 * 23 && r.sinkCode == r.sourceCode; ++i)
      EXPECT_TRUE(lc.labels.data[i] != r.sourceCode || g.m_nodes[i].trCap == 2001.0f) << i;
  }
}

TEST(ParallelGCTerminalLinks, EmptyModelsGiveInfiniteWeights) {
  std::mt19937 rng(17u);
  LinkCase lc(&rng, 10, 7);
  VELDSEColorModel empty;  // all weights 0
  VELDSEGraph g(70, 560, 10, 7, 4);
  g.addNode(70);
  ParallelGC pgc(&g, 4);
  pgc.ComputeGMMProbsParallely(&lc.img, &lc.labels, 50.0, 1, 2, &empty, &empty, &g);
  for (int i = 0; i < 70; ++i) {
    SCOPED_TRACE(i);
    const int l = lc.labels.data[i];
    if (l == 1 || l == 2) {
      EXPECT_EQ(g.m_nodes[i].trCap, l == 2 ? 50.0f : -50.0f);
    } else {
      EXPECT_TRUE(std::isnan(g.m_nodes[i].trCap));  // inf - inf
    }
  }
  EXPECT_TRUE(std::isinf(g.m_flow));
}

}  // namespace
