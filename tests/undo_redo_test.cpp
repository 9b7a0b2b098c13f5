// Mask history: the ring of 32 one-bit slots.
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"
#include "tests/test_support.h"

namespace {

constexpr int kW = 5, kH = 3;
using H = VELDSEManageUndoRedo;

class UndoRedo : public ::testing::Test {
 protected:
  void SetUp() override {
    VELDSEMarker::m_originalWidth = kW;
    VELDSEMarker::m_originalHeight = kH;
    H::allocate();
  }
  void TearDown() override {
    H::deallocate();
    VELDSEMarker::m_originalWidth = VELDSEMarker::m_originalHeight = 0;
  }
  // Records a mask whose only object pixel is number `id` mod 15 (row-major),
  // so every recording is distinguishable.
  static void record(int id) {
    IplImage* m = testsupport::newImage(kW, kH);
    testsupport::at(m, id % (kW * kH) % kW, id % (kW * kH) / kW) = 7;  // any non-zero is object
    H::updateBitPlane(m);
    cvReleaseImage(&m);
  }
  // Which mask this is (-1 for null, -2 for anything but a one-pixel 255 mask).
  static int identify(IplImage* m) {
    if (m == nullptr) return -1;
    std::vector<cv::Point> object;
    cv::findNonZero(testsupport::M(m), object);
    const bool one = object.size() == 1 && testsupport::at(m, object[0].x, object[0].y) == 255;
    cvReleaseImage(&m);
    return one ? object[0].y * kW + object[0].x : -2;
  }
};

// A, B; undo, undo to the photo, undo at the bottom, redo twice, redo at the
// top (re-delivers the mask on screen); then a recording after two undos
// discards the redo side.
TEST_F(UndoRedo, WorkedSequenceAndRecordingAfterUndo) {
  EXPECT_TRUE(H::prevMask() == nullptr && H::undo() == nullptr && !H::canRedo());
  record(0);
  EXPECT_FALSE(H::canUndo()) << "one mask: the button stays off";
  record(1);
  EXPECT_EQ(identify(H::prevMask()), 1);
  const struct {
    IplImage* (*call)();
    int mask, current;
    bool canUndo, canRedo;
  } steps[] = {{H::undo, 0, 1, false, true}, {H::undo, -1, 0, false, true}, {H::undo, -1, 0, false, true},
               {H::redo, 0, 1, false, true}, {H::redo, 1, 2, true, false},  {H::redo, 1, 2, true, false}};
  for (size_t i = 0; i < sizeof steps / sizeof *steps; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(identify(steps[i].call()), steps[i].mask);
    EXPECT_EQ(H::m_current, steps[i].current);
    EXPECT_EQ(std::make_pair(H::canUndo(), H::canRedo()), std::make_pair(steps[i].canUndo, steps[i].canRedo));
  }
  record(2);
  identify(H::undo());
  identify(H::undo());
  record(9);
  EXPECT_FALSE(H::canRedo());
  EXPECT_EQ(identify(H::prevMask()), 9);
  EXPECT_EQ(identify(H::undo()), 0);
}

TEST_F(UndoRedo, RingDropsTheOldestAfter32And33Recordings) {
  for (int i = 0; i < 31; ++i) record(i);
  EXPECT_EQ(H::m_bottom, 0);
  record(31);
  EXPECT_TRUE(H::m_current == 0 && H::m_bottom == 1) << "the 32nd recording moves the bottom";
  record(32);
  EXPECT_TRUE(H::m_current == 1 && H::m_bottom == 2);
  // The raw layout the bridge reads: column pointers, one word per pixel
  // (m_bitPlane[x][y]), bit k for slot k. Slot 0 now holds recording 32, slot
  // k the recording k; recording i is the pixel i mod 15, row-major.
  for (int x = 0; x < kW; ++x)
    for (int y = 0; y < kH; ++y)
      for (int k = 0; k < 32; ++k)
        EXPECT_EQ(H::m_bitPlane[x][y] >> k & 1u, y * kW + x == (k == 0 ? 32 : k) % (kW * kH) ? 1u : 0u)
            << "pixel " << x << "," << y << " slot " << k;
  // 31 undo calls: 30 masks, newest first, then the plain photo.
  for (int expected = 31; expected >= 2; --expected)
    EXPECT_EQ(identify(H::undo()), expected % (kW * kH)) << expected;
  EXPECT_EQ(H::undo(), nullptr);
  EXPECT_EQ(H::m_current, H::m_bottom);
}

// Fresh planes of a photo over a megapixel have their pages touched (zeros
// written) by allocate() in column slices side by side. A mask recorded right
// after must come back whole: no touching zero may land after allocate()
// returns, also when planes are released and allocated again at once.
TEST(UndoRedoLargePhoto, MaskRecordedRightAfterFreshPlanesComesBackWhole) {
  constexpr int w = 1280, h = 1024;
  VELDSEMarker::m_originalWidth = w;
  VELDSEMarker::m_originalHeight = h;
  H::allocate();
  H::deallocate();  // released and allocated again at once
  IplImage* all = testsupport::newImage(w, h);
  cvSet(all, cvScalarAll(1));
  VELDSEMarker::m_originalWidth = w;
  VELDSEMarker::m_originalHeight = h;
  H::allocate();
  H::updateBitPlane(all);
  cvReleaseImage(&all);
  long missing = 0;
  for (int x = 0; x < w; ++x)
    for (int y = 0; y < h; ++y) missing += (H::m_bitPlane[x][y] & 1u) == 0;
  EXPECT_EQ(missing, 0);
  IplImage* back = H::prevMask();
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(cvCountNonZero(back), w * h);
  cvReleaseImage(&back);
  H::deallocate();
  VELDSEMarker::m_originalWidth = VELDSEMarker::m_originalHeight = 0;
}

// A call that fails after recording leaves the history as it found it: the
// indices, and the bits of a redo step the recording overwrote. Cases: a
// plain recording at the top, recordings after one and after two undos (the
// overwritten slot held a redo step, or the step at the bottom), a wrapped
// ring, and a rollback that commits (the recording stays).
TEST_F(UndoRedo, RollbackRestoresIndicesAndOverwrittenStep) {
  const struct {
    const char* name;
    int records, undos;
    bool commit;
  } cases[] = {{"record at the top", 3, 0, false},
               {"record after one undo", 3, 1, false},
               {"record after undoing all", 3, 3, false},
               {"wrapped ring, after two undos", 40, 2, false},
               {"committed", 3, 1, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    H::reset();
    for (int i = 0; i < c.records; ++i) record(i);
    for (int i = 0; i < c.undos; ++i) identify(H::undo());
    const int current = H::m_current, top = H::m_top, bottom = H::m_bottom;
    // Every step's mask as it is before the failing call.
    std::vector<int> before;
    for (int k = 0; k < H::m_maxSize; ++k) before.push_back(identify(H::getMask(k)));
    {
      HistoryRollback rollback;
      record(99);
      record(98);
      if (c.commit) rollback.commit();
    }
    if (c.commit) {
      EXPECT_EQ(identify(H::prevMask()), 98 % (kW * kH));
      continue;
    }
    EXPECT_EQ(H::m_current, current);
    EXPECT_EQ(H::m_top, top);
    EXPECT_EQ(H::m_bottom, bottom);
    // The slots that hold steps (bottom .. top-1) read back as before.
    for (int k = bottom; k != top; k = H::next(k)) {
      SCOPED_TRACE(::testing::Message() << "slot " << k);
      EXPECT_EQ(identify(H::getMask(k)), before[k]);
    }
  }
}

}  // namespace
