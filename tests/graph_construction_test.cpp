// Whole-box graph of one cut: terminal links from labels and colour models,
// four neighbour-link pairs per node scaled by the smoothness weight.
#include <cstdlib>
#include <utility>

#include "engine/veldse_hybrid.h"
#include "graph/veldse_graph.h"
#include "interface/veldse_marker.h"
#include "tests/test_support.h"

namespace {

// One isotropic component: norm * exp(-0.5 |x - mean|^2 / var).
struct Gauss {
  double m0, m1, m2, var, norm;
  void setInto(VELDSEColorModel& m) const { m = testsupport::singleComponent(m0, m1, m2, var, norm); }
  double density(const double x[3]) const {
    const double d = (x[0] - m0) * (x[0] - m0) + (x[1] - m1) * (x[1] - m1) + (x[2] - m2) * (x[2] - m2);
    return norm * std::exp(-0.5 * d / var);
  }
};

class GraphConstructionTest : public ::testing::Test {
 protected:
  // Working image workW x workH with neighbour weights that identify pixel and
  // slot; the box is (x0, y0, w, h).
  void setUpBox(int workW, int workH, int x0, int y0, int w, int h) {
    hybrid_.m_imgWidth = workW;
    hybrid_.m_imgHeight = workH;
    std::free(hybrid_.m_nlinks);  // the engine's destructor frees the last one
    hybrid_.m_nlinks = static_cast<float*>(std::malloc(sizeof(float) * 4 * workW * workH));
    for (int i = 0; i < 4 * workW * workH; ++i)
      hybrid_.m_nlinks[i] = 0.1f + 0.013f * (i / 4) + 0.0031f * (i % 4);
    VELDSEMarker::m_xMinBBox = x0;
    VELDSEMarker::m_yMinBBox = y0;
    hybrid_.m_boundWidth = w;
    hybrid_.m_boundHeight = h;
    hybrid_.m_cropSrc = testsupport::newImage(w, h, 3);
    hybrid_.m_cropLabel = testsupport::newImage(w, h, 1, LABEL_PR_FG);
    hybrid_.m_graph = new VELDSEGraph(w * h, 8 * w * h, w, h, 0);
    Gauss{200, 200, 200, 400, 1.0}.setInto(hybrid_.m_fgModel);
    Gauss{20, 20, 20, 400, 1.0}.setInto(hybrid_.m_bgModel);
    VELDSEMarker::m_isGreyScale = false;
  }
  void TearDown() override {
    delete std::exchange(hybrid_.m_graph, nullptr);
    for (IplImage** i :
         {&hybrid_.m_cropSrc, &hybrid_.m_cropLabel, &VELDSEMarker::m_texHor, &VELDSEMarker::m_texVer})
      if (*i) cvReleaseImage(i);
    VELDSEMarker::m_isGreyScale = false;
    VELDSEMarker::m_xMinBBox = VELDSEMarker::m_yMinBBox = 0;
  }
  void setPixel(int c, int r, cv::Vec3b bgr, unsigned char code) {
    testsupport::M(hybrid_.m_cropSrc).at<cv::Vec3b>(r, c) = bgr;
    testsupport::at(hybrid_.m_cropLabel, c, r) = code;
  }
  float trCap(int node) const { return hybrid_.m_graph->m_nodes[node].trCap; }

