// Stopping one cut and staying on the photo, as a bridge does it:
// cancelSegmentation, the request returns, VELDSEMarker::resetMarkers() clears
// the sticky cancel, and the mask on screen is shown again through the
// history (redo, with an undo first when there are redo steps).
//
// What must hold afterwards: the caller's mask buffer was never written, the
// preview is back to the mask on screen with its outline, the history answers
// as before, and the next cut gives exactly what it gives on a context where
// nothing was cancelled.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "interface/segmentation_core.h"
#include "interface/veldse_marker.h"
#include "tests/synthetic_scene.h"
#include "tests/test_support.h"

namespace {

using synthetic::Bytes;
using synthetic::Pixels;

// A photo small enough to be cut at full size (fast also under emulation),
// and the requests a user would make on it.
class Editing {
 public:
  Editing() : scene_(synthetic::makeScene(200, 150, false, true)) {
    preview_.resize(scene_.argb.size());
    mask_.assign(scene_.argb.size(), 7);  // never written by the library
    setSourceImage(scene_.w, scene_.h, scene_.argb.data());
    initSegmentationEngine(0);
  }
  ~Editing() { deinitSegmentation(); }

  // The disc: a rectangle round it (border as points, 4 inside, mode 0).
  int rectangle() {
    points_ = testsupport::borderLoop(40, 30, 122, 112);
    grid_ = testsupport::filledGrid(scene_.w, scene_.h, 40, 30, 122, 112, LABEL_PR_FG);
    return send(0);
  }
  // An object stroke across the square (code 2 along it, mode 2).
  int objectStroke() {
    points_.clear();
    grid_.assign(scene_.argb.size(), 0);
    for (int x = 152; x <= 172; ++x) {
      points_.insert(points_.end(), {x, 62});
      for (int y = 58; y <= 66; ++y) grid_[static_cast<size_t>(y) * scene_.w + x] = 2;
    }
    return send(2);
  }

  void showAgain(bool maskOnScreen) {
    if (!maskOnScreen) return;
    if (canRedo()) undo(preview_.data(), mask_.data());
    copySourceImage(preview_.data());
    redo(preview_.data(), mask_.data());
  }
  int undoStep() {
    copySourceImage(preview_.data());
    return undo(preview_.data(), mask_.data());
  }

  bool previewIsPlainPhoto() const {
    for (size_t i = 0; i < preview_.size(); ++i) {
      if (preview_[i] != (scene_.argb[i] | 0xFF000000u)) return false;
    }
    return true;
  }

  const Bytes& mask() const { return mask_; }
  const Pixels& preview() const { return preview_; }

 private:
  int send(int mode) {
    copySourceImage(preview_.data());
    setCurrentMarkerVector(static_cast<int>(points_.size()), points_.data());
    setMarkerImage(scene_.w, scene_.h, grid_.data(), mode);
    return processSegment(0, 0, 0, preview_.data(), mask_.data());
  }

