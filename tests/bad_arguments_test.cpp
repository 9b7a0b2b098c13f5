// Bad arguments and calls out of order through the exported functions.
//
// A refused call returns SEGCORE_FAILED (void calls just return), logs exactly
// one "Error" line "<call>: ..." (after the MEMORY_CRASH lines the bridge has
// always seen for bad sizes), writes nothing into the caller's buffers and
// leaves the photo, the engine, the history and an unfetched outline alone:
// the next good request on the same context gives the very mask it gives
// without the bad call. Values that look odd but are legal (marker codes out
// of range, rectangles outside the photo, negative point counts) go through.
//
// Sizes whose products overflow 32 bits come with a small buffer: the call
// must refuse before it reads a byte, so AddressSanitizer and the 32-bit ARM
// build catch a library that trusts a wrapped product. The refusal itself
// (status, log line, untouched state) is checked on every target, 32- and
// 64-bit alike: the sizes are refused for what they are, not for what their
// product wraps to on one of them.
#include <gmock/gmock.h>

#include <climits>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "interface/segmentation_core.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"
#include "tests/synthetic_scene.h"
#include "tests/test_support.h"

namespace {

using synthetic::Bytes;
using synthetic::Pixels;
using ::testing::ElementsAreArray;
using ::testing::Matcher;
using ::testing::StartsWith;
using testsupport::Lines;

constexpr int kW = 48, kH = 36;
constexpr int kPixels = kW * kH;
constexpr unsigned int kPixelSentinel = 0x5A5A5A5Au;
constexpr unsigned char kByteSentinel = 77;
constexpr int kCountSentinel = -12345;
// Status column of a void call: its row only looks at the log and buffers.
constexpr int kNoStatus = 1000;
int arrayTarget = 0;
int* const kArraySentinel = &arrayTarget;  // no library hands out this pointer

const synthetic::Scene& scene() {
  static const synthetic::Scene s = synthetic::makeScene(kW, kH, false, true);
  return s;
}

// Where a row starts.
enum class State {
  kNone,            // no photo, no engine
  kPhoto,           // setSourceImage only
  kEngine,          // photo and engine, no result yet
  kAfterRectangle,  // right after doSegmentationBB
  kResult,          // a rectangle, two strokes and an undo: undo and redo both possible
  kTornDown,        // kResult, then deinitSegmentation
};

const char* stateName(State s) {
  switch (s) {
    case State::kNone: return "no photo";
    case State::kPhoto: return "photo only";
    case State::kEngine: return "engine";
    case State::kAfterRectangle: return "after a rectangle";
    case State::kResult: return "with a result";
    case State::kTornDown: return "torn down";
  }
  return "?";
}

// The rectangle round the disc (radius kH / 4 at (2 kW / 5, kH / 2)).
constexpr int kRectX1 = 8, kRectY1 = 7, kRectX2 = 30, kRectY2 = 29;

// An object stroke across the square at (3 kW / 4, kH / 3), side kW / 8.
std::vector<int> strokePoints() { return {37, 15, 41, 15}; }

// The stroke's marker grid: `code` along the polyline, and `extra` in a block
// in the top-left corner (0 leaves the block unknown).
std::vector<int> strokeGrid(int code, int extra = 0) {
  std::vector<int> grid(kPixels, LABEL_UNKNOWN);
  cv::Mat m(kH, kW, CV_32S, grid.data());
  cv::line(m, {37, 15}, {41, 15}, cv::Scalar(code), 2);
  if (extra != 0) m(cv::Rect(2, 2, 8, 5)).setTo(cv::Scalar(extra));
  return grid;
}

Pixels photoCopy() { return scene().argb; }

struct Outcome {
  int status = 0;
  Bytes mask = Bytes(kPixels, kByteSentinel);
  Pixels blended = Pixels(kPixels, kPixelSentinel);
};

// The good request every row ends with: a loop round the disc, marked as the
// bridge marks a rectangle (its border as the stroke, probable object
// inside). It builds the context first where there is none.
Outcome goodRequest() {
  Pixels photo = photoCopy();
  if (VELDSEMarker::m_originalImage == nullptr) setSourceImage(kW, kH, photo.data());
  if (pHybrid == nullptr) initSegmentationEngine(0);
  std::vector<int> points = testsupport::borderLoop(kRectX1, kRectY1, kRectX2, kRectY2);
  std::vector<int> grid = testsupport::filledGrid(kW, kH, kRectX1, kRectY1, kRectX2, kRectY2, LABEL_PR_FG);
  setCurrentMarkerVector(static_cast<int>(points.size()), points.data());
  setMarkerImage(kW, kH, grid.data(), 0);
  Outcome o;
  o.status = processSegment(0, 0, 0, o.blended.data(), o.mask.data());
  return o;
}

// An object stroke across the square.
int objectStroke() {
  std::vector<int> points = strokePoints();
  std::vector<int> grid = strokeGrid(LABEL_FG);
  setCurrentMarkerVector(static_cast<int>(points.size()), points.data());
  setMarkerImage(kW, kH, grid.data(), 2);
  Outcome o;
  return processSegment(0, 0, 0, o.blended.data(), o.mask.data());
}

// A background stroke over part of the disc.
int backgroundStroke() {
  std::vector<int> points = {12, 18, 20, 18};
  std::vector<int> grid(kPixels, LABEL_UNKNOWN);
  cv::line(cv::Mat(kH, kW, CV_32S, grid.data()), {12, 18}, {20, 18}, cv::Scalar(LABEL_BG), 2);
  setCurrentMarkerVector(static_cast<int>(points.size()), points.data());
  setMarkerImage(kW, kH, grid.data(), 3);
  Outcome o;
  return processSegment(0, 0, 0, o.blended.data(), o.mask.data());
}

void clearContext() {
  deinitSegmentation();
  freeLocalBuffers();
  resetSegmentationInterface();
  VELDSEMarker::m_exitApp = false;
  g_exitStatus = 0;
}

void setUp(State state) {
  clearContext();
  Pixels photo = photoCopy();
  Bytes mask(kPixels);
  switch (state) {
    case State::kNone: break;
    case State::kPhoto: ASSERT_EQ(setSourceImage(kW, kH, photo.data()), 0); break;
    case State::kEngine:
      ASSERT_EQ(setSourceImage(kW, kH, photo.data()), 0);
      ASSERT_EQ(initSegmentationEngine(0), 0);
      break;
    case State::kAfterRectangle:
      ASSERT_EQ(doSegmentationBB(kW, kH, photo.data(), kRectX1, kRectY1, kRectX2, kRectY2, mask.data()), 0);
      break;
    case State::kResult:
    case State::kTornDown: {
      ASSERT_EQ(doSegmentationBB(kW, kH, photo.data(), kRectX1, kRectY1, kRectX2, kRectY2, mask.data()), 0);
      ASSERT_EQ(objectStroke(), 0);
      ASSERT_EQ(backgroundStroke(), 0);
      Outcome o;
      ASSERT_EQ(undo(o.blended.data(), o.mask.data()), 0);
      if (state == State::kTornDown) {
        ASSERT_EQ(deinitSegmentation(), 0);
      }
      break;
    }
  }
}

// What a refused call must leave as it was: photo, engine, history planes,
// photo width and height, history indices (current, top, bottom), canUndo and
// canRedo.
using Snapshot = std::tuple<const IplImage*, const VELDSEHybrid*, const unsigned int* const*, int, int, int,
                            int, int, int, int>;

Snapshot snapshot() {
  return Snapshot(VELDSEMarker::m_originalImage, pHybrid, VELDSEManageUndoRedo::m_bitPlane,
                  VELDSEMarker::m_originalWidth, VELDSEMarker::m_originalHeight,
                  VELDSEManageUndoRedo::m_current, VELDSEManageUndoRedo::m_top,
                  VELDSEManageUndoRedo::m_bottom, canUndo(), canRedo());
}

// What a state gives without any bad call: its outline, then the good request.
struct Reference {
  std::vector<int> outline;
  Outcome request;
};

const Reference& reference(State state) {
  static std::map<State, Reference> cache;
  auto found = cache.find(state);
  if (found != cache.end()) return found->second;
  setUp(state);
  Reference r;
  r.outline = testsupport::fetchOutline();
  r.request = goodRequest();
  clearContext();
  return cache.emplace(state, r).first->second;
}

// Only 0 and 255.
bool twoValued(const Bytes& mask) {
  return std::all_of(mask.begin(), mask.end(), [](unsigned char v) { return v == 0 || v == 255; });
}

// Either left alone entirely or only 0 and 255.
bool untouchedOrTwoValued(const Bytes& mask) {
  const bool untouched =
      std::all_of(mask.begin(), mask.end(), [](unsigned char v) { return v == kByteSentinel; });
  return untouched || twoValued(mask);
}

template <typename T>
int differing(const std::vector<T>& a, const std::vector<T>& b) {
  if (a.size() != b.size()) return -1;
  int n = 0;
  for (size_t i = 0; i < a.size(); ++i) n += a[i] != b[i];
  return n;
}

// The caller's buffers of one row, each filled with a sentinel. The small
// ones go with sizes that are refused before anything is read.
const std::vector<int> kCoords = {-5, 1000, 70, -3, 2000, 9};
struct Buffers {
  Pixels photo = photoCopy();
  Pixels smallPhoto = Pixels(16, 0xFF808080u);
  std::vector<int> smallMarkers = std::vector<int>(16, LABEL_FG);
  std::vector<int> markers = strokeGrid(LABEL_FG);
  std::vector<int> coords = kCoords;
  Pixels blended = Pixels(kPixels, kPixelSentinel);
  Bytes mask = Bytes(kPixels, kByteSentinel);
  Pixels copy = Pixels(kPixels, kPixelSentinel);
  int* array = kArraySentinel;
  int count = kCountSentinel;
};

void expectUntouched(const Buffers& b) {
  EXPECT_EQ(differing(b.blended, Pixels(kPixels, kPixelSentinel)), 0);
  EXPECT_EQ(differing(b.mask, Bytes(kPixels, kByteSentinel)), 0);
  EXPECT_EQ(differing(b.copy, Pixels(kPixels, kPixelSentinel)), 0);
  EXPECT_EQ(b.coords, kCoords);
  EXPECT_EQ(b.array, kArraySentinel);
  EXPECT_EQ(b.count, kCountSentinel);
}

enum class Effect {
  kRefused,  // SEGCORE_FAILED (or a void call's log line), nothing changes
  kKeeps,    // legal, and leaves history, photo, engine and outline alone
  kChanges,  // legal, and starts a new result or context
};

struct Row {
  std::string what;  // starts with the call's name, the "<call>: " of its log line
  State state;
  std::function<int(Buffers&)> call;
  Effect effect = Effect::kRefused;
  int status = SEGCORE_FAILED;  // kNoStatus for void calls
  Lines crashLines = {};        // logged before the refusal (or, for a legal row, all it logs), exactly
  bool someCrashLines = false;  // MEMORY_CRASH lines of the calls it wraps may come first
  std::function<void(Buffers&)> check = nullptr;  // what a legal row writes
  std::function<void(Buffers&)> twin = nullptr;   // a legal call with the same result
};

std::string crashLine(const char* function, int line) {
  return "E/Error: MEMORY_CRASH : " + std::string(function) + " " + std::to_string(line);
}
const Lines kSourceCrash = {crashLine("setSourceImage", 115)};
const Lines kMarkerCrash = {crashLine("setMarkerImage", 164), crashLine("setMarkerImage", 173)};

template <typename F>
std::function<int(Buffers&)> voidCall(F f) {
  return [f](Buffers& b) {
    f(b);
    return kNoStatus;
  };
}

// A void call refused: its log line, nothing else.
template <typename F>
Row refusedVoid(std::string what, State state, F f) {
  return {std::move(what), state, voidCall(f), Effect::kRefused, kNoStatus};
}

std::string sizeName(const char* call, int w, int h) {
  return std::string(call) + " " + std::to_string(w) + " x " + std::to_string(h);
}

// Runs every row from its state and checks the contract.
void runRows(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message() << row.what << " (" << stateName(row.state) << ")");
    const Reference& ref = reference(row.state);
    setUp(row.state);
    if (::testing::Test::HasFatalFailure()) return;
    const Snapshot before = snapshot();
    Buffers b;
    hostlog::startCapture();
    const int status = row.call(b);
    Lines log = testsupport::lines(hostlog::stopCapture());
    EXPECT_EQ(status, row.status);

