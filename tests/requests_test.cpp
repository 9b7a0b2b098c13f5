// Requests through the exported functions: rectangle and stroke cuts on
// synthetic scenes (plain path and full-resolution re-cut), the result
// formats, stroke edits without a cut, the history, and the exit protocol.
#include "interface/segmentation_core.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"
#include "tests/synthetic_scene.h"
#include "tests/test_support.h"

namespace {

using synthetic::Bytes;
using synthetic::iou;
using synthetic::Pixels;
using synthetic::Scene;

class Requests : public ::testing::Test {
 protected:
  void TearDown() override {
    deinitSegmentation();
    VELDSEMarker::m_exitApp = false;
    g_exitStatus = 0;
  }
  static void expectTornDown() {
    EXPECT_TRUE(pHybrid == nullptr && VELDSEMarker::m_originalImage == nullptr &&
                VELDSEMarker::m_srcImage == nullptr && VELDSEManageUndoRedo::m_bitPlane == nullptr &&
                g_markerImage == nullptr && g_resultMask == nullptr);
  }
};

TEST_F(Requests, RectangleAndStrokesRecoverTheObject) {
  struct Case {
    int w, h;
    bool grey;
  } cases[] = {{240, 180, false}, {240, 180, true}, {960, 720, false}};
  for (const Case& c : cases) {
    // Emulated, the large photo comes close to the 10 s cut limit on a busy machine.
    if (c.w > 240 && synthetic::emulated()) continue;
    SCOPED_TRACE(::testing::Message() << c.w << "x" << c.h << (c.grey ? " grey" : " colour"));
    Scene s = synthetic::makeScene(c.w, c.h, c.grey, true);
    Bytes mask(static_cast<size_t>(c.w) * c.h, 77);
    const int r = c.h / 4, cx = c.w * 2 / 5, cy = c.h / 2, m = c.h / 12;
    cv::Mat disc = cv::Mat::zeros(c.h, c.w, CV_8U);
    cv::circle(disc, cv::Point(cx, cy), r, cv::Scalar(255), cv::FILLED);
    // Rectangle round the disc only (the square stays outside).
    ASSERT_EQ(doSegmentationBB(c.w, c.h, s.argb.data(), cx - r - m, cy - r - m, cx + r + m, cy + r + m,
                               mask.data()),
              0);
    EXPECT_GT(iou(mask, disc), 0.93);
    // An object stroke across the square only adds; a background one only
    // removes. The stroke's marker codes are painted along its polyline.
    const int sx = c.w * 3 / 4, sy = c.h / 3, side = c.w / 8;
    std::vector<int> across = {sx + side / 4, sy + side / 2, sx + side * 3 / 4, sy + side / 2};
    for (int code : {LABEL_FG, LABEL_BG}) {
      const Bytes before = mask;
      std::vector<int> markers(s.argb.size(), 0);
      cv::line(cv::Mat(c.h, c.w, CV_32S, markers.data()), {across[0], across[1]}, {across[2], across[3]},
               cv::Scalar(code), c.w / 60 + 2);
      setCurrentMarkerVector(4, across.data());
      setMarkerImage(c.w, c.h, markers.data(), code == LABEL_FG ? 2 : 3);
      Pixels blended = s.argb;
      ASSERT_EQ(processSegment(0, 0, 0, blended.data(), mask.data()), 0);
      int added = 0, removed = 0;
      for (size_t i = 0; i < mask.size(); ++i) {
        added += before[i] != 0 && mask[i] == 0;
        removed += before[i] == 0 && mask[i] != 0;
      }
      EXPECT_EQ(code == LABEL_FG ? removed : added, 0);
      EXPECT_GT(code == LABEL_FG ? added : removed, side * side / 2);
      EXPECT_GT(iou(mask, code == LABEL_FG ? s.truth : disc), 0.93);
    }
    EXPECT_EQ(VELDSEManageUndoRedo::m_current, 3);
    deinitSegmentation();
  }
}

// A photo stored over another, without initSegmentationEngine after it,
// leaves an engine whose working image is the old photo's: a cut is refused
// until the engine is built again, and then gives the mask a fresh context
// gives. Cases: the new photo larger (the old one was not reduced, the new
// one is) and smaller.
TEST_F(Requests, CutWithAnEngineOfAnEarlierPhotoIsRefused) {
  const struct { int w0, h0, w1, h1; } cases[] = {{120, 90, 400, 300}, {400, 300, 120, 90}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.w0 << "x" << c.h0 << " then " << c.w1 << "x" << c.h1);
    Scene first = synthetic::makeScene(c.w0, c.h0, false, false);
    Scene second = synthetic::makeScene(c.w1, c.h1, false, false);
    ASSERT_EQ(setSourceImage(c.w0, c.h0, first.argb.data()), 0);
    ASSERT_EQ(initSegmentationEngine(0), 0);
    ASSERT_EQ(setSourceImage(c.w1, c.h1, second.argb.data()), 0);
    const int x1 = c.w1 / 4, y1 = c.h1 / 4, x2 = 3 * c.w1 / 4, y2 = 3 * c.h1 / 4;
    std::vector<int> border = {x1, y1, x2, y1, x2, y2, x1, y2};
    std::vector<int> markers(second.argb.size(), 0);
    for (int y = y1; y <= y2; ++y)
      for (int x = x1; x <= x2; ++x) markers[static_cast<size_t>(y) * c.w1 + x] = LABEL_PR_FG;
    auto cut = [&](Bytes& mask) {
      std::vector<int> points = border;
      setCurrentMarkerVector(static_cast<int>(points.size()), points.data());
      setMarkerImage(c.w1, c.h1, markers.data(), 0);
      Pixels blended = second.argb;
      return processSegment(0, 0, 0, blended.data(), mask.data());
    };
    Bytes mask(second.argb.size(), 77);
    EXPECT_EQ(testsupport::logged([&] { EXPECT_EQ(cut(mask), SEGCORE_FAILED); }),
              testsupport::Lines{"E/Error: processSegment: the engine was built for another photo "
                                 "(initSegmentationEngine first)"});
    EXPECT_EQ(mask, Bytes(mask.size(), 77));
    EXPECT_EQ(g_markerImage, nullptr) << "the refused request consumed its marks";
    ASSERT_EQ(initSegmentationEngine(0), 0);
    ASSERT_EQ(cut(mask), 0);
    // The same cut on a fresh context.
    deinitSegmentation();
    ASSERT_EQ(setSourceImage(c.w1, c.h1, second.argb.data()), 0);
    ASSERT_EQ(initSegmentationEngine(0), 0);
    Bytes fresh(second.argb.size(), 77);
    ASSERT_EQ(cut(fresh), 0);
    EXPECT_EQ(mask, fresh);
    deinitSegmentation();
  }
}

