// Whole-box graph of one cut: terminal links from labels and colour models,
// four neighbour-link pairs per node scaled by the smoothness weight.
#include <cmath>
#include <cstdlib>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core/core_c.h>

#include "engine/veldse_hybrid.h"
#include "graph/veldse_graph.h"
#include "interface/veldse_marker.h"

namespace {

// One isotropic component: weight * norm * exp(-0.5 |x - mean|^2 / var).
void setSingleComponent(VELDSEColorModel& m, double mean0, double mean1, double mean2, double var,
                        double norm) {
  m = VELDSEColorModel();
  m.weight[0] = 1.0;
  m.mean[0][0] = mean0;
  m.mean[0][1] = mean1;
  m.mean[0][2] = mean2;
  for (int i = 0; i < 3; ++i) {
    m.covariance[0][4 * i] = var;
    m.inverseCovariance[0][4 * i] = 1.0 / var;
  }
  m.determinant[0] = var * var * var;
  m.normFactor[0] = norm;
}

double referenceDensity(double m0, double m1, double m2, double var, double norm, const double x[3]) {
  const double d = (x[0] - m0) * (x[0] - m0) + (x[1] - m1) * (x[1] - m1) + (x[2] - m2) * (x[2] - m2);
  return norm * std::exp(-0.5 * d / var);
}

class GraphConstructionTest : public ::testing::Test {
 protected:
  // Working image of workW x workH with neighbour weights that identify their
  // pixel and slot; the box is (x0, y0, w, h).
  void setUpBox(int workW, int workH, int x0, int y0, int w, int h) {
    hybrid_.m_imgWidth = workW;
    hybrid_.m_imgHeight = workH;
    std::free(hybrid_.m_nlinks);  // the engine's destructor frees the last one
    hybrid_.m_nlinks = static_cast<float*>(std::malloc(sizeof(float) * 4 * workW * workH));
    for (int i = 0; i < workW * workH; ++i) {
      for (int s = 0; s < 4; ++s) hybrid_.m_nlinks[4 * i + s] = 0.1f + 0.013f * i + 0.0031f * s;
    }
    VELDSEMarker::m_xMinBBox = x0;
    VELDSEMarker::m_yMinBBox = y0;
    hybrid_.m_boundWidth = w;
    hybrid_.m_boundHeight = h;
    hybrid_.m_cropSrc = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 3);
    hybrid_.m_cropLabel = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
    cvSetZero(hybrid_.m_cropSrc);
    cvSet(hybrid_.m_cropLabel, cvScalarAll(LABEL_PR_FG));
    hybrid_.m_graph = new VELDSEGraph(w * h, 8 * w * h, w, h, 0);
    setSingleComponent(hybrid_.m_fgModel, 200, 200, 200, 400, 1.0);
    setSingleComponent(hybrid_.m_bgModel, 20, 20, 20, 400, 1.0);
    VELDSEMarker::m_isGreyScale = false;
  }

  void TearDown() override {
    delete hybrid_.m_graph;
    hybrid_.m_graph = nullptr;
    if (hybrid_.m_cropSrc) cvReleaseImage(&hybrid_.m_cropSrc);
    if (hybrid_.m_cropLabel) cvReleaseImage(&hybrid_.m_cropLabel);
    if (VELDSEMarker::m_texHor) cvReleaseImage(&VELDSEMarker::m_texHor);
    if (VELDSEMarker::m_texVer) cvReleaseImage(&VELDSEMarker::m_texVer);
    VELDSEMarker::m_isGreyScale = false;
    VELDSEMarker::m_xMinBBox = VELDSEMarker::m_yMinBBox = 0;
  }

  void setPixel(int c, int r, unsigned char b, unsigned char g, unsigned char red, unsigned char code) {
    unsigned char* p = reinterpret_cast<unsigned char*>(hybrid_.m_cropSrc->imageData) +
                       r * hybrid_.m_cropSrc->widthStep + 3 * c;
    p[0] = b;
    p[1] = g;
    p[2] = red;
    hybrid_.m_cropLabel->imageData[r * hybrid_.m_cropLabel->widthStep + c] = static_cast<char>(code);
  }

  VELDSEHybrid hybrid_;
};

struct BoxCase {
  const char* name;
  int w, h;
  int present[4];  // expected real links: left, up-left, up, up-right
};

