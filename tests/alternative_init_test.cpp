#include <opencv2/core/core_c.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <set>
#include <vector>

#include "colormodel/alternative_init.h"
#include "colormodel/kmeans_init.h"
#include "colormodel/veldse_color_model.h"
#include "gtest/gtest.h"
#include "interface/veldse_marker.h"

namespace {

pixelVal px(double a, double b, double c) { return pixelVal{{a, b, c}}; }

bool sameBits(const VELDSEColorModel& a, const VELDSEColorModel& b) {
  return std::memcmp(&a, &b, sizeof(VELDSEColorModel)) == 0;
}

std::vector<double> channel(const std::vector<pixelVal>& s, int c) {
  std::vector<double> v;
  for (const pixelVal& p : s) v.push_back(p.val[c]);
  return v;
}

TEST(VarPartitionTest, SplitsAlongWidestChannelAtItsMean) {
  const struct {
    const char* name;
    std::vector<pixelVal> in;
    int dir;
    std::vector<double> low, high;  // values on the split channel
  } cases[] = {
      {"identical samples", {px(7, 7, 7), px(7, 7, 7), px(7, 7, 7)}, 0, {7}, {7, 7, 7}},
      {"channel 2 widest", {px(1, 5, 0), px(2, 5, 30), px(3, 5, 10), px(2, 5, 20)}, 2, {0, 10}, {30, 20}},
      {"value equal to mean goes high", {px(0, 0, 0), px(0, 4, 0), px(0, 8, 0)}, 1, {0}, {4, 8}},
      {"single sample", {px(3, 2, 1)}, 0, {3}, {3}},
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    g_maxVarDir = -1;
    std::vector<pixelVal> low, high;
    varPartition(tc.in, low, high);
    EXPECT_EQ(g_maxVarDir, tc.dir);
    EXPECT_EQ(channel(low, tc.dir), tc.low);
    EXPECT_EQ(channel(high, tc.dir), tc.high);
  }
}

TEST(VarParInitTest, FourSplitsOfWidestGroups) {
  // Worked example on channel 0: {0,10,100,110} | {1000,1010}; then
  // {0,10} | {100,110}. Now all three groups have a mean squared error of 25
  // and the tie keeps the earliest, {1000,1010}; then {0,10}.
  std::vector<pixelVal> s;
  for (double v : {0.0, 10.0, 100.0, 110.0, 1000.0, 1010.0}) s.push_back(px(v, 1, 2));
  double block[15];
  double* centres[5];
  for (int k = 0; k < 5; ++k) centres[k] = block + 3 * k;
  varParInit(s, centres);
  EXPECT_EQ(std::vector<double>(block, block + 15),
            (std::vector<double>{105, 1, 2, 1000, 1, 2, 1010, 1, 2, 0, 1, 2, 10, 1, 2}));
  varParInit({px(4, 5, 6)}, centres);
  EXPECT_EQ(std::vector<double>(block, block + 15), (std::vector<double>{4, 5, 6, 4, 5, 6, 4, 5, 6, 4, 5, 6, 4, 5, 6}));
}

TEST(FindMeanTest, MeanAndSumOfSquaredErrors) {
  EXPECT_EQ(findMean({}).val[0], 0.0);
  EXPECT_EQ(findSSE({}), 0.0);
  const std::vector<pixelVal> s{px(0, 0, 0), px(2, 4, 6), px(4, 8, 12)};
  const pixelVal m = findMean(s);
  EXPECT_EQ(std::vector<double>(m.val, m.val + 3), (std::vector<double>{2, 4, 6}));
  EXPECT_DOUBLE_EQ(findSSE(s), 2 * (4.0 + 16.0 + 36.0));
}

TEST(OrderTest, AscendingByScoreTrueOnNaN) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const struct { double a, b; bool expected; } cases[] = {
      {1, 2, true}, {2, 1, false}, {3, 3, false}, {nan, 1, true}, {1, nan, true}, {nan, nan, true}};
  for (const auto& tc : cases) {
    SCOPED_TRACE(testing::Message() << tc.a << " vs " << tc.b);
    EXPECT_EQ(order(vec4{{9, 9, 9}, tc.a}, vec4{{0, 0, 0}, tc.b}), tc.expected);
  }
}

std::vector<pixelVal> fiveBlobs(int each) {
  std::vector<pixelVal> s;
  for (int b = 0; b < 5; ++b)
    for (int i = 0; i < each + b; ++i) s.push_back(px(50.0 * b + i % 3, 200.0 - 40.0 * b, 10.0 * b + i % 2));
  return s;
}

TEST(InitModelWithKmeansTest, SmallSetsLeaveModelUnchanged) {
  VELDSEColorModel m, before;
  m.weight[1] = before.weight[1] = 0.5;
  for (int n = 0; n <= 4; ++n) {
    initModelWithKmeans(std::vector<pixelVal>(n, px(1, 2, 3)), m);
    EXPECT_TRUE(sameBits(m, before)) << n;
  }
}

