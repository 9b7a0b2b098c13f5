// Engine initialisation: working size, grey-scale decision, texture images and
// neighbour weights.
#include <functional>

#include "engine/veldse_hybrid.h"
#include "interface/segmentation_core.h"
#include "interface/veldse_marker.h"
#include "tests/test_support.h"

namespace {

using testsupport::at;
using testsupport::M;

// 8U C3 image whose byte c of pixel (x, y) is byteAt(x, y, c).
IplImage* makeImage(int w, int h, const std::function<int(int, int, int)>& byteAt) {
  IplImage* image = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 3);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < 3 * w; ++x)
      at(image, x / 3, y, x % 3) = static_cast<unsigned char>(byteAt(x / 3, y, x % 3));
  return image;
}

void setPhoto(int w, int h) {
  std::vector<unsigned int> argb(static_cast<size_t>(w) * h);
  for (size_t i = 0; i < argb.size(); ++i) argb[i] = static_cast<unsigned>(i * 2654435761u) | 0xFF000000u;
  setSourceImage(w, h, argb.data());
}

class EngineInit : public ::testing::Test {
 protected:
  void TearDown() override {
    deinitSegmentation();
    g_imageResizeFactor = 1.0f;
  }
};

TEST_F(EngineInit, WorkingSizeAndBilinearReduction) {
  const struct {
    int w, h;
    float factor;
    int workW, workH;
  } cases[] = {{640, 480, 2.0f, 320, 240},        {320, 240, 1.0f, 320, 240},
               {2000, 1500, 6.25f, 320, 240},     {321, 240, 1.00156128f, 320, 239},
               {600, 400, 1.76776695f, 339, 226}, {300, 200, 1.0f, 300, 200}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h));
    setPhoto(c.w, c.h);
    ASSERT_EQ(initSegmentationEngine(0), 0);
    EXPECT_EQ(g_imageResizeFactor, c.factor);
    EXPECT_EQ(cv::Size(VELDSEMarker::m_width, VELDSEMarker::m_height), cv::Size(c.workW, c.workH));
    EXPECT_EQ(cv::Size(pHybrid->m_imgWidth, pHybrid->m_imgHeight), cv::Size(c.workW, c.workH));
    cv::Mat expected = M(VELDSEMarker::m_originalImage);
    if (c.factor != 1.0f)
      cv::resize(expected.clone(), expected, cv::Size(c.workW, c.workH), 0, 0, cv::INTER_LINEAR);
    EXPECT_EQ(cv::norm(M(VELDSEMarker::m_srcImage), expected, cv::NORM_INF), 0.0);
    deinitSegmentation();
  }
  // The engine's own start keeps the factor of an earlier context (it
  // survives a teardown): a smaller photo is then reduced by it too.
  setPhoto(640, 480);
  initSegmentationEngine(0);
  deinitSegmentation();
  setPhoto(200, 100);
  pHybrid = new VELDSEHybrid;
  pHybrid->intializer();
  EXPECT_EQ(g_imageResizeFactor, 2.0f);
  EXPECT_EQ(cv::Size(VELDSEMarker::m_width, VELDSEMarker::m_height), cv::Size(100, 50));
}

// Photos so long and thin that the reduction to about 320 x 240 pixels of
// area takes their short side below one pixel keep one row (or column); the
// long side is reduced as usual. No size problem is logged.
TEST_F(EngineInit, ThinPhotosKeepAWorkingSideOfOnePixel) {
  const struct {
    int w, h;
    float factor;
    int workW, workH;
  } cases[] = {{100000, 1, 1.14108872f, 87635, 1},
               {1, 100000, 1.14108872f, 1, 87635},
               {3, 400001, 3.95285201f, 1, 101193},
               {2, 179065, 2.15943313f, 1, 82922},
               {195765, 2, 2.25788546f, 86702, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h));
    setPhoto(c.w, c.h);
    const testsupport::Lines log = testsupport::logged([] { ASSERT_EQ(initSegmentationEngine(0), 0); });
    EXPECT_EQ(log, testsupport::Lines());
    EXPECT_EQ(g_imageResizeFactor, c.factor);
    EXPECT_EQ(cv::Size(VELDSEMarker::m_width, VELDSEMarker::m_height), cv::Size(c.workW, c.workH));
    EXPECT_EQ(cv::Size(pHybrid->m_imgWidth, pHybrid->m_imgHeight), cv::Size(c.workW, c.workH));
    cv::Mat expected;
    cv::resize(M(VELDSEMarker::m_originalImage), expected, cv::Size(c.workW, c.workH), 0, 0,
               cv::INTER_LINEAR);
    EXPECT_EQ(cv::norm(M(VELDSEMarker::m_srcImage), expected, cv::NORM_INF), 0.0);
    deinitSegmentation();
  }
}

