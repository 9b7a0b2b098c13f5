// Mask clean-up after a cut: islands and holes for loop selections (against
// a plain flood fill per component), stroke connectivity for strokes (also on
// masks wider or taller than 65,535 pixels, against a plain flood), and the
// merge with the previous result.
#include <sstream>

#include "engine/veldse_hybrid.h"
#include "interface/veldse_marker.h"
#include "tests/flood_reference.h"
#include "tests/test_support.h"

namespace {

using testsupport::M;
using testsupport::newImage;

// Rows separated by '/': '#' = object (255), anything else background (0).
IplImage* maskFromRows(const std::string& text) {
  std::vector<std::string> rows;
  std::stringstream in(text);
  for (std::string row; std::getline(in, row, '/');) rows.push_back(row);
  IplImage* m = newImage(static_cast<int>(rows[0].size()), static_cast<int>(rows.size()));
  for (size_t y = 0; y < rows.size(); ++y)
    for (size_t x = 0; x < rows[y].size(); ++x) testsupport::at(m, x, y) = rows[y][x] == '#' ? 255 : 0;
  return m;
}

// Compares the two masks pixel by pixel and releases both.
void expectSameAndRelease(IplImage* actual, IplImage* expected) {
  std::vector<cv::Point> differ;
  cv::findNonZero(M(actual) != M(expected), differ);
  EXPECT_TRUE(differ.empty()) << differ.size() << " pixels differ, first at " << differ[0];
  cvReleaseImage(&actual);
  cvReleaseImage(&expected);
}

class PostProcessTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (VELDSEMarker::m_prevResult) cvReleaseImage(&VELDSEMarker::m_prevResult);
    VELDSEMarker::currentStroke = {};
    VELDSEMarker::m_xMinBBox = VELDSEMarker::m_yMinBBox = 0;
    g_imageResizeFactor = 1.0f;
  }
  VELDSEHybrid hybrid_;
};

// The loop clean-up by its rule, on a plain flood fill per component
// (tests/flood_reference.h): object components under a tenth of the largest
// go, then background components of 1 to 4 pixels are filled.
cv::Mat loopCleanUp(const cv::Mat& m) {
  cv::Mat out = m.clone();
  const flood_reference::Labels objects = flood_reference::flood(out, 255);
  const int largest = objects.size.empty() ? 0 : *std::max_element(objects.size.begin(), objects.size.end());
  const int threshold = static_cast<int>(largest * 0.1);
  for (size_t p = 0; p < objects.label.size(); ++p)
    if (objects.label[p] >= 0 && objects.size[objects.label[p]] < threshold) out.data[p] = 0;
  const flood_reference::Labels holes = flood_reference::flood(out, 0);
  for (size_t p = 0; p < holes.label.size(); ++p)
    if (holes.label[p] >= 0 && holes.size[holes.label[p]] < 5) out.data[p] = 255;
  return out;
}

TEST_F(PostProcessTest, LoopCleanUpMatchesOneFloodPerComponent) {
  std::mt19937 rng(5);
  auto uni = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  for (int round = 0; round < 300; ++round) {
    const int w = uni(1, 70), h = uni(1, 50);
    cv::Mat m(h, w, CV_8UC1, cv::Scalar(0));
    // Blobs of every size and scattered noise, so that islands and holes at
    // and around both limits, at the border, and runs touching only
    // diagonally all occur.
    for (int b = uni(0, 12); b > 0; --b)
      cv::rectangle(m, cv::Rect(uni(0, w), uni(0, h), uni(1, w), uni(1, h)), cv::Scalar(uni(0, 1) * 255), -1);
    for (int p = uni(0, w * h / 3); p > 0; --p) m.at<unsigned char>(uni(0, h - 1), uni(0, w - 1)) ^= 255;
    const cv::Mat expected = loopCleanUp(m);
    IplImage* mask = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
    m.copyTo(M(mask));
    hybrid_.postProcessForLoop(mask);
    IplImage copy = cvIplImage(expected);
    SCOPED_TRACE("round " + std::to_string(round));
    expectSameAndRelease(mask, cvCloneImage(&copy));
  }
}