TEST(InitModelWithKmeansTest, SeparatedGroupsBecomeComponents) {
  const std::vector<pixelVal> s = fiveBlobs(20);  // 20, 21, 22, 23, 24 samples
  VELDSEColorModel a, b, spare;
  initModelWithKmeans(s, a);
  initModelWithKmeans({}, s, spare, b);  // two-model form: empty first set
  EXPECT_TRUE(sameBits(spare, VELDSEColorModel()));
  for (const VELDSEColorModel* m : {&a, &b}) {
    std::set<int> blobs;
    for (int k = 0; k < 5; ++k) {
      const int blob = static_cast<int>(std::lround(m->mean[k][0] / 50.0));
      blobs.insert(blob);
      EXPECT_DOUBLE_EQ(m->weight[k], (20.0 + blob) / s.size());
      EXPECT_NEAR(m->mean[k][1], 200.0 - 40.0 * blob, 1e-9);
    }
    EXPECT_EQ(blobs.size(), 5u);
  }
}

IplImage* grid(int w, int h, int channels) {
  IplImage* img = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, channels);
  cvSetZero(img);
  return img;
}

void put(IplImage* img, int x, int y, const pixelVal& v) {
  unsigned char* p = reinterpret_cast<unsigned char*>(img->imageData + y * img->widthStep) + x * img->nChannels;
  for (int c = 0; c < img->nChannels; ++c) p[c] = static_cast<unsigned char>(v.val[c]);
}

class ThirdInitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = VELDSEMarker::m_noiseLevel;
    VELDSEMarker::m_noiseLevel = 0.1;
  }
  void TearDown() override { VELDSEMarker::m_noiseLevel = saved_; }
  double saved_ = 0;
};

// Background pixels: five colour groups of 10 with full-rank spread; `rest`
// pixels follow them.
void fillImage(const std::vector<pixelVal>& rest, IplImage** colour, IplImage** label,
               std::vector<pixelVal>* background) {
  const int n = 50 + static_cast<int>(rest.size());
  *colour = grid(n, 1, 3);
  *label = grid(n, 1, 1);
  for (int i = 0; i < 50; ++i) {
    const int g = i % 5, j = i / 5;
    const pixelVal v = px(20.0 + 10 * g + j % 3, 40.0 + j % 2, 60.0 + 5 * g + j / 5);
    put(*colour, i, 0, v);
    put(*label, i, 0, px(i % 2 ? 1 : 3, 0, 0));
    background->push_back(v);
  }
  for (size_t i = 0; i < rest.size(); ++i) {
    put(*colour, 50 + static_cast<int>(i), 0, rest[i]);
    const double code[4] = {0, 2, 4, 5};  // anything but 1 and 3
    put(*label, 50 + static_cast<int>(i), 0, px(code[i % 4], 0, 0));
  }
}

TEST_F(ThirdInitTest, FewerThanThreeOthersKeepsObjectModel) {
  IplImage *colour, *label;
  std::vector<pixelVal> background;
  fillImage({px(250, 0, 250), px(0, 250, 0)}, &colour, &label, &background);
  VELDSEColorModel obj, bg;
  obj.weight[3] = 0.7;
  initModelWithKmeansVELD(background, bg);
  bg.setInverseCovariance();
  const VELDSEColorModel objBefore = obj;
  VELDSEColorModel expectedBg = bg;
  initModelWithKmeansVELD(background, expectedBg);  // fills all five components
  initThirdInitalization(colour, label, obj, bg);
  EXPECT_TRUE(sameBits(obj, objBefore));
  EXPECT_TRUE(sameBits(bg, expectedBg));
  cvReleaseImage(&colour);
  cvReleaseImage(&label);
}

TEST_F(ThirdInitTest, KeepsOuterThirdsDropsMiddle) {
  // 15 other pixels: 5 far from the background, 5 in between, 5 inside it.
  std::vector<pixelVal> rest;
  for (int i = 0; i < 5; ++i) {
    rest.push_back(px(21 + 10 * i, 40, 60 + 5 * i));   // background-like
    rest.push_back(px(240 - 3 * i, 200, 250 - 40 * i));  // far
    rest.push_back(px(20 + 10 * i, 47, 60 + 5 * i));   // in between
  }
  IplImage *colour, *label;
  std::vector<pixelVal> background;
  fillImage(rest, &colour, &label, &background);
  VELDSEColorModel obj, bg;
  initModelWithKmeansVELD(background, bg);
  bg.setInverseCovariance();
  initThirdInitalization(colour, label, obj, bg);
  // The object model is made of the five far colours only.
  double wsum = 0;
  for (int k = 0; k < 5; ++k) {
    SCOPED_TRACE(k);
    wsum += obj.weight[k];
    EXPECT_NEAR(obj.mean[k][1], 200.0, 1e-9);
    EXPECT_NEAR(obj.weight[k] * 5, std::round(obj.weight[k] * 5), 1e-9);
  }
  EXPECT_NEAR(wsum, 1.0, 1e-12);
  // The background model saw 50 + 5 samples: the middle third was dropped.
  wsum = 0;
  for (int k = 0; k < 5; ++k) {
    wsum += bg.weight[k];
    EXPECT_NEAR(bg.weight[k] * 55, std::round(bg.weight[k] * 55), 1e-9);
    EXPECT_LT(bg.mean[k][1], 46.0);
  }
  EXPECT_NEAR(wsum, 1.0, 1e-12);
  cvReleaseImage(&colour);
  cvReleaseImage(&label);
}

}  // namespace