TEST_F(EngineInit, GreyDecisionAtItsThreshold) {
  // 10 x 10 pixels of (50, 50, 50) except pixel 0: the image is colour once
  // |c0 - c1| + |c0 - c2| summed over all pixels reaches 100.
  const struct {
    int c1, c2;
    bool grey;
  } cases[] = {{50, 50, true}, {149, 50, true}, {150, 50, false}, {0, 1, true}, {0, 100, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.c1) + "," + std::to_string(c.c2));
    IplImage* image = makeImage(10, 10, [&](int x, int y, int ch) {
      return x + y > 0 || ch == 0 ? 50 : ch == 1 ? c.c1 : c.c2;
    });
    EXPECT_EQ(VELDSEHybrid().greyScaleTest(image), c.grey);
    cvReleaseImage(&image);
  }
}

TEST_F(EngineInit, TextureValuesIncludingRowZeroAndLastColumn) {
  // Channel 0 is I; channels 1 and 2 differ so that the last column's byte
  // offset reading shows: byte 3 of a row is channel 0 of pixel 1.
  const int I[3][4] = {{10, 40, 20, 25}, {13, 30, 60, 5}, {200, 0, 61, 9}};
  VELDSEMarker::m_srcImage = makeImage(4, 3, [&](int x, int y, int c) { return I[y][x] + 7 * c; });
  VELDSEHybrid engine;
  engine.computeTexture();
  const int hor[3][4] = {{30, 20, 5, 0}, {17, 30, 55, 55}, {200, 61, 52, 52}};
  const int ver[3][4] = {{3, 10, 40, 0}, {3, 10, 40, 10}, {187, 30, 1, 30}};
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 4; ++x) {
      EXPECT_EQ(at(VELDSEMarker::m_texHor, x, y), hor[y][x]) << x << "," << y;
      EXPECT_EQ(at(VELDSEMarker::m_texVer, x, y), ver[y][x]) << x << "," << y;
    }
  // An empty working image: both texture images' sizes are logged.
  deinitSegmentation();
  VELDSEMarker::m_srcImage = cvCreateImage(cvSize(0, 0), IPL_DEPTH_8U, 3);
  EXPECT_EQ(testsupport::logged([&] { engine.computeTexture(); }),
            (testsupport::Lines{"E/Error: MEMORY_CRASH : computeTexture 2817",
                                "E/Error: MEMORY_CRASH : computeTexture 2818"}));
}

// Independent reference: every pixel visits its 8 neighbours and counts the
// pair once (from the lower index), summing squared colour distances in 64
// bits; the 32-bit wrap is applied at the end. The engine wraps in a uint32_t
// whatever the width of long, so the wrap, and the test, hold on every target
// (32-bit ARM, 64-bit ARM, x86_64).
void bruteForcePairs(IplImage* image, long long& count, int32_t& wrapped) {
  const int w = image->width, h = image->height;
  uint64_t sum = 0;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int v = y - 1; v <= y + 1; ++v)
        for (int u = x - 1; u <= x + 1; ++u) {
          if (u < 0 || v < 0 || u >= w || v >= h || v * w + u <= y * w + x) continue;
          ++count;
          for (int c = 0, d; c < 3; ++c) d = at(image, x, y, c) - at(image, u, v, c), sum += d * d;
        }
  wrapped = static_cast<int32_t>(static_cast<uint32_t>(sum));
}