TEST_F(PostProcessTest, StrokeKeepsOnlyChangesConnectedToIt) {
  const struct {
    const char* name;
    int type;
    const char *prev, *mask, *expected;
    std::vector<int> points;
  } cases[] = {
      {"object stroke: touched addition stays, others revert",
       2,
       "##......../##......../........../..........",
       "####....##/#.##....##/........../......#...",
       "####....../####....../........../..........",
       {2, 0, 3, 1}},
      {"object stroke on unchanged pixels changes nothing",
       2,
       "##......../##......../........../..........",
       "####....##/####....##/........../..........",
       "##......../##......../........../..........",
       {0, 0, 5, 3}},
      {"diagonal contact is not connected",
       2,
       "........../........../........../..........",
       "##......../##......../..##....../..##......",
       "##......../##......../........../..........",
       {0, 0}},
      {"background stroke keeps the touched removal",
       3,
       "##########/##########/##########/##########",
       "###...####/###...####/##########/#.#######.",
       "###...####/###...####/##########/##########",
       {4, 1, 4, 1, 5}},  // odd count: the last value is no point
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    VELDSEMarker::currentStroke = {tc.points, tc.type};
    VELDSEMarker::m_prevResult = maskFromRows(tc.prev);
    IplImage* mask = maskFromRows(tc.mask);
    hybrid_.postProcessForStroke(mask);
    expectSameAndRelease(mask, maskFromRows(tc.expected));
    cvReleaseImage(&VELDSEMarker::m_prevResult);
  }
}

// Masks with a side above 65,535 pixels, where OpenCV's flood fill keeps
// wrapped 16-bit positions: the loop clean-up and the stroke step against a
// plain flood fill per component (tests/flood_reference.h).
TEST_F(PostProcessTest, MasksWiderThan65535FollowTrueComponents) {
  std::mt19937 rng(70000);
  auto uni = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  const cv::Size shapes[] = {{70000, 3}, {131075, 2}, {100000, 1}, {2, 70000}};
  for (const cv::Size& s : shapes) {
    SCOPED_TRACE(testing::Message() << s.width << "x" << s.height);
    // Long object stretches broken by gaps and specks: components of every
    // size, many of them reaching past 65,535, pin-holes and islands.
    auto randomMask = [&]() {
      cv::Mat m(s.height, s.width, CV_8UC1, cv::Scalar(0));
      const bool wide = s.width >= s.height;
      const int length = wide ? s.width : s.height;
      for (int x = 0; x < length;) {
        const int run = uni(1, 30000);
        const int across = wide ? s.height : s.width;
        const cv::Rect r = wide ? cv::Rect(x, 0, std::min(run, length - x), across)
                                : cv::Rect(0, x, across, std::min(run, length - x));
        if (uni(0, 2) > 0) m(r).setTo(255);
        x += run;
      }
      for (int p = uni(0, 2000); p > 0; --p)
        m.at<unsigned char>(uni(0, s.height - 1), uni(0, s.width - 1)) ^= 255;
      return m;
    };

    // Loop: islands under a tenth of the largest go, then holes of 1 to 4
    // pixels are filled.
    {
      const cv::Mat m = randomMask();
      const cv::Mat expected = loopCleanUp(m);
      IplImage* mask = cvCreateImage(cvSize(s.width, s.height), IPL_DEPTH_8U, 1);
      m.copyTo(M(mask));
      hybrid_.postProcessForLoop(mask);
      IplImage copy = cvIplImage(expected);
      SCOPED_TRACE("loop");
      expectSameAndRelease(mask, cvCloneImage(&copy));
    }

    // Strokes of both kinds: only the changed components holding a point.
    for (int type : {2, 3}) {
      SCOPED_TRACE(type);
      const cv::Mat prev = randomMask(), next = randomMask();
      const unsigned char v = type == 3 ? 0 : 255, u = 255 - v;
      cv::Mat changed = (next == v) & (prev == u);
      const flood_reference::Labels areas = flood_reference::flood(changed, 255);
      std::vector<bool> touched(areas.size.size(), false);
      std::vector<int> points;
      for (int k = uni(1, 12); k > 0; --k) {
        const int x = uni(0, s.width - 1), y = uni(0, s.height - 1);
        points.insert(points.end(), {x, y});
        const int c = areas.label[static_cast<size_t>(y) * s.width + x];
        if (c >= 0) touched[c] = true;
      }
      // And one point on a change past position 65,535, where a wrapped
      // flood would go wrong.
      for (size_t p = 65536 * static_cast<size_t>(s.width >= s.height ? 1 : s.width); p < areas.label.size();
           ++p) {
        if (areas.label[p] < 0 || p % s.width < (s.width >= s.height ? 65536u : 0u)) continue;
        points.insert(points.end(), {static_cast<int>(p % s.width), static_cast<int>(p / s.width)});
        touched[areas.label[p]] = true;
        break;
      }
      ASSERT_TRUE(std::find(touched.begin(), touched.end(), true) != touched.end());
      cv::Mat expected = prev.clone();
      for (size_t p = 0; p < areas.label.size(); ++p)
        if (areas.label[p] >= 0 && touched[areas.label[p]]) expected.data[p] = v;
      VELDSEMarker::currentStroke = {points, type};
      VELDSEMarker::m_prevResult = cvCreateImage(cvSize(s.width, s.height), IPL_DEPTH_8U, 1);
      prev.copyTo(M(VELDSEMarker::m_prevResult));
      IplImage* mask = cvCreateImage(cvSize(s.width, s.height), IPL_DEPTH_8U, 1);
      next.copyTo(M(mask));
      hybrid_.postProcessForStroke(mask);
      IplImage copy = cvIplImage(expected);
      expectSameAndRelease(mask, cvCloneImage(&copy));
      cvReleaseImage(&VELDSEMarker::m_prevResult);
    }
  }
}