    const std::string prefix = "E/Error: " + row.what.substr(0, row.what.find(' ')) + ": ";
    if (row.effect == Effect::kRefused) {
      if (row.someCrashLines) {
        while (!log.empty() && log.front().rfind("E/Error: MEMORY_CRASH : ", 0) == 0) log.erase(log.begin());
      }
      std::vector<Matcher<std::string>> expected(row.crashLines.begin(), row.crashLines.end());
      expected.push_back(StartsWith(prefix));
      EXPECT_THAT(log, ElementsAreArray(expected));
      expectUntouched(b);
    } else {
      EXPECT_THAT(log, ::testing::Not(::testing::Contains(StartsWith(prefix))));
      if (!row.crashLines.empty()) {
        EXPECT_EQ(log, row.crashLines);
      }
      if (row.check) row.check(b);
    }

    if (row.effect != Effect::kChanges) {
      EXPECT_EQ(snapshot(), before);
      if (VELDSEMarker::m_originalImage != nullptr) {
        Pixels copy(kPixels, kPixelSentinel);
        copySourceImage(copy.data());
        EXPECT_EQ(differing(copy, scene().argb), 0) << "the stored photo";
      }
      EXPECT_EQ(testsupport::fetchOutline(), ref.outline);
      const Outcome after = goodRequest();
      EXPECT_EQ(after.status, ref.request.status);
      EXPECT_EQ(differing(after.mask, ref.request.mask), 0);
      EXPECT_EQ(differing(after.blended, ref.request.blended), 0);
    } else {
      const Outcome after = goodRequest();
      EXPECT_EQ(after.status, 0);
      EXPECT_TRUE(twoValued(after.mask));
    }

