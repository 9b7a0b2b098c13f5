// Mask history: the ring of 32 one-bit slots.
#include <gtest/gtest.h>
#include "tests/log_capture.h"

#include <vector>

#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"

namespace {

constexpr int kW = 5, kH = 3;

class UndoRedo : public ::testing::Test {
 protected:
  void SetUp() override {
    VELDSEMarker::m_originalWidth = kW;
    VELDSEMarker::m_originalHeight = kH;
    VELDSEManageUndoRedo::allocate();
  }
  void TearDown() override {
    VELDSEManageUndoRedo::deallocate();
    VELDSEMarker::m_originalWidth = VELDSEMarker::m_originalHeight = 0;
  }

  // A mask whose only object pixel is number `id` (row-major), so every
  // recording is distinguishable.
  static IplImage* maskWithPixel(int id) {
    IplImage* m = cvCreateImage(cvSize(kW, kH), IPL_DEPTH_8U, 1);
    cvSetZero(m);
    m->imageData[(id / kW) * m->widthStep + id % kW] = 7;  // any non-zero is object
    return m;
  }
  static void record(int id) {
    IplImage* m = maskWithPixel(id % (kW * kH));
    VELDSEManageUndoRedo::updateBitPlane(m);
    cvReleaseImage(&m);
  }
  // Which mask this is (-1 for null, -2 for anything but a one-pixel 255 mask).
  static int identify(IplImage* m) {
    if (m == nullptr) return -1;
    int found = -2, count = 0;
    for (int y = 0; y < kH; ++y)
      for (int x = 0; x < kW; ++x) {
        unsigned char v = static_cast<unsigned char>(m->imageData[y * m->widthStep + x]);
        if (v == 255) { found = y * kW + x; ++count; }
        else if (v != 0) count = 100;
      }
    cvReleaseImage(&m);
    return count == 1 ? found : -2;
  }
};

TEST_F(UndoRedo, WorkedSequence) {
  using H = VELDSEManageUndoRedo;
  EXPECT_EQ(H::prevMask(), nullptr);
  record(0);  // A
  EXPECT_EQ(H::m_current, 1);
  EXPECT_EQ(H::m_top, 1);
  EXPECT_FALSE(H::canUndo()) << "one mask: the button stays off";
  record(1);  // B
  EXPECT_EQ(H::m_current, 2);
  EXPECT_TRUE(H::canUndo());
  EXPECT_FALSE(H::canRedo());
  EXPECT_EQ(identify(H::prevMask()), 1);

  EXPECT_EQ(identify(H::undo()), 0);
  EXPECT_EQ(H::m_current, 1);
  EXPECT_FALSE(H::canUndo());
  EXPECT_TRUE(H::canRedo());
  EXPECT_EQ(identify(H::undo()), -1) << "back at the plain photo";
  EXPECT_EQ(H::m_current, 0);
  EXPECT_EQ(identify(H::undo()), -1);
  EXPECT_EQ(H::m_current, 0);
  EXPECT_EQ(identify(H::redo()), 0);
  EXPECT_EQ(identify(H::redo()), 1);
  EXPECT_EQ(identify(H::redo()), 1) << "redo at the top re-delivers the mask on screen";
  EXPECT_EQ(H::m_current, 2);
}

TEST_F(UndoRedo, RecordingAfterUndoDiscardsRedo) {
  using H = VELDSEManageUndoRedo;
  record(0);
  record(1);
  record(2);
  identify(H::undo());
  identify(H::undo());
  EXPECT_TRUE(H::canRedo());
  record(9);
  EXPECT_FALSE(H::canRedo());
  EXPECT_EQ(H::m_top, H::m_current);
  EXPECT_EQ(identify(H::prevMask()), 9);
  EXPECT_EQ(identify(H::undo()), 0);
}

TEST_F(UndoRedo, RingDropsTheOldestAfter32And33Recordings) {
  using H = VELDSEManageUndoRedo;
  for (int i = 0; i < 31; ++i) record(i);
  EXPECT_EQ(H::m_bottom, 0);
  record(31);
  EXPECT_EQ(H::m_current, 0);
  EXPECT_EQ(H::m_bottom, 1) << "the 32nd recording moves the bottom";
  record(32);
  EXPECT_EQ(H::m_current, 1);
  EXPECT_EQ(H::m_bottom, 2);
  // The raw layout the bridge reads: column pointers, one word per pixel
  // (m_bitPlane[x][y]), bit k for slot k. Slot 0 now holds recording 32, slot
  // k the recording k; recording i is the pixel i mod 15, row-major.
  for (int x = 0; x < kW; ++x)
    for (int y = 0; y < kH; ++y)
      for (int k = 0; k < 32; ++k)
        EXPECT_EQ(H::m_bitPlane[x][y] >> k & 1u, y * kW + x == (k == 0 ? 32 : k) % (kW * kH) ? 1u : 0u)
            << "pixel " << x << "," << y << " slot " << k;
  // 31 steps lead back to the plain photo, newest first.
  int steps = 0;
  int expected = 31;
  for (;;) {
    IplImage* m = H::undo();
    if (m == nullptr) break;
    ++steps;
    EXPECT_EQ(identify(m), expected % (kW * kH)) << "step " << steps;
    --expected;
  }
  EXPECT_EQ(steps, 30) << "31 undo calls: 30 masks, then the photo";
  EXPECT_EQ(H::m_current, H::m_bottom);
  EXPECT_FALSE(H::canUndo());
  EXPECT_EQ(H::undo(), nullptr);
}

TEST_F(UndoRedo, EmptyHistory) {
  using H = VELDSEManageUndoRedo;
  EXPECT_EQ(H::undo(), nullptr);
  EXPECT_FALSE(H::canUndo());
  EXPECT_FALSE(H::canRedo());
  // redo on an empty history reads slot 31, whose bits were never written.
  IplImage* m = H::redo();
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(H::m_current, 0);
  cvReleaseImage(&m);
}

TEST_F(UndoRedo, GetMaskBoundsSetMaskAndEmptyPhotoLog) {
  using H = VELDSEManageUndoRedo;
  EXPECT_EQ(H::getMask(-1), nullptr);
  record(4);
  IplImage* beyond = H::getMask(40);
  ASSERT_NE(beyond, nullptr);
  EXPECT_EQ(cvCountNonZero(beyond), 0);
  cvReleaseImage(&beyond);

  IplImage* m = maskWithPixel(6);
  H::setMask(5, m);
  cvReleaseImage(&m);
  EXPECT_EQ(identify(H::getMask(5)), 6);
  EXPECT_EQ(identify(H::getMask(0)), 4) << "other slots keep their bits";
  EXPECT_EQ(H::m_current, 1) << "setMask moves no index";

  VELDSEMarker::m_originalWidth = 0;  // an empty photo is logged
  hostlog::startCapture();
  m = H::getMask(0);
  auto log = hostlog::stopCapture();
  if (m != nullptr) cvReleaseImage(&m);
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].text, "MEMORY_CRASH : getMask 92");
}

TEST_F(UndoRedo, ResetEmptiesButKeepsPlanesAndDeallocateClears) {
  using H = VELDSEManageUndoRedo;
  record(1);
  record(2);
  H::reset();
  EXPECT_EQ(H::m_current, 0);
  EXPECT_EQ(H::prevMask(), nullptr);
  EXPECT_NE(H::m_bitPlane, nullptr);
  H::deallocate();
  EXPECT_EQ(H::m_bitPlane, nullptr);
  EXPECT_EQ(H::width, 0);
  EXPECT_EQ(H::m_maxSize, 32);
  H::deallocate();  // twice is harmless
}

}  // namespace
