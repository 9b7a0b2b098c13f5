// Context lifecycle: start, teardown, reset, cancel and exit.
#include <gtest/gtest.h>
#include <opencv2/core/core_c.h>

#include <vector>

#include "engine/veldse_hybrid.h"
#include "interface/segmentation_core.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"

namespace {

class Lifecycle : public ::testing::Test {
 protected:
  void SetUp() override {
    std::vector<unsigned int> argb(64 * 48);
    for (size_t i = 0; i < argb.size(); ++i) argb[i] = static_cast<unsigned>(i * 37 % 256) * 0x010101u;
    setSourceImage(64, 48, argb.data());
  }
  void TearDown() override {
    deinitSegmentation();
    freeLocalBuffers();
    VELDSEMarker::m_exitApp = false;
    g_exitStatus = 0;
    g_imageResizeFactor = 1.0f;
  }
};

IplImage* filledMask(int w, int h, int value) {
  IplImage* mask = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
  cvSet(mask, cvScalarAll(value), nullptr);
  return mask;
}

TEST_F(Lifecycle, InitCreatesTheEngineWithFreshFlags) {
  g_imageResizeFactor = 3.0f;  // left from an earlier context
  VELDSEMarker::m_exitApp = true;
  VELDSEMarker::m_isHomogenous = true;
  VELDSEMarker::m_noiseLevel = 10.0;
  EXPECT_EQ(initSegmentationEngine(42), 0);
  ASSERT_NE(pHybrid, nullptr);
  EXPECT_EQ(g_imageResizeFactor, 1.0f) << "a small photo is not reduced by an old factor";
  ASSERT_NE(VELDSEMarker::m_srcImage, nullptr);
  EXPECT_EQ(VELDSEMarker::m_width, 64);
  EXPECT_EQ(VELDSEMarker::m_height, 48);
  EXPECT_NE(pHybrid->m_nlinks, nullptr);
  EXPECT_TRUE(VELDSEMarker::m_isGreyScale);
  EXPECT_NE(VELDSEMarker::m_texHor, nullptr);
  EXPECT_FALSE(VELDSEMarker::m_exitApp);
  EXPECT_FALSE(VELDSEMarker::m_isHomogenous);
  EXPECT_EQ(VELDSEMarker::m_noiseLevel, 0.1);
  EXPECT_EQ(pHybrid->m_lambda, 50.0);
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
    EXPECT_EQ(VELDSEMarker::m_texHor, nullptr);
    EXPECT_EQ(VELDSEMarker::m_texVer, nullptr);
    EXPECT_TRUE(VELDSEMarker::currentStroke.points.empty());
    EXPECT_EQ(VELDSEManageUndoRedo::m_bitPlane, nullptr);
    EXPECT_EQ(VELDSEManageUndoRedo::width, 0);
  }
}

TEST_F(Lifecycle, ResetForgetsMarksAndHistoryButKeepsPhotoAndEngine) {
  initSegmentationEngine(0);
  const IplImage* photo = VELDSEMarker::m_originalImage;
  const IplImage* work = VELDSEMarker::m_srcImage;
  const IplImage* texHor = VELDSEMarker::m_texHor;
  const VELDSEHybrid* engine = pHybrid;
  const float* links = pHybrid->m_nlinks;

  IplImage* mask = filledMask(64, 48, 255);
  VELDSEManageUndoRedo::updateBitPlane(mask);
  VELDSEManageUndoRedo::updateBitPlane(mask);
  cvReleaseImage(&mask);
  ASSERT_TRUE(VELDSEManageUndoRedo::canUndo());
  VELDSEMarker::m_labelImage = filledMask(64, 48, 1);
  VELDSEMarker::m_prevResult = filledMask(64, 48, 0);
  VELDSEMarker::currentStroke.points = {5, 6, 7, 8};
  VELDSEMarker::currentStroke.strokeType = 3;
  VELDSEMarker::m_exitApp = true;
  storage = cvCreateMemStorage(0);

  EXPECT_EQ(resetSegmentationInterface(), 0);
  EXPECT_EQ(VELDSEMarker::m_originalImage, photo);
  EXPECT_EQ(VELDSEMarker::m_srcImage, work);
  EXPECT_EQ(VELDSEMarker::m_texHor, texHor);
  EXPECT_EQ(pHybrid, engine);
  EXPECT_EQ(pHybrid->m_nlinks, links);
  EXPECT_EQ(VELDSEMarker::m_labelImage, nullptr);
  EXPECT_EQ(VELDSEMarker::m_prevResult, nullptr);
  EXPECT_TRUE(VELDSEMarker::currentStroke.points.empty());
  EXPECT_EQ(VELDSEMarker::currentStroke.strokeType, 3);
  EXPECT_FALSE(VELDSEMarker::m_exitApp);
  EXPECT_EQ(storage, nullptr);
  EXPECT_FALSE(VELDSEManageUndoRedo::canUndo());
  EXPECT_EQ(VELDSEManageUndoRedo::prevMask(), nullptr);
  EXPECT_NE(VELDSEManageUndoRedo::m_bitPlane, nullptr) << "the history planes stay allocated";
}

TEST_F(Lifecycle, ExitIsArmedOnlyAfterACancel) {
  struct Step {
    bool cancelFirst;
    int exitResult;
  } steps[] = {{false, 0}, {true, 1}};
  for (const Step& s : steps) {
    SCOPED_TRACE(s.cancelFirst);
    VELDSEMarker::m_exitApp = false;
    g_exitStatus = 7;
    if (s.cancelFirst) {
      EXPECT_EQ(cancelSegmentation(), 1);
      EXPECT_TRUE(VELDSEMarker::m_exitApp);
    }
    EXPECT_EQ(exitSegmentation(), s.exitResult);
    EXPECT_EQ(g_exitStatus, s.exitResult);
  }
}

TEST_F(Lifecycle, CancelTouchesNothingElse) {
  initSegmentationEngine(0);
  const VELDSEHybrid* engine = pHybrid;
  g_exitStatus = 0;
  EXPECT_EQ(cancelSegmentation(), 1);
  EXPECT_EQ(pHybrid, engine);
  EXPECT_NE(VELDSEMarker::m_srcImage, nullptr);
  EXPECT_EQ(g_exitStatus, 0);
}

TEST_F(Lifecycle, FreeLocalBuffersReleasesWhatExists) {
  struct Case {
    bool marker, result;
  } cases[] = {{true, true}, {true, false}, {false, true}, {false, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(2 * c.marker + c.result);
    if (c.marker) g_markerImage = filledMask(4, 4, 2);
    if (c.result) g_resultMask = filledMask(4, 4, 255);
    freeLocalBuffers();
    EXPECT_EQ(g_markerImage, nullptr);
    EXPECT_EQ(g_resultMask, nullptr);
  }
}

}  // namespace
