// Pre-processing: black borders and flat border strips of the working box
// become definite background and the box shrinks to the content.
#include <functional>

#include "engine/veldse_hybrid.h"
#include "interface/segmentation_core.h"
#include "interface/veldse_marker.h"
#include "tests/test_support.h"

namespace {

using testsupport::at;

// Grey value of working pixel (x, y); -1 stands for "strong random texture".
using Scene = std::function<int(int x, int y)>;
const int kTexture = -1;

struct Box {
  int x, y, w, h;
};

class PreProcess : public ::testing::Test {
 protected:
  void TearDown() override { deinitSegmentation(); }

  // Working image and labels (all probable object) of w x h; the box as given.
  void scene(int w, int h, const Scene& grey, const Box& box, unsigned seed = 1) {
    std::mt19937 rng(seed);
    VELDSEMarker::m_srcImage = testsupport::newImage(w, h, 3);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const int v = grey(x, y);
        testsupport::M(VELDSEMarker::m_srcImage).at<cv::Vec3b>(y, x) =
            cv::Vec3b::all(v == kTexture ? 1 + rng() % 255 : v);
      }
    VELDSEMarker::m_labelImage = testsupport::newImage(w, h, 1, LABEL_PR_FG);
    VELDSEMarker::m_xMinBBox = box.x;
    VELDSEMarker::m_yMinBBox = box.y;
    engine.m_boundWidth = box.w;
    engine.m_boundHeight = box.h;
  }

  // Every pixel of `before` outside the inside of `kept` (box coordinates of
  // `before`, border ring excluded) is background; all else is untouched.
  void expectMarked(const Box& before, const Box& kept) {
    int wrong = 0;
    for (int y = 0; y < VELDSEMarker::m_labelImage->height; ++y)
      for (int x = 0; x < VELDSEMarker::m_labelImage->width; ++x) {
        const int c = x - before.x, r = y - before.y;
        const bool inBox = c >= 0 && r >= 0 && c < before.w && r < before.h;
        const bool inside = c > kept.x && c < kept.x + kept.w - 1 && r > kept.y && r < kept.y + kept.h - 1;
        const unsigned char expected = inBox && !inside ? LABEL_BG : LABEL_PR_FG;
        const int got = at(VELDSEMarker::m_labelImage, x, y);
        if (got != expected && ++wrong <= 5) ADD_FAILURE() << "label at " << x << "," << y << " is " << got;
      }
    EXPECT_EQ(wrong, 0);
  }

  // `kept` trimmed (relative to `before`): labels marked and the box shrunk.
  void expectKept(const Box& before, const Box& kept) {
    const bool whole = kept.x == 0 && kept.y == 0 && kept.w == before.w && kept.h == before.h;
    expectMarked(before, whole ? Box{-1, -1, before.w + 2, before.h + 2} : kept);
    EXPECT_EQ(cv::Rect(VELDSEMarker::m_xMinBBox, VELDSEMarker::m_yMinBBox, engine.m_boundWidth,
                       engine.m_boundHeight),
              cv::Rect(before.x + kept.x, before.y + kept.y, kept.w, kept.h));
  }

  VELDSEHybrid engine;
};