    if (row.twin) {
      setUp(row.state);
      Buffers t;
      row.twin(t);
      EXPECT_EQ(differing(b.mask, t.mask), 0) << "against the same call with legal values";
    }
    clearContext();
  }
}

class BadArguments : public ::testing::Test {
 protected:
  void TearDown() override { clearContext(); }
};

// The good request cuts something on every state, so comparing against it
// means something.
TEST_F(BadArguments, ReferenceRequestsDeliverACut) {
  for (State s : {State::kNone, State::kPhoto, State::kEngine, State::kAfterRectangle, State::kResult,
                  State::kTornDown}) {
    SCOPED_TRACE(stateName(s));
    const Reference& ref = reference(s);
    EXPECT_EQ(ref.request.status, 0);
    EXPECT_TRUE(twoValued(ref.request.mask));
    EXPECT_GT(std::count(ref.request.mask.begin(), ref.request.mask.end(), 0), 20);
  }
  setUp(State::kResult);
  EXPECT_EQ(canUndo(), 1);
  EXPECT_EQ(canRedo(), 1);
  EXPECT_GT(reference(State::kResult).outline.size(), 2u) << "an outline awaits fetching";
}

Row sourceSize(int w, int h, State state = State::kResult) {
  return {sizeName("setSourceImage", w, h),
          state,
          [w, h](Buffers& b) { return setSourceImage(w, h, b.smallPhoto.data()); },
          Effect::kRefused,
          SEGCORE_FAILED,
          w < 1 || h < 1 ? kSourceCrash : Lines{}};
}