TEST_F(GraphConstructionTest, NeighbourLinksFollowBoxShape) {
  const BoxCase cases[] = {
      {"one row", 5, 1, {4, 0, 0, 0}},
      {"one column", 1, 5, {0, 0, 4, 0}},
      {"single pixel", 1, 1, {0, 0, 0, 0}},
      {"2x2", 2, 2, {2, 1, 2, 1}},
      {"4x3", 4, 3, {9, 6, 8, 6}},
  };
  for (const BoxCase& tc : cases) {
    SCOPED_TRACE(tc.name);
    const int x0 = 2, y0 = 1, workW = 9;
    setUpBox(workW, 7, x0, y0, tc.w, tc.h);
    hybrid_.m_lambda = 37.5;
    hybrid_.constructGraphVELD();

    const VELDSEGraph& g = *hybrid_.m_graph;
    const int n = tc.w * tc.h;
    EXPECT_EQ(g.m_nodeCount, n);
    EXPECT_EQ(g.m_capCount, 8 * n);
    const int dx[4] = {-1, -1, 0, 1};
    const int dy[4] = {0, -1, -1, -1};
    int present[4] = {0, 0, 0, 0};
    for (int r = 0; r < tc.h; ++r) {
      for (int c = 0; c < tc.w; ++c) {
        const int node = r * tc.w + c;
        for (int s = 0; s < 4; ++s) {
          const float* pair = g.m_caps + 8 * node + 2 * s;
          const int nc = c + dx[s], nr = r + dy[s];
          if (nc < 0 || nc >= tc.w || nr < 0) {
            EXPECT_EQ(pair[0], VELDSEGraph::ABSENT_EDGE) << node << " slot " << s;
            EXPECT_EQ(pair[1], VELDSEGraph::ABSENT_EDGE) << node << " slot " << s;
            continue;
          }
          ++present[s];
          const int work = (y0 + r) * workW + (x0 + c);
          const float expected = static_cast<float>(37.5 * static_cast<double>(0.1f + 0.013f * work + 0.0031f * s));
          // Recompute the stored float the same way the weights were filled.
          const float stored = hybrid_.m_nlinks[4 * work + s];
          EXPECT_EQ(pair[0], static_cast<float>(37.5 * static_cast<double>(stored)));
          EXPECT_NEAR(pair[0], expected, 1e-4);
          EXPECT_EQ(pair[1], pair[0]);
          // The pair's position must name the neighbour it was built for.
          EXPECT_EQ(g.headOfSlot(8 * node + 2 * s), nr * tc.w + nc);
        }
      }
    }
    for (int s = 0; s < 4; ++s) EXPECT_EQ(present[s], tc.present[s]) << "direction " << s;
    TearDown();
  }
}

TEST_F(GraphConstructionTest, HardConstraintsIgnoreColour) {
  setUpBox(4, 1, 0, 0, 4, 1);
  // Models that give every colour density 0: only the codes can decide.
  hybrid_.m_fgModel = VELDSEColorModel();
  hybrid_.m_bgModel = VELDSEColorModel();
  setPixel(0, 0, 255, 255, 255, LABEL_BG);
  setPixel(1, 0, 0, 0, 0, LABEL_BG);
  setPixel(2, 0, 255, 255, 255, LABEL_FG);
  setPixel(3, 0, 0, 0, 0, LABEL_FG);
  hybrid_.m_lambda = 50.0;
  hybrid_.constructGraphVELD_Whole_Image();
  const VELDSEGraph& g = *hybrid_.m_graph;
  EXPECT_EQ(g.m_nodes[0].trCap, -1000.0f);
  EXPECT_EQ(g.m_nodes[1].trCap, -1000.0f);
  EXPECT_EQ(g.m_nodes[2].trCap, 1000.0f);
  EXPECT_EQ(g.m_nodes[3].trCap, 1000.0f);
  EXPECT_EQ(g.m_flow, 0.0f);
}

TEST_F(GraphConstructionTest, SoftLabelsTakeNegativeLogDensities) {
  setUpBox(3, 1, 0, 0, 3, 1);
  setSingleComponent(hybrid_.m_fgModel, 180, 150, 120, 900, 0.5);
  setSingleComponent(hybrid_.m_bgModel, 30, 60, 90, 1600, 2.0);
  const unsigned char codes[3] = {LABEL_UNKNOWN, LABEL_PR_BG, LABEL_PR_FG};
  const unsigned char colours[3][3] = {{100, 110, 120}, {40, 60, 80}, {170, 160, 110}};
  for (int c = 0; c < 3; ++c) setPixel(c, 0, colours[c][0], colours[c][1], colours[c][2], codes[c]);
  hybrid_.constructGraphVELD_Whole_Image();

  float flow = 0.0f;
  for (int c = 0; c < 3; ++c) {
    SCOPED_TRACE(c);
    const double x[3] = {double(colours[c][0]), double(colours[c][1]), double(colours[c][2])};
    const float toObject = static_cast<float>(-std::log(referenceDensity(30, 60, 90, 1600, 2.0, x)));
    const float toBackground = static_cast<float>(-std::log(referenceDensity(180, 150, 120, 900, 0.5, x)));
    EXPECT_FLOAT_EQ(hybrid_.m_graph->m_nodes[c].trCap, toObject - toBackground);
    flow += std::min(toObject, toBackground);
  }
  EXPECT_FLOAT_EQ(hybrid_.m_graph->m_flow, flow);
}

