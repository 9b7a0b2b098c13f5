// Engine initialisation: working size, grey-scale decision, texture images and
// neighbour weights.
#include <gtest/gtest.h>
#include <hostlog/capture.h>
#include <opencv2/core.hpp>
#include <opencv2/core/core_c.h>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "engine/veldse_hybrid.h"
#include "interface/segmentation_core.h"
#include "interface/veldse_marker.h"

namespace {

using PixelFn = std::function<unsigned int(int x, int y)>;  // 0x00RRGGBB

unsigned char* rowOf(IplImage* image, int y) {
  return reinterpret_cast<unsigned char*>(image->imageData + y * image->widthStep);
}

void setPhoto(int w, int h, const PixelFn& pixel) {
  std::vector<unsigned int> argb(static_cast<size_t>(w) * h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) argb[static_cast<size_t>(y) * w + x] = 0xFF000000u | pixel(x, y);
  setSourceImage(w, h, argb.data());
}

IplImage* makeImage(int w, int h, const std::vector<unsigned char>& bgr) {
  IplImage* image = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 3);
  for (int y = 0; y < h; ++y)
    for (int i = 0; i < 3 * w; ++i) rowOf(image, y)[i] = bgr[static_cast<size_t>(y) * 3 * w + i];
  return image;
}

IplImage* randomImage(int w, int h, unsigned seed, unsigned mask = 0xFF) {
  std::mt19937 rng(seed);
  std::vector<unsigned char> bytes(static_cast<size_t>(w) * h * 3);
  for (unsigned char& b : bytes) b = static_cast<unsigned char>(rng() & mask);
  return makeImage(w, h, bytes);
}

// Every test ends with the context torn down.
class EngineInit : public ::testing::Test {
 protected:
  void TearDown() override {
    deinitSegmentation();
    g_imageResizeFactor = 1.0f;
  }
  // An engine over a working image given directly (no photo, no reduction).
  std::unique_ptr<VELDSEHybrid> engineOver(IplImage* src) {
    VELDSEMarker::m_srcImage = src;
    std::unique_ptr<VELDSEHybrid> engine(new VELDSEHybrid);
    engine->m_imgWidth = src->width;
    engine->m_imgHeight = src->height;
    engine->computeNlinks();
    return engine;
  }
};

TEST_F(EngineInit, WorkingSizeFollowsTheAreaTarget) {
  struct Case {
    int w, h;
    float factor;
    int workW, workH;
  } cases[] = {
      {640, 480, 2.0f, 320, 240},   {320, 240, 1.0f, 320, 240},    {1000, 750, 3.125f, 320, 240},
      {2000, 1500, 6.25f, 320, 240}, {321, 240, 1.00156128f, 320, 239}, {600, 400, 1.76776695f, 339, 226},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h));
    setPhoto(c.w, c.h, [](int x, int y) { return static_cast<unsigned>((x * 7 + y * 13) & 0xFF) * 0x010203u; });
    ASSERT_EQ(initSegmentationEngine(0), 0);
    EXPECT_EQ(g_imageResizeFactor, c.factor);
    EXPECT_EQ(VELDSEMarker::m_width, c.workW);
    EXPECT_EQ(VELDSEMarker::m_height, c.workH);
    ASSERT_NE(VELDSEMarker::m_srcImage, nullptr);
    EXPECT_EQ(VELDSEMarker::m_srcImage->width, c.workW);
    EXPECT_EQ(VELDSEMarker::m_srcImage->height, c.workH);
    EXPECT_EQ(pHybrid->m_imgWidth, c.workW);
    EXPECT_EQ(pHybrid->m_imgHeight, c.workH);
    for (IplImage* label : pHybrid->m_iterLabel) EXPECT_EQ(label, nullptr);
    deinitSegmentation();
  }
}