Row markerSize(int w, int h, State state = State::kResult) {
  return {sizeName("setMarkerImage", w, h),
          state,
          [w, h](Buffers& b) { return setMarkerImage(w, h, b.smallMarkers.data(), 2); },
          Effect::kRefused,
          SEGCORE_FAILED,
          w < 1 || h < 1 ? kMarkerCrash : Lines{}};
}

// A grid with a side of 0 is logged and stored; it changes nothing else, and
// the next marks replace it.
Row emptyMarkerGrid(int w, int h, bool nullMarkers, State state = State::kResult) {
  return {sizeName("setMarkerImage", w, h) + (nullMarkers ? ", null" : ""),
          state,
          [w, h, nullMarkers](Buffers& b) {
            return setMarkerImage(w, h, nullMarkers ? nullptr : b.smallMarkers.data(), 2);
          },
          Effect::kKeeps,
          0,
          kMarkerCrash,
          false,
          [w, h](Buffers&) {
            ASSERT_NE(g_markerImage, nullptr);
            EXPECT_EQ(g_markerImage->width, w);
            EXPECT_EQ(g_markerImage->height, h);
          }};
}

Row rectangleSize(int w, int h) {
  return {
      sizeName("doSegmentationBB", w, h),
      State::kResult,
      [w, h](Buffers& b) { return doSegmentationBB(w, h, b.smallPhoto.data(), 0, 0, 3, 3, b.mask.data()); },
      Effect::kRefused,
      SEGCORE_FAILED,
      {},
      true};
}

using WH = std::pair<int, int>;

