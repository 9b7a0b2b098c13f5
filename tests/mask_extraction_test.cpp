// From the final box labels to the recorded full-resolution mask.
#include <gtest/gtest.h>
#include <opencv2/core/core.hpp>
#include <opencv2/core/core_c.h>

#include "engine/veldse_hybrid.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"

namespace {

unsigned char& at(IplImage* im, int x, int y) {
  return reinterpret_cast<unsigned char*>(im->imageData)[y * im->widthStep + x * im->nChannels];
}

int countDifferences(const IplImage* a, const IplImage* b) {
  return cv::countNonZero(cv::cvarrToMat(a) != cv::cvarrToMat(b));
}

void setSingleComponent(VELDSEColorModel& m, double m0, double m1, double m2) {
  m = VELDSEColorModel();
  m.weight[0] = 1.0;
  m.mean[0][0] = m0;
  m.mean[0][1] = m1;
  m.mean[0][2] = m2;
  for (int i = 0; i < 3; ++i) {
    m.covariance[0][4 * i] = 400.0;
    m.inverseCovariance[0][4 * i] = 1.0 / 400.0;
  }
  m.determinant[0] = 400.0 * 400.0 * 400.0;
  m.normFactor[0] = 1.0;
}

class MaskExtractionTest : public ::testing::Test {
 protected:
  // Working image workW x workH, photo `scale` times larger, box (x0, y0, bw, bh).
  void setUpContext(int workW, int workH, int scale, int x0, int y0, int bw, int bh) {
    g_imageResizeFactor = static_cast<float>(scale);
    VELDSEMarker::m_originalWidth = workW * scale;
    VELDSEMarker::m_originalHeight = workH * scale;
    VELDSEManageUndoRedo::allocate();
    hybrid_.m_imgWidth = workW;
    hybrid_.m_imgHeight = workH;
    VELDSEMarker::m_xMinBBox = x0;
    VELDSEMarker::m_yMinBBox = y0;
    hybrid_.m_boundWidth = bw;
    hybrid_.m_boundHeight = bh;
    VELDSEMarker::m_labelImage = cvCreateImage(cvSize(workW, workH), IPL_DEPTH_8U, 1);
    for (int y = 0; y < workH; ++y)
      for (int x = 0; x < workW; ++x) at(VELDSEMarker::m_labelImage, x, y) = static_cast<unsigned char>((x + y) % 5);
    initialLabels_ = cvCloneImage(VELDSEMarker::m_labelImage);
    hybrid_.m_cropLabel = cvCreateImage(cvSize(bw, bh), IPL_DEPTH_8U, 1);
    cvSet(hybrid_.m_cropLabel, cvScalarAll(LABEL_PR_BG));
    VELDSEMarker::currentStroke.strokeType = 1;  // no clean-up step, and no previous result to merge
  }

  void TearDown() override {
    if (hybrid_.m_cropLabel) cvReleaseImage(&hybrid_.m_cropLabel);
    if (initialLabels_) cvReleaseImage(&initialLabels_);
    if (VELDSEMarker::m_labelImage) cvReleaseImage(&VELDSEMarker::m_labelImage);
    if (VELDSEMarker::m_originalImage) cvReleaseImage(&VELDSEMarker::m_originalImage);
    VELDSEManageUndoRedo::deallocate();
    VELDSEMarker::currentStroke.strokeType = 0;
    VELDSEMarker::m_xMinBBox = VELDSEMarker::m_yMinBBox = 0;
    g_imageResizeFactor = 1.0f;
  }

  void checkLabelsWrittenBack() {
    const int x0 = VELDSEMarker::m_xMinBBox, y0 = VELDSEMarker::m_yMinBBox;
    for (int y = 0; y < hybrid_.m_imgHeight; ++y) {
      for (int x = 0; x < hybrid_.m_imgWidth; ++x) {
        const bool inBox = x >= x0 && x < x0 + hybrid_.m_boundWidth && y >= y0 && y < y0 + hybrid_.m_boundHeight;
        const unsigned char want = inBox ? at(hybrid_.m_cropLabel, x - x0, y - y0) : at(initialLabels_, x, y);
        ASSERT_EQ(at(VELDSEMarker::m_labelImage, x, y), want) << x << ", " << y;
      }
    }
  }

  void checkRecorded(const IplImage* result) {
    IplImage* recorded = VELDSEManageUndoRedo::prevMask();
    ASSERT_NE(recorded, nullptr);
    EXPECT_EQ(countDifferences(recorded, result), 0);
    cvReleaseImage(&recorded);
  }

  VELDSEHybrid hybrid_;
  IplImage* initialLabels_ = nullptr;
};

TEST_F(MaskExtractionTest, FullSizePhotoGivesTheBoxLabelsAs255) {
  setUpContext(12, 10, 1, 2, 3, 6, 4);
  const unsigned char codes[5] = {LABEL_UNKNOWN, LABEL_BG, LABEL_FG, LABEL_PR_BG, LABEL_PR_FG};
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 6; ++c) at(hybrid_.m_cropLabel, c, r) = codes[(3 * r + c) % 5];

