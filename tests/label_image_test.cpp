// Label image from the caller's marks, the undecided band along the stroke,
// the working box and crops to it.
#include "engine/veldse_hybrid.h"
#include "interface/segmentation_core.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"
#include "tests/test_support.h"

namespace {

using testsupport::at;
using testsupport::M;
using testsupport::newImage;

// Fills the inclusive rectangle (x0, y0)-(x1, y1).
void fillRect(IplImage* image, int x0, int y0, int x1, int y1, unsigned char value) {
  M(image)(cv::Rect(x0, y0, x1 - x0 + 1, y1 - y0 + 1)).setTo(value);
}

class LabelImage : public ::testing::Test {
 protected:
  void SetUp() override {
    g_imageResizeFactor = 1.0f;
    VELDSEMarker::currentStroke.points.clear();
  }
  void TearDown() override {
    deinitSegmentation();
    g_imageResizeFactor = 1.0f;
    VELDSEMarker::currentStroke.strokeType = 0;
  }
  VELDSEHybrid engine;
};

// Grey-level dilation by a (2n+1) square, written independently: the maximum
// over the window clipped to the image.
std::vector<unsigned char> dilated(IplImage* marker, int n) {
  const int w = marker->width, h = marker->height;
  std::vector<unsigned char> out(static_cast<size_t>(w) * h, 0);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int v = std::max(0, y - n); v <= std::min(h - 1, y + n); ++v)
        for (int u = std::max(0, x - n); u <= std::min(w - 1, x + n); ++u)
          out[y * w + x] = std::max(out[y * w + x], at(marker, u, v));
  return out;
}

TEST_F(LabelImage, StrokesGrowProbableRingsAndUnmarkedIsBackground) {
  // 40 x 40: the dilation runs (int)(40 * 0.05) = 2 times.
  const struct {
    int strokeType;
    unsigned char strokeCode, ringCode;
  } cases[] = {{0, LABEL_FG, 0}, {1, LABEL_BG, 0}, {2, LABEL_FG, LABEL_PR_FG}, {3, LABEL_BG, LABEL_PR_BG}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.strokeType);
    IplImage* marker = newImage(40, 40);
    fillRect(marker, 10, 20, 25, 20, c.strokeCode);  // the stroke
    at(marker, 30, 10) = LABEL_PR_BG;                // an earlier mark nearby
    at(marker, 12, 22) = LABEL_PR_BG;                // one inside the ring: the larger code wins
    IplImage* original = cvCloneImage(marker);
    VELDSEMarker::currentStroke.strokeType = c.strokeType;
    engine.setLabelImage(marker);
    const bool grows = c.strokeType >= 2;
    const std::vector<unsigned char> grown = dilated(original, grows ? 2 : 0);
    ASSERT_NE(VELDSEMarker::m_labelImage, nullptr);
    EXPECT_EQ(VELDSEMarker::m_prevResult, nullptr);
    for (int y = 0; y < 40; ++y)
      for (int x = 0; x < 40; ++x) {
        SCOPED_TRACE(std::to_string(x) + "," + std::to_string(y));
        unsigned char m = grown[y * 40 + x];
        if (grows && m == c.strokeCode && at(original, x, y) == 0) m = c.ringCode;
        ASSERT_EQ(at(marker, x, y), m) << "the caller's marker is changed in place";
        ASSERT_EQ(at(VELDSEMarker::m_labelImage, x, y), m == 0 ? static_cast<unsigned char>(LABEL_BG) : m);
      }
    for (IplImage* i : {marker, original}) cvReleaseImage(&i);
  }
}

TEST_F(LabelImage, PreviousMaskBecomesHardConstraints) {
  // Previous mask: object on the left half; the marker has codes on both halves.
  const int w = 20, h = 20;
  std::vector<unsigned int> argb(w * h, 0xFF808080u);  // so the history can hold masks
  setSourceImage(w, h, argb.data());
  IplImage* previous = newImage(w, h);
  fillRect(previous, 0, 0, 9, h - 1, 255);
  VELDSEManageUndoRedo::updateBitPlane(previous);
  for (int t = 0; t < 4; ++t) {
    SCOPED_TRACE(t);
    IplImage* marker = newImage(w, h);
    fillRect(marker, 4, 3, 15, 3, LABEL_PR_FG);
    fillRect(marker, 4, 16, 15, 16, LABEL_PR_BG);
    fillRect(marker, 5, 9, 14, 9, t % 2 ? LABEL_BG : LABEL_FG);
    VELDSEMarker::currentStroke.strokeType = t;
    engine.setLabelImage(marker);
    ASSERT_NE(VELDSEMarker::m_prevResult, nullptr);
    EXPECT_EQ(cv::norm(M(VELDSEMarker::m_prevResult), M(previous), cv::NORM_INF), 0.0);
    // Unmarked pixels follow the mask; a mark on the side its stroke agrees
    // with is made definite; the stroke itself stays.
    const unsigned char stroke = t % 2 ? LABEL_BG : LABEL_FG;
    const struct {
      int x, y;
      unsigned char expected[4];
    } spots[] = {
        {15, 3, {LABEL_PR_FG, LABEL_BG, LABEL_PR_FG, LABEL_BG}},  // probable object on the background side
        {4, 3, {LABEL_FG, LABEL_PR_FG, LABEL_FG, LABEL_PR_FG}},
        {4, 16, {LABEL_FG, LABEL_PR_BG, LABEL_FG, LABEL_PR_BG}},  // probable background on the object side
        {15, 16, {LABEL_PR_BG, LABEL_BG, LABEL_PR_BG, LABEL_BG}},
        {5, 9, {stroke, stroke, stroke, stroke}},
        {14, 9, {stroke, stroke, stroke, stroke}},
        {10, 12, {LABEL_BG, LABEL_BG, LABEL_BG, LABEL_BG}},
        {9, 12, {LABEL_FG, LABEL_FG, LABEL_FG, LABEL_FG}},
    };
    for (const auto& p : spots)
      EXPECT_EQ(at(VELDSEMarker::m_labelImage, p.x, p.y), p.expected[t]) << p.x << "," << p.y;
    cvReleaseImage(&marker);
  }
  cvReleaseImage(&previous);
}

