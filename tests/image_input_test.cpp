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
  ASSERT_NE(photo, nullptr);
  EXPECT_EQ(VELDSEMarker::m_originalWidth, w);
  EXPECT_EQ(VELDSEMarker::m_originalHeight, h);
  EXPECT_EQ(photo->nChannels, 3);
  EXPECT_EQ(byteAt(photo, 0, 0, 0), 0x78);
  EXPECT_EQ(byteAt(photo, 0, 0, 1), 0x56);
  EXPECT_EQ(byteAt(photo, 0, 0, 2), 0x34);
  EXPECT_EQ(byteAt(photo, 0, 1, 2), 0xAB);

  std::vector<unsigned int> out(w * h, 0);
  copySourceImage(out.data());
  EXPECT_EQ(out, (std::vector<unsigned int>{0xFF345678, 0xFF000000, 0xFFFFFFFF, 0xFFABCDEF, 0xFF020304, 0xFF000001}));
}

TEST_F(ImageInput, MarkersAreRoundedAndSaturated) {
  const int w = 4, h = 2;
  std::vector<int> markers = {-5, 0, 1, 2, 3, 4, 255, 300};
  ASSERT_EQ(setMarkerImage(w, h, markers.data(), 3), 0);
  ASSERT_NE(g_markerImage, nullptr);
  EXPECT_EQ(g_markerImage->nChannels, 1);
  const unsigned char expected[] = {0, 0, 1, 2, 3, 4, 255, 255};
  for (int i = 0; i < w * h; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(byteAt(g_markerImage, i % w, i / w, 0), expected[i]);
  }
  EXPECT_EQ(VELDSEMarker::currentStroke.strokeType, 3);
  EXPECT_EQ(markers[0], -5) << "the caller's grid is not changed";
}

TEST_F(ImageInput, SizeErrorsAreLoggedAndWorkGoesOn) {
  struct Case {
    int width, height;
    std::vector<std::string> lines;
  };
  const Case cases[] = {
      {0, 4, {"MEMORY_CRASH : setMarkerImage 164", "MEMORY_CRASH : setMarkerImage 173"}},
      {4, 0, {"MEMORY_CRASH : setMarkerImage 164", "MEMORY_CRASH : setMarkerImage 173"}},
      {2, 2, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.width << "x" << c.height);
    std::vector<int> markers(4, 1);
    hostlog::startCapture();
    EXPECT_EQ(setMarkerImage(c.width, c.height, markers.data(), 0), 0);
    auto log = hostlog::stopCapture();
    ASSERT_EQ(log.size(), c.lines.size());
    for (size_t i = 0; i < log.size(); ++i) {
      EXPECT_EQ(log[i].priority, 6);
      EXPECT_EQ(log[i].tag, "Error");
      EXPECT_EQ(log[i].text, c.lines[i]);
    }
    if (g_markerImage != nullptr) cvReleaseImage(&g_markerImage);
  }

  hostlog::startCapture();
  EXPECT_EQ(setSourceImage(0, 3, nullptr), 0);
  auto log = hostlog::stopCapture();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].text, "MEMORY_CRASH : setSourceImage 115");
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

  // A new stroke replaces the old one; an empty one leaves no points.
  std::vector<int> two = {1, 2};
  setCurrentMarkerVector(2, two.data());
  EXPECT_EQ(VELDSEMarker::currentStroke.points, two);
  setCurrentMarkerVector(0, nullptr);
  EXPECT_TRUE(VELDSEMarker::currentStroke.points.empty());
}

}  // namespace