  IplImage* result = hybrid_.getObjMask();
  ASSERT_EQ(result->width, 12);
  ASSERT_EQ(result->height, 10);
  for (int y = 0; y < 10; ++y) {
    for (int x = 0; x < 12; ++x) {
      SCOPED_TRACE(testing::Message() << x << ", " << y);
      const bool inBox = x >= 2 && x < 8 && y >= 3 && y < 7;
      // Outside the box the label image holds object codes too; they do not count.
      const int code = inBox ? at(hybrid_.m_cropLabel, x - 2, y - 3) : -1;
      EXPECT_EQ(at(result, x, y), (code == LABEL_FG || code == LABEL_PR_FG) ? 255 : 0);
    }
  }
  checkLabelsWrittenBack();
  checkRecorded(result);
  cvReleaseImage(&result);
}

TEST_F(MaskExtractionTest, ResultIsPostProcessedBeforeRecording) {
  setUpContext(14, 12, 1, 2, 2, 10, 8);
  // An 8 x 6 object with a one-pixel hole, and a one-pixel island.
  for (int r = 1; r < 7; ++r)
    for (int c = 0; c < 8; ++c) at(hybrid_.m_cropLabel, c, r) = LABEL_PR_FG;
  at(hybrid_.m_cropLabel, 3, 3) = LABEL_PR_BG;
  at(hybrid_.m_cropLabel, 9, 0) = LABEL_FG;
  VELDSEMarker::currentStroke.strokeType = 0;

  IplImage* result = hybrid_.getObjMask();
  EXPECT_EQ(at(result, 2 + 3, 2 + 3), 255);  // hole filled
  EXPECT_EQ(at(result, 2 + 9, 2 + 0), 0);    // island below 47 / 10 removed
  EXPECT_EQ(cvCountNonZero(result), 48);
  // The label image keeps the cut's codes; only the mask is cleaned.
  EXPECT_EQ(at(VELDSEMarker::m_labelImage, 5, 5), LABEL_PR_BG);
  checkRecorded(result);
  cvReleaseImage(&result);
}

TEST_F(MaskExtractionTest, ReducedPhotoIsReCutAtFullResolution) {
  const int scale = 4;
  setUpContext(16, 12, scale, 1, 1, 14, 10);
  // Working object: box columns 3..9, rows 2..7. The photo's object is
  // slightly smaller than its enlargement, so the re-cut moves the outline.
  for (int r = 2; r < 8; ++r)
    for (int c = 3; c < 10; ++c) at(hybrid_.m_cropLabel, c, r) = LABEL_PR_FG;
  VELDSEMarker::m_originalImage = cvCreateImage(cvSize(16 * scale, 12 * scale), IPL_DEPTH_8U, 3);
  cvSet(VELDSEMarker::m_originalImage, cvScalar(200, 60, 30));
  cv::Mat photo = cv::cvarrToMat(VELDSEMarker::m_originalImage);
  photo(cv::Rect(cv::Point(4 * scale + 2, 3 * scale + 1), cv::Point(11 * scale - 1, 9 * scale - 2)))
      .setTo(cv::Scalar(30, 60, 200));
  setSingleComponent(hybrid_.m_fgModel, 30, 60, 200);
  setSingleComponent(hybrid_.m_bgModel, 200, 60, 30);
  hybrid_.m_lambda = 1.0;
  hybrid_.m_beta = 0.0005;

  IplImage* result = hybrid_.getObjMask();
  ASSERT_EQ(result->width, 16 * scale);
  ASSERT_EQ(result->height, 12 * scale);
  checkLabelsWrittenBack();
  checkRecorded(result);

  // Reference: the same re-cut of a 0/1 working mask on a second engine.
  VELDSEHybrid other;
  other.m_fgModel = hybrid_.m_fgModel;
  other.m_bgModel = hybrid_.m_bgModel;
  other.m_lambda = hybrid_.m_lambda;
  other.m_beta = hybrid_.m_beta;
  IplImage* working = cvCreateImage(cvSize(16, 12), IPL_DEPTH_8U, 1);
  cvSetZero(working);
  for (int r = 2; r < 8; ++r)
    for (int c = 3; c < 10; ++c) at(working, 1 + c, 1 + r) = 1;
  IplImage* expected = other.intelligentUpscaling(working);
  EXPECT_EQ(countDifferences(result, expected), 0);
  // The photo's outline, not the blocky enlargement, decides the edge.
  EXPECT_EQ(at(result, 4 * scale + 1, 6 * scale), 0);
  EXPECT_EQ(at(result, 4 * scale + 2, 6 * scale), 255);
  EXPECT_EQ(at(result, 6 * scale, 9 * scale - 3), 255);
  EXPECT_EQ(at(result, 6 * scale, 9 * scale - 2), 0);
  cvReleaseImage(&expected);
  cvReleaseImage(&working);
  cvReleaseImage(&result);
}

}  // namespace
