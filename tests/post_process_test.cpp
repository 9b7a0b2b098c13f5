// Mask clean-up after a cut: islands and holes for loop selections, stroke
// connectivity for strokes, and the merge with the previous result.
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core/core.hpp>
#include <opencv2/core/core_c.h>

#include "engine/veldse_hybrid.h"
#include "interface/veldse_marker.h"

namespace {

// '#' = object (255), anything else background (0).
IplImage* maskFromRows(const std::vector<std::string>& rows) {
  IplImage* m = cvCreateImage(cvSize(static_cast<int>(rows[0].size()), static_cast<int>(rows.size())),
                              IPL_DEPTH_8U, 1);
  for (size_t y = 0; y < rows.size(); ++y) {
    for (size_t x = 0; x < rows[y].size(); ++x) {
      m->imageData[y * m->widthStep + x] = static_cast<char>(rows[y][x] == '#' ? 255 : 0);
    }
  }
  return m;
}

IplImage* blankMask(int w, int h) {
  IplImage* m = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
  cvSetZero(m);
  return m;
}

void fillRect(IplImage* m, int x, int y, int w, int h, unsigned char value) {
  cv::Mat(cv::cvarrToMat(m), cv::Rect(x, y, w, h)).setTo(value);
}

unsigned char at(const IplImage* m, int x, int y) {
  return static_cast<unsigned char>(m->imageData[y * m->widthStep + x]);
}

::testing::AssertionResult sameMask(const IplImage* a, const IplImage* b) {
  for (int y = 0; y < a->height; ++y) {
    for (int x = 0; x < a->width; ++x) {
      if (at(a, x, y) != at(b, x, y)) {
        return ::testing::AssertionFailure() << "differ at (" << x << ", " << y << "): "
                                             << int(at(a, x, y)) << " vs " << int(at(b, x, y));
      }
    }
  }
  return ::testing::AssertionSuccess();
}

class PostProcessTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (VELDSEMarker::m_prevResult) cvReleaseImage(&VELDSEMarker::m_prevResult);
    VELDSEMarker::currentStroke.points.clear();
    VELDSEMarker::currentStroke.strokeType = 0;
    VELDSEMarker::m_xMinBBox = VELDSEMarker::m_yMinBBox = 0;
    g_imageResizeFactor = 1.0f;
  }
  VELDSEHybrid hybrid_;
};

TEST_F(PostProcessTest, LoopRemovesIslandsBelowATenthOfTheLargest) {
  struct Case {
    const char* name;
    int smallW, smallH;
    bool smallKept;
    bool diagonalContact;  // the small island touches the large one at a corner only
  };
  const Case cases[] = {
      {"99 pixels go", 9, 11, false, false},
      {"exactly 100 stay", 10, 10, true, false},
      {"101 stay", 1, 101, true, false},
      {"diagonal contact does not join", 9, 11, false, true},
  };
  for (const Case& tc : cases) {
    SCOPED_TRACE(tc.name);
    IplImage* mask = blankMask(120, 120);
    fillRect(mask, 2, 2, 40, 25, 255);  // 1000 pixels
    const int sx = tc.diagonalContact ? 42 : 60, sy = tc.diagonalContact ? 27 : 5;
    fillRect(mask, sx, sy, tc.smallW, tc.smallH, 255);
    IplImage* expected = blankMask(120, 120);
    fillRect(expected, 2, 2, 40, 25, 255);
    if (tc.smallKept) fillRect(expected, sx, sy, tc.smallW, tc.smallH, 255);
    hybrid_.postProcessForLoop(mask);
    EXPECT_TRUE(sameMask(mask, expected));
    cvReleaseImage(&mask);
    cvReleaseImage(&expected);
  }
}

TEST_F(PostProcessTest, LoopKeepsASingleComponentOfAnySize) {
  for (int size : {1, 3, 12}) {
    SCOPED_TRACE(size);
    IplImage* mask = blankMask(30, 20);
    fillRect(mask, 10, 10, size, 1, 255);
    IplImage* expected = cvCloneImage(mask);
    hybrid_.postProcessForLoop(mask);
    EXPECT_TRUE(sameMask(mask, expected));
    cvReleaseImage(&mask);
    cvReleaseImage(&expected);
  }
}

