// The segmentation driver: the five cuts, label updates, the fall-back to the
// first cut, and the abandoned request (cancel flag and ten-second budget).
#include <gtest/gtest.h>
#include <hostlog/capture.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <ctime>
#include <random>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "colormodel/kmeans_init.h"
#include "colormodel/training.h"
#include "engine/veldse_hybrid.h"
#include "interface/segmentation_core.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"
#include "support/cpu_timer.h"

// The library reads the wall clock through gettimeofday. This definition in the
// test program takes its place, so the ten-second budget can run out without
// waiting: once armed, every reading is eleven seconds later than the last.
namespace {
std::atomic<bool> g_clockJumps{false};
std::atomic<long> g_clockSkew{0};
}  // namespace

extern "C" int gettimeofday(struct timeval* __restrict tv, void* __restrict) __THROW {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const long skew = g_clockJumps.load() ? (g_clockSkew += 11) : g_clockSkew.load();
  tv->tv_sec = now.tv_sec + skew;
  tv->tv_usec = now.tv_nsec / 1000;
  return 0;
}

namespace {

unsigned char* at(IplImage* image, int x, int y) {
  return reinterpret_cast<unsigned char*>(image->imageData + y * image->widthStep) + x;
}

// A noisy disc on a striped, noisy background: object and background colours
// differ in every channel, so five colour components fit each side well.
std::vector<unsigned int> discScene(int w, int h, int cx, int cy, int radius, bool grey,
                                    unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> noise(-12, 12);
  std::vector<unsigned int> argb(static_cast<size_t>(w) * h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const bool inside = (x - cx) * (x - cx) + (y - cy) * (y - cy) <= radius * radius;
      const bool stripe = (x / 16 + y / 24) % 2 == 0;
      int r = inside ? 200 : stripe ? 40 : 70, g = inside ? 60 : stripe ? 120 : 150,
          b = inside ? 50 : stripe ? 60 : 90;
      if (grey) r = g = b = inside ? 190 : stripe ? 50 : 80;
      const int n = noise(rng);
      auto clip = [](int v) { return static_cast<unsigned int>(v < 0 ? 0 : v > 255 ? 255 : v); };
      const unsigned int rr = clip(r + n), gg = clip(g + (grey ? n : noise(rng))),
                         bb = clip(b + (grey ? n : noise(rng)));
      argb[static_cast<size_t>(y) * w + x] = 0xFF000000u | rr << 16 | gg << 8 | bb;
    }
  return argb;
}

class SegmentDriver : public ::testing::Test {
 protected:
  void TearDown() override {
    g_clockJumps = false;
    deinitSegmentation();
    VELDSEMarker::m_exitApp = false;
    g_exitStatus = 0;
  }

  // A context on the scene, and a rectangle request's marks (probable object
  // inside, the border loop as the stroke), at working size 1:1.
  void startRectangle(int w, int h, bool grey, int x1, int y1, int x2, int y2) {
    std::vector<unsigned int> photo = discScene(w, h, w / 2, h / 2, h / 4, grey, 3);
    setSourceImage(w, h, photo.data());
    g_imageResizeFactor = 1.0f;
    pHybrid = new VELDSEHybrid;
    VELDSEMarker::initializer();
    pHybrid->intializer();
    std::vector<int> loop = {x1, y1, x2, y1, x2, y2, x1, y2};
    setCurrentMarkerVector(static_cast<int>(loop.size()), loop.data());
    std::vector<int> markers(static_cast<size_t>(w) * h, 0);
    for (int y = y1; y <= y2; ++y)
      for (int x = x1; x <= x2; ++x) markers[static_cast<size_t>(y) * w + x] = LABEL_PR_FG;
    setMarkerImage(w, h, markers.data(), 0);
    pHybrid->setLabelImage(g_markerImage);
    cvReleaseImage(&g_markerImage);
  }

