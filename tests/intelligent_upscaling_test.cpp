// Full-resolution re-cut of the boundary band: the trimap, the band's box and
// its log lines, the trimap graph, and the fallback enlargement.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <android/log.h>
#include <gtest/gtest.h>
#include <hostlog/capture.h>
#include <opencv2/core/core.hpp>
#include <opencv2/core/core_c.h>

#include "engine/veldse_hybrid.h"
#include "graph/veldse_graph.h"
#include "interface/veldse_marker.h"

namespace {

const int kScale = 4;
// Photo colours (B, G, R) and the colour models that separate them clearly.
const unsigned char kObjectColour[3] = {30, 60, 200};
const unsigned char kBackgroundColour[3] = {200, 60, 30};

void setSingleComponent(VELDSEColorModel& m, double m0, double m1, double m2, double var, double norm) {
  m = VELDSEColorModel();
  m.weight[0] = 1.0;
  m.mean[0][0] = m0;
  m.mean[0][1] = m1;
  m.mean[0][2] = m2;
  for (int i = 0; i < 3; ++i) {
    m.covariance[0][4 * i] = var;
    m.inverseCovariance[0][4 * i] = 1.0 / var;
  }
  m.determinant[0] = var * var * var;
  m.normFactor[0] = norm;
}

unsigned char* px(IplImage* im, int x, int y) {
  return reinterpret_cast<unsigned char*>(im->imageData) + y * im->widthStep + x * im->nChannels;
}

// Trimap code of a working pixel from its Chebyshev neighbourhood, written
// without morphology: within k dilations = an object pixel within distance k;
// within k erosions = every image pixel within distance k is object.
int referenceTrimap(const std::vector<std::string>& mask, int x, int y) {
  const int h = static_cast<int>(mask.size()), w = static_cast<int>(mask[0].size());
  auto anyWithin = [&](int k) {
    for (int j = std::max(0, y - k); j <= std::min(h - 1, y + k); ++j)
      for (int i = std::max(0, x - k); i <= std::min(w - 1, x + k); ++i)
        if (mask[j][i] == '#') return true;
    return false;
  };
  auto allWithin = [&](int k) {
    for (int j = std::max(0, y - k); j <= std::min(h - 1, y + k); ++j)
      for (int i = std::max(0, x - k); i <= std::min(w - 1, x + k); ++i)
        if (mask[j][i] != '#') return false;
    return true;
  };
  const int sum = anyWithin(3) + anyWithin(1) + allWithin(1) + allWithin(3);
  const int recode[5] = {7, 1, 0, 2, 7};
  return recode[sum];
}

struct Scene {
  const char* name;
  std::vector<std::string> mask;  // working mask, '#' = object
  // Working label codes: those of the mask (4 object, 3 background) with
  // these exceptions (x, y, code).
  std::vector<int> labelOverrides;
  // Photo object rectangle at full resolution: x0, y0, x1, y1 inclusive.
  int photo[4];
  bool grey;
};

class IntelligentUpscalingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    hostlog::setEcho(false);
    hybrid_.m_lambda = 1.0;
    hybrid_.m_beta = 0.0005;
    setSingleComponent(hybrid_.m_fgModel, kObjectColour[0], kObjectColour[1], kObjectColour[2], 400, 1.0);
    setSingleComponent(hybrid_.m_bgModel, kBackgroundColour[0], kBackgroundColour[1], kBackgroundColour[2], 400,
                       1.0);
  }
  void TearDown() override {
    if (VELDSEMarker::m_originalImage) cvReleaseImage(&VELDSEMarker::m_originalImage);
    if (VELDSEMarker::m_labelImage) cvReleaseImage(&VELDSEMarker::m_labelImage);
    if (VELDSEMarker::m_texHor) cvReleaseImage(&VELDSEMarker::m_texHor);
    if (VELDSEMarker::m_texVer) cvReleaseImage(&VELDSEMarker::m_texVer);
    VELDSEMarker::m_isGreyScale = false;
  }

  // Builds the context for a scene and returns the working mask (0/1).
  IplImage* setUpScene(const Scene& s) {
    const int w = static_cast<int>(s.mask[0].size()), h = static_cast<int>(s.mask.size());
    VELDSEMarker::m_originalWidth = w * kScale;
    VELDSEMarker::m_originalHeight = h * kScale;
    VELDSEMarker::m_originalImage = cvCreateImage(cvSize(w * kScale, h * kScale), IPL_DEPTH_8U, 3);
    for (int y = 0; y < h * kScale; ++y) {
      for (int x = 0; x < w * kScale; ++x) {
        const bool object = x >= s.photo[0] && x <= s.photo[2] && y >= s.photo[1] && y <= s.photo[3];
        std::copy(object ? kObjectColour : kBackgroundColour, (object ? kObjectColour : kBackgroundColour) + 3,
                  px(VELDSEMarker::m_originalImage, x, y));
      }
    }
    IplImage* mask = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
    VELDSEMarker::m_labelImage = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        *px(mask, x, y) = s.mask[y][x] == '#' ? 1 : 0;
        *px(VELDSEMarker::m_labelImage, x, y) = s.mask[y][x] == '#' ? LABEL_PR_FG : LABEL_PR_BG;
      }
    }
    for (size_t i = 0; i + 2 < s.labelOverrides.size(); i += 3) {
      *px(VELDSEMarker::m_labelImage, s.labelOverrides[i], s.labelOverrides[i + 1]) =
          static_cast<unsigned char>(s.labelOverrides[i + 2]);
    }
    VELDSEMarker::m_isGreyScale = s.grey;
    if (s.grey) {
      // Texture planes of zero: the models then only see channel 0.
      VELDSEMarker::m_texHor = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
      VELDSEMarker::m_texVer = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
      cvSetZero(VELDSEMarker::m_texHor);
      cvSetZero(VELDSEMarker::m_texVer);
      setSingleComponent(hybrid_.m_fgModel, kObjectColour[0], 0, 0, 400, 1.0);
      setSingleComponent(hybrid_.m_bgModel, kBackgroundColour[0], 0, 0, 400, 1.0);
    }
    return mask;
  }

  VELDSEHybrid hybrid_;
};