  VELDSEHybrid hybrid_;
};

TEST_F(GraphConstructionTest, NeighbourLinksFollowBoxShape) {
  // Expected real links per direction: left, up-left, up, up-right.
  const struct {
    int w, h, present[4];
  } cases[] = {{5, 1, {4, 0, 0, 0}}, {1, 5, {0, 0, 4, 0}}, {1, 1, {0, 0, 0, 0}}, {4, 3, {9, 6, 8, 6}}};
  const int dx[4] = {-1, -1, 0, 1}, dy[4] = {0, -1, -1, -1};
  for (const auto& tc : cases) {
    SCOPED_TRACE(::testing::Message() << tc.w << "x" << tc.h);
    const int x0 = 2, y0 = 1, workW = 9;
    setUpBox(workW, 7, x0, y0, tc.w, tc.h);
    hybrid_.m_lambda = 37.5;
    hybrid_.constructGraphVELD();
    const VELDSEGraph& g = *hybrid_.m_graph;
    EXPECT_EQ(g.m_capCount, 8 * tc.w * tc.h);
    int present[4] = {0, 0, 0, 0};
    for (int node = 0; node < tc.w * tc.h; ++node)
      for (int s = 0; s < 4; ++s) {
        const float* pair = g.m_caps + 8 * node + 2 * s;
        const int nc = node % tc.w + dx[s], nr = node / tc.w + dy[s];
        const int work = (y0 + node / tc.w) * workW + x0 + node % tc.w;
        const bool absent = nc < 0 || nc >= tc.w || nr < 0;
        present[s] += !absent;
        EXPECT_EQ(pair[0],
                  absent ? VELDSEGraph::ABSENT_EDGE
                         : static_cast<float>(37.5 * static_cast<double>(hybrid_.m_nlinks[4 * work + s])))
            << "node " << node << " slot " << s;
        EXPECT_EQ(pair[1], pair[0]) << "node " << node << " slot " << s;
        EXPECT_EQ(absent ? -1 : g.headOfSlot(8 * node + 2 * s), absent ? -1 : nr * tc.w + nc)
            << "node " << node;
      }
    for (int s = 0; s < 4; ++s) EXPECT_EQ(present[s], tc.present[s]) << "direction " << s;
    TearDown();
  }
}

TEST_F(GraphConstructionTest, TerminalLinksFromCodesAndNegativeLogDensities) {
  // Hard codes give +-1000 whatever the colour; soft ones -log Pb - (-log Pf),
  // the flow gathering min(-log Pb, -log Pf); a zero density is infinite.
  setUpBox(6, 1, 0, 0, 6, 1);
  const Gauss fg{180, 150, 120, 900, 0.5}, bg{30, 60, 90, 1600, 2.0};
  fg.setInto(hybrid_.m_fgModel);
  bg.setInto(hybrid_.m_bgModel);
  const unsigned char codes[6] = {LABEL_UNKNOWN, LABEL_PR_BG, LABEL_PR_FG, LABEL_BG, LABEL_FG, LABEL_BG};
  const cv::Vec3b colours[6] = {{100, 110, 120}, {40, 60, 80}, {170, 160, 110},
                                {180, 150, 120}, {30, 60, 90}, {0, 0, 0}};
  for (int c = 0; c < 6; ++c) setPixel(c, 0, colours[c], codes[c]);
  hybrid_.constructGraphVELD_Whole_Image();
  const std::vector<float> first(hybrid_.m_graph->m_caps, hybrid_.m_graph->m_caps + 48);
  for (int pass = 0; pass < 2; ++pass) {  // a rebuild resets the graph
    SCOPED_TRACE(pass);
    float flow = 0.0f;
    for (int c = 0; c < 3; ++c) {
      const double x[3] = {double(colours[c][0]), double(colours[c][1]), double(colours[c][2])};
      const float toObject = static_cast<float>(-std::log(bg.density(x)));
      const float toBackground = static_cast<float>(-std::log(fg.density(x)));
      EXPECT_FLOAT_EQ(trCap(c), toObject - toBackground) << c;
      flow += std::min(toObject, toBackground);
    }
    for (int c = 3; c < 6; ++c) EXPECT_EQ(trCap(c), codes[c] == LABEL_FG ? 1000.0f : -1000.0f) << c;
    EXPECT_FLOAT_EQ(hybrid_.m_graph->m_flow, flow);
    EXPECT_EQ(std::vector<float>(hybrid_.m_graph->m_caps, hybrid_.m_graph->m_caps + 48), first);
    EXPECT_EQ(hybrid_.m_graph->m_capCount, 48);
    hybrid_.constructGraphVELD_Whole_Image();
  }
  hybrid_.m_fgModel = VELDSEColorModel();  // object density 0 everywhere
  hybrid_.constructGraphVELD_Whole_Image();
  EXPECT_EQ(trCap(1), -INFINITY);
  EXPECT_EQ(trCap(4), 1000.0f);
}

TEST_F(GraphConstructionTest, GreyPhotosTieNearlyEqualLikelihoods) {
  // Background norm 1.0; means and variances equal.
  const struct {
    const char* name;
    bool grey;
    double fgNorm;
    bool tied;
  } cases[] = {
      {"grey, difference 5e-5", true, std::exp(5e-5), true},
      {"grey, difference 1e-3", true, std::exp(1e-3), false},
      {"colour, difference 5e-5", false, std::exp(5e-5), false},
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    setUpBox(3, 2, 1, 1, 2, 1);
    VELDSEMarker::m_isGreyScale = tc.grey;
    VELDSEMarker::m_texHor = testsupport::newImage(3, 2, 1, 90);
    VELDSEMarker::m_texVer = testsupport::newImage(3, 2, 1, 91);
    const Gauss fg{50, 70, 80, 500, tc.fgNorm}, bg{50, 70, 80, 500, 1.0};
    fg.setInto(hybrid_.m_fgModel);
    bg.setInto(hybrid_.m_bgModel);
    setPixel(0, 0, {60, 0, 0}, LABEL_PR_BG);
    setPixel(1, 0, {60, 0, 0}, LABEL_PR_FG);
    hybrid_.constructGraphVELD_Whole_Image();
    // Grey photos sample (channel 0, texture at the working pixel).
    const double x[3] = {60.0, tc.grey ? 90.0 : 0.0, tc.grey ? 91.0 : 0.0};
    const float lb = static_cast<float>(-std::log(bg.density(x))),
                lf = static_cast<float>(-std::log(fg.density(x)));
    ASSERT_GT(std::abs(lb - lf), 1e-5f);
    for (int node = 0; node < 2; ++node)
      EXPECT_NEAR(trCap(node), tc.tied ? 0.0 : lb - lf, tc.tied ? 0.0 : 1e-6);
    // Tied nodes push -Lf through both terminals, untied ones min(-Lb, -Lf).
    EXPECT_NEAR(hybrid_.m_graph->m_flow, 2 * (tc.tied ? lf : std::min(lb, lf)), 1e-3);
    TearDown();
  }
}

}  // namespace