TEST_F(Requests, RectanglePointListAndMarkerBlock) {
  std::mt19937 rng(1);  // strong texture everywhere: the pre-processing trims nothing
  Pixels photo(40 * 40);
  for (unsigned int& p : photo) p = 0xFF000000u | (rng() & 0x00FFFFFFu) | 0x010101u;
  Bytes mask(40 * 40, 77);
  ASSERT_EQ(doSegmentationBB(40, 40, photo.data(), 10, 20, 13, 22, mask.data()), 0);
  const std::vector<int> expected = {10, 20, 11, 20, 12, 20, 13, 20, 13, 21,
                                     13, 22, 12, 22, 11, 22, 10, 22, 10, 21};
  EXPECT_EQ(VELDSEMarker::currentStroke.points, expected);
  // Inside the block the labels are cut to 3 or 4; beyond the band
  // (thickness 3, round ends) everything is background.
  for (int y = 0; y < 40; ++y)
    for (int x = 0; x < 40; ++x) {
      SCOPED_TRACE(::testing::Message() << x << "," << y);
      const int code = testsupport::at(VELDSEMarker::m_labelImage, x, y);
      const int dx = x < 10 ? 10 - x : x > 13 ? x - 13 : 0, dy = y < 20 ? 20 - y : y > 22 ? y - 22 : 0;
      if (dx == 0 && dy == 0) {
        EXPECT_TRUE(code == LABEL_PR_BG || code == LABEL_PR_FG);
      }
      if (dx >= 3 || dy >= 3) {
        EXPECT_TRUE(code == LABEL_BG && mask[y * 40 + x] == 255);
      }
    }
}

