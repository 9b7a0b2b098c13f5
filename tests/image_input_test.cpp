// Context state and the photo, marker and stroke input.
#include <gtest/gtest.h>
#include "tests/log_capture.h"

#include <vector>

#include "interface/segmentation_core.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"

namespace {

// Each test starts and ends with an empty context.
class ImageInput : public ::testing::Test {
 protected:
  void TearDown() override {
    if (g_markerImage != nullptr) cvReleaseImage(&g_markerImage);
    VELDSEMarker::dellocator();
    VELDSEManageUndoRedo::deallocate();
  }
};

unsigned char byteAt(const IplImage* image, int x, int y, int channel) {
  return reinterpret_cast<const unsigned char*>(image->imageData + y * image->widthStep)
      [x * image->nChannels + channel];
}

TEST_F(ImageInput, PhotoIsStoredAsBgrAndReturnedOpaque) {
  const int w = 3, h = 2;
  std::vector<unsigned int> pixels = {0x12345678, 0x00000000, 0xFFFFFFFF,
                                      0x80ABCDEF, 0x01020304, 0x7F000001};
  ASSERT_EQ(setSourceImage(w, h, pixels.data()), 0);
  const IplImage* photo = VELDSEMarker::m_originalImage;
  ASSERT_TRUE(photo != nullptr && photo->nChannels == 3);
  EXPECT_EQ(VELDSEMarker::m_originalHeight, h);
  for (int ch = 0; ch < 3; ++ch) EXPECT_EQ(byteAt(photo, 0, 0, ch), 0x78 - 0x22 * ch);
  EXPECT_EQ(byteAt(photo, 0, 1, 2), 0xAB);

  std::vector<unsigned int> out(w * h, 0);
  copySourceImage(out.data());
  EXPECT_EQ(out, (std::vector<unsigned int>{0xFF345678, 0xFF000000, 0xFFFFFFFF, 0xFFABCDEF, 0xFF020304, 0xFF000001}));
}

TEST_F(ImageInput, MarkersAreRoundedAndSaturated) {
  const int w = 4, h = 2;
  std::vector<int> markers = {-5, 0, 1, 2, 3, 4, 255, 300};
  ASSERT_EQ(setMarkerImage(w, h, markers.data(), 3), 0);
  ASSERT_TRUE(g_markerImage != nullptr && g_markerImage->nChannels == 1);
  const unsigned char expected[] = {0, 0, 1, 2, 3, 4, 255, 255};
  for (int i = 0; i < w * h; ++i) EXPECT_EQ(byteAt(g_markerImage, i % w, i / w, 0), expected[i]) << i;
  EXPECT_EQ(VELDSEMarker::currentStroke.strokeType, 3);
  EXPECT_EQ(markers[0], -5) << "the caller's grid is not changed";
}

TEST_F(ImageInput, SizeErrorsAreLoggedAndWorkGoesOn) {
  std::vector<int> markers(4, 1);
  hostlog::startCapture();
  EXPECT_EQ(setMarkerImage(0, 4, markers.data(), 0), 0);
  if (g_markerImage != nullptr) cvReleaseImage(&g_markerImage);
  EXPECT_EQ(setSourceImage(0, 3, nullptr), 0);
  const auto log = hostlog::stopCapture();
  const char* expected[] = {"MEMORY_CRASH : setMarkerImage 164", "MEMORY_CRASH : setMarkerImage 173",
                            "MEMORY_CRASH : setSourceImage 115"};
  ASSERT_EQ(log.size(), 3u);
  for (size_t i = 0; i < log.size(); ++i)
    EXPECT_TRUE(log[i].priority == 6 && log[i].tag == "Error" && log[i].text == expected[i]) << log[i].text;
  EXPECT_EQ(VELDSEMarker::m_originalWidth, 0);
}

TEST_F(ImageInput, StrokePointsAreClampedAndWrittenBack) {
  std::vector<unsigned int> pixels(640 * 480, 0);
  setSourceImage(640, 480, pixels.data());
  std::vector<int> coords = {-3, 5000, 10, 20, 639, 479, 640, -1, 700, 100};
  ASSERT_EQ(setCurrentMarkerVector(static_cast<int>(coords.size()), coords.data()), 0);
  const std::vector<int> expected = {0, 479, 10, 20, 639, 479, 639, 0, 639, 100};
  EXPECT_EQ(coords, expected);
  EXPECT_EQ(VELDSEMarker::currentStroke.points, expected);
  setCurrentMarkerVector(0, nullptr);  // an empty stroke replaces the old one
  EXPECT_TRUE(VELDSEMarker::currentStroke.points.empty());
}

}  // namespace
