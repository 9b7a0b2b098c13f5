#include <opencv2/core.hpp>
#include <opencv2/core/core_c.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <cstdint>
#include <vector>

#include "colormodel/kmeans_init.h"
#include "colormodel/training.h"
#include "colormodel/veldse_color_model.h"
#include "gtest/gtest.h"
#include "interface/veldse_marker.h"

namespace {

// Keeps the process-wide regulariser and grey-scale state local to a test.
class ColorModelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    savedNoise_ = VELDSEMarker::m_noiseLevel;
    VELDSEMarker::m_noiseLevel = 0.1;
  }
  void TearDown() override {
    VELDSEMarker::m_noiseLevel = savedNoise_;
    VELDSEMarker::m_isGreyScale = false;
    VELDSEMarker::m_texHor = nullptr;
    VELDSEMarker::m_texVer = nullptr;
    VELDSEMarker::m_xMinBBox = 0;
    VELDSEMarker::m_yMinBBox = 0;
  }
  double savedNoise_ = 0;
};

pixelVal px(double a, double b, double c) { return pixelVal{{a, b, c}}; }

bool sameBits(const VELDSEColorModel& a, const VELDSEColorModel& b) {
  return std::memcmp(&a, &b, sizeof(VELDSEColorModel)) == 0;
}

// Random model with symmetric positive definite covariances A*A^T + 4I.
VELDSEColorModel randomModel(cv::RNG& rng, int emptyComponent) {
  VELDSEColorModel m;
  for (int k = 0; k < 5; ++k) {
    m.weight[k] = (k == emptyComponent) ? 0.0 : rng.uniform(0.05, 1.0);
    for (int c = 0; c < 3; ++c) m.mean[k][c] = rng.uniform(0.0, 255.0);
    cv::Mat a(3, 3, CV_64F);
    rng.fill(a, cv::RNG::UNIFORM, -12.0, 12.0);
    cv::Mat cov = a * a.t() + 4.0 * cv::Mat::eye(3, 3, CV_64F);
    for (int e = 0; e < 9; ++e) m.covariance[k][e] = cov.at<double>(e / 3, e % 3);
  }
  m.setDeterminant();
  m.setInverseCovariance();
  return m;
}

// Independent component density: general inverse and determinant from cv::Mat.
double referenceComponent(const VELDSEColorModel& m, int k, pixelVal x) {
  if (!(m.weight[k] > 0)) return 0.0;
  cv::Mat cov(3, 3, CV_64F, const_cast<double*>(m.covariance[k]));
  cv::Mat inv;
  cv::invert(cov, inv, cv::DECOMP_LU);
  cv::Mat d = (cv::Mat_<double>(3, 1) << x.val[0] - m.mean[k][0], x.val[1] - m.mean[k][1],
               x.val[2] - m.mean[k][2]);
  const double q = cv::Mat(d.t() * inv * d).at<double>(0, 0);
  return std::exp(-0.5 * q) / std::sqrt(cv::determinant(cov));
}

double referenceMixture(const VELDSEColorModel& m, pixelVal x) {
  double p = 0;
  for (int k = 0; k < 5; ++k) p += m.weight[k] * referenceComponent(m, k, x);
  return p;
}

TEST_F(ColorModelTest, GMMProbMatchesIndependentEvaluation) {
  const struct { uint64_t seed; int empty; } cases[] = {{1, -1}, {2, 0}, {3, 4}, {4, 2}, {5, -1}};
  for (const auto& tc : cases) {
    SCOPED_TRACE(testing::Message() << "seed " << tc.seed << " empty " << tc.empty);
    cv::RNG rng(tc.seed);
    VELDSEColorModel m = randomModel(rng, tc.empty);
    for (int i = 0; i < 40; ++i) {
      // Points near a component mean, so the densities are far from underflow.
      const int k0 = i % 5;
      const pixelVal x = px(m.mean[k0][0] + rng.uniform(-8.0, 8.0),
                            m.mean[k0][1] + rng.uniform(-8.0, 8.0),
                            m.mean[k0][2] + rng.uniform(-8.0, 8.0));
      const double ref = referenceMixture(m, x);
      EXPECT_NEAR(m.GMMProb(x), ref, 1e-9 * ref + 1e-300);
      for (int k = 0; k < 5; ++k) {
        const double rk = referenceComponent(m, k, x);
        EXPECT_NEAR(m.gaussianProb(k, x), rk, 1e-9 * rk + 1e-300);
      }
    }
  }
}