TEST_F(EngineInit, BetaAndPairCountMatchABruteForceSum) {
  // Black and white checkerboards of 80 and 106 pixels wrap the 32-bit sum
  // to a negative (beta 0) and to a small positive value.
  const struct {
    int w, h;
    bool checker;
  } cases[] = {{1, 1, false}, {2, 2, false},  {3, 1, false},   {1, 4, false},
               {9, 7, false}, {80, 80, true}, {106, 106, true}};
  std::mt19937 rng(3);
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h));
    VELDSEMarker::m_srcImage = makeImage(c.w, c.h, [&](int x, int y, int) {
      return c.checker ? ((x + y) % 2) * 255 : static_cast<int>(rng() & 0xFF);
    });
    long long count = 0;
    int32_t sum = 0;
    bruteForcePairs(VELDSEMarker::m_srcImage, count, sum);
    if (c.checker) {
      EXPECT_EQ(c.w == 80, sum < 0);
    }  // the cases exercise the wrap
    VELDSEHybrid engine;
    engine.m_imgWidth = c.w;
    engine.m_imgHeight = c.h;
    engine.computeNlinks();
    EXPECT_EQ(engine.m_beta, sum > 0 ? static_cast<double>(count) / (2.0 * sum) : 0.0);
    cvReleaseImage(&VELDSEMarker::m_srcImage);
  }
}

TEST_F(EngineInit, WeightsOfUniformAndTexturedImages) {
  const int w = 11, h = 9;
  std::mt19937 rng(5);
  for (bool uniform : {true, false}) {
    SCOPED_TRACE(uniform);
    // Textured: moderate noise with one white pixel beside a black one.
    IplImage* src = VELDSEMarker::m_srcImage = makeImage(w, h, [&](int x, int y, int) {
      return uniform ? 77 : y == 4 && x == 5 ? 255 : y == 4 && x == 4 ? 0 : static_cast<int>(rng() & 63);
    });
    VELDSEHybrid engine;
    engine.m_imgWidth = w;
    engine.m_imgHeight = h;
    engine.computeNlinks();
    const double beta = engine.m_beta;
    EXPECT_EQ(beta == 0.0, uniform);
    // The stated single-precision recipe, with exp() as a loose reference.
    float table[256];
    for (int d = 0; d < 256; ++d) table[d] = expf(-static_cast<float>(d * d * beta));
    const int dx[4] = {-1, -1, 0, 1};
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        for (int s = 0; s < 4; ++s) {
          if (y == 0 && s == 3 && x > 0 && x < w - 1) continue;  // never written
          SCOPED_TRACE(std::to_string(x) + "," + std::to_string(y) + " slot " + std::to_string(s));
          const float got = engine.m_nlinks[4 * (y * w + x) + s];
          const int nx = x + dx[s], ny = s == 0 ? y : y - 1;
          if (nx < 0 || nx >= w || ny < 0) {
            EXPECT_EQ(got, 0.0f);
            continue;
          }
          int d[3];
          for (int c = 0; c < 3; ++c) d[c] = std::abs(at(src, x, y, c) - at(src, nx, ny, c));
          const float recipe =
              s % 2 ? static_cast<float>(static_cast<double>(table[d[0]]) * 0.7071067932881648 * table[d[1]] *
                                         static_cast<double>(table[d[2]]))
                    : table[d[0]] * table[d[1]] * table[d[2]];
          EXPECT_EQ(got, recipe);
          const double exact = std::exp(-beta * (d[0] * d[0] + d[1] * d[1] + d[2] * d[2])) *
                               (s % 2 ? 0.7071067932881648 : 1.0);
          EXPECT_NEAR(got, exact, 1e-6 + 1e-5 * exact);
        }
    cvReleaseImage(&VELDSEMarker::m_srcImage);
  }
}

}  // namespace
