// Smoothness weight selection: the trial schedule, the chosen trial, blob
// connectivity and the contrast rule against an independent reading.
#include "engine/veldse_hybrid.h"
#include "interface/veldse_marker.h"
#include "tests/test_support.h"

namespace {

using testsupport::at;
using testsupport::M;

constexpr int kSize = 40;  // box of the hand-made trials; spans margin (int)(40 * 0.15f) = 6

IplImage* grey(unsigned char value) { return testsupport::newImage(kSize, kSize, 1, value); }
// Fills the inclusive rectangle (x0, y0)-(x1, y1).
void fillRect(IplImage* image, int x0, int y0, int x1, int y1, unsigned char v) {
  M(image)(cv::Rect(x0, y0, x1 - x0 + 1, y1 - y0 + 1)).setTo(v);
}

// Trial shapes: kRing, a two-pixel-thick square ring from (2, 2) to (37, 37)
// that spans the box (272 pixels); n > 0 a blob of exactly n pixels in rows of 20 from (10, 10),
// inside the ring and away from it (no span); kRing; kRingAndBlob, the ring
// plus a 200-pixel blob (above 70 % of it, so both count: 472 pixels), and
// 1000 + n the ring plus an n-pixel blob; kTopRow,
// row 0 (40 pixels), and kFrame, the outermost pixels (156, spanning): the
// contrast test visits no pixel of these two, so their verdict is 2;
// kDiagonal, the line (2, 2)-(37, 37) plus (3, 2): 4-connected, its largest
// blob is {(2,2), (3,2), (3,3)}, every single pixel is below 70 % of it and it
// does not span (8-connected it would be one spanning blob of 37 pixels).
enum Shape { kRing = -1, kRingAndBlob = -2, kTopRow = -3, kFrame = -4, kDiagonal = -5 };
void draw(IplImage* label, int shape) {
  if (shape == kRing || shape == kRingAndBlob || shape >= 1000) {
    fillRect(label, 2, 2, 37, 37, LABEL_PR_FG);
    fillRect(label, 4, 4, 35, 35, LABEL_PR_BG);
  }
  if (shape == kTopRow || shape == kFrame) fillRect(label, 0, 0, kSize - 1, 0, LABEL_PR_FG);
  if (shape == kFrame) {
    fillRect(label, 0, kSize - 1, kSize - 1, kSize - 1, LABEL_FG);
    fillRect(label, 0, 0, 0, kSize - 1, LABEL_PR_FG);
    fillRect(label, kSize - 1, 0, kSize - 1, kSize - 1, LABEL_PR_FG);
  }
  for (int i = 0; i < 36 && shape == kDiagonal; ++i) at(label, 2 + i, 2 + i) = LABEL_PR_FG;
  if (shape == kDiagonal) at(label, 3, 2) = LABEL_FG;
  const int n = shape == kRingAndBlob ? 200 : shape >= 1000 ? shape - 1000 : shape;
  for (int i = 0; i < n; ++i) at(label, 10 + i % 20, 10 + i / 20) = LABEL_PR_FG;
}

class LambdaSelection : public ::testing::Test {
 protected:
  void SetUp() override {
    VELDSEMarker::m_isGreyScale = false;
    hybrid = new VELDSEHybrid;
    hybrid->m_cropSrc = testsupport::newImage(kSize, kSize, 3, 100);
    hybrid->m_cropLabel = grey(LABEL_BG);
    hybrid->m_cropLabelInit = grey(LABEL_PR_BG);
    for (IplImage*& l : hybrid->m_iterLabel) l = grey(LABEL_PR_BG);
  }
  void TearDown() override {
    hybrid->clearMemory();
    delete hybrid;
    VELDSEMarker::m_isGreyScale = false;
  }
  int optimal() { return hybrid->optimalLamda(hybrid->m_iterLabel, nullptr); }

