// Context state and the photo, marker and stroke input.
#include "interface/segmentation_core.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"
#include "tests/test_support.h"

namespace {

using testsupport::at;

// Each test starts and ends with an empty context.
class ImageInput : public ::testing::Test {
 protected:
  void TearDown() override {
    if (g_markerImage != nullptr) cvReleaseImage(&g_markerImage);
    VELDSEMarker::dellocator();
    VELDSEManageUndoRedo::deallocate();
  }
};

TEST_F(ImageInput, PhotoIsStoredAsBgrAndReturnedOpaque) {
  std::vector<unsigned int> pixels = {0x12345678, 0x00000000, 0xFFFFFFFF, 0x80ABCDEF, 0x01020304, 0x7F000001};
  ASSERT_EQ(setSourceImage(3, 2, pixels.data()), 0);
  const IplImage* photo = VELDSEMarker::m_originalImage;
  ASSERT_TRUE(photo != nullptr && photo->nChannels == 3);
  EXPECT_EQ(VELDSEMarker::m_originalHeight, 2);
  for (int ch = 0; ch < 3; ++ch) EXPECT_EQ(at(photo, 0, 0, ch), 0x78 - 0x22 * ch);
  EXPECT_EQ(at(photo, 0, 1, 2), 0xAB);
  std::vector<unsigned int> out(6, 0);
  copySourceImage(out.data());
  EXPECT_EQ(out, (std::vector<unsigned int>{0xFF345678, 0xFF000000, 0xFFFFFFFF, 0xFFABCDEF, 0xFF020304,
                                            0xFF000001}));
}

// Photos and marker grids over a megapixel are converted in row slices on
// several threads; every row must arrive whole, also with a height the slices
// do not divide.
TEST_F(ImageInput, LargePhotoAndMarkersConvertThroughTheirRowSlices) {
  const int w = 1031, h = 1021;
  std::vector<unsigned int> pixels(static_cast<size_t>(w) * h);
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<unsigned int>(i * 2654435761u);
  ASSERT_EQ(setSourceImage(w, h, pixels.data()), 0);
  std::vector<unsigned int> out(pixels.size(), 0);
  copySourceImage(out.data());
  long wrong = 0;
  for (size_t i = 0; i < pixels.size(); ++i) wrong += out[i] != (0xFF000000u | (pixels[i] & 0xFFFFFFu));
  EXPECT_EQ(wrong, 0);

  std::vector<int> markers(pixels.size());
  for (size_t i = 0; i < markers.size(); ++i) markers[i] = static_cast<int>(i % 311) - 5;
  ASSERT_EQ(setMarkerImage(w, h, markers.data(), 0), 0);
  long wrongMarks = 0;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const int m = markers[static_cast<size_t>(y) * w + x];
      wrongMarks += at(g_markerImage, x, y) != (m < 0 ? 0 : m > 255 ? 255 : m);
    }
  EXPECT_EQ(wrongMarks, 0);
}

TEST_F(ImageInput, MarkersAreRoundedAndSaturated) {
  std::vector<int> markers = {-5, 0, 1, 2, 3, 4, 255, 300};
  ASSERT_EQ(setMarkerImage(4, 2, markers.data(), 3), 0);
  ASSERT_TRUE(g_markerImage != nullptr && g_markerImage->nChannels == 1);
  const unsigned char expected[] = {0, 0, 1, 2, 3, 4, 255, 255};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(at(g_markerImage, i % 4, i / 4), expected[i]) << i;
  EXPECT_EQ(VELDSEMarker::currentStroke.strokeType, 3);
  EXPECT_EQ(markers[0], -5) << "the caller's grid is not changed";
}

TEST_F(ImageInput, StrokePointsAreClampedAndWrittenBack) {
  std::vector<unsigned int> pixels(640 * 480, 0);
  setSourceImage(640, 480, pixels.data());
  std::vector<int> coords = {-3, 5000, 10, 20, 639, 479, 640, -1, 700, 100};
  ASSERT_EQ(setCurrentMarkerVector(static_cast<int>(coords.size()), coords.data()), 0);
  const std::vector<int> expected = {0, 479, 10, 20, 639, 479, 639, 0, 639, 100};
  EXPECT_EQ(coords, expected);
  EXPECT_EQ(VELDSEMarker::currentStroke.points, expected);
}

}  // namespace