TEST_F(IntelligentUpscalingTest, BandFollowsThePhotoAndTheRestTheLabels) {
  const Scene scenes[] = {
      {"square, photo edges inside the band",
       {"................",
        "................",
        "...######.......",
        "...######.......",
        "...######.......",
        "...######.......",
        "...######.......",
        "...######.......",
        "................",
        "................"},
       {},
       {13, 10, 34, 29},
       false},
      {"large object: labels decide the deep interior and far background",
       {"....................",
        "....................",
        "...##########.......",
        "...##########.......",
        "...##########.......",
        "...##########.......",
        "...##########.......",
        "...##########.......",
        "...##########.......",
        "...##########.......",
        "...##########.......",
        "...##########.......",
        "....................",
        "....................",
        "....................",
        "....................",
        "....................",
        "...................."},
       {7, 6, LABEL_PR_BG, 8, 7, LABEL_BG, 18, 16, LABEL_PR_FG, 0, 17, LABEL_FG, 4, 3, LABEL_PR_BG},
       {11, 9, 50, 46},
       false},
      {"one-pixel-wide object line",
       {"................",
        "................",
        "................",
        "................",
        "................",
        "..############..",
        "................",
        "................",
        "................",
        "................",
        "................",
        "................"},
       {5, 5, LABEL_PR_BG},
       {10, 21, 55, 22},
       false},
      {"object against three borders",
       {"########........",
        "########........",
        "########........",
        "########........",
        "########........",
        "########........",
        "########........",
        "########........",
        "########........",
        "########........",
        "########........",
        "########........"},
       {},
       {0, 0, 29, 47},
       false},
      {"grey photo uses channel 0 and the textures",
       {"................",
        "................",
        "...######.......",
        "...######.......",
        "...######.......",
        "...######.......",
        "...######.......",
        "...######.......",
        "................",
        "................"},
       {},
       {14, 9, 33, 30},
       true},
  };
  for (const Scene& s : scenes) {
    SCOPED_TRACE(s.name);
    SetUp();
    IplImage* mask = setUpScene(s);
    const int w = mask->width, h = mask->height;

    // Reference: band pixels follow the photo, all others the labels.
    int xmin = INT_MAX, xmax = -1, ymin = INT_MAX, ymax = -1;
    bool innerRing = false;
    std::vector<unsigned char> expected(w * kScale * h * kScale);
    for (int y = 0; y < h * kScale; ++y) {
      for (int x = 0; x < w * kScale; ++x) {
        const int code = referenceTrimap(s.mask, x / kScale, y / kScale);
        innerRing = innerRing || code == 2;
        if (code != 7) {
          xmin = std::min(xmin, x), xmax = std::max(xmax, x);
          ymin = std::min(ymin, y), ymax = std::max(ymax, y);
        }
        const int label = *px(VELDSEMarker::m_labelImage, x / kScale, y / kScale);
        const bool photoObject = x >= s.photo[0] && x <= s.photo[2] && y >= s.photo[1] && y <= s.photo[3];
        const bool object = code == 0 ? photoObject : (label == LABEL_FG || label == LABEL_PR_FG);
        expected[y * w * kScale + x] = object ? 255 : 0;
      }
    }
    if (std::string(s.name).find("line") != std::string::npos) {
      EXPECT_FALSE(innerRing);
    }

    hostlog::startCapture();
    IplImage* result = hybrid_.intelligentUpscaling(mask);
    const std::vector<hostlog::Record> logs = hostlog::stopCapture();

    ASSERT_EQ(result->width, w * kScale);
    ASSERT_EQ(result->height, h * kScale);
    int wrong = 0;
    for (int y = 0; y < result->height; ++y)
      for (int x = 0; x < result->width; ++x)
        if (*px(result, x, y) != expected[y * result->width + x]) ++wrong;
    EXPECT_EQ(wrong, 0);

    char passed[128], size[128];
    std::snprintf(passed, sizeof passed, "Passed: xmin:%d, xmax:%d, ymin:%d, ymax:%d", xmin, xmax, ymin, ymax);
    std::snprintf(size, sizeof size, "m_boundWidthTrimap:%d, m_boundHeightTrimap:%d", xmax - xmin + 1,
                  ymax - ymin + 1);
    ASSERT_EQ(logs.size(), 2u);
    EXPECT_EQ(logs[0].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(logs[0].tag, "Info");
    EXPECT_EQ(logs[0].text, passed);
    EXPECT_EQ(logs[1].tag, "Info");
    EXPECT_EQ(logs[1].text, size);
    EXPECT_EQ(hybrid_.m_trimapGraph, nullptr);
    // The working mask is left as it was (0/1) on this path.
    EXPECT_EQ(cvCountNonZero(mask), static_cast<int>(cv::sum(cv::cvarrToMat(mask))[0]));

    cvReleaseImage(&result);
    cvReleaseImage(&mask);
    TearDown();
  }
}

TEST_F(IntelligentUpscalingTest, BoxReachingThePhotoBordersIsTheWholePhoto) {
  // The band spans the photo from edge to edge in both directions; the
  // logged size is the photo's.
  Scene s = {"cross",
             {"....##....", "....##....", "....##....", "##########", "##########", "....##....",
              "....##....", "....##...."},
             {},
             {16, 0, 23, 39},
             false};
  IplImage* mask = setUpScene(s);
  hostlog::startCapture();
  IplImage* result = hybrid_.intelligentUpscaling(mask);
  const std::vector<hostlog::Record> logs = hostlog::stopCapture();
  ASSERT_EQ(logs.size(), 2u);
  EXPECT_EQ(logs[0].text, "Passed: xmin:0, xmax:39, ymin:0, ymax:31");
  EXPECT_EQ(logs[1].text, "m_boundWidthTrimap:40, m_boundHeightTrimap:32");
  EXPECT_EQ(hybrid_.m_boundWidthTrimap, 40);
  EXPECT_EQ(hybrid_.m_boundHeightTrimap, 32);
  cvReleaseImage(&result);
  cvReleaseImage(&mask);
}

TEST_F(IntelligentUpscalingTest, UniformMasksFallBackToPlainEnlargement) {
  struct Case {
    const char* name;
    char fill;
    unsigned char value;
  };
  const Case cases[] = {{"no object", '.', 0}, {"all object", '#', 255}};
  for (const Case& tc : cases) {
    SCOPED_TRACE(tc.name);
    Scene s = {tc.name, std::vector<std::string>(6, std::string(9, tc.fill)), {}, {0, 0, -1, -1}, false};
    IplImage* mask = setUpScene(s);
    hostlog::startCapture();
    IplImage* result = hybrid_.intelligentUpscaling(mask);
    const std::vector<hostlog::Record> logs = hostlog::stopCapture();
    ASSERT_EQ(result->width, 36);
    ASSERT_EQ(result->height, 24);
    const cv::Mat r = cv::cvarrToMat(result);
    EXPECT_EQ(cv::countNonZero(r != tc.value), 0);
    // The input mask's object value is rewritten to 255 in place.
    const cv::Mat m = cv::cvarrToMat(mask);
    EXPECT_EQ(cv::countNonZero(m != tc.value), 0);
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(logs[0].tag, "Error");
    EXPECT_EQ(logs[0].text, "Failed: xmin:2147483647, xmax:-1, ymin:2147483647, ymax:-1");
    EXPECT_EQ(hybrid_.m_trimapGraph, nullptr);
    cvReleaseImage(&result);
    cvReleaseImage(&mask);
    TearDown();
  }
}

TEST_F(IntelligentUpscalingTest, CropCopiesTheBoxOfEveryChannel) {
  IplImage* src = cvCreateImage(cvSize(10, 8), IPL_DEPTH_8U, 3);
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 10; ++x)
      for (int c = 0; c < 3; ++c) px(src, x, y)[c] = static_cast<unsigned char>(100 * c + 10 * y + x);
  hybrid_.m_boundWidthTrimap = 4;
  hybrid_.m_boundHeightTrimap = 3;
  IplImage* crop = hybrid_.cropImageTrimap(src, 4, 3, 2, 5);
  ASSERT_EQ(crop->nChannels, 3);
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 4; ++x)
      for (int c = 0; c < 3; ++c) EXPECT_EQ(px(crop, x, y)[c], 100 * c + 10 * (y + 2) + (x + 5));
  cvReleaseImage(&crop);
  cvReleaseImage(&src);
}