TEST_F(ColorModelTest, SingularCovarianceIsRegularisedUntilInvertible) {
  // Smallest number of steps s with (s * nu)^3 > DBL_EPSILON.
  for (double nu : {0.1, 1e-6, 3e-6}) {
    SCOPED_TRACE(testing::Message() << "nu " << nu);
    VELDSEMarker::m_noiseLevel = nu;
    VELDSEColorModel m;
    m.weight[1] = 1.0;
    m.setDeterminant();
    EXPECT_EQ(m.determinant[1], 0.0);
    m.setInverseCovariance();
    double expected = 0;
    do expected += nu; while (!(expected * expected * expected > DBL_EPSILON));
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(m.covariance[1][4 * i], expected);  // the covariance itself grows
      EXPECT_NEAR(m.inverseCovariance[1][4 * i], 1.0 / expected, 1e-9 / expected);
    }
    EXPECT_EQ(m.covariance[1][1], 0.0);
    EXPECT_NEAR(m.determinant[1], expected * expected * expected, 1e-12 * m.determinant[1]);
    EXPECT_DOUBLE_EQ(m.normFactor[1], 1.0 / std::sqrt(m.determinant[1]));
    // Other components are empty and stay zero.
    EXPECT_EQ(m.inverseCovariance[0][0], 0.0);
  }
  VELDSEMarker::m_noiseLevel = 0.1;
  VELDSEColorModel once;
  once.weight[0] = 1.0;
  once.setDeterminant();
  once.setInverseCovariance();
  EXPECT_EQ(once.covariance[0][0], 0.1);
  EXPECT_NEAR(once.determinant[0], 0.001, 1e-15);
}

// Before any context exists (no initializer, no driver) the regulariser has
// its static default. The bridge may call setInverseCovariance or EM then; a
// singular component must come out regularised by exactly one 0.1 step, not
// loop forever. Runs without the fixture, which would set the level itself.
TEST(ColorModelBeforeAnyContext, SingularComponentTakesOneDefaultStep) {
  ASSERT_EQ(VELDSEMarker::m_noiseLevel, 0.1);  // a zero here would hang below
  const pixelVal sample = px(50, 60, 70);
  struct Case {
    const char* name;
    double entryVariance;
    int emIterations;  // 0: setInverseCovariance alone
  } cases[] = {
      {"setInverseCovariance", 0.0, 0},
      {"EM on identical samples (refit covariance is zero)", 4.0, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    VELDSEColorModel m;
    m.weight[0] = 1.0;
    for (int ch = 0; ch < 3; ++ch) m.mean[0][ch] = sample.val[ch];
    for (int i = 0; i < 3; ++i) m.covariance[0][4 * i] = c.entryVariance;
    m.setDeterminant();
    m.setInverseCovariance();
    if (c.emIterations > 0) m.EM(std::vector<pixelVal>(10, sample), c.emIterations);
    EXPECT_EQ(m.weight[0], 1.0);
    for (int i = 0; i < 9; ++i) {
      SCOPED_TRACE(i);
      EXPECT_EQ(m.covariance[0][i], i % 4 == 0 ? 0.1 : 0.0);
      EXPECT_NEAR(m.inverseCovariance[0][i], i % 4 == 0 ? 10.0 : 0.0, 1e-12);
    }
    EXPECT_NEAR(m.determinant[0], 0.001, 1e-15);
    EXPECT_DOUBLE_EQ(m.normFactor[0], 1.0 / std::sqrt(m.determinant[0]));
    EXPECT_DOUBLE_EQ(m.GMMProb(sample), m.normFactor[0]);
  }
}

TEST_F(ColorModelTest, ColorModelCriteriaBoundaries) {
  struct Comp { double w; double mean0; double det; };
  const struct {
    const char* name;
    std::vector<Comp> comps;
    int expected;
  } cases[] = {
      {"single significant", {{1.0, 0, 50}}, 1},
      {"distance just below 100", {{0.5, 0, 50}, {0.5, 99.99, 50}}, 1},
      {"distance exactly 100, not flat", {{0.5, 0, 50}, {0.5, 100, 50}}, 0},
      {"distance exactly 100, both flat", {{0.5, 0, 0.5}, {0.5, 100, 0.9}}, 1},
      {"one dominant not flat", {{0.5, 0, 0.5}, {0.5, 100, 1.0}}, 0},
      {"weight 0.05 ignored by spread", {{0.95, 0, 50}, {0.05, 200, 50}}, 1},
      {"weight 0.0501 counted", {{0.9499, 0, 50}, {0.0501, 200, 50}}, 0},
      {"weight 0.35 is not dominant", {{0.65, 0, 0.5}, {0.35, 200, 5}}, 1},
      {"weight 0.36 is dominant", {{0.64, 0, 0.5}, {0.36, 200, 5}}, 0},
      {"no dominant component", {{0.3, 0, 0.1}, {0.3, 150, 0.1}, {0.3, 300, 0.1}}, 0},
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    VELDSEColorModel m;
    for (size_t k = 0; k < tc.comps.size(); ++k) {
      m.weight[k] = tc.comps[k].w;
      m.mean[k][0] = tc.comps[k].mean0;
      m.determinant[k] = tc.comps[k].det;
    }
    EXPECT_EQ(m.colorModelCriteria(), tc.expected);
  }
}

// Builds an 8-bit image from rows of values.
IplImage* makeImage(int w, int h, int channels, const std::vector<int>& values) {
  IplImage* img = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, channels);
  for (int y = 0; y < h; ++y) {
    for (int i = 0; i < w * channels; ++i) {
      reinterpret_cast<unsigned char*>(img->imageData + y * img->widthStep)[i] =
          static_cast<unsigned char>(values[y * w * channels + i]);
    }
  }
  return img;
}