TEST_F(PostProcessTest, LoopFillsHolesOfFewerThanFivePixels) {
  // A 4-pixel hole (filled), a 5-pixel hole (kept), a 3-pixel notch at the
  // top border (filled), and two 3-pixel holes meeting only diagonally (both
  // filled: they are separate components).
  IplImage* mask = maskFromRows({
      "######...#######",
      "################",
      "##..####.....###",
      "##..############",
      "################",
      "#####...########",
      "########...#####",
      "################",
  });
  IplImage* expected = maskFromRows({
      "################",
      "################",
      "########.....###",
      "################",
      "################",
      "################",
      "################",
      "################",
  });
  hybrid_.postProcessForLoop(mask);
  EXPECT_TRUE(sameMask(mask, expected));
  cvReleaseImage(&mask);
  cvReleaseImage(&expected);
}

TEST_F(PostProcessTest, LoopLeavesTheOuterBackground) {
  IplImage* mask = maskFromRows({
      "..........",
      "..####....",
      "..####....",
      "..........",
  });
  IplImage* expected = cvCloneImage(mask);
  hybrid_.postProcessForLoop(mask);
  EXPECT_TRUE(sameMask(mask, expected));
  cvReleaseImage(&mask);
  cvReleaseImage(&expected);
}

struct StrokeCase {
  const char* name;
  int type;
  std::vector<std::string> prev, mask, expected;
  std::vector<int> points;
};

TEST_F(PostProcessTest, StrokeKeepsOnlyChangesConnectedToIt) {
  const StrokeCase cases[] = {
      {"object stroke: touched addition stays, others revert",
       2,
       {"##........", "##........", "..........", ".........."},
       {"####....##", "#.##....##", "..........", "......#..."},
       {"####......", "####......", "..........", ".........."},
       {2, 0, 3, 1}},
      {"object stroke on unchanged pixels changes nothing",
       2,
       {"##........", "##........", "..........", ".........."},
       {"####....##", "####....##", "..........", ".........."},
       {"##........", "##........", "..........", ".........."},
       {0, 0, 5, 3}},
      {"diagonal contact is not connected",
       2,
       {"..........", "..........", "..........", ".........."},
       {"##........", "##........", "..##......", "..##......"},
       {"##........", "##........", "..........", ".........."},
       {0, 0}},
      {"background stroke keeps the touched removal",
       3,
       {"##########", "##########", "##########", "##########"},
       {"###...####", "###...####", "##########", "#.#######."},
       {"###...####", "###...####", "##########", "##########"},
       {4, 1, 4, 1, 5}},  // odd count: the last value is not a point
  };
  for (const StrokeCase& tc : cases) {
    SCOPED_TRACE(tc.name);
    VELDSEMarker::currentStroke.strokeType = tc.type;
    VELDSEMarker::currentStroke.points = tc.points;
    VELDSEMarker::m_prevResult = maskFromRows(tc.prev);
    IplImage* mask = maskFromRows(tc.mask);
    IplImage* expected = maskFromRows(tc.expected);
    hybrid_.postProcessForStroke(mask);
    EXPECT_TRUE(sameMask(mask, expected));
    cvReleaseImage(&mask);
    cvReleaseImage(&expected);
    cvReleaseImage(&VELDSEMarker::m_prevResult);
  }
}

TEST_F(PostProcessTest, WithoutPreviousResultOnlyTheTypeStepRuns) {
  for (int type : {0, 1, 2, 3}) {
    SCOPED_TRACE(type);
    VELDSEMarker::currentStroke.strokeType = type;
    VELDSEMarker::currentStroke.points = {1, 1};
    IplImage* mask = maskFromRows({"#####.", "#.###.", "#####.", "......", ".....#"});
    // Only the loop step changes this mask: its hole is filled; the lone
    // corner pixel stays (threshold (int)(14 * 0.1) = 1, and 1 < 1 is false).
    IplImage* expected = type == 0 ? maskFromRows({"#####.", "#####.", "#####.", "......", ".....#"})
                                   : cvCloneImage(mask);
    hybrid_.postProcess(mask);
    EXPECT_TRUE(sameMask(mask, expected));
    cvReleaseImage(&mask);
    cvReleaseImage(&expected);
  }
}