TEST_F(LabelImage, ReducedPhotoGetsANearestNeighbourLabelImage) {
  g_imageResizeFactor = 2.0f;
  VELDSEMarker::m_srcImage = newImage(20, 15, 3);
  IplImage* marker = newImage(40, 30);
  for (int y = 0; y < 30; ++y)
    for (int x = 0; x < 40; ++x) at(marker, x, y) = static_cast<unsigned char>((x * 3 + y * 7) % 5);
  cv::Mat expected = M(marker).clone();
  expected.setTo(LABEL_BG, expected == 0);
  cv::resize(expected, expected, cv::Size(20, 15), 0, 0, cv::INTER_NEAREST);
  VELDSEMarker::currentStroke.strokeType = 1;
  engine.setLabelImage(marker);
  ASSERT_EQ(M(VELDSEMarker::m_labelImage).size(), cv::Size(20, 15));
  EXPECT_EQ(cv::norm(M(VELDSEMarker::m_labelImage), expected, cv::NORM_INF), 0.0);
  cvReleaseImage(&marker);
}

// On a reduced photo the labels are those of the full-size marks and previous
// mask, reduced by nearest neighbour (here by an uneven factor).
TEST_F(LabelImage, ReducedPhotoWithAPreviousMaskGetsTheReducedFullSizeLabels) {
  const int w = 41, h = 31;
  std::vector<unsigned int> argb(w * h, 0xFF808080u);
  setSourceImage(w, h, argb.data());
  IplImage* previous = newImage(w, h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) at(previous, x, y) = (x * 5 + y * 3) % 7 < 3 ? 255 : 0;
  VELDSEManageUndoRedo::updateBitPlane(previous);
  g_imageResizeFactor = 2.0f;
  VELDSEMarker::m_srcImage = newImage(20, 15, 3);
  for (int t = 0; t < 2; ++t) {
    SCOPED_TRACE(t);
    IplImage* marker = newImage(w, h);
    cv::Mat expected(h, w, CV_8UC1);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const unsigned char mark = static_cast<unsigned char>((x * 3 + y * 7) % 5);
        const bool object = at(previous, x, y) == 255;
        at(marker, x, y) = mark;
        unsigned char label = mark;
        if (mark == 0)
          label = object ? LABEL_FG : LABEL_BG;
        else if (t == 0 && object)
          label = LABEL_FG;
        else if (t == 1 && !object)
          label = LABEL_BG;
        expected.at<unsigned char>(y, x) = label;
      }
    cv::resize(expected, expected, cv::Size(20, 15), 0, 0, cv::INTER_NEAREST);
    VELDSEMarker::currentStroke.strokeType = t;
    engine.setLabelImage(marker);
    ASSERT_EQ(M(VELDSEMarker::m_labelImage).size(), cv::Size(20, 15));
    EXPECT_EQ(cv::norm(M(VELDSEMarker::m_labelImage), expected, cv::NORM_INF), 0.0);
    cvReleaseImage(&marker);
  }
  cvReleaseImage(&VELDSEMarker::m_srcImage);
  cvReleaseImage(&previous);
}

TEST_F(LabelImage, StrokeBandFollowsTheStrokeAndIsClosed) {
  // Points at full resolution with factor 2; the reference draws the same
  // thickness-3 lines between the working points written out by hand.
  const struct {
    std::vector<int> points;
    std::vector<cv::Point> working;
  } cases[] = {
      {{21, 40}, {}},  // one point: no band
      {{11, 21, 31, 21}, {{5, 10}, {15, 10}}},
      {{20, 20, 61, 21, 60, 61}, {{10, 10}, {30, 10}, {30, 30}}},  // closed by (30,30)-(10,10)
  };
  g_imageResizeFactor = 2.0f;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.points.size());
    VELDSEMarker::m_labelImage = newImage(40, 40, 1, LABEL_BG);
    VELDSEMarker::currentStroke.points = c.points;
    engine.addUnknownRegion();
    cv::Mat expected(40, 40, CV_8UC1, cv::Scalar(LABEL_BG));
    for (size_t k = 0; k + 1 < c.working.size(); ++k)
      cv::line(expected, c.working[k], c.working[k + 1], 0, 3, cv::LINE_8);
    if (c.working.size() > 2) cv::line(expected, c.working.back(), c.working[0], 0, 3, cv::LINE_8);
    EXPECT_EQ(cv::norm(M(VELDSEMarker::m_labelImage), expected, cv::NORM_INF), 0.0);
    cvReleaseImage(&VELDSEMarker::m_labelImage);
  }
}