  synthetic::Scene scene_;
  Pixels preview_;
  Bytes mask_;
  std::vector<int> points_;
  std::vector<int> grid_;
};

struct Position {
  const char* name;
  int cuts;   // rectangle, then object strokes
  int undos;  // steps undone before the cancelled cut
  bool maskOnScreen;
  int canUndo, canRedo;  // the history's answers at that point
};

const Position kPositions[] = {
    {"nothing recorded yet", 0, 0, false, 0, 0},
    {"one result", 1, 0, true, 0, 0},
    {"at the newest of two results", 2, 0, true, 1, 0},
    {"one step undone (a redo step waits)", 2, 1, true, 0, 1},
    {"undone back to the bare photo", 1, 1, false, 0, 1},
};

void reach(Editing& e, const Position& p) {
  for (int i = 0; i < p.cuts; ++i) ASSERT_EQ(i == 0 ? e.rectangle() : e.objectStroke(), 0);
  for (int i = 0; i < p.undos; ++i) ASSERT_EQ(e.undoStep(), 0);
}

TEST(CancelKeepingHistory, RestoresTheScreenAndTheHistory) {
  for (const Position& p : kPositions) {
    SCOPED_TRACE(p.name);
    Editing e;
    reach(e, p);
    ASSERT_EQ(canUndo(), p.canUndo);
    ASSERT_EQ(canRedo(), p.canRedo);
    const Bytes maskBefore = e.mask();
    const Pixels previewBefore = e.preview();

    cancelSegmentation();
    EXPECT_EQ(p.cuts == 0 ? e.rectangle() : e.objectStroke(), 0);
    EXPECT_EQ(e.mask(), maskBefore) << "a stopped cut leaves the mask buffer alone";
    EXPECT_TRUE(e.previewIsPlainPhoto()) << "a stopped cut hands back the plain photo";
    EXPECT_EQ(canUndo(), p.canUndo) << "nothing recorded";
    EXPECT_EQ(canRedo(), p.canRedo) << "redo steps kept";

    VELDSEMarker::resetMarkers();
    e.showAgain(p.maskOnScreen);
    EXPECT_EQ(e.mask(), maskBefore);
    if (p.maskOnScreen) {
      EXPECT_EQ(e.preview(), previewBefore) << "the preview with its outline again";
    } else {
      EXPECT_TRUE(e.previewIsPlainPhoto());
    }
    EXPECT_EQ(canUndo(), p.canUndo);
    EXPECT_EQ(canRedo(), p.canRedo);
  }
}

// After the cancel and the reset, the next cut runs in full and gives
// byte for byte what the same cut gives where nothing was cancelled.
TEST(CancelKeepingHistory, NextCutAsIfNothingWasCancelled) {
  for (const Position& p : kPositions) {
    SCOPED_TRACE(p.name);
    Bytes expectedMask;
    Pixels expectedPreview;
    int expectedUndo = 0, expectedRedo = 0;
    {
      Editing plain;
      reach(plain, p);
      ASSERT_EQ(p.cuts == 0 ? plain.rectangle() : plain.objectStroke(), 0);
      expectedMask = plain.mask();
      expectedPreview = plain.preview();
      expectedUndo = canUndo();
      expectedRedo = canRedo();
    }
    Editing e;
    reach(e, p);
    cancelSegmentation();
    EXPECT_EQ(p.cuts == 0 ? e.rectangle() : e.objectStroke(), 0);
    VELDSEMarker::resetMarkers();
    e.showAgain(p.maskOnScreen);
    EXPECT_EQ(p.cuts == 0 ? e.rectangle() : e.objectStroke(), 0);
    EXPECT_EQ(e.mask(), expectedMask);
    EXPECT_EQ(e.preview(), expectedPreview);
    EXPECT_EQ(canUndo(), expectedUndo);
    EXPECT_EQ(canRedo(), expectedRedo);
  }
}

// Without the reset the cancel stays set: every later cut stops at once and
// records nothing, while history steps still work.
TEST(CancelKeepingHistory, WithoutResetLaterCutsStopAtOnce) {
  Editing e;
  ASSERT_EQ(e.rectangle(), 0);
  ASSERT_EQ(e.objectStroke(), 0);
  const Bytes shown = e.mask();
  cancelSegmentation();
  for (int attempt = 0; attempt < 2; ++attempt) {
    SCOPED_TRACE(attempt);
    EXPECT_EQ(e.objectStroke(), 0);
    EXPECT_TRUE(e.previewIsPlainPhoto());
    EXPECT_EQ(e.mask(), shown);
    EXPECT_EQ(canRedo(), 0);
    EXPECT_EQ(canUndo(), 1);
  }
  EXPECT_EQ(e.undoStep(), 0) << "history steps do not look at the cancel";
  EXPECT_NE(e.mask(), shown);
  VELDSEMarker::resetMarkers();
}

// A cancel that arrives after the cut has finished changes nothing of that
// cut: its result is recorded and the same reset-and-redo shows it.
TEST(CancelKeepingHistory, LateCancelKeepsTheFinishedCut) {
  Editing e;
  ASSERT_EQ(e.rectangle(), 0);
  ASSERT_EQ(e.objectStroke(), 0);
  const Bytes result = e.mask();
  const Pixels resultPreview = e.preview();
  cancelSegmentation();  // the tap came too late
  VELDSEMarker::resetMarkers();
  e.showAgain(true);
  EXPECT_EQ(e.mask(), result);
  EXPECT_EQ(e.preview(), resultPreview);
  EXPECT_EQ(canUndo(), 1);
  EXPECT_EQ(canRedo(), 0);
}

// A cancel-and-exit tears the context down and leaves the exit armed
// (processSegment returns -1 and keeps it, so the bridge can tell). On the
// next photo a plain cancel of the first cut then tears that context down
// too, unless exitSegmentation, called with no cancel pending, disarmed it.
TEST(CancelAndExit, LeavesTheExitArmedForTheNextPhoto) {
  struct Case {
    const char* name;
    bool disarm;
    int firstCutStatus;
    bool contextAfter;
  };
  const Case cases[] = {{"not disarmed", false, -1, false}, {"disarmed", true, 0, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    {
      Editing first;
      ASSERT_EQ(first.rectangle(), 0);
      cancelSegmentation();
      EXPECT_EQ(exitSegmentation(), 1);
      EXPECT_EQ(first.objectStroke(), -1);
    }
    Editing next;
    if (c.disarm) {
      EXPECT_EQ(exitSegmentation(), 0);
    }
    cancelSegmentation();
    EXPECT_EQ(next.rectangle(), c.firstCutStatus);
    VELDSEMarker::resetMarkers();
    EXPECT_EQ(next.undoStep() == 0, c.contextAfter) << "a request without a context is refused";
    exitSegmentation();  // disarmed for the next case
  }
}

}  // namespace