TEST_F(BadArguments, NegativeOrTooLargeSizesAreRefused) {
  std::vector<Row> rows;
  for (WH wh : {WH(-1, kH), WH(kW, -1), WH(-1, -1), WH(0, -1), WH(-1, 0), WH(INT_MIN, kH), WH(kW, INT_MIN),
                WH(0, INT_MIN), WH(70000, 70000), WH(65536, 65536), WH(32768, 32768), WH(46341, 46341),
                WH(INT_MAX, 2), WH(2, INT_MAX), WH(INT_MAX, INT_MAX), WH(715827883, 1), WH(1, 715827883)}) {
    rows.push_back(sourceSize(wh.first, wh.second));
  }
  rows.push_back(sourceSize(-1, -1, State::kNone));
  rows.push_back(sourceSize(0, -5, State::kNone));
  rows.push_back(sourceSize(65536, 65536, State::kNone));
  for (WH wh :
       {WH(-1, kH), WH(kW, -1), WH(-1, -1), WH(0, -1), WH(-1, 0), WH(INT_MIN, INT_MIN), WH(70000, 70000),
        WH(65536, 65536), WH(32768, 32768), WH(23171, 23171), WH(INT_MAX, 2), WH(536870913, 1)}) {
    rows.push_back(markerSize(wh.first, wh.second));
  }
  rows.push_back(markerSize(-3, 5, State::kNone));
  for (WH wh : {WH(0, kH), WH(kW, 0), WH(0, 0)}) {
    for (bool null : {false, true}) {
      rows.push_back(emptyMarkerGrid(wh.first, wh.second, null));
      rows.push_back(emptyMarkerGrid(wh.first, wh.second, null, State::kNone));
    }
  }
  for (WH wh : {WH(0, kH), WH(kW, 0), WH(-5, -5), WH(INT_MIN, INT_MIN), WH(70000, 70000), WH(65536, 65536),
                WH(32768, 32768), WH(INT_MAX, 2), WH(715827883, 1)}) {
    rows.push_back(rectangleSize(wh.first, wh.second));
  }
  runRows(rows);
}

TEST_F(BadArguments, NullBuffersAreRefused) {
  auto marks = [](Buffers& b) {
    std::vector<int> points = strokePoints();
    setCurrentMarkerVector(static_cast<int>(points.size()), points.data());
    setMarkerImage(kW, kH, b.markers.data(), 2);
  };
  const State R = State::kResult;
  const std::vector<Row> rows = {
      {"setSourceImage null pixels", R, [](Buffers&) { return setSourceImage(kW, kH, nullptr); }},
      {"setSourceImage null pixels, negative width", R,
       [](Buffers&) { return setSourceImage(-1, kH, nullptr); }, Effect::kRefused, SEGCORE_FAILED,
       kSourceCrash},
      {"setSourceImage null pixels, no photo yet", State::kNone,
       [](Buffers&) { return setSourceImage(kW, kH, nullptr); }},
      refusedVoid("copySourceImage null", R, [](Buffers&) { copySourceImage(nullptr); }),
      {"setMarkerImage null markers", R, [](Buffers&) { return setMarkerImage(kW, kH, nullptr, 2); }},
      {"setMarkerImage null markers, no height", R,
       [](Buffers&) { return setMarkerImage(kW, -1, nullptr, 2); }, Effect::kRefused, SEGCORE_FAILED,
       kMarkerCrash},
      {"setCurrentMarkerVector 4, null", R, [](Buffers&) { return setCurrentMarkerVector(4, nullptr); }},
      {"setCurrentMarkerVector INT_MAX - 1, null", R,
       [](Buffers&) { return setCurrentMarkerVector(INT_MAX - 1, nullptr); }},
      {"processSegment null blended", R,
       [marks](Buffers& b) { return marks(b), processSegment(0, 0, 0, nullptr, b.mask.data()); }},
      {"processSegment null mask", R,
       [marks](Buffers& b) { return marks(b), processSegment(0, 0, 0, b.blended.data(), nullptr); }},
      {"processSegment both null", State::kEngine,
       [marks](Buffers& b) { return marks(b), processSegment(0, 0, 0, nullptr, nullptr); }},
      {"doSegmentationBB null pixels", R,
       [](Buffers& b) { return doSegmentationBB(kW, kH, nullptr, 1, 1, 20, 20, b.mask.data()); }},
      {"doSegmentationBB null mask", R,
       [](Buffers& b) { return doSegmentationBB(kW, kH, b.photo.data(), 1, 1, 20, 20, nullptr); }},
      refusedVoid("loadMaskImageInfo null", R, [](Buffers&) { loadMaskImageInfo(nullptr); }),
      refusedVoid("loadBlendedImageInfo null", R, [](Buffers&) { loadBlendedImageInfo(nullptr); }),
      {"fetch_path_array null array", R, [](Buffers& b) { return fetch_path_array(nullptr, &b.count); }},
      {"fetch_path_array null count", R, [](Buffers& b) { return fetch_path_array(&b.array, nullptr); }},
      {"fetch_path_array both null", R, [](Buffers&) { return fetch_path_array(nullptr, nullptr); }},
      {"undo null blended", R, [](Buffers& b) { return undo(nullptr, b.mask.data()); }},
      {"undo null mask", R, [](Buffers& b) { return undo(b.blended.data(), nullptr); }},
      {"redo null blended", R, [](Buffers& b) { return redo(nullptr, b.mask.data()); }},
      {"redo null mask", R, [](Buffers& b) { return redo(b.blended.data(), nullptr); }},
  };
  runRows(rows);
}

