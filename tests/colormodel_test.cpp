// Gaussian mixtures: densities against cv::Mat algebra, regularisation of
// singular components, the single-colour criteria, training data, refits, EM
// and the k-means initialisation against its literal schedule.
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ios>

#include "colormodel/kmeans_init.h"
#include "colormodel/training.h"
#include "interface/veldse_marker.h"
#include "tests/test_support.h"

namespace {

using testsupport::px;
using testsupport::sameBits;

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
    VELDSEMarker::m_texHor = VELDSEMarker::m_texVer = nullptr;
    VELDSEMarker::m_xMinBBox = VELDSEMarker::m_yMinBBox = 0;
  }
  double savedNoise_ = 0;
};

// Random model with symmetric positive definite covariances A*A^T + 4I.
VELDSEColorModel randomModel(cv::RNG& rng, int emptyComponent) {
  VELDSEColorModel m;
  for (int k = 0; k < 5; ++k) {
    m.weight[k] = (k == emptyComponent) ? 0.0 : rng.uniform(0.05, 1.0);
    for (int c = 0; c < 3; ++c) m.mean[k][c] = rng.uniform(0.0, 255.0);
    cv::Mat a(3, 3, CV_64F);
    rng.fill(a, cv::RNG::UNIFORM, -12.0, 12.0);
    const cv::Mat cov = a * a.t() + 4.0 * cv::Mat::eye(3, 3, CV_64F);
    for (int e = 0; e < 9; ++e) m.covariance[k][e] = cov.at<double>(e / 3, e % 3);
  }
  m.setDeterminant();
  m.setInverseCovariance();
  return m;
}

using SeedAndEmpty = std::pair<uint64_t, int>;

// Independent component density: general inverse and determinant from cv::Mat.
double referenceComponent(const VELDSEColorModel& m, int k, pixelVal x) {
  if (!(m.weight[k] > 0)) return 0.0;
  cv::Mat cov(3, 3, CV_64F, const_cast<double*>(m.covariance[k]));
  const cv::Mat d = cv::Mat(3, 1, CV_64F, x.val) - cv::Mat(3, 1, CV_64F, const_cast<double*>(m.mean[k]));
  return std::exp(-0.5 * cv::Mat(d.t() * cov.inv(cv::DECOMP_LU) * d).at<double>(0, 0)) /
         std::sqrt(cv::determinant(cov));
}

// A sample scattered around `centre` (uniform, or Gaussian when spread < 0).
pixelVal near(cv::RNG& rng, const double* centre, double spread) {
  pixelVal p;
  for (int c = 0; c < 3; ++c)
    p.val[c] = centre[c] + (spread > 0 ? rng.uniform(-spread, spread) : rng.gaussian(-spread));
  return p;
}

TEST_F(ColorModelTest, GMMProbMatchesIndependentEvaluation) {
  // Seed, and the component left empty (-1: none).
  for (auto [seed, empty] : {SeedAndEmpty{1, -1}, {2, 0}, {3, 4}, {4, 2}, {5, -1}}) {
    SCOPED_TRACE(testing::Message() << "seed " << seed << " empty " << empty);
    cv::RNG rng(seed);
    VELDSEColorModel m = randomModel(rng, empty);
    for (int i = 0; i < 40; ++i) {
      const pixelVal x = near(rng, m.mean[i % 5], 8.0);  // near a mean: far from underflow
      double ref = 0;
      for (int k = 0; k < 5; ++k) {
        const double rk = referenceComponent(m, k, x);
        ref += m.weight[k] * rk;
        EXPECT_NEAR(m.gaussianProb(k, x), rk, 1e-9 * rk + 1e-300);
      }
      EXPECT_NEAR(m.GMMProb(x), ref, 1e-9 * ref + 1e-300);
    }
  }
}