// Photos so thin that the reduction would leave no working row or column
// (working image of one pixel across, see EngineInit): a rectangle, an object
// stroke, the outline and an undo all complete. The marks run along the long
// side over a warm object segment in the middle of cool noisy background.
TEST_F(Requests, ThinPhotosGetAResult) {
  const cv::Size shapes[] = {{1, 100000}, {100000, 1}, {3, 400001}, {2, 179065}, {195765, 2}};
  for (const cv::Size& shape : shapes) {
    SCOPED_TRACE(::testing::Message() << shape.width << "x" << shape.height);
    const int w = shape.width, h = shape.height;
    const bool wide = w > h;
    const int length = wide ? w : h, across = wide ? h : w;
    auto index = [&](int along, int side) {
      return wide ? static_cast<size_t>(side) * w + along : static_cast<size_t>(along) * w + side;
    };
    std::mt19937 rng(static_cast<unsigned>(length));
    Pixels photo(static_cast<size_t>(w) * h);
    for (int a = 0; a < length; ++a)
      for (int c = 0; c < across; ++c) {
        const bool object = a >= length * 2 / 5 && a < length * 3 / 5;
        const unsigned n = rng() % 24;
        photo[index(a, c)] =
            0xFF000000u | (object ? (195 + n) << 16 | (60 + n) << 8 | (40 + n)
                                  : (40 + n) << 16 | (120 + n) << 8 | (70 + n + (a / 997) % 30));
      }
    auto point = [&](int along, int side) {
      return wide ? std::vector<int>{along, side} : std::vector<int>{side, along};
    };
    auto expectMask = [&](const Bytes& mask) {
      size_t other = 0;
      for (unsigned char m : mask) other += m != 0 && m != 255;
      EXPECT_EQ(other, 0u);
    };
    auto expectOutline = [&]() {
      int* array = nullptr;
      int count = 0;
      ASSERT_EQ(fetch_path_array(&array, &count), 0);
      ASSERT_TRUE(array != nullptr && count >= 1);
      int k = 1, points = 0;
      for (int c = 0; c < array[0]; ++c) {
        ASSERT_LT(k, count);
        const int m = array[k++];
        for (int i = 0; i < m; ++i, k += 2) {
          ASSERT_LT(k + 1, count);
          EXPECT_TRUE(array[k] >= 0 && array[k] < w && array[k + 1] >= 0 && array[k + 1] < h);
        }
        points += m;
        ASSERT_LT(k, count);
        EXPECT_EQ(array[k++], -1);
      }
      EXPECT_EQ(count, 2 * (array[0] + points) + 1);
      delete[] array;
    };

    const testsupport::Lines log = testsupport::logged([&] {
      // Rectangle round the object segment, the full short side.
      const int a0 = length * 2 / 5 - length / 20, a1 = length * 3 / 5 + length / 20;
      const std::vector<int> p0 = point(a0, 0), p1 = point(a1, across - 1);
      Bytes mask(photo.size(), 77);
      Pixels pixels = photo;
      ASSERT_EQ(doSegmentationBB(w, h, pixels.data(), p0[0], p0[1], p1[0], p1[1], mask.data()), 0);
      expectMask(mask);
      for (int a = 0; a < length; ++a)
        for (int c = 0; c < across; ++c)
          if (a < a0 || a > a1) {
            ASSERT_EQ(mask[index(a, c)], 255) << "object outside the rectangle at " << a;
          }
      expectOutline();

      // An object stroke along the object: it can only add.
      const Bytes before = mask;
      std::vector<int> stroke = point(length / 2 - length / 50, across / 2);
      const std::vector<int> end = point(length / 2 + length / 50, across / 2);
      stroke.insert(stroke.end(), end.begin(), end.end());
      std::vector<int> markers(photo.size(), 0);
      for (int a = length / 2 - length / 50; a <= length / 2 + length / 50; ++a)
        markers[index(a, across / 2)] = LABEL_FG;
      setCurrentMarkerVector(4, stroke.data());
      setMarkerImage(w, h, markers.data(), 2);
      Pixels blended = photo;
      ASSERT_EQ(processSegment(0, 0, 0, blended.data(), mask.data()), 0);
      expectMask(mask);
      for (size_t i = 0; i < mask.size(); ++i)
        ASSERT_FALSE(before[i] == 0 && mask[i] != 0) << "removed at " << i;
      expectOutline();
      EXPECT_EQ(undo(blended.data(), mask.data()), 0);
      EXPECT_EQ(mask, before);
    });
    for (const std::string& line : log) EXPECT_EQ(line.find("MEMORY_CRASH"), std::string::npos) << line;
    deinitSegmentation();
  }
}

