// Context lifecycle: start, reset and teardown. (Cancel and exit are checked
// as the bridge sees them in boundary_link_test.)
#include "engine/veldse_hybrid.h"
#include "interface/segmentation_core.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"
#include "tests/test_support.h"

namespace {

using testsupport::newImage;

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
  }
};

// Start with flags left from an earlier context, reset, then tear down twice.
TEST_F(Lifecycle, InitResetAndDeinit) {
  g_imageResizeFactor = 3.0f;
  VELDSEMarker::m_exitApp = true;
  VELDSEMarker::m_noiseLevel = 10.0;
  IplImage* label = newImage(64, 48, 1, 4);  // the handle is dropped, the image not released
  VELDSEMarker::m_labelImage = label;
  EXPECT_EQ(initSegmentationEngine(42), 0);
  EXPECT_EQ(VELDSEMarker::m_labelImage, nullptr);
  EXPECT_EQ(cvCountNonZero(label), 64 * 48) << "the image itself is still alive";
  cvReleaseImage(&label);
  ASSERT_NE(pHybrid, nullptr);
  EXPECT_EQ(g_imageResizeFactor, 1.0f) << "a small photo is not reduced by an old factor";
  EXPECT_TRUE(VELDSEMarker::m_isGreyScale);
  EXPECT_FALSE(VELDSEMarker::m_exitApp);
  EXPECT_EQ(VELDSEMarker::m_noiseLevel, 0.1);

  // Reset forgets marks and history but keeps photo, engine and working box.
  const IplImage* photo = VELDSEMarker::m_originalImage;
  const VELDSEHybrid* engine = pHybrid;
  IplImage* mask = newImage(64, 48, 1, 255);
  VELDSEManageUndoRedo::updateBitPlane(mask);
  VELDSEManageUndoRedo::updateBitPlane(mask);
  cvReleaseImage(&mask);
  VELDSEMarker::m_labelImage = newImage(64, 48, 1, 1);
  VELDSEMarker::currentStroke = {{5, 6, 7, 8}, 3};
  storage = cvCreateMemStorage(0);
  VELDSEMarker::m_exitApp = VELDSEMarker::m_isHomogenous = true;
  VELDSEMarker::m_noiseLevel = 10.0;
  VELDSEMarker::m_xMinBBox = 3;
  EXPECT_EQ(resetSegmentationInterface(), 0);
  EXPECT_TRUE(VELDSEMarker::m_originalImage == photo && pHybrid == engine);
  EXPECT_TRUE(VELDSEMarker::m_labelImage == nullptr && storage == nullptr);
  EXPECT_TRUE(VELDSEMarker::currentStroke.points.empty());
  EXPECT_EQ(VELDSEMarker::currentStroke.strokeType, 3);
  EXPECT_FALSE(VELDSEMarker::m_exitApp || VELDSEMarker::m_isHomogenous);
  EXPECT_EQ(VELDSEMarker::m_noiseLevel, 0.1);
  EXPECT_EQ(VELDSEMarker::m_xMinBBox, 3);
  VELDSEMarker::m_xMinBBox = 0;
  EXPECT_EQ(VELDSEManageUndoRedo::prevMask(), nullptr);

  storage = cvCreateMemStorage(0);
  VELDSEMarker::currentStroke.points = {1, 2, 3, 4};
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    EXPECT_EQ(deinitSegmentation(), 0);
    EXPECT_TRUE(pHybrid == nullptr && storage == nullptr && VELDSEManageUndoRedo::m_bitPlane == nullptr);
    EXPECT_TRUE(VELDSEMarker::m_originalImage == nullptr && VELDSEMarker::m_texVer == nullptr);
    EXPECT_TRUE(VELDSEMarker::currentStroke.points.empty());
  }
}

}  // namespace