// One evaluation serves both: the density is GMMProb's and the component
// assignCluster's, bit for bit, also where components tie or drop out.
TEST_F(ColorModelTest, DensityAndClusterIsGMMProbAndAssignCluster) {
  cv::RNG rng(21);
  VELDSEColorModel tied = randomModel(rng, -1);
  for (int k : {1, 3}) {  // 1 and 3 copies of 0 and 2: equal densities, the lower index wins
    std::copy(&tied.mean[k - 1][0], &tied.mean[k - 1][0] + 3, tied.mean[k]);
    std::copy(&tied.covariance[k - 1][0], &tied.covariance[k - 1][0] + 9, tied.covariance[k]);
  }
  tied.setDeterminant();
  tied.setInverseCovariance();
  VELDSEColorModel zeroDeterminant = randomModel(rng, -1);
  zeroDeterminant.determinant[0] = 0;  // component 0 skipped though weighted
  const VELDSEColorModel models[] = {randomModel(rng, -1), randomModel(rng, 0), randomModel(rng, 3), tied,
                                     zeroDeterminant,      VELDSEColorModel()};
  for (const VELDSEColorModel& model : models) {
    VELDSEColorModel m = model;
    for (int i = 0; i < 200; ++i) {
      SCOPED_TRACE(testing::Message() << "model " << (&model - models) << " sample " << i);
      // Near a mean, and anywhere in the cube (densities down to underflow).
      const pixelVal x = i % 2 ? near(rng, m.mean[i % 5], 10.0)
                               : px(rng.uniform(0, 256), rng.uniform(0, 256), rng.uniform(0, 256));
      int cluster = -1;
      const double p = densityAndCluster(m, x, &cluster);
      const double expected = m.GMMProb(x);
      EXPECT_EQ(std::memcmp(&p, &expected, sizeof p), 0);
      EXPECT_EQ(cluster, m.assignCluster(x));
    }
  }
}

// A product rounded on its own: the volatile keeps the compiler from fusing it
// with a following sum, whatever its contraction setting.
double mul(double a, double b) {
  volatile double p = a * b;
  return p;
}

// The mixture density step by step, in the order of its formula: per
// component the quadratic form row by row, exp(-q/2) times the normaliser,
// weighted into the running sum. With `fused`, every a*b+c of it is one fused
// multiply-add with a single rounding (std::fma), which is what a compiler
// free to contract makes of it where the target has the instruction (64-bit
// ARM always, x86 with FMA).
double stepByStepDensity(const VELDSEColorModel& m, pixelVal x, bool fused) {
  auto madd = [fused](double a, double b, double c) { return fused ? std::fma(a, b, c) : mul(a, b) + c; };
  double p = 0.0;
  for (int k = 0; k < 5; ++k) {
    if (m.determinant[k] == 0) continue;  // adds w * 0: nothing
    const double* a = m.inverseCovariance[k];
    const double d0 = x.val[0] - m.mean[k][0], d1 = x.val[1] - m.mean[k][1], d2 = x.val[2] - m.mean[k][2];
    const double r0 = madd(a[6], d2, madd(a[3], d1, mul(a[0], d0)));
    const double r1 = madd(a[7], d2, madd(a[4], d1, mul(a[1], d0)));
    const double r2 = madd(a[8], d2, madd(a[5], d1, mul(a[2], d0)));
    const double q = madd(r2, d2, madd(r1, d1, mul(r0, d0)));
    p = madd(m.weight[k], mul(std::exp(mul(-0.5, q)), m.normFactor[k]), p);
  }
  return p;
}

TEST_F(ColorModelTest, DensityRoundsEveryProductAndSumAsWritten) {
  // Exact equality with the step-by-step evaluation, on samples where fusing
  // the multiply-adds gives another double: a build that fuses them (on any
  // target) fails here rather than in a mask that moves by a few pixels.
  int samples = 0, sensitive = 0;
  for (auto [seed, empty] : {SeedAndEmpty{21, -1}, {22, 1}, {23, -1}}) {
    SCOPED_TRACE(testing::Message() << "seed " << seed << " empty " << empty);
    cv::RNG rng(seed);
    const VELDSEColorModel m = randomModel(rng, empty);
    for (int i = 0; i < 30; ++i, ++samples) {
      SCOPED_TRACE(i);
      const pixelVal x = near(rng, m.mean[i % 5], 10.0);
      const double asWritten = stepByStepDensity(m, x, false);
      sensitive += stepByStepDensity(m, x, true) != asWritten;
      VELDSEColorModel copy = m;
      const double got = copy.GMMProb(x);
      EXPECT_EQ(got, asWritten) << std::hexfloat << got << " against " << asWritten;
      // One component alone: the same steps with weight 1 and no sum.
      const int k = i % 5;
      VELDSEColorModel one;
      one.weight[k] = 1.0;
      one.determinant[k] = m.determinant[k];
      one.normFactor[k] = m.normFactor[k];
      for (int c = 0; c < 3; ++c) one.mean[k][c] = m.mean[k][c];
      for (int e = 0; e < 9; ++e) one.inverseCovariance[k][e] = m.inverseCovariance[k][e];
      const double gotOne = copy.gaussianProb(k, x), oneAsWritten = stepByStepDensity(one, x, false);
      EXPECT_EQ(gotOne, oneAsWritten) << std::hexfloat << gotOne << " against " << oneAsWritten;
    }
  }
  // The samples would notice a fused build: about a third of them change
  // when fused (30 of 90).
  EXPECT_GE(sensitive, samples / 4) << sensitive << " of " << samples;
}