// Context with a photo and a history but no engine: enough for edits.
class Edits : public Requests {
 protected:
  void SetUp() override {
    photo.resize(kW * kH);
    for (int i = 0; i < kW * kH; ++i) photo[i] = 0xFF000000u | (i * 2654435761u & 0xFFFFFFu);
    setSourceImage(kW, kH, photo.data());
  }
  // Records `m` (255 = object) as the latest history mask.
  static void record(const cv::Mat& m) {
    IplImage header = cvIplImage(m);
    VELDSEManageUndoRedo::updateBitPlane(&header);
  }
  // Edit request with the given marker codes.
  static void edit(const cv::Mat& codes, Pixels* blended, Bytes* mask) {
    cv::Mat ints;
    codes.convertTo(ints, CV_32S);
    setMarkerImage(kW, kH, ints.ptr<int>(), 2);
    ASSERT_EQ(cutOutImage(0, 0, 0, blended ? blended->data() : nullptr, mask ? mask->data() : nullptr), 0);
  }
  // Pixels where the caller's mask (0 = object) and `m` (255 = object) differ.
  static int differ(const Bytes& mask, const cv::Mat& m) {
    int n = 0;
    for (int i = 0; i < kW * kH; ++i) n += (mask[i] == 0) != (m.data[i] == 255);
    return n;
  }
  static constexpr int kW = 64, kH = 48;
  Pixels photo;
};