void expectSet(const std::vector<pixelVal>& got, const std::vector<pixelVal>& want) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); ++i) {
    for (int c = 0; c < 3; ++c) EXPECT_EQ(got[i].val[c], want[i].val[c]) << i << "/" << c;
  }
}

TEST_F(ColorModelTest, ExtractTrainingDataGroupsLabelsAndPads) {
  // 4x2 colour image; pixel (x, y) = (10x+y, 100+x, 200+y).
  std::vector<int> colour;
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 4; ++x) colour.insert(colour.end(), {10 * x + y, 100 + x, 200 + y});
  IplImage* img = makeImage(4, 2, 3, colour);
  IplImage* lab = makeImage(4, 2, 1, {0, 1, 2, 3, 4, 5, 255, 1});
  std::vector<pixelVal> obj{px(1, 1, 1)}, bg;
  extractTrainingData(img, lab, obj, bg);
  const pixelVal f = px(10, 20, 30);
  expectSet(obj, {px(20, 102, 200), px(1, 100, 201), f, f, f});
  expectSet(bg, {px(10, 101, 200), px(30, 103, 200), px(31, 103, 201), f, f});
  extractTrainingData(img, nullptr, obj, bg);
  expectSet(obj, {f, f, f, f, f});
  expectSet(bg, {f, f, f, f, f});

  // Grey mode: channels 1 and 2 from the texture images, offset by the box.
  IplImage* hor = makeImage(6, 3, 1, {0, 0, 0, 0, 0, 0, 0, 0, 11, 12, 13, 14, 0, 0, 15, 16, 17, 18});
  IplImage* ver = makeImage(6, 3, 1, {0, 0, 0, 0, 0, 0, 0, 0, 21, 22, 23, 24, 0, 0, 25, 26, 27, 28});
  VELDSEMarker::m_isGreyScale = true;
  VELDSEMarker::m_texHor = hor;
  VELDSEMarker::m_texVer = ver;
  VELDSEMarker::m_xMinBBox = 2;
  VELDSEMarker::m_yMinBBox = 1;
  extractTrainingData(img, lab, obj, bg);
  expectSet(obj, {px(20, 13, 23), px(1, 15, 25), f, f, f});
  expectSet(bg, {px(10, 12, 22), px(30, 14, 24), px(31, 18, 28), f, f});
  cvReleaseImage(&hor);
  cvReleaseImage(&ver);
  cvReleaseImage(&img);
  cvReleaseImage(&lab);
}

