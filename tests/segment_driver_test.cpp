// The segmentation driver: the fall-back to the first cut, and the abandoned
// request (cancel flag and ten-second budget).
#include <atomic>
#include <cmath>
#include <ctime>

#include "engine/veldse_hybrid.h"
#include "interface/segmentation_core.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"
#include "support/cpu_timer.h"
#include "tests/synthetic_scene.h"
#include "tests/test_support.h"

// The library reads the wall clock through gettimeofday. This definition in the
// test program takes its place, so the ten-second budget can run out without
// waiting: once g_clockJumps is armed, every reading is eleven seconds later
// than the last; once g_clockLeap is armed, the first reading is on time and
// every later one 9.2 s late.
namespace {
std::atomic<bool> g_clockJumps{false};
std::atomic<bool> g_clockLeap{false};
std::atomic<long> g_clockSkewMicros{0};
}  // namespace

extern "C" int gettimeofday(struct timeval* __restrict tv, void* __restrict) __THROW {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  long skew = g_clockJumps.load() ? (g_clockSkewMicros += 11000000) : g_clockSkewMicros.load();
  if (g_clockLeap.exchange(false)) g_clockSkewMicros += 9200000;
  const long micros = now.tv_nsec / 1000 + skew;
  tv->tv_sec = now.tv_sec + micros / 1000000;
  tv->tv_usec = micros % 1000000;
  return 0;
}

namespace {

class SegmentDriver : public ::testing::Test {
 protected:
  void TearDown() override {
    g_clockJumps = g_clockLeap = false;
    deinitSegmentation();
    VELDSEMarker::m_exitApp = false;
  }

  // A context on the scene, and a rectangle request's marks, at working size
  // 1:1.
  void startRectangle(int w, int h, int x1, int y1, int x2, int y2) {
    testsupport::startEngine(w, h, synthetic::makeScene(w, h, false, false, 5).argb.data());
    testsupport::markRectangle(w, h, x1, y1, x2, y2);
  }
};

TEST_F(SegmentDriver, ExitFlagOrTimeOutAbandonsAfterFirstCut) {
  for (bool byClock : {false, true}) {
    SCOPED_TRACE(byClock ? "ten-second budget" : "exit flag");
    startRectangle(160, 120, 40, 20, 120, 100);
    (byClock ? g_clockJumps : VELDSEMarker::m_exitApp) = true;  // the clock: no waiting
    const testsupport::Lines log = testsupport::logged([] { EXPECT_EQ(pHybrid->segment(), nullptr); });
    // The first cut ran: both models were fitted for it, and on the clock
    // its solver ran out of budget and raised the exit flag itself.
    EXPECT_TRUE(VELDSEMarker::m_exitApp.load());
    for (const VELDSEColorModel* m : {&pHybrid->m_fgModel, &pHybrid->m_bgModel})
      EXPECT_NEAR(m->weight[0] + m->weight[1] + m->weight[2] + m->weight[3] + m->weight[4], 1.0, 1e-12);
    g_clockJumps = VELDSEMarker::m_exitApp = false;
    // Nothing of the abandoned request is left.
    testsupport::expectNoRequestLeft();
    EXPECT_EQ(std::count(log.begin(), log.end(), "E/Error: Segmentation canceled due to timeout"), 1);
    EXPECT_EQ(VELDSEManageUndoRedo::m_current, 0) << "no result recorded";
    deinitSegmentation();
  }
}

// 9.2 s into the budget when the first cut ends (the request's timer starts on
// time, then the clock leaps), the request still finishes.
TEST_F(SegmentDriver, NineSecondsIntoTheBudgetTheRequestFinishes) {
  startRectangle(160, 120, 40, 20, 120, 100);
  g_clockLeap = true;
  IplImage* mask = nullptr;
  const testsupport::Lines log = testsupport::logged([&] { mask = pHybrid->segment(); });
  ASSERT_NE(mask, nullptr);
  EXPECT_GT(cv::countNonZero(testsupport::M(mask)), 0);
  EXPECT_FALSE(VELDSEMarker::m_exitApp.load());
  EXPECT_EQ(std::count(log.begin(), log.end(), "E/Error: Segmentation canceled due to timeout"), 0);
  cvReleaseImage(&mask);
}

// The fall-back's rule on exact boundary scores. A cut is a 200-pixel object
// segment on one row (its whole length is its boundary); the row above it is
// bright up to a chosen column, so exactly the segment pixels up to that
// column sit on an edge (Sobel magnitude > 70) and the rest on flat ground
// (magnitude 0): score = (on - off) / 200.
TEST_F(SegmentDriver, ChooseIterKeepsFirstCutOnlyWhenItFollowsEdgesBetter) {
  const int kLength = 200, kStart = 2;
  auto segment = [](int row, unsigned char code) {
    IplImage* l = testsupport::newImage(kLength + 10, 13, 1, LABEL_PR_BG);
    testsupport::M(l)(cv::Rect(kStart, row, kLength, 1)).setTo(code);
    return l;
  };
  const struct {
    double first, last;
    bool firstWins;
  } cases[] = {
      {0.75, 0.75, true},   // first just good enough, last no better
      {0.74, 0.74, false},  // first just short of 0.75
      {0.80, 0.98, true},   // last at the limit is not "clearly better"
      {0.80, 0.99, false},  // last above 0.98
      {0.76, 0.97, false},  // last more than 0.2 better
      {0.90, 0.60, true},   // last worse
      {1.00, 1.00, false},  // both on the edge: last kept
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "first " << c.first << ", last " << c.last);
    VELDSEHybrid hybrid;
    hybrid.m_cropSrc = testsupport::newImage(kLength + 10, 13, 3, 0);
    // Segment pixels on the edge: (score + 1) / 2 of them, from the start.
    for (const auto& [row, score] : {std::pair<int, double>{3, c.first}, {9, c.last}}) {
      const int on = static_cast<int>(std::lround((score + 1.0) * kLength / 2));
      testsupport::M(hybrid.m_cropSrc)(cv::Rect(0, row - 1, kStart + on - 1, 1)).setTo(cv::Scalar::all(250));
    }
    hybrid.m_iterLabel[0] = segment(3, LABEL_FG);
    hybrid.m_cropLabel = segment(9, LABEL_PR_FG);
    hybrid.chooseIter();
    EXPECT_EQ(testsupport::at(hybrid.m_cropLabel, kStart, 3), c.firstWins ? LABEL_FG : LABEL_PR_BG);
    EXPECT_EQ(testsupport::at(hybrid.m_cropLabel, kStart, 9), c.firstWins ? LABEL_PR_BG : LABEL_PR_FG);
    hybrid.clearMemory();
  }
}

}  // namespace