class TrimapGraphTest : public IntelligentUpscalingTest {};

TEST_F(TrimapGraphTest, LinksFollowCodesAndContrast) {
  // Trimap (rows) and colours of a 4 x 3 box.
  const int codes[3][4] = {{0, 0, 7, 1}, {2, 0, 0, 0}, {7, 0, 0, 3}};
  IplImage* img = cvCreateImage(cvSize(4, 3), IPL_DEPTH_8U, 3);
  IplImage* trimap = cvCreateImage(cvSize(4, 3), IPL_DEPTH_8U, 1);
  for (int y = 0; y < 3; ++y) {
    for (int x = 0; x < 4; ++x) {
      *px(trimap, x, y) = static_cast<unsigned char>(codes[y][x]);
      unsigned char* p = px(img, x, y);
      p[0] = static_cast<unsigned char>(20 + 37 * x + 11 * y);
      p[1] = static_cast<unsigned char>(200 - 23 * x * y);
      p[2] = static_cast<unsigned char>(90 + 41 * y - 7 * x);
    }
  }
  hybrid_.m_lambda = 3.0;
  hybrid_.m_beta = 0.00037;
  hybrid_.m_boundWidthTrimap = 4;
  hybrid_.m_boundHeightTrimap = 3;
  ASSERT_EQ(hybrid_.constructGraphTrimapVELD(img, nullptr, trimap, nullptr, nullptr), 0);
  const VELDSEGraph& g = *hybrid_.m_trimapGraph;
  EXPECT_EQ(g.m_nodeCount, 12);
  EXPECT_EQ(g.m_capCount, 96);

  float t[256];
  for (int d = 0; d < 256; ++d) t[d] = std::exp(-static_cast<float>(d * d * 0.00037));
  auto diff = [&](int x, int y, int qx, int qy, int c) { return std::abs(px(img, x, y)[c] - px(img, qx, qy)[c]); };
  const int dx[4] = {-1, -1, 0, 1}, dy[4] = {0, -1, -1, -1};
  for (int y = 0; y < 3; ++y) {
    for (int x = 0; x < 4; ++x) {
      SCOPED_TRACE(testing::Message() << "node (" << x << ", " << y << ")");
      const int node = x + 4 * y;
      for (int s = 0; s < 4; ++s) {
        const int qx = x + dx[s], qy = y + dy[s];
        const bool exists = qx >= 0 && qx < 4 && qy >= 0 && codes[y][x] != 7 && codes[qy][qx] != 7 &&
                            (y >= 1 || s == 0);
        const float* pair = g.m_caps + 8 * node + 2 * s;
        if (!exists) {
          EXPECT_EQ(pair[0], VELDSEGraph::ABSENT_EDGE) << "slot " << s;
          EXPECT_EQ(pair[1], VELDSEGraph::ABSENT_EDGE) << "slot " << s;
          continue;
        }
        float expected;
        if (s == 0) {
          expected = 3.0f;  // colour-blind horizontal link
        } else if (s == 2) {
          expected = static_cast<float>(3.0 * t[diff(x, y, qx, qy, 0)] * t[diff(x, y, qx, qy, 1)] *
                                        t[diff(x, y, qx, qy, 2)]);
        } else {
          expected = t[diff(x, y, qx, qy, 0)] * static_cast<float>(3.0 * 0.7071067932881648) *
                     t[diff(x, y, qx, qy, 1)] * t[diff(x, y, qx, qy, 2)];
        }
        EXPECT_FLOAT_EQ(pair[0], expected) << "slot " << s;
        EXPECT_EQ(pair[1], pair[0]);
        if (s != 0) {
          EXPECT_LT(pair[0], 3.0f);  // the colours differ: contrast lowers the weight
        }
      }
      // Terminal links.
      const float trCap = g.m_nodes[node].trCap;
      const int code = codes[y][x];
      if (code == 1) {
        EXPECT_EQ(trCap, -1000.0f);
      } else if (code == 2) {
        EXPECT_EQ(trCap, 1000.0f);
      } else if (code == 7) {
        EXPECT_EQ(trCap, 0.0f);
      } else {
        pixelVal v = {{double(px(img, x, y)[0]), double(px(img, x, y)[1]), double(px(img, x, y)[2])}};
        const double lb = std::log(hybrid_.m_bgModel.GMMProb(v));
        const double lf = std::log(hybrid_.m_fgModel.GMMProb(v));
        EXPECT_FLOAT_EQ(trCap, -static_cast<float>(lb) + static_cast<float>(lf));
      }
    }
  }
  delete hybrid_.m_trimapGraph;
  hybrid_.m_trimapGraph = nullptr;
  cvReleaseImage(&img);
  cvReleaseImage(&trimap);
}

