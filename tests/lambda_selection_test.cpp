// Smoothness weight selection: the trial schedule, the blob analysis of the
// three trial cuts and the rules that pick one of them.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include <opencv2/core.hpp>

#include "engine/veldse_hybrid.h"
#include "interface/veldse_marker.h"

namespace {

constexpr int kSize = 40;  // box of the hand-made trials; spans margin (int)(40 * 0.15f) = 6

IplImage* grey(int w, int h, unsigned char value) {
  IplImage* image = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
  cvSet(image, cvScalarAll(value));
  return image;
}

void setPixel(IplImage* image, int x, int y, unsigned char v) {
  reinterpret_cast<unsigned char*>(image->imageData + y * image->widthStep)[x] = v;
}
unsigned char pixel(const IplImage* image, int x, int y) {
  return reinterpret_cast<const unsigned char*>(image->imageData + y * image->widthStep)[x];
}

void fillRect(IplImage* image, int x0, int y0, int x1, int y1, unsigned char v) {
  cv::cvarrToMat(image)(cv::Rect(x0, y0, x1 - x0 + 1, y1 - y0 + 1)).setTo(v);
}

// A two-pixel-thick square ring from (2, 2) to (37, 37): spans the 40 x 40 box
// and has 36 * 36 - 32 * 32 = 272 pixels.
void ring(IplImage* label) {
  fillRect(label, 2, 2, 37, 37, LABEL_PR_FG);
  fillRect(label, 4, 4, 35, 35, LABEL_PR_BG);
}

// Blob of exactly n pixels inside the ring, away from it: rows of 10 from (10, 10).
void blobOf(IplImage* label, int n, unsigned char code = LABEL_PR_FG) {
  for (int i = 0; i < n; ++i) setPixel(label, 10 + i % 10, 10 + i / 10, code);
}

class LambdaSelection : public ::testing::Test {
 protected:
  void SetUp() override {
    VELDSEMarker::m_isGreyScale = false;
    hybrid = new VELDSEHybrid;
    hybrid->m_cropSrc = cvCreateImage(cvSize(kSize, kSize), IPL_DEPTH_8U, 3);
    cvSet(hybrid->m_cropSrc, cvScalarAll(100));
    hybrid->m_cropLabel = grey(kSize, kSize, LABEL_BG);
    hybrid->m_cropLabelInit = grey(kSize, kSize, LABEL_PR_BG);
    for (IplImage*& l : hybrid->m_iterLabel) l = grey(kSize, kSize, LABEL_PR_BG);
  }
  void TearDown() override {
    hybrid->clearMemory();
    delete hybrid;
    VELDSEMarker::m_isGreyScale = false;
  }
  // Checkerboard of 0/200 in the source under the rectangle: the interior of
  // a blob there is more contrasted than its border against the flat 100.
  void texture(int x0, int y0, int x1, int y1) {
    cv::Mat src = cv::cvarrToMat(hybrid->m_cropSrc);
    for (int y = y0; y <= y1; ++y)
      for (int x = x0; x <= x1; ++x) src.at<cv::Vec3b>(y, x) = cv::Vec3b::all(((x + y) & 1) ? 200 : 0);
  }
  int optimal() { return hybrid->optimalLamda(hybrid->m_iterLabel, nullptr); }