TEST_F(Edits, OutlineArrayLayoutAndOneTimeDelivery) {
  cv::Mat shapes = cv::Mat::zeros(kH, kW, CV_8U);
  shapes(cv::Rect(4, 4, 20, 16)).setTo(255);
  shapes(cv::Rect(9, 8, 6, 5)).setTo(0);  // a hole: its own contour in list mode
  cv::circle(shapes, cv::Point(45, 30), 9, cv::Scalar(255), cv::FILLED);
  record(shapes);
  Pixels blended = photo;
  Bytes mask(kW * kH, 77);
  edit(cv::Mat::zeros(kH, kW, CV_8U), &blended, &mask);
  EXPECT_EQ(differ(mask, shapes), 0);

  // Reference: the same contours from the matrix interface.
  std::vector<std::vector<cv::Point>> ref;
  cv::findContours(shapes.clone(), ref, cv::RETR_LIST, cv::CHAIN_APPROX_SIMPLE);
  ASSERT_EQ(ref.size(), 3u);
  std::vector<int> expected = {0, static_cast<int>(ref.size())};  // status 0, then the array
  for (const auto& c : ref) {
    expected.push_back(static_cast<int>(c.size()));
    for (const cv::Point& p : c) expected.insert(expected.end(), {p.x, p.y});
    expected.push_back(-1);
  }
  EXPECT_EQ(testsupport::fetchOutline(), expected);
  EXPECT_EQ(testsupport::fetchOutline(), (std::vector<int>{0, 0})) << "delivered once";

  // Preview: exactly the full-intensity pixels of the anti-aliased outline.
  cv::Mat outline = cv::Mat::zeros(kH, kW, CV_8U);
  cv::drawContours(outline, ref, -1, cv::Scalar(255), 2, cv::LINE_AA);
  for (int i = 0; i < kW * kH; ++i)
    EXPECT_EQ(blended[i], outline.data[i] == 255 ? 0xFFFFFF00u : photo[i]) << i;
  EXPECT_GT(cv::countNonZero(outline == 255), 50);

  // A result without object while an outline is still undelivered: the
  // preview stays as it was, and the outline array is the single 0.
  edit(cv::Mat::zeros(kH, kW, CV_8U), nullptr, nullptr);
  record(cv::Mat::zeros(kH, kW, CV_8U));
  blended.assign(kW * kH, 5u);
  edit(cv::Mat::zeros(kH, kW, CV_8U), &blended, &mask);
  EXPECT_EQ(mask, Bytes(kW * kH, 255));
  EXPECT_EQ(blended, Pixels(kW * kH, 5u));
  EXPECT_EQ(testsupport::fetchOutline(), (std::vector<int>{0, 0}));
}

// Over a megapixel the history, the mask and the preview are written in
// slices side by side: an edit must still deliver every pixel, and an undo
// the recorded mask.
using RequestsLargePhoto = Requests;
TEST_F(RequestsLargePhoto, EditDeliversEveryPixelAndUndoTheRecordedMask) {
  const int w = 1100, h = 1000;
  Pixels photo(static_cast<size_t>(w) * h);
  for (size_t i = 0; i < photo.size(); ++i) photo[i] = 0xFF000000u | (i * 2654435761u & 0xFFFFFFu);
  setSourceImage(w, h, photo.data());
  cv::Mat before = cv::Mat::zeros(h, w, CV_8U);
  cv::circle(before, cv::Point(400, 500), 300, cv::Scalar(255), cv::FILLED);
  IplImage header = cvIplImage(before);
  VELDSEManageUndoRedo::updateBitPlane(&header);
  // Code 1 (background) on a right-hand strip, code 2 (object) across the top
  // (clear of the photo's edge, as the outline's reference needs).
  cv::Mat codes = cv::Mat::zeros(h, w, CV_32S);
  codes(cv::Rect(900, 100, 150, 800)).setTo(1);
  codes(cv::Rect(50, 50, 1000, 250)).setTo(2);
  setMarkerImage(w, h, codes.ptr<int>(), 2);
  Pixels blended = photo;
  Bytes mask(photo.size(), 77);
  ASSERT_EQ(cutOutImage(0, 0, 0, blended.data(), mask.data()), 0);
  cv::Mat after = before.clone();
  after.setTo(0, codes == 1);
  after.setTo(255, codes == 2);
  long wrongMask = 0, wrongPreview = 0;
  cv::Mat outline = cv::Mat::zeros(h, w, CV_8U);
  std::vector<std::vector<cv::Point>> contours;
  cv::findContours(after.clone(), contours, cv::RETR_LIST, cv::CHAIN_APPROX_SIMPLE);
  cv::drawContours(outline, contours, -1, cv::Scalar(255), 2, cv::LINE_AA);
  for (size_t i = 0; i < photo.size(); ++i) {
    wrongMask += (mask[i] == 0) != (after.data[i] == 255);
    wrongPreview += blended[i] != (outline.data[i] == 255 ? 0xFFFFFF00u : photo[i]);
  }
  EXPECT_EQ(wrongMask, 0);
  EXPECT_EQ(wrongPreview, 0);
  ASSERT_EQ(undo(blended.data(), mask.data()), 0);
  long wrongUndo = 0;
  for (size_t i = 0; i < photo.size(); ++i) wrongUndo += (mask[i] == 0) != (before.data[i] == 255);
  EXPECT_EQ(wrongUndo, 0);
}