TEST_F(GraphConstructionTest, GreyPhotosTieNearlyEqualLikelihoods) {
  struct Case {
    const char* name;
    bool grey;
    double fgNorm;  // background norm is 1.0; both means and variances equal
    bool tied;
  };
  const Case cases[] = {
      {"grey, difference 5e-5", true, std::exp(5e-5), true},
      {"grey, difference 1e-3", true, std::exp(1e-3), false},
      {"colour, difference 5e-5", false, std::exp(5e-5), false},
  };
  for (const Case& tc : cases) {
    SCOPED_TRACE(tc.name);
    setUpBox(3, 2, 1, 1, 2, 1);
    VELDSEMarker::m_isGreyScale = tc.grey;
    VELDSEMarker::m_texHor = cvCreateImage(cvSize(3, 2), IPL_DEPTH_8U, 1);
    VELDSEMarker::m_texVer = cvCreateImage(cvSize(3, 2), IPL_DEPTH_8U, 1);
    cvSet(VELDSEMarker::m_texHor, cvScalarAll(90));
    cvSet(VELDSEMarker::m_texVer, cvScalarAll(91));
    setSingleComponent(hybrid_.m_fgModel, 50, 70, 80, 500, tc.fgNorm);
    setSingleComponent(hybrid_.m_bgModel, 50, 70, 80, 500, 1.0);
    setPixel(0, 0, 60, 0, 0, LABEL_PR_BG);
    setPixel(1, 0, 60, 0, 0, LABEL_PR_FG);
    hybrid_.constructGraphVELD_Whole_Image();
    // For grey photos the sample is (channel 0, texture at the working pixel).
    const double x[3] = {60.0, tc.grey ? 90.0 : 0.0, tc.grey ? 91.0 : 0.0};
    const double lb = std::log(referenceDensity(50, 70, 80, 500, 1.0, x));
    const double lf = std::log(referenceDensity(50, 70, 80, 500, tc.fgNorm, x));
    for (int node = 0; node < 2; ++node) {
      const float trCap = hybrid_.m_graph->m_nodes[node].trCap;
      if (tc.tied) {
        EXPECT_EQ(trCap, 0.0f);
      } else {
        EXPECT_NE(trCap, 0.0f);
        EXPECT_NEAR(trCap, static_cast<float>(-lb) - static_cast<float>(-lf), 1e-6);
      }
    }
    // Tied nodes push -Lf through both terminals, untied ones min(-Lb, -Lf).
    const float minimum = tc.tied ? static_cast<float>(-lf)
                                  : std::min(static_cast<float>(-lb), static_cast<float>(-lf));
    EXPECT_NEAR(hybrid_.m_graph->m_flow, 2 * minimum, 1e-3);
    TearDown();
  }
}

TEST_F(GraphConstructionTest, ZeroDensityGivesInfiniteWeight) {
  setUpBox(2, 1, 0, 0, 2, 1);
  hybrid_.m_fgModel = VELDSEColorModel();  // density 0 everywhere
  setPixel(0, 0, 20, 20, 20, LABEL_PR_BG);
  setPixel(1, 0, 20, 20, 20, LABEL_FG);
  hybrid_.constructGraphVELD_Whole_Image();
  const float trCap = hybrid_.m_graph->m_nodes[0].trCap;
  EXPECT_TRUE(std::isinf(trCap));
  EXPECT_LT(trCap, 0.0f);  // infinitely tied to the background
  EXPECT_EQ(hybrid_.m_graph->m_nodes[1].trCap, 1000.0f);
}

TEST_F(GraphConstructionTest, RebuildResetsTheGraph) {
  setUpBox(3, 3, 0, 0, 3, 3);
  for (int i = 0; i < 9; ++i) setPixel(i % 3, i / 3, 10 * i, 5 * i, 250 - 10 * i, i % 5);
  hybrid_.constructGraphVELD_Whole_Image();
  const std::vector<float> caps(hybrid_.m_graph->m_caps, hybrid_.m_graph->m_caps + 72);
  std::vector<float> trCaps;
  for (int i = 0; i < 9; ++i) trCaps.push_back(hybrid_.m_graph->m_nodes[i].trCap);
  const float flow = hybrid_.m_graph->m_flow;
  hybrid_.constructGraphVELD_Whole_Image();
  EXPECT_EQ(std::vector<float>(hybrid_.m_graph->m_caps, hybrid_.m_graph->m_caps + 72), caps);
  for (int i = 0; i < 9; ++i) EXPECT_EQ(hybrid_.m_graph->m_nodes[i].trCap, trCaps[i]);
  EXPECT_EQ(hybrid_.m_graph->m_flow, flow);
  EXPECT_EQ(hybrid_.m_graph->m_capCount, 72);
}

}  // namespace