  VELDSEHybrid* hybrid = nullptr;
};

TEST_F(LambdaSelection, TrialsUseTruncatedCandidatesFromTheInitialLabels) {
  struct Case {
    bool grey;
    double lambdas[3];
  } cases[] = {{false, {50.0, 13.0, 8.0}}, {true, {15.0, 10.0, 7.0}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.grey ? "grey" : "colour");
    VELDSEMarker::m_isGreyScale = c.grey;
    setPixel(hybrid->m_cropLabelInit, 5, 6, LABEL_FG);
    for (int iter = 0; iter < 3; ++iter) {
      SCOPED_TRACE(iter);
      cvSet(hybrid->m_cropLabel, cvScalarAll(LABEL_PR_FG));
      EXPECT_EQ(hybrid->parallelLamdaSwtich(iter), iter == 0 ? 0 : 2);
      EXPECT_EQ(hybrid->m_lambda, c.lambdas[iter]);
      EXPECT_EQ(pixel(hybrid->m_cropLabel, 5, 6), LABEL_FG);
      EXPECT_EQ(pixel(hybrid->m_cropLabel, 0, 0), LABEL_PR_BG);
    }
    hybrid->m_lambda = 21.0;
    EXPECT_EQ(hybrid->parallelLamdaSwtich(4), 1);
    EXPECT_EQ(hybrid->parallelLamdaSwtich(7), 1);
    EXPECT_EQ(hybrid->m_lambda, 21.0) << "later iterations keep the weight";
  }
}

TEST_F(LambdaSelection, ChosenTrialKeepsItsLabelsAndTheExactCandidate) {
  // Trial 1 alone spans the box; all borders are flat against flat: verdict 1.
  ring(hybrid->m_iterLabel[1]);
  blobOf(hybrid->m_iterLabel[0], 150);
  blobOf(hybrid->m_iterLabel[2], 150);
  EXPECT_EQ(hybrid->parallelLamdaSwtich(3), 1);
  EXPECT_EQ(hybrid->m_lambda, static_cast<double>(13.513f)) << "not truncated here";
  EXPECT_NE(hybrid->m_lambda, 13.0);
  EXPECT_EQ(pixel(hybrid->m_cropLabel, 2, 2), LABEL_PR_FG);
  EXPECT_EQ(pixel(hybrid->m_cropLabel, 20, 20), LABEL_PR_BG);

  VELDSEMarker::m_isGreyScale = true;
  EXPECT_EQ(hybrid->parallelLamdaSwtich(3), 1);
  EXPECT_EQ(hybrid->m_lambda, 10.0);
}

TEST_F(LambdaSelection, NoAcceptableTrialFallsBackToInitialLabels) {
  // Largest blob 99 pixels in every trial and none spans: fall-back.
  for (IplImage* l : hybrid->m_iterLabel) blobOf(l, 99);
  setPixel(hybrid->m_cropLabelInit, 1, 1, LABEL_FG);
  for (bool greyPhoto : {false, true}) {
    SCOPED_TRACE(greyPhoto);
    VELDSEMarker::m_isGreyScale = greyPhoto;
    cvSetZero(hybrid->m_cropLabel);
    EXPECT_EQ(hybrid->parallelLamdaSwtich(3), 2);
    EXPECT_EQ(hybrid->m_lambda, greyPhoto ? 3.0 : 4.0);
    EXPECT_EQ(pixel(hybrid->m_cropLabel, 1, 1), LABEL_FG);
    EXPECT_EQ(pixel(hybrid->m_cropLabel, 10, 10), LABEL_PR_BG);
  }
  // One pixel more and the same trials are acceptable.
  blobOf(hybrid->m_iterLabel[2], 100);
  EXPECT_NE(optimal(), -1);
}

TEST_F(LambdaSelection, NoContrastedBorderChoosesFirstTrial) {
  // Every blob sits on its own checkerboard patch: verdict 2 for all.
  const int x0[3] = {2, 15, 28};
  for (int k = 0; k < 3; ++k) {
    texture(x0[k], 5, x0[k] + 9, 34);
    fillRect(hybrid->m_iterLabel[k], x0[k], 5, x0[k] + 9, 34, LABEL_FG);
  }
  EXPECT_EQ(optimal(), 0);
  // Trial 1's blob now lies on the flat 100: only it passes.
  cvSet(hybrid->m_cropSrc, cvScalarAll(100));
  texture(x0[0], 5, x0[0] + 9, 34);
  texture(x0[2], 5, x0[2] + 9, 34);
  EXPECT_EQ(optimal(), 1) << "a single valid trial is chosen";
}

TEST_F(LambdaSelection, SpanningTrialWithSmallestKeptAreaWins) {
  // Trial 0: ring + a separate blob of n pixels; it only counts when it is
  // above (int)(272 * 0.7) = 190. Trial 1: ring with four pixels more (276).
  // Trial 2 does not span.
  struct Case {
    int extra;
    int expected;
  } cases[] = {{190, 0}, {191, 1}, {0, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.extra);
    for (IplImage* l : hybrid->m_iterLabel) cvSet(l, cvScalarAll(LABEL_PR_BG));
    ring(hybrid->m_iterLabel[0]);
    blobOf(hybrid->m_iterLabel[0], c.extra, LABEL_FG);
    ring(hybrid->m_iterLabel[1]);
    fillRect(hybrid->m_iterLabel[1], 4, 4, 7, 4, LABEL_FG);
    blobOf(hybrid->m_iterLabel[2], 150);
    EXPECT_EQ(optimal(), c.expected);
  }
  // Equal areas: the earlier trial.
  for (IplImage* l : hybrid->m_iterLabel) cvSet(l, cvScalarAll(LABEL_PR_BG));
  ring(hybrid->m_iterLabel[1]);
  ring(hybrid->m_iterLabel[2]);
  EXPECT_EQ(optimal(), 1);
}

TEST_F(LambdaSelection, SpreadOfAreasPicksLastOrSecondToLast) {
  // Non-spanning blobs of the given areas on a flat source: all verdicts 1.
  // The spread is sum((mean - area / max)^2) against the limit 0.4.
  struct Case {
    int areas[3];
    int expected;
  } cases[] = {
      {{300, 300, 300}, 1},  // spread 0
      {{120, 200, 300}, 1},  // spread 0.181
      {{70, 70, 300}, 1},    // spread 0.392
      {{60, 60, 300}, 2},    // spread 0.427
      {{30, 30, 300}, 2},    // spread 0.54
      {{300, 30, 30}, 2},    // the order of the trials, not the areas, decides
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.areas[0] << "," << c.areas[1] << "," << c.areas[2]);
    for (int k = 0; k < 3; ++k) {
      cvSet(hybrid->m_iterLabel[k], cvScalarAll(LABEL_PR_BG));
      blobOf(hybrid->m_iterLabel[k], c.areas[k]);
    }
    EXPECT_EQ(optimal(), c.expected);
  }
  // Trial 1 on a checkerboard fails the contrast test: V = {0, 2}, similar
  // areas, so the second-to-last of V.
  for (int k = 0; k < 3; ++k) cvSet(hybrid->m_iterLabel[k], cvScalarAll(LABEL_PR_BG));
  blobOf(hybrid->m_iterLabel[0], 300);
  fillRect(hybrid->m_iterLabel[1], 25, 5, 34, 24, LABEL_PR_FG);
  texture(25, 5, 34, 24);
  blobOf(hybrid->m_iterLabel[2], 290);
  EXPECT_EQ(optimal(), 0);
}

