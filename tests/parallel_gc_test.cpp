// Block-parallel max-flow and terminal links: block shapes, a randomized
// cross-check of the cut against the serial solver and an independent Dinic
// reference, and the terminal weights against a serial evaluation of the same
// mixtures.
#include "graph/parallel_gc.h"
#include "graph/veldse_graph.h"
#include "interface/veldse_marker.h"
#include "tests/maxflow_reference.h"
#include "tests/test_support.h"

namespace {

using maxflow_reference::GridCase;

TEST(ParallelGCBlocks, ShapesForOneToSixteenThreads) {
  const struct {
    int n, cols, rows;
  } rows[] = {{1, 1, 1},   {2, 2, 1},  {3, 3, 1},  {4, 2, 2},  {5, 1, 5},   {6, 3, 2},
              {7, 1, 7},   {8, 4, 2},  {9, 3, 3},  {10, 5, 2}, {11, 1, 11}, {12, 4, 3},
              {13, 1, 13}, {14, 2, 7}, {15, 5, 3}, {16, 4, 4}};
  VELDSEGraph g(101 * 61, 8 * 101 * 61, 101, 61, 0);
  g.addNode(101 * 61);
  for (const auto& r : rows) {
    SCOPED_TRACE(r.n);
    ParallelGC pgc(&g, r.n);
    EXPECT_EQ(cv::Size(pgc.m_blockCols, pgc.m_blockRows), cv::Size(r.cols, r.rows));
    EXPECT_EQ(cv::Size(pgc.m_blockWidth, pgc.m_blockHeight),
              cv::Size((101 + r.cols - 1) / r.cols, (61 + r.rows - 1) / r.rows));
    for (int k = 0; k < r.n; ++k) {
      const VELDSEGraph* v = pgc.m_blockGraphs[k];
      EXPECT_EQ(v->m_blockRow * r.cols + v->m_blockCol, k);
      EXPECT_TRUE(v->m_nodes == g.m_nodes && v->m_caps == g.m_caps);
    }
  }
}

// Random grids solved with several thread counts: same flow as the serial
// solver and as Dinic's, the reference's residual reachability as the sink
// side, and every absent edge slot still absent afterwards.
TEST(ParallelGCMaxFlow, RandomGridsMatchSerialAndReference) {
  std::mt19937 rng(5150u);
  const auto absentSlots = [](const VELDSEGraph& g) {
    std::vector<int> out;
    for (int s = 0; s < g.m_capCount; ++s)
      if (g.m_caps[s] == VELDSEGraph::ABSENT_EDGE) out.push_back(s);
    return out;
  };
  for (int threads : {2, 3, 4, 6, 8}) {
    for (int t = 0; t < 120; ++t) {
      const bool large = t % 10 == 0;
      const int w = std::uniform_int_distribution<int>(1, large ? 70 : 24)(rng);
      const int h = std::uniform_int_distribution<int>(1, large ? 50 : 24)(rng);
      SCOPED_TRACE(testing::Message() << threads << " threads, grid " << t << " " << w << "x" << h);
      const GridCase gc = maxflow_reference::randomGrid(&rng, w, h);
      VELDSEGraph serial(w * h, 8 * w * h, w, h, 0);
      maxflow_reference::build(gc, &serial);
      const float serialFlow = serial.maxFlow();
      VELDSEGraph g(w * h, 8 * w * h, w, h, threads);
      maxflow_reference::build(gc, &g);
      const std::vector<int> before = absentSlots(g);
      {
        ParallelGC pgc(&g, threads);
        EXPECT_EQ(pgc.maxFlow(), 0);
        EXPECT_TRUE(pgc.m_pairs.empty());
      }
      EXPECT_EQ(absentSlots(g), before);
      EXPECT_EQ(g.m_flow, serialFlow);
      maxflow_reference::expectSameCut(gc, &g, g.m_flow);
    }
  }
}

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
      m.covariance[k][e] =
          0.5 * (a[e] + a[3 * (e % 3) + e / 3]) + (e % 4 == 0 ? 2000.0 + 3000.0 * u(*rng) : 0.0);
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

TEST(ParallelGCTerminalLinks, MatchTheSerialLoopForEveryBlockShape) {
  VELDSEMarker::m_noiseLevel = 0.1;
  std::mt19937 rng(909u);
  // 37 x 23 is divided evenly by none of these shapes.
  const int w = 37, h = 23, n = w * h;
  cv::Mat img(h, w, CV_8UC3), labels(h, w, CV_8UC1);
  cv::randu(img, cv::Scalar::all(0), cv::Scalar::all(256));
  cv::randu(labels, cv::Scalar(0), cv::Scalar(5));
  VELDSEColorModel fg = randomModel(&rng), bg = randomModel(&rng);
  for (int i = 0; i < n; i += 7) {  // the serial evaluation agrees with the model's own density
    const uchar* px = img.data + 3 * i;
    const double p = fg.GMMProb(pixelVal{{double(px[0]), double(px[1]), double(px[2])}});
    EXPECT_NEAR(mixtureDensity(fg, px), p, 1e-4 * p);
  }
  const struct {
    int threads, sinkCode, sourceCode;
  } rows[] = {{2, 1, 2}, {3, 1, 2}, {4, 3, 4}, {6, 2, 1}, {12, 3, 3}};
  for (const auto& r : rows) {
    SCOPED_TRACE(r.threads);
    VELDSEGraph expected(n, 8 * n, w, h, 0), g(n, 8 * n, w, h, r.threads);
    expected.addNode(n);
    g.addNode(n);
    ParallelGC pgc(&g, r.threads);
    for (int round = 0; round < 2; ++round) {  // the second round accumulates on the first
      SCOPED_TRACE(round);
      const float K = 1000.0f + round;
      for (int i = 0; i < n; ++i) {
        if (labels.data[i] == r.sourceCode)
          expected.addtWeights(i, K, 0.0f);
        else if (labels.data[i] == r.sinkCode)
          expected.addtWeights(i, 0.0f, K);
        else
          expected.addtWeights(i, -logf(mixtureDensity(bg, img.data + 3 * i)),
                               -logf(mixtureDensity(fg, img.data + 3 * i)));
      }
      pgc.ComputeGMMProbsParallely(&img, &labels, K, r.sinkCode, r.sourceCode, &fg, &bg, &g);
      int wrong = 0, first = -1;
      for (int i = 0; i < n; ++i)
        if (g.m_nodes[i].trCap != expected.m_nodes[i].trCap && wrong++ == 0) first = i;
      EXPECT_EQ(wrong, 0) << "first differing node " << first;
      EXPECT_NEAR(g.m_flow, expected.m_flow, 1e-5 * expected.m_flow);
    }
    // A label equal to both codes ties the pixel to the source.
    for (int i = 0; i < n && r.sinkCode == r.sourceCode; ++i)
      EXPECT_TRUE(labels.data[i] != r.sourceCode || g.m_nodes[i].trCap == 2001.0f) << i;
  }
}

}  // namespace