TEST_F(BadArguments, OddCountsAndModesOutsideZeroToThreeAreRefused) {
  std::vector<Row> rows;
  for (int count : {1, 3, 5, INT_MAX}) {
    rows.push_back({"setCurrentMarkerVector odd count " + std::to_string(count), State::kResult,
                    [count](Buffers& b) { return setCurrentMarkerVector(count, b.coords.data()); }});
  }
  for (int mode : {-1, 4, 5, 255, INT_MIN, INT_MAX}) {
    rows.push_back({"setMarkerImage mode " + std::to_string(mode), State::kResult,
                    [mode](Buffers& b) { return setMarkerImage(kW, kH, b.markers.data(), mode); }});
  }
  runRows(rows);
}

// count < 1 empties the stroke without looking at the coordinates.
TEST_F(BadArguments, CountsBelowOneEmptyTheStroke) {
  std::vector<Row> rows;
  for (int count : {0, -1, -2, -3, -4, INT_MIN}) {
    for (bool null : {false, true}) {
      rows.push_back({"setCurrentMarkerVector " + std::to_string(count) + (null ? ", null" : ""),
                      State::kResult,
                      [count, null](Buffers& b) {
                        std::vector<int> points = strokePoints();
                        setCurrentMarkerVector(static_cast<int>(points.size()), points.data());
                        return setCurrentMarkerVector(count, null ? nullptr : b.coords.data());
                      },
                      Effect::kKeeps,
                      0,
                      {},
                      false,
                      [](Buffers& b) {
                        EXPECT_EQ(b.coords, kCoords);
                        EXPECT_TRUE(VELDSEMarker::currentStroke.points.empty());
                      }});
    }
  }
  runRows(rows);
}

TEST_F(BadArguments, CallsOutOfOrderAreRefused) {
  auto request = [](const char* name, State s, int w, int h, bool process) -> Row {
    return {w == kW && h == kH ? name : sizeName(name, w, h) + " marker grid",
            s,
            [w, h, process](Buffers& b) {
              std::vector<int> grid(static_cast<size_t>(w) * h, LABEL_FG);
              std::vector<int> points = strokePoints();
              setCurrentMarkerVector(static_cast<int>(points.size()), points.data());
              setMarkerImage(w, h, grid.data(), 2);
              return process ? processSegment(0, 0, 0, b.blended.data(), b.mask.data())
                             : cutOutImage(0, 0, 0, b.blended.data(), b.mask.data());
            },
            Effect::kRefused,
            SEGCORE_FAILED,
            w < 1 || h < 1 ? kMarkerCrash : Lines{}};
  };
  auto loadMask = [](State s) {
    return refusedVoid("loadMaskImageInfo", s, [](Buffers& b) { loadMaskImageInfo(b.mask.data()); });
  };
  auto loadBlended = [](State s) {
    return refusedVoid("loadBlendedImageInfo", s, [](Buffers& b) { loadBlendedImageInfo(b.blended.data()); });
  };
  auto noOutline = [](State s) -> Row {
    return {"fetch_path_array without an outline",
            s,
            [](Buffers& b) { return fetch_path_array(&b.array, &b.count); },
            Effect::kKeeps,
            0,
            {},
            false,
            [](Buffers& b) {
              ASSERT_NE(b.array, kArraySentinel);
              EXPECT_EQ(b.count, 1);
              EXPECT_EQ(b.array[0], 0);
              delete[] b.array;
            }};
  };
  auto undoCall = [](Buffers& b) { return undo(b.blended.data(), b.mask.data()); };
  auto redoCall = [](Buffers& b) { return redo(b.blended.data(), b.mask.data()); };
  auto initCall = [](Buffers&) { return initSegmentationEngine(0); };
  const State N = State::kNone, T = State::kTornDown;
  const std::vector<Row> rows = {
      request("processSegment", N, kW, kH, true),
      request("cutOutImage", N, kW, kH, false),
      {"undo", N, undoCall},
      {"redo", N, redoCall},
      loadMask(N),
      loadBlended(N),
      {"initSegmentationEngine", N, initCall},
      noOutline(N),
      {"copySourceImage without a photo",
       N,
       voidCall([](Buffers& b) { copySourceImage(b.copy.data()); }),
       Effect::kKeeps,
       kNoStatus,
       {},
       false,
       [](Buffers& b) { EXPECT_EQ(differing(b.copy, Pixels(kPixels, kPixelSentinel)), 0); }},
      {"canUndo without a photo", N, [](Buffers&) { return canUndo(); }, Effect::kKeeps, 0},
      {"canRedo without a photo", N, [](Buffers&) { return canRedo(); }, Effect::kKeeps, 0},
      request("processSegment", State::kPhoto, kW, kH, true),
      {"cutOutImage without a marker grid", State::kEngine,
       [](Buffers& b) { return cutOutImage(0, 0, 0, b.blended.data(), b.mask.data()); }},
      request("processSegment", State::kEngine, 10, 10, true),
      request("processSegment", State::kResult, kW + 1, kH, true),
      request("processSegment", State::kResult, kW, kH - 1, true),
      request("cutOutImage", State::kEngine, 10, 10, false),
      request("cutOutImage", State::kResult, kH, kW, false),
      request("processSegment", State::kResult, 0, kH, true),
      request("processSegment", State::kEngine, 0, 0, true),
      request("cutOutImage", State::kResult, kW, 0, false),
      loadMask(State::kAfterRectangle),
      loadBlended(State::kAfterRectangle),
      loadMask(State::kResult),
      loadBlended(State::kResult),
      request("processSegment", T, kW, kH, true),
      request("cutOutImage", T, kW, kH, false),
      {"undo", T, undoCall},
      {"redo", T, redoCall},
      {"initSegmentationEngine", T, initCall},
      noOutline(T),
  };
  runRows(rows);
}