  VELDSEHybrid* hybrid = nullptr;
};

TEST_F(LambdaSelection, TrialsThenChoiceOrFallBack) {
  const float candidates[2][3] = {{50.0f, 13.513f, 8.0f}, {15.0f, 10.0f, 7.0f}};
  at(hybrid->m_cropLabelInit, 5, 6) = LABEL_FG;
  for (const bool isGrey : {false, true}) {
    SCOPED_TRACE(isGrey ? "grey" : "colour");
    VELDSEMarker::m_isGreyScale = isGrey;
    for (int iter = 0; iter < 3; ++iter) {
      SCOPED_TRACE(iter);
      cvSet(hybrid->m_cropLabel, cvScalarAll(LABEL_PR_FG));
      EXPECT_EQ(hybrid->parallelLamdaSwtich(iter), iter == 0 ? 0 : 2);
      // Trials use the candidates truncated (13.513 as 13) from the initial labels.
      EXPECT_EQ(hybrid->m_lambda, static_cast<double>(static_cast<int>(candidates[isGrey][iter])));
      EXPECT_EQ(cv::countNonZero(M(hybrid->m_cropLabel) != M(hybrid->m_cropLabelInit)), 0);
    }
    hybrid->m_lambda = 21.0;  // later iterations keep the weight
    EXPECT_TRUE(hybrid->parallelLamdaSwtich(4) == 1 && hybrid->parallelLamdaSwtich(7) == 1 &&
                hybrid->m_lambda == 21.0);
  }

  // On the flat crop every shape but those on the frame has verdict 1.
  // chosen -1: the fall-back.
  const struct {
    const char* name;
    int shapes[3];
    int chosen;
  } cases[] = {
      {"all verdicts 2: the first trial, not the fall-back", {kTopRow, kTopRow, kFrame}, 0},
      {"a spanning trial with verdict 2 does not count; equal areas keep the lower index",
       {kFrame, kRing, kRing},
       1},
      {"the smallest spanning area wins", {kRingAndBlob, kRing, 150}, 1},
      // Blobs above (int)(0.7 * 272) = 190 pixels count beside the 272-pixel ring.
      {"a 190-pixel blob is dropped: equal areas", {1190, kRing, kRing}, 0},
      {"a 191-pixel blob counts", {1191, kRing, kRing}, 1},
      {"blobs are 4-connected", {kRing, kDiagonal, 0}, 0},
      {"largest area 99: fall-back", {99, 50, kTopRow}, -1},
      {"largest area 100: areas 1 and 0.5, spread 0.125, second-to-last", {100, 50, kTopRow}, 0},
      {"spread 0.60 above 0.4: last", {400, 20, 20}, 2},
      {"two trials, spread 0.45: last", {400, kTopRow, 20}, 2},
      {"a single trial with verdict 1", {kTopRow, 150, kTopRow}, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    for (int k = 0; k < 3; ++k) {
      cvSet(hybrid->m_iterLabel[k], cvScalarAll(LABEL_PR_BG));
      draw(hybrid->m_iterLabel[k], c.shapes[k]);
    }
    EXPECT_EQ(optimal(), c.chosen);
    for (const bool isGrey : {false, true}) {
      SCOPED_TRACE(isGrey ? "grey" : "colour");
      VELDSEMarker::m_isGreyScale = isGrey;
      cvSet(hybrid->m_cropLabel, cvScalarAll(LABEL_BG));
      EXPECT_EQ(hybrid->parallelLamdaSwtich(3), c.chosen == -1 ? 2 : 1);
      // The chosen candidate exactly (13.513 is not truncated here), or the
      // fall-back weight with the initial labels.
      EXPECT_EQ(hybrid->m_lambda,
                c.chosen == -1 ? (isGrey ? 3.0 : 4.0) : static_cast<double>(candidates[isGrey][c.chosen]));
      const IplImage* labels = c.chosen == -1 ? hybrid->m_cropLabelInit : hybrid->m_iterLabel[c.chosen];
      EXPECT_EQ(cv::countNonZero(M(hybrid->m_cropLabel) != M(labels)), 0);
    }
    VELDSEMarker::m_isGreyScale = false;
  }
}

// Independent reading of the contrast rule: border pairs against interior
// pairs, over every interior object pixel and its eight neighbours.
int referenceIntensity(const IplImage* mask, const IplImage* src) {
  double sums[2] = {0, 0};
  int counts[2] = {0, 0};
  const cv::Mat image = M(src);
  for (int y = 1; y + 1 < mask->height; ++y)
    for (int x = 1; x + 1 < mask->width; ++x)
      for (int dy = -1; dy <= 1 && at(mask, x, y) == 255; ++dy)
        for (int dx = -1; dx <= 1; ++dx) {
          if (dx == 0 && dy == 0) continue;
          const int which = at(mask, x + dx, y + dy) == 255 ? 1 : 0;
          sums[which] +=
              cv::norm(cv::Vec3d(image.at<cv::Vec3b>(y, x)) - cv::Vec3d(image.at<cv::Vec3b>(y + dy, x + dx)));
          ++counts[which];
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
    IplImage* mask = grey(0);
    cv::Point centre(10 + trial % 20, 12 + trial % 15);
    for (int y = 0; y < kSize; ++y)
      for (int x = 0; x < kSize; ++x) {
        const bool inside = std::hypot(x - centre.x, y - centre.y) < 8 + trial % 5;
        if (inside) at(mask, x, y) = 255;
        const int base = inside ? 60 : 60 + trial % 4 * 12, spread = inside ? spreadIn : spreadOut;
        for (int ch = 0; ch < 3; ++ch)
          at(src, x, y, ch) = static_cast<unsigned char>(base + noise(rng) % (spread + 1) / 2);
      }
    const int verdict = hybrid->intensityTest(mask);
    EXPECT_EQ(verdict, referenceIntensity(mask, src));
    ++verdicts[verdict == 1 ? 1 : 2];
    cvReleaseImage(&mask);
  }
  EXPECT_TRUE(verdicts[1] > 0 && verdicts[2] > 0);
  // No object pixel away from the edge: a NaN mean, verdict 2.
  IplImage* empty = grey(0);
  EXPECT_EQ(hybrid->intensityTest(empty), 2);
  cvReleaseImage(&empty);
}

}  // namespace
