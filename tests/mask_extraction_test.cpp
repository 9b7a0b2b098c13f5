// From the final box labels to the recorded mask. (The re-cut that a reduced
// photo adds is compared with a reference in intelligent_upscaling_test.)
#include "engine/veldse_hybrid.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"
#include "tests/test_support.h"

namespace {

using testsupport::at;
using testsupport::M;

// A clone of an image the code under test handed over, which is then released.
cv::Mat take(IplImage* im) {
  cv::Mat copy = im ? M(im).clone() : cv::Mat();
  cvReleaseImage(&im);
  return copy;
}

class MaskExtraction : public ::testing::Test {
 protected:
  void TearDown() override {
    for (IplImage** im : {&hybrid_.m_cropLabel, &VELDSEMarker::m_labelImage}) cvReleaseImage(im);
    VELDSEManageUndoRedo::deallocate();
    VELDSEMarker::currentStroke.strokeType = 0;
    VELDSEMarker::m_xMinBBox = VELDSEMarker::m_yMinBBox = 0;
  }
  VELDSEHybrid hybrid_;
};

TEST_F(MaskExtraction, ResultIsPostProcessedBeforeRecording) {
  // Working image 14 x 12 (the photo's size), box (2, 2, 10, 8); the label
  // image holds object codes outside the box too: they do not count.
  const cv::Rect box(2, 2, 10, 8);
  VELDSEMarker::m_originalWidth = 14;
  VELDSEMarker::m_originalHeight = 12;
  VELDSEManageUndoRedo::allocate();
  hybrid_.m_imgWidth = 14;
  hybrid_.m_imgHeight = 12;
  VELDSEMarker::m_xMinBBox = box.x;
  VELDSEMarker::m_yMinBBox = box.y;
  hybrid_.m_boundWidth = box.width;
  hybrid_.m_boundHeight = box.height;
  VELDSEMarker::m_labelImage = testsupport::newImage(14, 12);
  for (int y = 0; y < 12; ++y)
    for (int x = 0; x < 14; ++x)
      at(VELDSEMarker::m_labelImage, x, y) = static_cast<unsigned char>((x + y) % 5);
  cv::Mat labels = M(VELDSEMarker::m_labelImage).clone();
  // An 8 x 6 object (codes 4 and, in its first row, 2) with a one-pixel hole,
  // and a one-pixel island.
  hybrid_.m_cropLabel = testsupport::newImage(box.width, box.height, 1, LABEL_PR_BG);
  M(hybrid_.m_cropLabel)(cv::Rect(0, 1, 8, 6)).setTo(LABEL_PR_FG);
  M(hybrid_.m_cropLabel)(cv::Rect(0, 1, 8, 1)).setTo(LABEL_FG);
  at(hybrid_.m_cropLabel, 3, 3) = LABEL_PR_BG;
  at(hybrid_.m_cropLabel, 9, 0) = LABEL_FG;
  at(hybrid_.m_cropLabel, 8, 3) = LABEL_UNKNOWN;  // beside the object, not part of it
  at(hybrid_.m_cropLabel, 8, 4) = LABEL_BG;
  VELDSEMarker::currentStroke.strokeType = 0;  // loop clean-up, no previous result to merge
  const cv::Mat result = take(hybrid_.getObjMask());
  // Exactly the 8 x 6 block: hole filled, island (below 47 / 10) removed.
  cv::Mat expected = cv::Mat::zeros(12, 14, CV_8U);
  expected(cv::Rect(2, 3, 8, 6)).setTo(255);
  EXPECT_EQ(cv::countNonZero(result != expected), 0);
  // The box's labels are written back into the label image, the rest untouched.
  M(hybrid_.m_cropLabel).copyTo(labels(box));
  EXPECT_EQ(cv::countNonZero(labels != M(VELDSEMarker::m_labelImage)), 0);
  // The mask handed back is the one recorded.
  const cv::Mat recorded = take(VELDSEManageUndoRedo::prevMask());
  EXPECT_TRUE(recorded.size() == result.size() && cv::countNonZero(recorded != result) == 0);
}

}  // namespace