TEST_F(ColorModelTest, SingularCovarianceIsRegularisedUntilInvertible) {
  for (double nu : {1e-6, 3e-6}) {
    SCOPED_TRACE(testing::Message() << "nu " << nu);
    VELDSEMarker::m_noiseLevel = nu;
    VELDSEColorModel m;
    m.weight[1] = 1.0;
    m.setDeterminant();
    m.setInverseCovariance();
    double expected = 0;  // the smallest number of steps s with (s * nu)^3 > DBL_EPSILON
    do expected += nu;
    while (!(expected * expected * expected > DBL_EPSILON));
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(m.covariance[1][4 * i], expected);  // the covariance itself grows
      EXPECT_NEAR(m.inverseCovariance[1][4 * i], 1.0 / expected, 1e-9 / expected);
    }
    EXPECT_EQ(m.covariance[1][1], 0.0);
    EXPECT_NEAR(m.determinant[1], expected * expected * expected, 1e-12 * m.determinant[1]);
    EXPECT_DOUBLE_EQ(m.normFactor[1], 1.0 / std::sqrt(m.determinant[1]));
  }
}

// Before any context exists (no initializer, no driver) the regulariser has
// its static default. The bridge may call setInverseCovariance or EM then; a
// singular component must come out regularised by exactly one 0.1 step, not
// loop forever. Runs without the fixture, which would set the level itself.
TEST(ColorModelBeforeAnyContext, SingularComponentTakesOneDefaultStep) {
  ASSERT_EQ(VELDSEMarker::m_noiseLevel, 0.1);  // a zero here would hang below
  const pixelVal sample = px(50, 60, 70);
  // Entry variance, EM iterations (0: setInverseCovariance alone; 1: EM on
  // identical samples, whose refit covariance is zero).
  const struct {
    double entryVariance;
    int emIterations;
  } cases[] = {{0.0, 0}, {4.0, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.emIterations);
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
  struct Comp {
    double w, mean0, det;
  };
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

// An 8-bit image from rows of values.
IplImage* makeImage(int w, int h, int channels, const std::vector<int>& values) {
  IplImage* img = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, channels);
  for (int y = 0; y < h; ++y)
    for (int i = 0; i < w * channels; ++i)
      img->imageData[y * img->widthStep + i] = static_cast<char>(values[y * w * channels + i]);
  return img;
}

void expectSet(const std::vector<pixelVal>& got, const std::vector<pixelVal>& want) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); ++i)
    for (int c = 0; c < 3; ++c) EXPECT_EQ(got[i].val[c], want[i].val[c]) << i << "/" << c;
}

TEST_F(ColorModelTest, ExtractTrainingDataGroupsLabelsAndPads) {
  std::vector<int> colour;  // 4x2 colour image; pixel (x, y) = (10x+y, 100+x, 200+y)
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
  for (IplImage* i : {hor, ver, img, lab}) cvReleaseImage(&i);
}

TEST_F(ColorModelTest, UpdateModelMatchesReferenceRefit) {
  for (uint64_t seed : {11u, 12u}) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    cv::RNG rng(seed);
    VELDSEColorModel m = randomModel(rng, -1);
    const VELDSEColorModel old = m;
    std::vector<pixelVal> samples;
    for (int i = 0; i < 300; ++i)
      samples.push_back(near(rng, m.mean[rng.uniform(0, 4)], -6));  // never near 4
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
      double mu[3] = {0, 0, 0}, cov[9] = {};
      for (const pixelVal& x : groups[k])
        for (int c = 0; c < 3; ++c) mu[c] += x.val[c] / cnt;
      for (const pixelVal& x : groups[k])
        for (int e = 0; e < 9; ++e) cov[e] += (x.val[e / 3] - mu[e / 3]) * (x.val[e % 3] - mu[e % 3]) / cnt;
      for (int e = 0; e < 9; ++e) EXPECT_NEAR(m.covariance[k][e], cov[e], 1e-6);
      for (int c = 0; c < 3; ++c) EXPECT_NEAR(m.mean[k][c], mu[c], 1e-9);
    }
  }
}

double sq(const double* a, const double* b) {
  const double d0 = a[0] - b[0], d1 = a[1] - b[1], d2 = a[2] - b[2];
  return d0 * d0 + d1 * d1 + d2 * d2;
}