// Reference merge: inside the region (scaled working box corner, scaled
// working size, clipped to the image) pixels equal to v take v; everything
// else is the previous result.
IplImage* referenceMerge(const IplImage* mask, const IplImage* prev, unsigned char v, int x0, int y0,
                         int cols, int rows) {
  IplImage* out = cvCloneImage(prev);
  for (int y = 0; y < mask->height; ++y) {
    for (int x = 0; x < mask->width; ++x) {
      const bool inside = x >= x0 && x < x0 + cols && y >= y0 && y < y0 + rows;
      if (inside && rows >= 1 && cols >= 1 && at(mask, x, y) == v) out->imageData[y * out->widthStep + x] = v;
    }
  }
  return out;
}

TEST_F(PostProcessTest, MergeKeepsOnlyTheRequestedDirectionInsideTheRegion) {
  struct Case {
    int type;
    unsigned char v;
  };
  const Case cases[] = {{0, 255}, {1, 0}, {2, 255}, {3, 0}};
  const int w = 45, h = 37;
  for (const Case& tc : cases) {
    SCOPED_TRACE(tc.type);
    // Working image 20 x 16 at scale 2.25, box corner (4, 3): the region
    // starts at (9, 6) and is 45 x 36, so it runs past the right and bottom.
    g_imageResizeFactor = 2.25f;
    hybrid_.m_imgWidth = 20;
    hybrid_.m_imgHeight = 16;
    VELDSEMarker::m_xMinBBox = 4;
    VELDSEMarker::m_yMinBBox = 3;
    VELDSEMarker::currentStroke.strokeType = tc.type;
    VELDSEMarker::currentStroke.points = {12, 10, 30, 20, 8, 30};

    VELDSEMarker::m_prevResult = blankMask(w, h);
    fillRect(VELDSEMarker::m_prevResult, 0, 0, 25, 37, 255);
    IplImage* mask = blankMask(w, h);
    fillRect(mask, 4, 4, 30, 30, 255);
    fillRect(mask, 40, 30, 5, 7, 255);  // reaches the bottom-right corner
    fillRect(mask, 14, 12, 3, 3, 0);

    // The type step is checked elsewhere; apply it to a copy to get the
    // input of the merge.
    IplImage* stepped = cvCloneImage(mask);
    if (tc.type == 0) hybrid_.postProcessForLoop(stepped);
    if (tc.type >= 2) hybrid_.postProcessForStroke(stepped);
    IplImage* expected = referenceMerge(stepped, VELDSEMarker::m_prevResult, tc.v, 9, 6, 45, 36);

    hybrid_.postProcess(mask);
    EXPECT_TRUE(sameMask(mask, expected));
    // Outside the region the previous result wins where the two differ.
    EXPECT_EQ(at(mask, 30, 5), 0);
    EXPECT_EQ(at(mask, 2, 2), 255);
    cvReleaseImage(&mask);
    cvReleaseImage(&stepped);
    cvReleaseImage(&expected);
    cvReleaseImage(&VELDSEMarker::m_prevResult);
  }
}

TEST_F(PostProcessTest, EmptyRegionRevertsToThePreviousResult) {
  g_imageResizeFactor = 1.0f;
  hybrid_.m_imgWidth = 10;
  hybrid_.m_imgHeight = 0;
  VELDSEMarker::currentStroke.strokeType = 1;
  VELDSEMarker::m_prevResult = maskFromRows({"##..", "##.."});
  IplImage* mask = maskFromRows({"....", "####"});
  hybrid_.postProcess(mask);
  EXPECT_TRUE(sameMask(mask, VELDSEMarker::m_prevResult));
  cvReleaseImage(&mask);
}

}  // namespace
