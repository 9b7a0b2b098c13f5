// From the final box labels to the recorded full-resolution mask.
#include <gtest/gtest.h>
#include <opencv2/core/core.hpp>
#include <opencv2/core/core_c.h>

#include "engine/veldse_hybrid.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"

namespace {

cv::Mat M(const IplImage* im) { return cv::cvarrToMat(im); }
unsigned char& at(IplImage* im, int x, int y) { return M(im).at<unsigned char>(y, x); }

// A clone of an image the code under test handed over, which is then released.
cv::Mat take(IplImage* im) {
  cv::Mat copy = im ? M(im).clone() : cv::Mat();
  cvReleaseImage(&im);
  return copy;
}

VELDSEColorModel singleComponent(double b, double g, double r) {
  VELDSEColorModel m;
  m.weight[0] = m.normFactor[0] = 1.0;
  m.mean[0][0] = b, m.mean[0][1] = g, m.mean[0][2] = r;
  for (int i : {0, 4, 8}) m.covariance[0][i] = 400.0, m.inverseCovariance[0][i] = 1.0 / 400.0;
  m.determinant[0] = 400.0 * 400.0 * 400.0;
  return m;
}

class MaskExtraction : public ::testing::Test {
 protected:
  // Working image w x h, photo `scale` times larger; the box's labels start all PR_BG.
  void setUp(int w, int h, int scale, cv::Rect box) {
    box_ = box;
    g_imageResizeFactor = static_cast<float>(scale);
    VELDSEMarker::m_originalWidth = w * scale, VELDSEMarker::m_originalHeight = h * scale;
    VELDSEManageUndoRedo::allocate();
    hybrid_.m_imgWidth = w, hybrid_.m_imgHeight = h;
    VELDSEMarker::m_xMinBBox = box.x, VELDSEMarker::m_yMinBBox = box.y;
    hybrid_.m_boundWidth = box.width, hybrid_.m_boundHeight = box.height;
    VELDSEMarker::m_labelImage = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) at(VELDSEMarker::m_labelImage, x, y) = static_cast<unsigned char>((x + y) % 5);
    initialLabels_ = cvCloneImage(VELDSEMarker::m_labelImage);
    hybrid_.m_cropLabel = cvCreateImage(cvSize(box.width, box.height), IPL_DEPTH_8U, 1);
    cvSet(hybrid_.m_cropLabel, cvScalarAll(LABEL_PR_BG));
    VELDSEMarker::currentStroke.strokeType = 1;  // no clean-up step, and no previous result to merge
  }

  void TearDown() override {
    for (IplImage** im : {&hybrid_.m_cropLabel, &initialLabels_, &VELDSEMarker::m_labelImage, &VELDSEMarker::m_originalImage})
      cvReleaseImage(im);
    VELDSEManageUndoRedo::deallocate();
    VELDSEMarker::currentStroke.strokeType = 0;
    VELDSEMarker::m_xMinBBox = VELDSEMarker::m_yMinBBox = 0;
    g_imageResizeFactor = 1.0f;
  }

  // The mask; the box's labels are written back into the label image (the
  // rest untouched) and the mask is recorded.
  cv::Mat extract() {
    const cv::Mat result = take(hybrid_.getObjMask()), labels = M(initialLabels_);
    M(hybrid_.m_cropLabel).copyTo(labels(box_));
    EXPECT_EQ(cv::countNonZero(labels != M(VELDSEMarker::m_labelImage)), 0);
    const cv::Mat recorded = take(VELDSEManageUndoRedo::prevMask());
    EXPECT_TRUE(recorded.size() == result.size() && cv::countNonZero(recorded != result) == 0);
    return result;
  }

  VELDSEHybrid hybrid_;
  cv::Rect box_;
  IplImage* initialLabels_ = nullptr;
};

TEST_F(MaskExtraction, ResultIsPostProcessedBeforeRecording) {
  setUp(14, 12, 1, {2, 2, 10, 8});
  // An 8 x 6 object (codes 4 and, in its first row, 2) with a one-pixel hole,
  // and a one-pixel island. Outside the box the label image holds object
  // codes too; they do not count.
  M(hybrid_.m_cropLabel)(cv::Rect(0, 1, 8, 6)).setTo(LABEL_PR_FG);
  M(hybrid_.m_cropLabel)(cv::Rect(0, 1, 8, 1)).setTo(LABEL_FG);
  at(hybrid_.m_cropLabel, 3, 3) = LABEL_PR_BG;
  at(hybrid_.m_cropLabel, 9, 0) = LABEL_FG;
  at(hybrid_.m_cropLabel, 8, 3) = LABEL_UNKNOWN;  // beside the object, not part of it
  at(hybrid_.m_cropLabel, 8, 4) = LABEL_BG;
  VELDSEMarker::currentStroke.strokeType = 0;
  const cv::Mat result = extract();  // the label image keeps the cut's codes
  // Exactly the 8 x 6 block: hole filled, island (below 47 / 10) removed.
  cv::Mat expected = cv::Mat::zeros(12, 14, CV_8U);
  expected(cv::Rect(2, 3, 8, 6)).setTo(255);
  EXPECT_EQ(cv::countNonZero(result != expected), 0);
}

TEST_F(MaskExtraction, ReducedPhotoIsReCutAtFullResolution) {
  const int s = 4;
  setUp(16, 12, s, {1, 1, 14, 10});
  // Working object: box columns 3..9, rows 2..7. The photo's object is
  // slightly smaller than its enlargement, so the re-cut moves the outline.
  M(hybrid_.m_cropLabel)(cv::Rect(3, 2, 7, 6)).setTo(LABEL_PR_FG);
  VELDSEMarker::m_originalImage = cvCreateImage(cvSize(16 * s, 12 * s), IPL_DEPTH_8U, 3);
  cv::Mat photo = M(VELDSEMarker::m_originalImage);
  photo.setTo(cv::Scalar(200, 60, 30));
  photo(cv::Rect(cv::Point(4 * s + 2, 3 * s + 1), cv::Point(11 * s - 1, 9 * s - 2))).setTo(cv::Scalar(30, 60, 200));
  hybrid_.m_fgModel = singleComponent(30, 60, 200);
  hybrid_.m_bgModel = singleComponent(200, 60, 30);
  hybrid_.m_lambda = 1.0, hybrid_.m_beta = 0.0005;
  const cv::Mat result = extract();
  ASSERT_EQ(result.size(), cv::Size(16 * s, 12 * s));

  // The photo's outline, not the blocky enlargement, decides the edge.
  EXPECT_EQ(result.at<unsigned char>(6 * s, 4 * s + 1), 0);
  EXPECT_EQ(result.at<unsigned char>(6 * s, 4 * s + 2), 255);
  EXPECT_EQ(result.at<unsigned char>(9 * s - 3, 6 * s), 255);
  EXPECT_EQ(result.at<unsigned char>(9 * s - 2, 6 * s), 0);
}

}  // namespace