// The clustering written out as a literal schedule: k-means++ seeds drawn with
// srand/rand (reseeded from n, then from each running total), then passes in
// which four workers take the rows [t * (n / 4), (t + 1) * (n / 4)), the last
// one up to n, and their partial sums, counts and errors are added in worker
// order 0, 1, 2, 3; an empty cluster reclaims its seed row.
void literalSchedule(const std::vector<pixelVal>& s, std::vector<int>& seeds, std::vector<int>& labels) {
  const int n = static_cast<int>(s.size());
  std::vector<double> dist(n);
  std::srand(static_cast<unsigned>(n));
  seeds[0] = static_cast<int>((n * 4.656612873077393e-10) * std::rand());
  double total = 0;
  for (int i = 0; i < n; ++i) total += dist[i] = sq(s[i].val, s[seeds[0]].val);
  for (int j = 1; j < 5; ++j) {
    std::srand(static_cast<unsigned>(total));
    double target = (total * 4.656612873077393e-10) * std::rand();
    int i = 0;
    while (i < n - 1 && target > dist[i]) target -= dist[i++];
    seeds[j] = i;
    total = 0;
    for (int m = 0; m < n; ++m) total += dist[m] = std::min(dist[m], sq(s[m].val, s[i].val));
  }
  double centre[5][3], previous = DBL_MAX;
  for (int k = 0; k < 5; ++k) std::copy(s[seeds[k]].val, s[seeds[k]].val + 3, centre[k]);
  for (int pass = 1;; ++pass) {
    double sums[5][4][3] = {}, counts[5][4] = {}, errors[4] = {};
    for (int t = 0; t < 4; ++t)
      for (int i = t * (n / 4); i < (t == 3 ? n : (t + 1) * (n / 4)); ++i) {
        double best = DBL_MAX;
        for (int k = 0; k < 5; ++k) {
          if (sq(s[i].val, centre[k]) >= best) continue;
          best = sq(s[i].val, centre[k]);
          labels[i] = k;
        }
        for (int c = 0; c < 3; ++c) sums[labels[i]][t][c] += s[i].val[c];
        counts[labels[i]][t] += 1.0;
        errors[t] += best;
      }
    for (int k = 0; k < 5; ++k) {
      const double count = ((counts[k][0] + counts[k][1]) + counts[k][2]) + counts[k][3];
      for (int c = 0; c < 3 && count > 0; ++c)
        centre[k][c] = (((sums[k][0][c] + sums[k][1][c]) + sums[k][2][c]) + sums[k][3][c]) / count;
      if (!(count > 0)) labels[seeds[k]] = k;
    }
    const double error = ((errors[0] + errors[1]) + errors[2]) + errors[3];
    if (pass >= 10 || error == previous) break;
    previous = error;
  }
}