  void expectNothingLeft() {
    EXPECT_EQ(pHybrid->m_graph, nullptr);
    EXPECT_EQ(pHybrid->m_cropSrc, nullptr);
    EXPECT_EQ(pHybrid->m_cropLabel, nullptr);
    EXPECT_EQ(pHybrid->m_cropLabelInit, nullptr);
    for (IplImage* l : pHybrid->m_iterLabel) EXPECT_EQ(l, nullptr);
    EXPECT_EQ(g_cancelTimer, nullptr);
  }
};

TEST_F(SegmentDriver, RecoversDiscAndKeepsHardConstraints) {
  for (bool grey : {false, true}) {
    SCOPED_TRACE(grey ? "grey" : "colour");
    startRectangle(240, 180, grey, 60, 30, 180, 150);
    // Hard constraints in the box: an object seed at the centre, a background
    // seed inside the rectangle's corner.
    cv::Mat labels = cv::cvarrToMat(VELDSEMarker::m_labelImage);
    labels(cv::Rect(118, 88, 4, 4)).setTo(LABEL_FG);
    labels(cv::Rect(62, 32, 4, 4)).setTo(LABEL_BG);
    IplImage* before = cvCloneImage(VELDSEMarker::m_labelImage);

    IplImage* mask = pHybrid->segment();
    ASSERT_NE(mask, nullptr);
    expectNothingLeft();
    cv::Mat truth = cv::Mat::zeros(180, 240, CV_8U), object = cv::cvarrToMat(mask) == 255;
    cv::circle(truth, cv::Point(120, 90), 45, cv::Scalar(255), cv::FILLED);
    EXPECT_GT(double(cv::countNonZero(truth & object)) / cv::countNonZero(truth | object), 0.95);
    const cv::Mat b = cv::cvarrToMat(before), a = cv::cvarrToMat(VELDSEMarker::m_labelImage);
    EXPECT_EQ(cv::countNonZero(((b == LABEL_BG) | (b == LABEL_FG)) & (a != b)), 0) << "hard codes changed";
    EXPECT_EQ(*at(VELDSEMarker::m_labelImage, 63, 33), LABEL_BG);
    EXPECT_EQ(VELDSEManageUndoRedo::m_current, 1) << "the result enters the history";
    cvReleaseImage(&before);
    cvReleaseImage(&mask);
    deinitSegmentation();
  }
}

TEST_F(SegmentDriver, ExitFlagOrTimeOutAbandonsAfterFirstCut) {
  for (bool byClock : {false, true}) {
    SCOPED_TRACE(byClock ? "ten-second budget" : "exit flag");
    startRectangle(160, 120, false, 40, 20, 120, 100);
    (byClock ? g_clockJumps : VELDSEMarker::m_exitApp) = true;  // the clock: no waiting
    hostlog::startCapture();
    EXPECT_EQ(pHybrid->segment(), nullptr);
    const std::vector<hostlog::Record> log = hostlog::stopCapture();
    g_clockJumps = VELDSEMarker::m_exitApp = false;
    expectNothingLeft();
    int lines = 0;
    for (const hostlog::Record& r : log)
      if (r.text == "Segmentation canceled due to timeout") {
        ++lines;
        EXPECT_EQ(r.priority, 6);
        EXPECT_EQ(r.tag, "Error");
      }
    EXPECT_EQ(lines, 1);
    EXPECT_EQ(VELDSEManageUndoRedo::m_current, 0) << "no result recorded";
    deinitSegmentation();
  }
}

TEST_F(SegmentDriver, CancelMemberTestsTimerAndFlag) {
  g_cancelTimer = create_timer();
  start_cpu_timer(g_cancelTimer);
  VELDSEHybrid hybrid;
  EXPECT_FALSE(hybrid.cancelSegmentation());
  VELDSEMarker::m_exitApp = true;
  EXPECT_TRUE(hybrid.cancelSegmentation());
  VELDSEMarker::m_exitApp = false;
  start_cpu_timer(g_cancelTimer);
  g_clockJumps = true;  // the stop reading is 11 s after the start
  EXPECT_TRUE(hybrid.cancelSegmentation());
  g_clockJumps = false;
  destroy_timer(g_cancelTimer);
  g_cancelTimer = nullptr;
}

// Graph of w x h nodes without neighbour links whose node i goes to the
// background side exactly when sink[i].
VELDSEGraph* sidesGraph(int w, int h, const std::vector<bool>& sink) {
  VELDSEGraph* g = new VELDSEGraph(w * h, 8 * w * h, w, h, 0);
  g->reset();
  g->addNode(w * h);
  for (int i = 0; i < w * h; ++i)
    for (int e = 0; e < 4; ++e) g->addEdge(i, i, 0.0f, 0.0f, true);
  for (int i = 0; i < w * h; ++i) g->addtWeights(i, sink[i] ? 1.0f : 5.0f, sink[i] ? 5.0f : 1.0f);
  g->maxFlow();
  return g;
}

TEST_F(SegmentDriver, UpdateLabelImageKeepsHardCodesAndCountsObject) {
  std::mt19937 rng(11);
  for (const cv::Size size : {cv::Size(7, 9), cv::Size(5, 1)}) {
    SCOPED_TRACE(size);
    const int n = size.area();
    VELDSEHybrid hybrid;
    hybrid.m_boundWidth = size.width;
    hybrid.m_boundHeight = size.height;
    std::vector<bool> sink(n);
    for (size_t i = 0; i < sink.size(); ++i) sink[i] = rng() % 2;
    hybrid.m_graph = sidesGraph(size.width, size.height, sink);
    hybrid.m_cropLabel = cvCreateImage(cvSize(size.width, size.height), IPL_DEPTH_8U, 1);
    std::vector<unsigned char> codes(n);
    for (int i = 0; i < n; ++i)  // 5: an unexpected code
      *at(hybrid.m_cropLabel, i % size.width, i / size.width) = codes[i] = static_cast<unsigned char>(rng() % 6);
    const int count = hybrid.updateLabelImage();
    int expectedCount = 0;
    for (int i = 0; i < n; ++i) {
      const bool hard = codes[i] == LABEL_BG || codes[i] == LABEL_FG;
      expectedCount += !hard && !sink[i];
      EXPECT_EQ(*at(hybrid.m_cropLabel, i % size.width, i / size.width),
                hard ? codes[i] : static_cast<unsigned char>(sink[i] ? LABEL_PR_BG : LABEL_PR_FG)) << "node " << i;
    }
    EXPECT_EQ(count, expectedCount);
    hybrid.clearMemory();
  }
}

TEST_F(SegmentDriver, ChooseIterKeepsFirstCutOnlyWhenItFollowsEdgesBetter) {
  // A 60 x 60 box: a bright square (20..39) on a dark flat background.
  auto square = [](int inset, unsigned char code) {
    IplImage* l = cvCreateImage(cvSize(60, 60), IPL_DEPTH_8U, 1);
    cvSet(l, cvScalarAll(LABEL_PR_BG));
    cv::cvarrToMat(l)(cv::Rect(20 - inset, 20 - inset, 20 + 2 * inset, 20 + 2 * inset)).setTo(code);
    return l;
  };
  struct Case {
    const char* name;
    int firstInset, lastInset;
    bool firstWins;
  } cases[] = {
      {"first on the edge, last off it", 0, 4, true},
      {"last also on the edge (score 1 > 0.98)", 0, 0, false},
      {"first off the edge", 4, 0, false},
      {"first only half on the edge", -3, 4, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    VELDSEHybrid hybrid;
    hybrid.m_cropSrc = cvCreateImage(cvSize(60, 60), IPL_DEPTH_8U, 3);
    cv::Mat src = cv::cvarrToMat(hybrid.m_cropSrc);
    src.setTo(cv::Scalar::all(30));
    src(cv::Rect(20, 20, 20, 20)).setTo(cv::Scalar::all(220));
    hybrid.m_iterLabel[0] = square(std::max(c.firstInset, 0), LABEL_FG);
    // Negative inset: half of the first cut's boundary lies on the edge, half off.
    if (c.firstInset < 0) cv::cvarrToMat(hybrid.m_iterLabel[0])(cv::Rect(40, 20, 4, 20)).setTo(LABEL_FG);
    hybrid.m_cropLabel = square(c.lastInset, LABEL_PR_FG);
    hybrid.chooseIter();
    EXPECT_EQ(*at(hybrid.m_cropLabel, 30, 30), c.firstWins ? LABEL_FG : LABEL_PR_FG);
    hybrid.clearMemory();
  }
}

}  // namespace