TEST_F(EngineInit, ReductionIsBilinearAndFullSizeIsACopy) {
  for (int w : {1280, 300}) {
    SCOPED_TRACE(w);
    setPhoto(w, w * 3 / 4, [](int x, int y) { return static_cast<unsigned>(x * 2654435761u ^ y * 40503u) & 0xFFFFFFu; });
    initSegmentationEngine(0);
    cv::Mat expected;
    cv::Mat photo = cv::cvarrToMat(VELDSEMarker::m_originalImage);
    if (w == 300) {
      expected = photo;
    } else {
      cv::resize(photo, expected, cv::Size(320, 240), 0, 0, cv::INTER_LINEAR);
    }
    cv::Mat work = cv::cvarrToMat(VELDSEMarker::m_srcImage);
    ASSERT_EQ(work.size(), expected.size());
    EXPECT_EQ(cv::norm(work, expected, cv::NORM_INF), 0.0);
    deinitSegmentation();
  }
}

TEST_F(EngineInit, SmallPhotoKeepsTheCurrentFactor) {
  setPhoto(640, 480, [](int, int) { return 0x102030u; });
  initSegmentationEngine(0);
  ASSERT_EQ(g_imageResizeFactor, 2.0f);
  deinitSegmentation();  // the factor survives a teardown

  setPhoto(200, 100, [](int x, int) { return x % 2 ? 0xFF0000u : 0x0000FFu; });
  pHybrid = new VELDSEHybrid;
  VELDSEMarker::initializer();
  pHybrid->intializer();
  EXPECT_EQ(g_imageResizeFactor, 2.0f);
  EXPECT_EQ(VELDSEMarker::m_width, 100);
  EXPECT_EQ(VELDSEMarker::m_height, 50);
}

TEST_F(EngineInit, GreyDecisionAtItsThreshold) {
  // 10 x 10 pixels: the image is colour once the summed channel differences
  // reach 100.
  struct Case {
    std::vector<std::pair<int, int>> greenRed;  // c1, c2 of some pixels (c0 = 50)
    bool grey;
  } cases[] = {
      {{}, true},
      {{{50 + 99, 50}}, true},
      {{{50 + 100, 50}}, false},
      {{{0, 1}}, true},               // 50 + 49
      {{{0, 100}}, false},            // 50 + 50
      {{{51, 51}, {0, 0}}, false},    // 2 + 100
      {{{51, 51}, {0, 49}}, true},    // 2 + 51
  };
  for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
    SCOPED_TRACE(i);
    std::vector<unsigned char> bytes(300, 50);
    for (size_t k = 0; k < cases[i].greenRed.size(); ++k) {
      bytes[3 * k + 1] = static_cast<unsigned char>(cases[i].greenRed[k].first);
      bytes[3 * k + 2] = static_cast<unsigned char>(cases[i].greenRed[k].second);
    }
    IplImage* image = makeImage(10, 10, bytes);
    VELDSEHybrid engine;
    EXPECT_EQ(engine.greyScaleTest(image), cases[i].grey);
    cvReleaseImage(&image);
  }
}

TEST_F(EngineInit, GreyPhotosGetTextureImagesColourPhotosDoNot) {
  setPhoto(40, 30, [](int x, int y) { return static_cast<unsigned>((x + y) & 0xFF) * 0x010101u; });
  initSegmentationEngine(0);
  EXPECT_TRUE(VELDSEMarker::m_isGreyScale);
  ASSERT_NE(VELDSEMarker::m_texHor, nullptr);
  EXPECT_EQ(VELDSEMarker::m_texVer->width, 40);
  deinitSegmentation();

  setPhoto(40, 30, [](int x, int) { return static_cast<unsigned>(x) << 16; });
  initSegmentationEngine(0);
  EXPECT_FALSE(VELDSEMarker::m_isGreyScale);
  EXPECT_EQ(VELDSEMarker::m_texHor, nullptr);
  EXPECT_EQ(VELDSEMarker::m_texVer, nullptr);
}