TEST_F(ColorModelTest, KMeansInitialisationFollowsTheLiteralSchedule) {
  cv::RNG rng(7);
  std::vector<pixelVal> blobs;
  const int sizes[5] = {300, 200, 250, 150, 100};
  for (int b = 0; b < 5; ++b)
    for (int i = 0; i < sizes[b]; ++i)
      blobs.push_back(px(50.0 * b + rng.uniform(0.0, 4.0), 250.0 - 50.0 * b + rng.uniform(0.0, 4.0),
                         20.0 * b + rng.uniform(0.0, 4.0)));
  const struct {
    const char* name;
    std::vector<pixelVal> samples;
  } cases[] = {
      {"4 samples: no change", std::vector<pixelVal>(4, px(1, 2, 3))},
      {"5 samples",
       {px(0.1, 0.2, 0.3), px(9.5, 0.25, 1), px(0.7, 4.4, 0.1), px(3.3, 3.3, 3.3), px(0.15, 0.2, 0.35)}},
      {"6 samples",
       {px(1.1, 2, 3), px(1.2, 2.1, 3), px(7, 0.5, 0.5), px(7.1, 0.6, 0.4), px(0.2, 9, 9), px(5, 5, 0.1)}},
      // All seeds are row 0; clusters 1..4 reclaim it in turn, so cluster 4
      // ends with it and clusters 1..3 keep their old components.
      {"6 equal samples", std::vector<pixelVal>(6, px(7, 8, 9))},
      // These two change in the last bits when the partial sums are added in
      // another order.
      {"7 samples",
       {px(0.8, 0.2, 0.2), px(0.5, 0.8, 0.0), px(0.4, 0.4, 0.2), px(0.4, 0.8, 0.9), px(0.6, 0.3, 0.9),
        px(0.4, 0.5, 0.4), px(0.6, 0.3, 0.2)}},
      {"13 samples",
       {px(0.2, 0.3, 0.9), px(0.5, 0.4, 0.9), px(0.1, 0.5, 0.8), px(0.5, 0.6, 0.1), px(0.6, 0.1, 0.1),
        px(0.8, 0.6, 0.6), px(0.2, 0.9, 0.3), px(0.3, 0.9, 0.5), px(0.6, 0.1, 0.6), px(0.6, 0.1, 0.3),
        px(0.4, 0.5, 0.2), px(0.1, 0.5, 0.4), px(0.6, 0.9, 0.8)}},
      {"1000 samples in five blobs", blobs},
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    const int n = static_cast<int>(tc.samples.size());
    std::vector<int> seeds(5), labels(n, 0), refSeeds(5), refLabels(n, 0);
    literalSchedule(tc.samples, refSeeds, refLabels);
    std::vector<double*> rows;
    for (const pixelVal& p : tc.samples) rows.push_back(const_cast<double*>(p.val));
    chooseCentersKMeanspp(rows.data(), n, 5, seeds.data());
    EXPECT_EQ(seeds, refSeeds);
    k_means(rows.data(), labels.data(), n, 0.0, 10, nullptr);
    EXPECT_EQ(labels, refLabels);

    // The model: share, mean and population covariance of each non-empty
    // cluster (divisions as products with reciprocals); the others untouched.
    VELDSEColorModel got, want;
    for (int k = 0; k < 5; ++k)
      got.weight[k] = want.weight[k] = 0.5 + k, got.mean[k][1] = want.mean[k][1] = -k;
    initModel(tc.samples, got, 10);
    for (int k = 0; k < 5 && n >= 5; ++k) {
      double count = 0, mean[3] = {0, 0, 0}, prod[9] = {};
      for (int i = 0; i < n; ++i) {
        if (refLabels[i] != k) continue;
        count += 1;
        for (int e = 0; e < 9; ++e) prod[e] += tc.samples[i].val[e % 3] * tc.samples[i].val[e / 3];
        for (int c = 0; c < 3; ++c) mean[c] += tc.samples[i].val[c];
      }
      if (count == 0) continue;
      want.weight[k] = count * (1.0 / n);
      for (int c = 0; c < 3; ++c) want.mean[k][c] = mean[c] * (1.0 / count);
      for (int e = 0; e < 9; ++e)
        want.covariance[k][e] = prod[e] * (1.0 / count) - want.mean[k][e / 3] * want.mean[k][e % 3];
    }
    if (n >= 5) want.setDeterminant();
    EXPECT_TRUE(sameBits(got, want));
  }
}

TEST_F(ColorModelTest, EMUsesEntryInversesForEveryIteration) {
  cv::RNG rng(33);
  VELDSEColorModel m = randomModel(rng, -1);
  std::vector<pixelVal> s;
  for (int i = 0; i < 200; ++i) s.push_back(near(rng, m.mean[i % 5], -10));
  // Reference: soft assignment with the entry covariances, updated weights and means.
  VELDSEColorModel ref = m;
  const VELDSEColorModel entry = m;
  for (int it = 0; it < 2; ++it) {
    double sk[5] = {}, mu[5][3] = {};
    for (const pixelVal& x : s) {
      double g[5], p = 0;
      for (int k = 0; k < 5; ++k) {
        VELDSEColorModel probe = entry;
        std::copy(ref.mean[k], ref.mean[k] + 3, probe.mean[k]);
        p += ref.weight[k] * (g[k] = referenceComponent(probe, k, x));
      }
      for (int k = 0; k < 5; ++k) {
        const double r = p > 0 ? g[k] * ref.weight[k] / p : 0.0;
        sk[k] += r;
        for (int c = 0; c < 3; ++c) mu[k][c] += r * x.val[c];
      }
    }
    for (int k = 0; k < 5; ++k) {
      ref.weight[k] = sk[k] / s.size();
      for (int c = 0; c < 3; ++c) ref.mean[k][c] = sk[k] > 0 ? mu[k][c] / sk[k] : mu[k][c];
    }
  }
  m.EM(s, 2);
  for (int k = 0; k < 5; ++k) {
    EXPECT_NEAR(m.weight[k], ref.weight[k], 1e-9);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(m.mean[k][c], ref.mean[k][c], 1e-7);
  }
  // Weights of a fitted mixture sum to one; derived fields refreshed at the end.
  EXPECT_NEAR(m.weight[0] + m.weight[1] + m.weight[2] + m.weight[3] + m.weight[4], 1.0, 1e-12);
  VELDSEColorModel check = m;
  check.setDeterminant();
  check.setInverseCovariance();
  EXPECT_TRUE(sameBits(check, m));
}

}  // namespace