TEST_F(PreProcess, BlackBorderAndItsInnerRingBecomeBackground) {
  // Black lines on each side of the box; what is kept, relative to the box.
  const struct {
    std::string name;
    Box box;
    int frameLeft, frameTop, frameRight, frameBottom;
    Box kept;
  } cases[] = {
      {"three-pixel frame", {0, 0, 60, 40}, 3, 3, 3, 3, {3, 3, 54, 34}},
      {"left bars only", {0, 0, 60, 40}, 3, 0, 0, 0, {3, 0, 57, 40}},
      {"top and right", {5, 5, 50, 30}, 0, 2, 4, 0, {0, 2, 46, 28}},
      // Left alone: a box without a black line, and one that is black throughout.
      {"no frame", {4, 4, 30, 20}, 0, 0, 0, 0, {0, 0, 30, 20}},
      {"all black", {4, 4, 30, 20}, 30, 0, 0, 0, {0, 0, 30, 20}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Box b = c.box;
    scene(
        80, 60,
        [&](int x, int y) {
          const int bx = x - b.x, by = y - b.y;
          const bool black =
              bx < c.frameLeft || by < c.frameTop || bx >= b.w - c.frameRight || by >= b.h - c.frameBottom;
          return black ? 0 : kTexture;
        },
        b);
    // Only the first channel decides: green and red in the frame do not count.
    for (int y = b.y; y < b.y + c.frameTop; ++y)
      for (int x = b.x; x < b.x + b.w; ++x)
        at(VELDSEMarker::m_srcImage, x, y, 1) = at(VELDSEMarker::m_srcImage, x, y, 2) = 200;
    engine.removeBlackRegion();
    expectKept(b, c.kept);
    deinitSegmentation();
  }
}

TEST_F(PreProcess, FlatBandsAreTrimmedAndGrownBackTexturedOnesAndFlatBottomsKept) {
  // Box 100 x 60 at (6, 4). Textured boxes and flat strips at the bottom are
  // kept whole. Otherwise texture from column 40 of the box (or row 20 for
  // the top band). Column 39 sees the texture through the 3 x 3 Sobel
  // kernel, so the passes keep column 39 onward; pass 2 then grows back.
  const struct {
    std::string name;
    Scene grey;
    Box kept;
  } cases[] = {
      // grey in box coordinates
      {"strong texture everywhere", [](int, int) { return kTexture; }, {0, 0, 100, 60}},
      {"flat strip only at the bottom", [](int, int y) { return y >= 40 ? 128 : kTexture; }, {0, 0, 100, 60}},
      // Identical columns stop the similar-line growth; the mean-level
      // growth takes five more columns back.
      {"uniform band", [](int x, int) { return x < 40 ? 100 : kTexture; }, {34, 0, 66, 60}},
      // It stops at the first column pair whose means differ by more than 10.
      {"band ending in a step",
       [](int x, int) { return x < 37   ? 80
                               : x < 40 ? 100
                                        : kTexture; },
       {37, 0, 63, 60}},
      {"step of exactly 10",
       [](int x, int) { return x < 37   ? 90
                               : x < 40 ? 100
                                        : kTexture; },
       {34, 0, 66, 60}},
      // A gentle ramp is similar line by line (difference 1) and is taken back
      // entirely, then five flat columns more.
      {"ramp then flat",
       [](int x, int) { return x < 20   ? 100
                               : x < 40 ? 100 + x - 19
                                        : kTexture; },
       {14, 0, 86, 60}},
      {"ramp to the border", [](int x, int) { return x < 40 ? 60 + x : kTexture; }, {0, 0, 100, 60}},
      {"flat top", [](int, int y) { return y < 20 ? 128 : kTexture; }, {0, 14, 100, 46}},
      // Faint lines in the top band: a line of level d above 100 puts 4d on
      // both of its neighbour columns in the Sobel magnitude, so a row's mean
      // neighbour difference is 4 lines x 16d / 100. At most 5 is flat.
      {"faint lines, row mean 4.48: flat",
       [](int x, int y) { return y >= 20                  ? kTexture
                                 : x < 80 && x % 20 == 15 ? 107
                                                          : 100; },
       {0, 14, 100, 46}},
      {"faint lines, row mean 5.12: not flat",
       [](int x, int y) { return y >= 20                  ? kTexture
                                 : x < 80 && x % 20 == 15 ? 108
                                                          : 100; },
       {0, 0, 100, 60}},
      // Black frame on textured content: what the black trim left is kept.
      {"black frame",
       [](int x, int y) { return x < 3 || y < 3 || x >= 97 || y >= 57 ? 0 : kTexture; },
       {3, 3, 94, 54}},
  };
  const Box box{6, 4, 100, 60};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    scene(
        120, 70,
        [&](int x, int y) {
          const int bx = x - box.x, by = y - box.y;
          return bx < 0 || by < 0 || bx >= box.w || by >= box.h ? 50 : c.grey(bx, by);
        },
        box);
    engine.preProcess();
    expectKept(box, c.kept);
    deinitSegmentation();
  }
}

}  // namespace