TEST_F(LambdaSelection, BlobsAreFourConnected) {
  // Trial 1: a diagonal line (2, 2)-(37, 37) plus (3, 2). With 4-connectivity
  // its largest blob is {(2,2), (3,2), (3,3)}, every single pixel is below 70 %
  // of it and the trial does not span; 8-connected it would be one spanning
  // blob of 37 pixels, smaller than trial 0's ring.
  ring(hybrid->m_iterLabel[0]);
  for (int i = 0; i < 36; ++i) setPixel(hybrid->m_iterLabel[1], 2 + i, 2 + i, LABEL_PR_FG);
  setPixel(hybrid->m_iterLabel[1], 3, 2, LABEL_FG);
  EXPECT_EQ(optimal(), 0);
}

TEST_F(LambdaSelection, BoundaryTestMargins) {
  // 20 x 20 mask, fraction 0.15: margin (int)(20 * 0.15f) = 3 on each side.
  struct Case {
    int x0, y0, x1, y1;
    bool expected;
  } cases[] = {
      {0, 0, 19, 19, true}, {2, 2, 18, 18, true}, {3, 2, 18, 18, false}, {2, 3, 18, 18, false},
      {2, 2, 17, 18, false}, {2, 2, 18, 17, false}, {-1, -1, -1, -1, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.x0 << "," << c.y0 << "-" << c.x1 << "," << c.y1);
    IplImage* mask = grey(20, 20, 0);
    if (c.x0 >= 0) {
      // Only the corners of the box: the bounding box, not the fill, matters.
      setPixel(mask, c.x0, c.y0, 255);
      setPixel(mask, c.x1, c.y1, 255);
    }
    EXPECT_EQ(hybrid->boundaryTest(mask, 0.15f), c.expected);
    cvReleaseImage(&mask);
  }
  // Margins truncate a single-precision product: 10 * 0.15f -> 1.
  IplImage* mask = grey(10, 10, 255);
  EXPECT_FALSE(hybrid->boundaryTest(mask, 0.15f)) << "10 - 9 = 1 is not below 1";
  EXPECT_TRUE(hybrid->boundaryTest(mask, 0.2f));
  cvReleaseImage(&mask);
}

// Independent reading of the contrast rule: border pairs against interior
// pairs, over every interior object pixel and its eight neighbours.
int referenceIntensity(const IplImage* mask, const IplImage* src) {
  double sums[2] = {0, 0};
  int counts[2] = {0, 0};
  for (int y = 1; y + 1 < mask->height; ++y)
    for (int x = 1; x + 1 < mask->width; ++x) {
      if (pixel(mask, x, y) != 255) continue;
      for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) {
          if (dx == 0 && dy == 0) continue;
          const cv::Mat image = cv::cvarrToMat(src);
          const cv::Vec3d d = cv::Vec3d(image.at<cv::Vec3b>(y, x)) - cv::Vec3d(image.at<cv::Vec3b>(y + dy, x + dx));
          const int which = pixel(mask, x + dx, y + dy) == 255 ? 1 : 0;
          sums[which] += cv::norm(d);
          ++counts[which];
        }
    }
  return sums[0] / counts[0] - sums[1] / counts[1] >= 0.0 ? 1 : 2;
}