TEST_F(TrimapGraphTest, GreyPhotosSampleTheTextures) {
  IplImage* img = cvCreateImage(cvSize(2, 1), IPL_DEPTH_8U, 3);
  IplImage* trimap = cvCreateImage(cvSize(2, 1), IPL_DEPTH_8U, 1);
  IplImage* hor = cvCreateImage(cvSize(2, 1), IPL_DEPTH_8U, 1);
  IplImage* ver = cvCreateImage(cvSize(2, 1), IPL_DEPTH_8U, 1);
  cvSetZero(trimap);
  const unsigned char colour[2][3] = {{40, 250, 250}, {180, 0, 0}};
  for (int x = 0; x < 2; ++x) {
    std::copy(colour[x], colour[x] + 3, px(img, x, 0));
    *px(hor, x, 0) = static_cast<unsigned char>(10 + x);
    *px(ver, x, 0) = static_cast<unsigned char>(20 + x);
  }
  VELDSEMarker::m_isGreyScale = true;
  setSingleComponent(hybrid_.m_fgModel, 50, 10, 20, 300, 1.0);
  setSingleComponent(hybrid_.m_bgModel, 170, 10, 20, 300, 1.0);
  hybrid_.m_boundWidthTrimap = 2;
  hybrid_.m_boundHeightTrimap = 1;
  ASSERT_EQ(hybrid_.constructGraphTrimapVELD(img, hor, trimap, hor, ver), 0);
  for (int x = 0; x < 2; ++x) {
    SCOPED_TRACE(x);
    pixelVal v = {{double(colour[x][0]), 10.0 + x, 20.0 + x}};
    const double lb = std::log(hybrid_.m_bgModel.GMMProb(v));
    const double lf = std::log(hybrid_.m_fgModel.GMMProb(v));
    EXPECT_FLOAT_EQ(hybrid_.m_trimapGraph->m_nodes[x].trCap, -static_cast<float>(lb) + static_cast<float>(lf));
  }
  delete hybrid_.m_trimapGraph;
  hybrid_.m_trimapGraph = nullptr;
  for (IplImage* im : {img, trimap, hor, ver}) cvReleaseImage(&im);
}

}  // namespace
