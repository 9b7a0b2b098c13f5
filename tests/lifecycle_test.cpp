// Context lifecycle: start, teardown, reset, cancel and exit.
#include <gtest/gtest.h>
#include <opencv2/core/core_c.h>

#include <vector>

#include "engine/veldse_hybrid.h"
#include "interface/segmentation_core.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"

namespace {

IplImage* filled(int value) {
  IplImage* image = cvCreateImage(cvSize(64, 48), IPL_DEPTH_8U, 1);
  cvSet(image, cvScalarAll(value), nullptr);
  return image;
}

class Lifecycle : public ::testing::Test {
 protected:
  void SetUp() override {
    std::vector<unsigned int> argb(64 * 48);
    for (size_t i = 0; i < argb.size(); ++i) argb[i] = static_cast<unsigned>(i * 37 % 256) * 0x010101u;
    setSourceImage(64, 48, argb.data());  // a grey photo
  }
  void TearDown() override {
    deinitSegmentation();
    VELDSEMarker::m_exitApp = false;
    g_exitStatus = 0;
  }
};

TEST_F(Lifecycle, InitCreatesTheEngineWithFreshFlags) {
  g_imageResizeFactor = 3.0f;  // left from an earlier context
  VELDSEMarker::m_exitApp = true;
  VELDSEMarker::m_noiseLevel = 10.0;
  IplImage* label = filled(4);  // the handle is dropped, the image not released
  VELDSEMarker::m_labelImage = label;
  EXPECT_EQ(initSegmentationEngine(42), 0);
  EXPECT_EQ(VELDSEMarker::m_labelImage, nullptr);
  EXPECT_EQ(cvCountNonZero(label), 64 * 48) << "the image itself is still alive";
  cvReleaseImage(&label);
  ASSERT_NE(pHybrid, nullptr);
  EXPECT_EQ(g_imageResizeFactor, 1.0f) << "a small photo is not reduced by an old factor";
  EXPECT_EQ(VELDSEMarker::m_width, 64);
  EXPECT_NE(pHybrid->m_nlinks, nullptr);
  EXPECT_TRUE(VELDSEMarker::m_isGreyScale);
  EXPECT_NE(VELDSEMarker::m_texHor, nullptr);
  EXPECT_FALSE(VELDSEMarker::m_exitApp);
  EXPECT_EQ(VELDSEMarker::m_noiseLevel, 0.1);
}

TEST_F(Lifecycle, DeinitTearsEverythingDownAndTwiceIsHarmless) {
  initSegmentationEngine(0);
  storage = cvCreateMemStorage(0);
  VELDSEMarker::currentStroke.points = {1, 2, 3, 4};
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    EXPECT_EQ(deinitSegmentation(), 0);
    EXPECT_EQ(pHybrid, nullptr);
    EXPECT_EQ(storage, nullptr);
    EXPECT_EQ(VELDSEMarker::m_originalImage, nullptr);
    EXPECT_EQ(VELDSEMarker::m_srcImage, nullptr);
    EXPECT_EQ(VELDSEMarker::m_texVer, nullptr);
    EXPECT_TRUE(VELDSEMarker::currentStroke.points.empty());
    EXPECT_EQ(VELDSEManageUndoRedo::m_bitPlane, nullptr);
  }
}

TEST_F(Lifecycle, ResetForgetsMarksAndHistoryButKeepsPhotoAndEngine) {
  initSegmentationEngine(0);
  const IplImage* photo = VELDSEMarker::m_originalImage;
  const IplImage* work = VELDSEMarker::m_srcImage;
  const IplImage* texture = VELDSEMarker::m_texHor;
  const VELDSEHybrid* engine = pHybrid;
  IplImage* mask = filled(255);
  VELDSEManageUndoRedo::updateBitPlane(mask);
  VELDSEManageUndoRedo::updateBitPlane(mask);
  cvReleaseImage(&mask);
  ASSERT_TRUE(VELDSEManageUndoRedo::canUndo());
  VELDSEMarker::m_labelImage = filled(1);
  VELDSEMarker::m_prevResult = filled(0);
  VELDSEMarker::currentStroke = {{5, 6, 7, 8}, 3};
  storage = cvCreateMemStorage(0);
  VELDSEMarker::m_exitApp = VELDSEMarker::m_isHomogenous = true;
  VELDSEMarker::m_noiseLevel = 10.0;
  VELDSEMarker::m_xMinBBox = 3;

  EXPECT_EQ(resetSegmentationInterface(), 0);
  EXPECT_EQ(VELDSEMarker::m_originalImage, photo);
  EXPECT_EQ(VELDSEMarker::m_srcImage, work);
  EXPECT_EQ(VELDSEMarker::m_texHor, texture);
  EXPECT_EQ(pHybrid, engine);
  EXPECT_EQ(VELDSEMarker::m_labelImage, nullptr);
  EXPECT_EQ(VELDSEMarker::m_prevResult, nullptr);
  EXPECT_TRUE(VELDSEMarker::currentStroke.points.empty());
  EXPECT_EQ(VELDSEMarker::currentStroke.strokeType, 3);
  EXPECT_EQ(storage, nullptr);
  EXPECT_FALSE(VELDSEMarker::m_exitApp);
  EXPECT_FALSE(VELDSEMarker::m_isHomogenous);
  EXPECT_EQ(VELDSEMarker::m_noiseLevel, 0.1);
  EXPECT_EQ(VELDSEMarker::m_xMinBBox, 3) << "the working box stays";
  VELDSEMarker::m_xMinBBox = 0;
  EXPECT_FALSE(VELDSEManageUndoRedo::canUndo());
  EXPECT_EQ(VELDSEManageUndoRedo::prevMask(), nullptr);
}

TEST_F(Lifecycle, ExitIsArmedOnlyAfterACancel) {
  for (bool cancelFirst : {false, true}) {
    SCOPED_TRACE(cancelFirst);
    VELDSEMarker::m_exitApp = false;
    g_exitStatus = 7;
    if (cancelFirst) {
      EXPECT_EQ(cancelSegmentation(), 1);
      EXPECT_TRUE(VELDSEMarker::m_exitApp);
    }
    EXPECT_EQ(exitSegmentation(), cancelFirst ? 1 : 0);
    EXPECT_EQ(g_exitStatus, cancelFirst ? 1 : 0);
  }
}

TEST_F(Lifecycle, FreeLocalBuffersReleasesWhatExists) {
  for (int present = 0; present < 4; ++present) {
    SCOPED_TRACE(present);
    if (present & 1) g_markerImage = filled(2);
    if (present & 2) g_resultMask = filled(255);
    freeLocalBuffers();
    EXPECT_EQ(g_markerImage, nullptr);
    EXPECT_EQ(g_resultMask, nullptr);
  }
}

}  // namespace