// An edit of A into B (codes 1 and 2 apply, 3 and 4 are ignored), the history
// steps, then, after a cancel and an exit, an undo, a redo and an edit: each
// delivers its mask, then tears the context down, clears the exit status and
// still returns 0 (a new context with A and B is then opened).
TEST_F(Edits, EditHistoryAndTheirExitTeardown) {
  cv::Mat a = cv::Mat::zeros(kH, kW, CV_8U), b = a.clone();
  a(cv::Rect(5, 5, 20, 10)).setTo(255);
  b(cv::Rect(15, 5, 10, 10)).setTo(255);
  b(cv::Rect(30, 20, 12, 12)).setTo(255);
  record(a);
  cv::Mat codes = cv::Mat::zeros(kH, kW, CV_8U);
  codes(cv::Rect(30, 20, 12, 12)).setTo(LABEL_FG);
  codes(cv::Rect(5, 5, 10, 10)).setTo(LABEL_BG);
  codes(cv::Rect(50, 30, 5, 5)).setTo(LABEL_PR_FG);
  codes(cv::Rect(20, 7, 4, 4)).setTo(LABEL_PR_BG);
  Pixels blended(kW * kH, 0);
  Bytes mask(kW * kH, 77);
  edit(codes, nullptr, &mask);
  EXPECT_EQ(differ(mask, b), 0);
  EXPECT_TRUE(g_markerImage == nullptr && g_resultMask == nullptr);
  IplImage* latest = VELDSEManageUndoRedo::prevMask();
  EXPECT_EQ(cv::countNonZero(cv::cvarrToMat(latest) != b), 0) << "the edit is recorded";
  cvReleaseImage(&latest);
  struct Step {
    const char* name;
    int (*call)(unsigned int*, unsigned char*);
    const cv::Mat* expected;  // null: the plain photo, mask untouched
    int canUndo, canRedo;
    bool exit = false;
  } steps[] = {
      {"undo to A", undo, &a, 0, 1},
      {"undo to the photo", undo, nullptr, 0, 1},
      {"redo to A", redo, &a, 0, 1},
      {"redo to B", redo, &b, 1, 0},
      {"redo at the top", redo, &b, 1, 0},
      {"undo, then teardown", undo, &a, 1, 0, true},
      {"redo at the top, then teardown", redo, &b, 1, 0, true},
      {"edit without marks, then teardown",
       [](unsigned int* p, unsigned char* m) {
         std::vector<int> none(kW * kH, 0);
         setMarkerImage(kW, kH, none.data(), 2);
         return cutOutImage(0, 0, 0, p, m);
       },
       &b, 1, 0, true},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(s.name);
    std::fill(mask.begin(), mask.end(), 77);
    std::fill(blended.begin(), blended.end(), 0u);
    g_exitStatus = 1;  // without a cancel this arms nothing and is cleared
    if (s.exit) cancelSegmentation(), exitSegmentation();
    EXPECT_EQ(s.call(blended.data(), mask.data()), 0);
    EXPECT_EQ(g_exitStatus.load(), 0);
    if (s.expected == nullptr) {
      EXPECT_EQ(mask, Bytes(kW * kH, 77));
      EXPECT_EQ(blended, photo);
    } else {
      EXPECT_EQ(differ(mask, *s.expected), 0);
      EXPECT_GT(std::count(blended.begin(), blended.end(), 0xFFFFFF00u), 20);
    }
    if (s.exit) {
      expectTornDown();
      VELDSEMarker::m_exitApp = false;
      SetUp();
      record(a);
      record(b);
    }
    EXPECT_EQ(std::make_pair(canUndo(), canRedo()), std::make_pair(s.canUndo, s.canRedo));
  }
}

