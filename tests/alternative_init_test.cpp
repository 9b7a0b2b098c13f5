// Alternative colour-model initialisations: variance partition, k-means
// components, and the three-way split of the unmarked pixels.
#include <cstddef>
#include <limits>
#include <set>

#include "colormodel/alternative_init.h"
#include "colormodel/kmeans_init.h"
#include "tests/test_support.h"

namespace {

using testsupport::px;

std::vector<double> channel(const std::vector<pixelVal>& s, int c) {
  std::vector<double> v;
  for (const pixelVal& p : s) v.push_back(p.val[c]);
  return v;
}

TEST(VarPartitionTest, SplitsAlongWidestChannelAtItsMean) {
  // Values of the two halves on the split channel.
  const struct {
    const char* name;
    std::vector<pixelVal> in;
    int dir;
    std::vector<double> low, high;
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
  double* centres[5] = {block, block + 3, block + 6, block + 9, block + 12};
  varParInit(s, centres);
  EXPECT_EQ(std::vector<double>(block, block + 15),
            (std::vector<double>{105, 1, 2, 1000, 1, 2, 1010, 1, 2, 0, 1, 2, 10, 1, 2}));
  varParInit({px(4, 5, 6)}, centres);
  EXPECT_EQ(std::vector<double>(block, block + 15),
            (std::vector<double>{4, 5, 6, 4, 5, 6, 4, 5, 6, 4, 5, 6, 4, 5, 6}));
}

TEST(OrderTest, AscendingByScoreTrueOnNaN) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const struct {
    double a, b;
    bool expected;
  } cases[] = {{1, 2, true}, {2, 1, false}, {3, 3, false}, {nan, 1, true}, {1, nan, true}, {nan, nan, true}};
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

TEST(InitModelWithKmeansTest, SeparatedGroupsBecomeComponents) {
  const std::vector<pixelVal> s = fiveBlobs(20);  // 20, 21, 22, 23, 24 samples
  VELDSEColorModel a, b, spare;
  initModelWithKmeans(s, a);
  initModelWithKmeans({}, s, spare, b);  // two-model form: empty first set
  EXPECT_TRUE(testsupport::sameBits(spare, VELDSEColorModel()));
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

TEST(InitThirdInitalizationTest, RestSortedByBackgroundLikenessIsSplitInThirds) {
  // 45 background pixels (codes 1, 3) in five small groups of nine close to
  // B = (200, 60, 30) (every k-means cluster has a regular covariance), and 15
  // others (codes 0, 2, 4) at distance d = 10 .. 150 from B along channel 1,
  // in scrambled raster order. The background model has every mean at B, so
  // the score falls as d grows: the 5 farthest (d = 150 down to 110) train
  // the object model, the 5 nearest (d = 10 up to 50) join the background
  // set, the middle 5 are dropped.
  cv::Mat colour(6, 10, CV_8UC3), label(6, 10, CV_8U);
  std::vector<pixelVal> background, object(5), nearest;
  for (int i = 0, k = 0, j = 0; i < 60; ++i) {
    const int d = 10 * ((j * 7) % 15 + 1);  // for the 15 others, j = 0 .. 14
    const int g[5][3] = {{0, 0, 0}, {8, 0, 0}, {0, 0, 8}, {8, 0, 8}, {4, 8, 4}}, e = k / 5;
    const pixelVal p =
        i % 4 == 1 ? px(200, 60 + d, 30)
                   : px(196 + g[k % 5][0] + e % 3, 56 + g[k % 5][1] + e / 3, 26 + g[k % 5][2] + 2 * e % 3);
    colour.at<cv::Vec3b>(i / 10, i % 10) = cv::Vec3b(p.val[0], p.val[1], p.val[2]);
    label.data[i] = static_cast<unsigned char>(i % 4 == 1 ? 2 * (j++ % 3) : k++ % 2 ? 1 : 3);
    if (i % 4 != 1) background.push_back(p);
    if (i % 4 == 1 && d > 100) object[(150 - d) / 10] = p;
  }
  for (int d = 10; d <= 50; d += 10) nearest.push_back(px(200, 60 + d, 30));
  background.insert(background.end(), nearest.begin(), nearest.end());
  VELDSEColorModel bg;
  for (int k = 0; k < 5; ++k) {
    bg.weight[k] = 0.2;
    bg.mean[k][0] = 200;
    bg.mean[k][1] = 60;
    bg.mean[k][2] = 30;
    bg.covariance[k][0] = bg.covariance[k][4] = bg.covariance[k][8] = 400;
  }
  bg.setDeterminant();
  bg.setInverseCovariance();
  VELDSEColorModel wantBg = bg, wantObj, gotObj;
  initModelWithKmeansVELD(background, wantBg);
  initModelWithKmeansVELD(object, wantObj);
  cv::theRNG().state = 12345;  // cv::kmeans seeds from OpenCV's global generator
  IplImage colourIpl = cvIplImage(colour), labelIpl = cvIplImage(label);
  initThirdInitalization(&colourIpl, &labelIpl, gotObj, bg);
  // The fitted fields; normalisers of singular components stay stale until
  // the inverse is taken.
  for (const auto& [got, want] : {std::pair{&gotObj, &wantObj}, std::pair{&bg, &wantBg}}) {
    // weight, mean, covariance and determinant lie in this order at the start.
    EXPECT_EQ(std::memcmp(got, want, offsetof(VELDSEColorModel, normFactor)), 0);
  }
}

}  // namespace