TEST_F(EngineInit, TextureValuesIncludingRowZeroAndLastColumn) {
  // 4 x 3 working image; channel 0 is I, channels 1 and 2 are distinct so the
  // last column's byte-offset reading is visible: byte 3 of a row is channel 0
  // of pixel 1.
  const int I[3][4] = {{10, 40, 20, 25}, {13, 30, 60, 5}, {200, 0, 61, 9}};
  std::vector<unsigned char> bytes;
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 4; ++x)
      for (int c = 0; c < 3; ++c) bytes.push_back(static_cast<unsigned char>(I[y][x] + 7 * c));
  VELDSEMarker::m_srcImage = makeImage(4, 3, bytes);
  VELDSEHybrid engine;
  engine.computeTexture();

  const int hor[3][4] = {{30, 20, 5, 0}, {17, 30, 55, 55}, {200, 61, 52, 52}};
  const int ver[3][4] = {{3, 10, 40, 0}, {3, 10, 40, 10}, {187, 30, 1, 30}};
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 4; ++x) {
      SCOPED_TRACE(std::to_string(x) + "," + std::to_string(y));
      EXPECT_EQ(rowOf(VELDSEMarker::m_texHor, y)[x], hor[y][x]);
      EXPECT_EQ(rowOf(VELDSEMarker::m_texVer, y)[x], ver[y][x]);
    }
}

TEST_F(EngineInit, EmptyWorkingImageLogsTextureSizeErrors) {
  hostlog::startCapture();
  VELDSEMarker::m_srcImage = cvCreateImage(cvSize(0, 0), IPL_DEPTH_8U, 3);
  VELDSEHybrid engine;
  engine.computeTexture();
  std::vector<hostlog::Record> records = hostlog::stopCapture();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].priority, 6);
  EXPECT_EQ(records[0].tag, "Error");
  EXPECT_EQ(records[0].text, "MEMORY_CRASH : computeTexture 2817");
  EXPECT_EQ(records[1].text, "MEMORY_CRASH : computeTexture 2818");
}

// Brute force over every pair of 8-neighbours, written independently of the
// engine's scan: all pixel pairs at chessboard distance 1, each once.
struct PairSum {
  long long count = 0;
  int32_t wrapped = 0;
};
PairSum bruteForcePairs(IplImage* image) {
  PairSum result;
  uint64_t sum = 0;
  const int w = image->width, h = image->height;
  for (int a = 0; a < w * h; ++a)
    for (int b = a + 1; b < w * h; ++b) {
      const int ax = a % w, ay = a / w, bx = b % w, by = b / w;
      if (std::abs(ax - bx) > 1 || std::abs(ay - by) > 1) continue;
      ++result.count;
      for (int c = 0; c < 3; ++c) {
        const int d = rowOf(image, ay)[3 * ax + c] - rowOf(image, by)[3 * bx + c];
        sum += static_cast<uint64_t>(d * d);
      }
    }
  result.wrapped = static_cast<int32_t>(static_cast<uint32_t>(sum & 0xFFFFFFFFu));
  return result;
}

TEST_F(EngineInit, BetaMatchesABruteForcePairSum) {
  struct Case {
    int w, h;
  } cases[] = {{1, 1}, {2, 2}, {3, 1}, {1, 4}, {2, 5}, {5, 4}, {9, 7}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h));
    IplImage* image = randomImage(c.w, c.h, static_cast<unsigned>(c.w * 31 + c.h));
    const PairSum ref = bruteForcePairs(image);
    EXPECT_EQ(ref.count, (4LL * c.h - 3) * c.w - 3LL * c.h + 2);
    std::unique_ptr<VELDSEHybrid> engine = engineOver(image);
    const double expected = ref.wrapped > 0 ? static_cast<double>(ref.count) / (2.0 * ref.wrapped) : 0.0;
    EXPECT_EQ(engine->m_beta, expected);
    engine.reset();
    cvReleaseImage(&VELDSEMarker::m_srcImage);
  }
}

TEST_F(EngineInit, PairSumWrapsAt32Bits) {
  // Black and white checkerboards: every axis pair contributes 3 * 255^2.
  // 80 x 80 wraps to a negative sum (beta 0); 106 x 106 wraps past 2^32 to a
  // small positive sum.
  for (int n : {40, 80, 106}) {
    SCOPED_TRACE(n);
    std::vector<unsigned char> bytes(static_cast<size_t>(n) * n * 3);
    for (int i = 0; i < n * n; ++i)
      if ((i % n + i / n) % 2) bytes[3 * i] = bytes[3 * i + 1] = bytes[3 * i + 2] = 255;
    IplImage* image = makeImage(n, n, bytes);
    const long long axisPairs = 2LL * n * (n - 1);
    const int32_t wrapped = static_cast<int32_t>(static_cast<uint32_t>(axisPairs * 195075));
    ASSERT_EQ(bruteForcePairs(image).wrapped, wrapped);
    std::unique_ptr<VELDSEHybrid> engine = engineOver(image);
    const long long pairs = (4LL * n - 3) * n - 3LL * n + 2;
    EXPECT_EQ(engine->m_beta, wrapped > 0 ? pairs / (2.0 * wrapped) : 0.0);
    if (n == 80) {
      EXPECT_EQ(engine->m_beta, 0.0);
    }
    engine.reset();
    cvReleaseImage(&VELDSEMarker::m_srcImage);
  }
}