TEST_F(LambdaSelection, IntensityTestMatchesReferenceOnRandomScenes) {
  std::mt19937 rng(7);
  int verdicts[3] = {0, 0, 0};
  for (int trial = 0; trial < 40; ++trial) {
    SCOPED_TRACE(trial);
    IplImage* src = hybrid->m_cropSrc;
    std::uniform_int_distribution<int> noise(0, 255);
    const int spreadIn = trial % 5 * 40, spreadOut = (trial / 5) % 5 * 40;
    IplImage* mask = grey(kSize, kSize, 0);
    cv::Point centre(10 + trial % 20, 12 + trial % 15);
    for (int y = 0; y < kSize; ++y)
      for (int x = 0; x < kSize; ++x) {
        const bool inside = std::hypot(x - centre.x, y - centre.y) < 8 + trial % 5;
        if (inside) setPixel(mask, x, y, 255);
        unsigned char* p = cv::cvarrToMat(src).ptr<unsigned char>(y) + 3 * x;
        const int base = inside ? 60 : 60 + trial % 4 * 12, spread = inside ? spreadIn : spreadOut;
        for (int ch = 0; ch < 3; ++ch) p[ch] = static_cast<unsigned char>(base + noise(rng) % (spread + 1) / 2);
      }
    const int verdict = hybrid->intensityTest(mask);
    EXPECT_EQ(verdict, referenceIntensity(mask, src));
    ++verdicts[verdict];
    cvReleaseImage(&mask);
  }
  EXPECT_GT(verdicts[1], 0);
  EXPECT_GT(verdicts[2], 0);
  // No object pixel away from the edge: a NaN mean, verdict 2.
  IplImage* empty = grey(kSize, kSize, 0);
  EXPECT_EQ(hybrid->intensityTest(empty), 2);
  cvReleaseImage(&empty);
}

TEST_F(LambdaSelection, HomogenousLamdaRegularisesOnlyTheBackgroundModel) {
  // Component 0 of both models singular (all-zero covariance, determinant 0).
  auto singular = [](VELDSEColorModel& m) {
    m = VELDSEColorModel();
    m.weight[0] = 1.0;
  };
  // Two well separated, well spread components: not homogeneous by the criterion.
  auto twoColours = [](VELDSEColorModel& m) {
    m = VELDSEColorModel();
    for (int k = 0; k < 2; ++k) {
      m.weight[k] = 0.5;
      for (int ch = 0; ch < 3; ++ch) m.mean[k][ch] = 200.0 * k;
      for (int d = 0; d < 3; ++d) m.covariance[k][4 * d] = 100.0;
    }
    m.setDeterminant();
    m.weight[2] = 1e-3;  // a singular, negligible third component
  };
  struct Case {
    bool bgSingle;  // single-colour background model
    bool sticky;
    int iter;
    int expected;
  } cases[] = {{true, false, 0, 0},  {true, false, 1, 1},  {false, false, 0, 1},
               {false, true, 0, 0}, {false, true, 3, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.bgSingle << " " << c.sticky << " " << c.iter);
    singular(hybrid->m_fgModel);
    if (c.bgSingle) singular(hybrid->m_bgModel); else twoColours(hybrid->m_bgModel);
    hybrid->m_lambda = 8.0;
    VELDSEMarker::m_isHomogenous = c.sticky;
    VELDSEMarker::m_noiseLevel = 0.1;
    EXPECT_EQ(hybrid->homogenousLamda(c.iter), c.expected);
    EXPECT_EQ(VELDSEMarker::m_isHomogenous, c.expected == 0);
    EXPECT_EQ(VELDSEMarker::m_noiseLevel, 0.1);
    EXPECT_EQ(hybrid->m_lambda, c.expected == 0 ? 50.0 : 8.0);
    // The object model is regularised in steps of 0.1; the background model's
    // singular component in steps of 10.0 only for a homogeneous scene.
    EXPECT_NEAR(hybrid->m_fgModel.covariance[0][0], 0.1, 1e-12);
    const int k = c.bgSingle ? 0 : 2;
    EXPECT_NEAR(hybrid->m_bgModel.covariance[k][0], c.expected == 0 ? 10.0 : 0.1, 1e-12);
  }
  VELDSEMarker::m_isHomogenous = false;
}

}  // namespace