TEST_F(ColorModelTest, UpdateModelMatchesReferenceRefit) {
  for (uint64_t seed : {11u, 12u, 13u}) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    cv::RNG rng(seed);
    VELDSEColorModel m = randomModel(rng, -1);
    const VELDSEColorModel old = m;
    std::vector<pixelVal> samples;
    for (int i = 0; i < 300; ++i) {
      const int k = rng.uniform(0, 4);  // component 4 never sampled near
      samples.push_back(px(m.mean[k][0] + rng.gaussian(6), m.mean[k][1] + rng.gaussian(6),
                           m.mean[k][2] + rng.gaussian(6)));
    }
    // Reference: assignment by the independent density, two-pass moments.
    std::vector<std::vector<pixelVal>> groups(5);
    for (const pixelVal& x : samples) {
      int best = 0;
      for (int k = 1; k < 5; ++k)
        if (referenceComponent(old, k, x) > referenceComponent(old, best, x)) best = k;
      groups[best].push_back(x);
    }
    updateModel(samples, m);
    for (int k = 0; k < 5; ++k) {
      if (groups[k].empty()) {
        EXPECT_EQ(m.weight[k], old.weight[k]);
        continue;
      }
      const double cnt = static_cast<double>(groups[k].size());
      EXPECT_DOUBLE_EQ(m.weight[k], cnt / samples.size());
      double mu[3] = {0, 0, 0};
      for (const pixelVal& x : groups[k])
        for (int c = 0; c < 3; ++c) mu[c] += x.val[c] / cnt;
      for (int r = 0; r < 3; ++r) {
        EXPECT_NEAR(m.mean[k][r], mu[r], 1e-9);
        for (int c = 0; c < 3; ++c) {
          double cov = 0;
          for (const pixelVal& x : groups[k]) cov += (x.val[r] - mu[r]) * (x.val[c] - mu[c]) / cnt;
          EXPECT_NEAR(m.covariance[k][3 * r + c], cov, 1e-6);
        }
      }
    }
  }
}

std::vector<pixelVal> blobs(cv::RNG& rng, const std::vector<int>& sizes) {
  std::vector<pixelVal> s;
  for (size_t b = 0; b < sizes.size(); ++b)
    for (int i = 0; i < sizes[b]; ++i)
      s.push_back(px(50.0 * b + rng.uniform(0.0, 4.0), 250.0 - 50.0 * b + rng.uniform(0.0, 4.0),
                     20.0 * b + rng.uniform(0.0, 4.0)));
  return s;
}

TEST_F(ColorModelTest, InitModelFindsSeparatedClustersReproducibly) {
  cv::RNG rng(7);
  const std::vector<int> sizes{300, 200, 250, 150, 100};
  const std::vector<pixelVal> s = blobs(rng, sizes);
  VELDSEColorModel a, b, c;
  initModel(s, a, 10);
  initModel(s, b, -3);  // the count argument has no effect
  EXPECT_TRUE(sameBits(a, b));
  initModelWithKmeansVELD(s, c);
  EXPECT_TRUE(sameBits(a, c));
  // Every blob becomes exactly one component.
  std::vector<bool> seen(5, false);
  for (int k = 0; k < 5; ++k) {
    const int blob = static_cast<int>(std::lround((a.mean[k][0] - 2.0) / 50.0));
    ASSERT_GE(blob, 0);
    ASSERT_LT(blob, 5);
    EXPECT_FALSE(seen[blob]);
    seen[blob] = true;
    EXPECT_DOUBLE_EQ(a.weight[k], sizes[blob] / 1000.0);
    EXPECT_GT(a.determinant[k], 0.0);
  }
  VELDSEColorModel pa, pb;
  initModel(s, blobs(rng, {5, 5, 5, 5, 5}), pa, pb, 0);
  EXPECT_TRUE(sameBits(pa, a));
}

TEST_F(ColorModelTest, InitModelLeavesSmallSetsAlone) {
  VELDSEColorModel m, before;
  m.weight[2] = before.weight[2] = 0.5;
  for (int n = 0; n <= 4; ++n) {
    initModelWithKmeansVELD(std::vector<pixelVal>(n, px(1, 2, 3)), m);
    EXPECT_TRUE(sameBits(m, before)) << n;
  }
}