// Slot k of pixel (x, y) exists when its neighbour lies inside the image.
bool neighbourInside(int x, int y, int slot, int w) {
  static const int dx[4] = {-1, -1, 0, 1};
  const int nx = x + dx[slot], ny = y - (slot == 0 ? 0 : 1);
  return nx >= 0 && nx < w && ny >= 0;
}

TEST_F(EngineInit, UniformImageHasUnitWeights) {
  const int w = 6, h = 5;
  IplImage* image = makeImage(w, h, std::vector<unsigned char>(w * h * 3, 77));
  std::unique_ptr<VELDSEHybrid> engine = engineOver(image);
  EXPECT_EQ(engine->m_beta, 0.0);
  const float diagonal = static_cast<float>(0.7071067932881648);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int s = 0; s < 4; ++s) {
        if (y == 0 && s == 3 && x > 0 && x < w - 1) continue;  // never written
        SCOPED_TRACE(std::to_string(x) + "," + std::to_string(y) + " slot " + std::to_string(s));
        const float expected = !neighbourInside(x, y, s, w) ? 0.0f : (s % 2 ? diagonal : 1.0f);
        EXPECT_EQ(engine->m_nlinks[4 * (y * w + x) + s], expected);
      }
}

TEST_F(EngineInit, WeightsFollowTheContrast) {
  const int w = 11, h = 9;
  IplImage* image = randomImage(w, h, 5, 63);
  // One strong contrast in a moderately textured image: white beside black.
  for (int c = 0; c < 3; ++c) {
    rowOf(image, 4)[3 * 5 + c] = 255;
    rowOf(image, 4)[3 * 4 + c] = 0;
  }
  std::unique_ptr<VELDSEHybrid> engine = engineOver(image);
  const double beta = engine->m_beta;
  ASSERT_GT(beta, 0.0);
  // The documented single-precision recipe, and exp() as a loose reference.
  float table[256];
  for (int d = 0; d < 256; ++d) table[d] = expf(-static_cast<float>(d * d * beta));
  static const int dx[4] = {-1, -1, 0, 1};
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int s = 0; s < 4; ++s) {
        if (y == 0 && s == 3 && x > 0 && x < w - 1) continue;
        SCOPED_TRACE(std::to_string(x) + "," + std::to_string(y) + " slot " + std::to_string(s));
        const float got = engine->m_nlinks[4 * (y * w + x) + s];
        if (!neighbourInside(x, y, s, w)) {
          EXPECT_EQ(got, 0.0f);
          continue;
        }
        const unsigned char* p = rowOf(image, y) + 3 * x;
        const unsigned char* q = rowOf(image, s == 0 ? y : y - 1) + 3 * (x + dx[s]);
        int d[3], dist2 = 0;
        for (int c = 0; c < 3; ++c) {
          d[c] = std::abs(p[c] - q[c]);
          dist2 += d[c] * d[c];
        }
        float recipe;
        if (s % 2) {
          recipe = static_cast<float>(static_cast<double>(table[d[0]]) * 0.7071067932881648 *
                                      table[d[1]] * static_cast<double>(table[d[2]]));
        } else {
          recipe = table[d[0]] * table[d[1]] * table[d[2]];
        }
        EXPECT_EQ(got, recipe);
        const double exact = std::exp(-beta * dist2) * (s % 2 ? 0.7071067932881648 : 1.0);
        EXPECT_NEAR(got, exact, 1e-6 + 1e-5 * exact);
        EXPECT_GT(got, 0.0f);
        EXPECT_LE(got, 1.0f);
      }
  EXPECT_LT(engine->m_nlinks[4 * (4 * w + 5)], 1e-3f) << "white beside black";
}

}  // namespace