TEST_F(PostProcessTest, WithoutPreviousResultOnlyTheTypeStepRuns) {
  for (int type : {0, 1, 2, 3}) {
    SCOPED_TRACE(type);
    VELDSEMarker::currentStroke = {{1, 1}, type};
    IplImage* mask = maskFromRows("#####./#.###./#####./....../.....#");
    // Only the loop step fills the hole; the lone corner pixel stays
    // (threshold (int)(14 * 0.1) = 1, and 1 < 1 is false).
    IplImage* expected = type == 0 ? maskFromRows("#####./#####./#####./....../.....#") : cvCloneImage(mask);
    hybrid_.postProcess(mask);
    expectSameAndRelease(mask, expected);
  }
}

TEST_F(PostProcessTest, MergeKeepsOnlyTheRequestedDirectionInsideTheRegion) {
  // Working image 20 x 16 at scale 2.25, box corner (4, 3): the region starts
  // at (9, 6) and is 45 x 36, so it runs past the right and bottom of 45 x 37.
  // Previous result: columns 0..24. New mask: the square (4..33, 4..33) with
  // a 3 x 3 hole at (14, 12), and a 35-pixel island in the bottom-right corner.
  g_imageResizeFactor = 2.25f;
  hybrid_.m_imgWidth = 20;
  hybrid_.m_imgHeight = 16;
  VELDSEMarker::m_xMinBBox = 4;
  VELDSEMarker::m_yMinBBox = 3;
  // Object rectangles of the result. Adding types: the square's part right of
  // the previous result and inside the region (the loop drops the island; the
  // stroke at (30, 20) keeps only the part it touches). Type 1 removes inside
  // the region whatever the new mask lacks (the hole too); type 3's stroke
  // touches no removal, so nothing changes.
  const std::vector<cv::Rect> grown = {{0, 0, 25, 37}, {25, 6, 9, 28}};
  const std::vector<cv::Rect> cases[4] = {
      grown,
      {{0, 0, 9, 37}, {9, 0, 16, 12}, {9, 12, 5, 3}, {17, 12, 8, 3}, {9, 15, 16, 19}},
      grown,
      {{0, 0, 25, 37}}};
  for (int type : {0, 1, 2, 3}) {
    SCOPED_TRACE(type);
    VELDSEMarker::currentStroke = {{12, 10, 30, 20, 8, 30}, type};
    VELDSEMarker::m_prevResult = newImage(45, 37);
    M(VELDSEMarker::m_prevResult)(cv::Rect(0, 0, 25, 37)).setTo(255);
    IplImage* mask = newImage(45, 37);
    M(mask)(cv::Rect(4, 4, 30, 30)).setTo(255);
    M(mask)(cv::Rect(40, 30, 5, 7)).setTo(255);  // reaches the bottom-right corner
    M(mask)(cv::Rect(14, 12, 3, 3)).setTo(0);
    IplImage* expected = newImage(45, 37);
    for (const cv::Rect& r : cases[type]) M(expected)(r).setTo(255);
    hybrid_.postProcess(mask);
    expectSameAndRelease(mask, expected);
    cvReleaseImage(&VELDSEMarker::m_prevResult);
  }
  // An empty region: the mask reverts to the previous result.
  hybrid_.m_imgWidth = 10;
  hybrid_.m_imgHeight = 0;
  VELDSEMarker::currentStroke.strokeType = 1;
  VELDSEMarker::m_prevResult = maskFromRows("##../##..");
  IplImage* mask = maskFromRows("..../####");
  hybrid_.postProcess(mask);
  expectSameAndRelease(mask, cvCloneImage(VELDSEMarker::m_prevResult));
}

}  // namespace