// A cancel and an exit before processSegment: the first cut is abandoned, the
// caller gets the plain photo and -1, the context is torn down and the exit
// status is left for the bridge. Since edits and history steps return 0 after
// such a teardown, a bridge may send its next request into no context at all:
// requests without a context (and an engine start without a photo) are
// refused: logged, -1, the caller's buffers and the library's state untouched.
using ExitProtocol = Requests;

TEST_F(ExitProtocol, RequestsAfterATeardownAreRefused) {
  Scene scene = synthetic::makeScene(240, 180, false);
  setSourceImage(scene.w, scene.h, scene.argb.data());
  ASSERT_EQ(initSegmentationEngine(0), 0);
  std::vector<int> loop = {40, 20, 150, 20, 150, 160, 40, 160}, markers(scene.argb.size(), 0);
  cv::rectangle(cv::Mat(180, 240, CV_32S, markers.data()), cv::Rect(40, 20, 111, 141), cv::Scalar(4),
                cv::FILLED);
  setCurrentMarkerVector(8, loop.data());
  setMarkerImage(240, 180, markers.data(), 0);
  Pixels blended(scene.argb.size(), 0u), plain(scene.argb.size());
  Bytes mask(scene.argb.size(), 77);
  copySourceImage(plain.data());
  cancelSegmentation();
  exitSegmentation();
  EXPECT_EQ(processSegment(0, 0, 0, blended.data(), mask.data()), -1);
  expectTornDown();
  EXPECT_EQ(g_exitStatus.load(), 1) << "left for the bridge to see";
  EXPECT_EQ(blended, plain) << "abandoned cut: the plain photo";
  EXPECT_EQ(mask, Bytes(mask.size(), 77));
  VELDSEMarker::m_exitApp = false;
  g_exitStatus = 0;

  using Call = int (*)(unsigned int*, unsigned char*);
  const std::pair<const char*, Call> calls[] = {
      {"processSegment", [](unsigned int* b, unsigned char* m) { return processSegment(0, 0, 0, b, m); }},
      {"cutOutImage", [](unsigned int* b, unsigned char* m) { return cutOutImage(0, 0, 0, b, m); }},
      {"undo", undo},
      {"redo", redo}};
  for (const auto& [name, call] : calls) {
    SCOPED_TRACE(name);
    blended.assign(blended.size(), 5u);
    mask.assign(mask.size(), 77);
    // The bridge's next request. Each refusal must consume its marker image:
    // the following setMarkerImage overwrites the global, so a kept image
    // would leak (LeakSanitizer fails the sanitizer run on it).
    ASSERT_EQ(setMarkerImage(240, 180, markers.data(), 0), 0);
    ASSERT_NE(g_markerImage, nullptr);
    EXPECT_EQ(testsupport::logged([&] { EXPECT_EQ(call(blended.data(), mask.data()), SEGCORE_FAILED); }),
              testsupport::Lines{"E/Error: " + std::string(name) + ": no segmentation context"});
    EXPECT_EQ(blended, Pixels(blended.size(), 5u));
    EXPECT_EQ(mask, Bytes(mask.size(), 77));
    EXPECT_EQ(g_markerImage, nullptr) << "released like every request's";
    EXPECT_EQ(g_exitStatus.load(), 0);
  }
  freeLocalBuffers();
  EXPECT_EQ(testsupport::logged([] { EXPECT_EQ(initSegmentationEngine(0), SEGCORE_FAILED); }),
            testsupport::Lines{"E/Error: initSegmentationEngine: no photo (setSourceImage first)"});
  EXPECT_EQ(pHybrid, nullptr);
}

}  // namespace