TEST_F(ColorModelTest, InitModelKeepsEmptyClustersAndSeedReclaim) {
  // All samples equal: every seed is row 0 (total 0), cluster 0 takes all rows
  // and the empty clusters 1..4 reclaim row 0 in turn, so cluster 4 ends with
  // it and clusters 1..3 stay empty.
  VELDSEColorModel m;
  for (int k = 0; k < 5; ++k) {
    m.weight[k] = 0.2;
    m.mean[k][0] = -k;
    m.covariance[k][0] = m.covariance[k][4] = m.covariance[k][8] = k + 1.0;
  }
  const VELDSEColorModel before = m;
  initModelWithKmeansVELD(std::vector<pixelVal>(6, px(7, 8, 9)), m);
  EXPECT_DOUBLE_EQ(m.weight[0], 5.0 / 6.0);
  EXPECT_DOUBLE_EQ(m.weight[4], 1.0 / 6.0);
  for (int k : {0, 4}) {
    for (int c = 0; c < 3; ++c) EXPECT_EQ(m.mean[k][c], 7.0 + c);
    for (int e = 0; e < 9; ++e) EXPECT_NEAR(m.covariance[k][e], 0.0, 1e-9);
  }
  for (int k = 1; k < 4; ++k) {
    EXPECT_EQ(m.weight[k], before.weight[k]);
    EXPECT_EQ(m.mean[k][0], before.mean[k][0]);
    EXPECT_EQ(m.covariance[k][4], before.covariance[k][4]);
  }
}

TEST_F(ColorModelTest, EMUsesEntryInversesForEveryIteration) {
  cv::RNG rng(33);
  VELDSEColorModel m = randomModel(rng, -1);
  std::vector<pixelVal> s;
  for (int i = 0; i < 200; ++i) {
    const int k = i % 5;
    s.push_back(px(m.mean[k][0] + rng.gaussian(10), m.mean[k][1] + rng.gaussian(10),
                   m.mean[k][2] + rng.gaussian(10)));
  }
  // Reference: soft assignment with the entry covariances, updated weights and means.
  VELDSEColorModel ref = m;
  const VELDSEColorModel entry = m;
  for (int it = 0; it < 2; ++it) {
    std::vector<std::vector<double>> r(s.size(), std::vector<double>(5, 0.0));
    for (size_t i = 0; i < s.size(); ++i) {
      double g[5], p = 0;
      for (int k = 0; k < 5; ++k) {
        VELDSEColorModel probe = entry;
        for (int c = 0; c < 3; ++c) probe.mean[k][c] = ref.mean[k][c];
        g[k] = referenceComponent(probe, k, s[i]);
        p += ref.weight[k] * g[k];
      }
      for (int k = 0; k < 5; ++k) r[i][k] = p > 0 ? g[k] * ref.weight[k] / p : 0.0;
    }
    for (int k = 0; k < 5; ++k) {
      double sk = 0, mu[3] = {0, 0, 0};
      for (size_t i = 0; i < s.size(); ++i) {
        sk += r[i][k];
        for (int c = 0; c < 3; ++c) mu[c] += r[i][k] * s[i].val[c];
      }
      ref.weight[k] = sk / s.size();
      for (int c = 0; c < 3; ++c) ref.mean[k][c] = sk > 0 ? mu[c] / sk : mu[c];
    }
  }
  m.EM(s, 2);
  for (int k = 0; k < 5; ++k) {
    EXPECT_NEAR(m.weight[k], ref.weight[k], 1e-9);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(m.mean[k][c], ref.mean[k][c], 1e-7);
  }
  // Weights of a fitted mixture sum to one; derived fields refreshed at the end.
  double wsum = 0;
  for (int k = 0; k < 5; ++k) wsum += m.weight[k];
  EXPECT_NEAR(wsum, 1.0, 1e-12);
  VELDSEColorModel check = m;
  check.setDeterminant();
  check.setInverseCovariance();
  EXPECT_TRUE(sameBits(check, m));
}

}  // namespace