TEST_F(LabelImage, WorkingBoxCases) {
  // A rectangle (x0, y0)-(x1, y1) filled with `code` in the label image (x0 < 0: none).
  const struct {
    std::string name;
    int w, h;
    std::vector<int> points;
    int strokeType, x0, y0, x1, y1;
    unsigned char code;
    int boxX, boxY, boxW, boxH, areaTenth;
  } cases[] = {
      {"empty marking", 100, 80, {}, 0, -1, 0, 0, 0, 0, 0, 0, 11, 11, 0},
      {"empty on a tiny image", 8, 6, {}, 0, -1, 0, 0, 0, 0, 0, 0, 8, 6, 0},
      {"unknown region", 100, 80, {}, 0, 30, 20, 50, 40, LABEL_UNKNOWN, 20, 10, 41, 41, 40},
      {"probable object region", 100, 80, {}, 1, 30, 20, 33, 27, LABEL_PR_FG, 20, 10, 24, 28, 2},
      {"at the border", 100, 80, {}, 0, 0, 70, 5, 79, LABEL_PR_FG, 0, 60, 16, 20, 4},
      {"at the far border", 100, 80, {}, 0, 92, 0, 99, 3, LABEL_UNKNOWN, 82, 0, 18, 14, 2},
      {"object stroke", 100, 80, {1, 1}, 2, 40, 40, 60, 45, LABEL_PR_FG, 30, 30, 41, 26, 10},
      {"object stroke without its ring", 100, 80, {1, 1}, 2, 40, 40, 60, 45, LABEL_PR_BG, 0, 0, 11, 11, 0},
      // Loop points, factor 2: (50,20) and (30,60) in working pixels.
      {"loop points", 100, 80, {100, 40, 60, 120}, 0, -1, 0, 0, 0, 0, 20, 10, 41, 61, 80},
      {"loop points clamped", 100, 80, {190, 150, 199, 159}, 1, -1, 0, 0, 0, 0, 85, 65, 15, 15, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    VELDSEMarker::m_width = c.w;
    VELDSEMarker::m_height = c.h;
    g_imageResizeFactor = c.points.size() > 2 ? 2.0f : 1.0f;
    VELDSEMarker::m_labelImage = newImage(c.w, c.h, 1, LABEL_BG);
    at(VELDSEMarker::m_labelImage, 0, c.h - 1) = LABEL_FG;  // never part of a box
    if (c.x0 >= 0) fillRect(VELDSEMarker::m_labelImage, c.x0, c.y0, c.x1, c.y1, c.code);
    if (c.strokeType >= 2) at(VELDSEMarker::m_labelImage, 5, 5) = LABEL_UNKNOWN;  // ignored then
    VELDSEMarker::currentStroke = {c.points, c.strokeType};
    engine.computeBoundingBox();
    EXPECT_EQ(cv::Rect(VELDSEMarker::m_xMinBBox, VELDSEMarker::m_yMinBBox, engine.m_boundWidth,
                       engine.m_boundHeight),
              cv::Rect(c.boxX, c.boxY, c.boxW, c.boxH));
    EXPECT_EQ(engine.m_areaTenth, c.areaTenth);
    cvReleaseImage(&VELDSEMarker::m_labelImage);
  }
}

TEST_F(LabelImage, CropCopiesTheBoxAndLogsAnEmptyOne) {
  for (int channels : {1, 3}) {
    SCOPED_TRACE(channels);
    IplImage* image = newImage(30, 20, channels);
    cv::randu(M(image), 0, 256);
    VELDSEMarker::m_xMinBBox = 7;
    VELDSEMarker::m_yMinBBox = 4;
    engine.m_boundWidth = 23;
    engine.m_boundHeight = 9;
    IplImage* crop = engine.cropImage(image);
    ASSERT_EQ(crop->nChannels, channels);
    EXPECT_EQ(cv::norm(M(crop), M(image)(cv::Rect(7, 4, 23, 9)), cv::NORM_INF), 0.0);
    cvReleaseImage(&crop);
    engine.m_boundWidth = 0;
    EXPECT_EQ(testsupport::logged([&] { crop = engine.cropImage(image); }),
              testsupport::Lines{"E/Error: MEMORY_CRASH : cropImage 850"});
    EXPECT_EQ(crop->width, 0);
    for (IplImage* i : {crop, image}) cvReleaseImage(&i);
  }
}

}  // namespace