// A photo with a side of 0 is logged and stored: it replaces the photo held,
// and the history is sized to it and emptied (the engine of the old photo
// stays). Every later call that needs pixels refuses it, and a request still
// consumes its marks.
TEST_F(BadArguments, EmptyPhotoIsStoredAndRefusedByEveryCallThatNeedsPixels) {
  struct Size {
    int w, h;
  };
  struct Follow {
    const char* name;
    bool marks;  // a request that is sent marks first
    std::function<int(Buffers&)> call;
  };
  const std::vector<Follow> follows = {
      {"initSegmentationEngine", false, [](Buffers&) { return initSegmentationEngine(0); }},
      {"processSegment", true,
       [](Buffers& b) { return processSegment(0, 0, 0, b.blended.data(), b.mask.data()); }},
      {"cutOutImage", true, [](Buffers& b) { return cutOutImage(0, 0, 0, b.blended.data(), b.mask.data()); }},
      {"undo", false, [](Buffers& b) { return undo(b.blended.data(), b.mask.data()); }},
      {"redo", false, [](Buffers& b) { return redo(b.blended.data(), b.mask.data()); }},
  };
  for (State state : {State::kPhoto, State::kEngine, State::kResult}) {
    for (Size size : std::vector<Size>{{0, kH}, {kW, 0}, {0, 0}, {0, 1}, {0, INT_MAX}}) {
      for (bool null : {false, true}) {
        for (const Follow& follow : follows) {
          SCOPED_TRACE(::testing::Message() << size.w << " x " << size.h << (null ? ", null pixels" : "")
                                            << " (" << stateName(state) << "), then " << follow.name);
          setUp(state);
          if (::testing::Test::HasFatalFailure()) return;
          const Snapshot before = snapshot();
          Buffers b;
          hostlog::startCapture();
          const int stored = setSourceImage(size.w, size.h, null ? nullptr : b.smallPhoto.data());
          EXPECT_EQ(testsupport::lines(hostlog::stopCapture()), kSourceCrash);
          EXPECT_EQ(stored, 0);
          ASSERT_NE(VELDSEMarker::m_originalImage, nullptr);
          EXPECT_NE(VELDSEMarker::m_originalImage, std::get<0>(before)) << "the photo is replaced";
          EXPECT_EQ(VELDSEMarker::m_originalImage->width, size.w);
          EXPECT_EQ(VELDSEMarker::m_originalImage->height, size.h);
          EXPECT_EQ(VELDSEMarker::m_originalWidth, size.w);
          EXPECT_EQ(VELDSEMarker::m_originalHeight, size.h);
          EXPECT_EQ(pHybrid, std::get<1>(before)) << "the engine is not the photo's business";
          EXPECT_EQ(canUndo(), 0);
          EXPECT_EQ(canRedo(), 0);
          EXPECT_EQ(b.smallPhoto, Pixels(16, 0xFF808080u)) << "the caller's pixels";

          if (follow.marks) {
            std::vector<int> points = strokePoints();
            setCurrentMarkerVector(static_cast<int>(points.size()), points.data());
            ASSERT_EQ(setMarkerImage(kW, kH, b.markers.data(), 2), 0);
          }
          const Snapshot stillEmpty = snapshot();
          hostlog::startCapture();
          const int status = follow.call(b);
          const Lines log = testsupport::lines(hostlog::stopCapture());
          EXPECT_EQ(status, SEGCORE_FAILED);
          // processSegment needs the engine before it looks at the photo.
          const bool noEngine = std::string(follow.name) == "processSegment" && state == State::kPhoto;
          const std::string problem =
              noEngine ? "no segmentation context"
                       : "empty photo (" + std::to_string(size.w) + " x " + std::to_string(size.h) + ")";
          EXPECT_EQ(log, Lines{"E/Error: " + std::string(follow.name) + ": " + problem});
          expectUntouched(b);
          EXPECT_EQ(snapshot(), stillEmpty);
          EXPECT_EQ(g_markerImage, nullptr) << "a request consumes its marks";
          clearContext();
        }
      }
    }
  }
}

// Codes outside 0-4 saturate to 0..255 and act as unknown: the cut is the
// one of the same grid with the block left unknown.
TEST_F(BadArguments, MarkerCodesOutsideZeroToFourActAsUnknown) {
  auto cut = [](int extra) {
    return [extra](Buffers& b) {
      std::vector<int> points = strokePoints();
      std::vector<int> grid = strokeGrid(LABEL_FG, extra);
      setCurrentMarkerVector(static_cast<int>(points.size()), points.data());
      const int set = setMarkerImage(kW, kH, grid.data(), 2);
      const int cut = processSegment(0, 0, 0, b.blended.data(), b.mask.data());
      return set != 0 ? set : cut;
    };
  };
  std::vector<Row> rows;
  for (int code : {-7, -1, 5, 255, 256, 300, INT_MIN, INT_MAX}) {
    rows.push_back({"setMarkerImage with code " + std::to_string(code),
                    State::kResult,
                    cut(code),
                    Effect::kChanges,
                    0,
                    {},
                    false,
                    [](Buffers& b) { EXPECT_TRUE(twoValued(b.mask)); },
                    [cut](Buffers& b) { cut(0)(b); }});
  }
  runRows(rows);
}

// Rectangles are taken as given: inverted, empty or outside the photo they
// must not crash, and a mask that comes back holds only 0 and 255 (an empty
// selection may leave the mask as it was, like an abandoned cut).
TEST_F(BadArguments, OddRectanglesAreCutOrLeftAlone) {
  std::vector<Row> rows;
  for (cv::Vec4i r :
       {cv::Vec4i(30, 5, 10, 30), cv::Vec4i(10, 30, 30, 5), cv::Vec4i(30, 30, 10, 5),
        cv::Vec4i(10, 10, 10, 10), cv::Vec4i(10, 5, 10, 30), cv::Vec4i(5, 10, 30, 10),
        cv::Vec4i(0, 0, kW - 1, kH - 1), cv::Vec4i(-1, -1, kW, kH), cv::Vec4i(-10, -10, 30, 20),
        cv::Vec4i(100, 100, 200, 200), cv::Vec4i(-50, -50, -10, -10), cv::Vec4i(kW, 0, kW + 10, kH - 1),
        cv::Vec4i(INT_MIN, INT_MIN, INT_MAX, INT_MAX), cv::Vec4i(INT_MAX, INT_MAX, INT_MIN, INT_MIN),
        cv::Vec4i(INT_MIN, 5, 30, INT_MAX), cv::Vec4i(5, INT_MIN, INT_MAX, 20),
        cv::Vec4i(INT_MAX - 1, INT_MAX - 1, INT_MAX, INT_MAX),
        cv::Vec4i(INT_MIN, INT_MIN, INT_MIN + 1, INT_MIN + 1)}) {
    rows.push_back({"doSegmentationBB (" + std::to_string(r[0]) + ", " + std::to_string(r[1]) + ") - (" +
                        std::to_string(r[2]) + ", " + std::to_string(r[3]) + ")",
                    State::kResult,
                    [r](Buffers& b) {
                      return doSegmentationBB(kW, kH, b.photo.data(), r[0], r[1], r[2], r[3], b.mask.data());
                    },
                    Effect::kChanges,
                    0,
                    {},
                    false,
                    [](Buffers& b) { EXPECT_TRUE(untouchedOrTwoValued(b.mask)); }});
  }
  runRows(rows);
}

}  // namespace
