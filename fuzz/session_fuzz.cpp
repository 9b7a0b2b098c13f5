// libFuzzer target: drives the exported functions the way the app's bridge
// does, one call at a time, with hostile but legal input - photos from 1 x 1
// up to 400 x 300, random marker grids and marking modes, stroke points far
// outside the photo, empty and one-point strokes, requests in any order
// (edits before a result, undo and redo past both ends of the history, resets
// between requests, cancel and exit between requests, requests after a
// teardown).
//
// Besides the sanitizers, the target checks what the bridge relies on:
// return codes, masks that hold only 0 and 255, an outline array whose layout
// matches its length and whose points lie in the photo, and teardown exactly
// when a cancel and an exit were both requested.
#include <android/log.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "interface/segmentation_core.h"

namespace {

constexpr int kMaxWidth = 400;
constexpr int kMaxHeight = 300;
constexpr int kMaxSteps = 10;
constexpr unsigned char kUntouched = 77;

[[noreturn]] void fail(const char* what, int step) {
  std::fprintf(stderr, "session_fuzz: %s (step %d)\n", what, step);
  std::abort();
}

#define CHECK(cond, step) \
  do {                    \
    if (!(cond)) fail(#cond, step); \
  } while (0)

// SESSION_FUZZ_TRACE=1 prints every call with its duration (for replaying a
// reproducer by hand).
bool tracing() {
  static const bool on = std::getenv("SESSION_FUZZ_TRACE") != nullptr;
  return on;
}

struct Photo {
  int w = 1, h = 1;
  std::vector<unsigned int> argb;
};

unsigned int rgb(int r, int g, int b) {
  auto c = [](int v) { return static_cast<unsigned int>(v < 0 ? 0 : v > 255 ? 255 : v); };
  return 0xFF000000u | c(r) << 16 | c(g) << 8 | c(b);
}

// A handful of bytes make a photo: flat, noise, grey noise, a disc on a
// background, or two halves.
Photo makePhoto(FuzzedDataProvider& in) {
  Photo p;
  // Mostly small photos (a cut under the sanitizers costs about its area);
  // large ones reach the reduced working image and the full-size re-cut.
  const bool large = in.ConsumeIntegralInRange<int>(0, 3) == 0;
  p.w = in.ConsumeIntegralInRange<int>(1, large ? kMaxWidth : kMaxWidth / 4);
  p.h = in.ConsumeIntegralInRange<int>(1, large ? kMaxHeight : kMaxHeight / 4);
  const int kind = in.ConsumeIntegralInRange<int>(0, 4);
  const unsigned int a = in.ConsumeIntegral<uint32_t>(), b = in.ConsumeIntegral<uint32_t>();
  const int noise = in.ConsumeIntegralInRange<int>(0, 60);
  std::mt19937 rng(a ^ b);
  std::uniform_int_distribution<int> n(-noise, noise);
  p.argb.resize(static_cast<size_t>(p.w) * p.h);
  const int r = 1 + (p.w < p.h ? p.w : p.h) / 3;
  for (int y = 0; y < p.h; ++y) {
    for (int x = 0; x < p.w; ++x) {
      unsigned int base = a;
      if (kind == 3) {
        const int dx = x - p.w / 2, dy = y - p.h / 2;
        base = dx * dx + dy * dy <= r * r ? a : b;
      } else if (kind == 4) {
        base = x < p.w / 2 ? a : b;
      }
      int cr = (base >> 16) & 0xFF, cg = (base >> 8) & 0xFF, cb = base & 0xFF;
      if (kind == 2) cg = cb = cr;
      if (kind != 0) {
        const int d = n(rng);
        cr += d;
        cg += kind == 2 ? d : n(rng);
        cb += kind == 2 ? d : n(rng);
      }
      p.argb[static_cast<size_t>(y) * p.w + x] = rgb(cr, cg, cb);
    }
  }
  return p;
}

// Marker grid: up to four rectangles of label codes 0..4, or scattered codes.
std::vector<int> makeMarkers(FuzzedDataProvider& in, const Photo& p) {
  std::vector<int> m(p.argb.size(), 0);
  const int shapes = in.ConsumeIntegralInRange<int>(0, 4);
  for (int s = 0; s < shapes; ++s) {
    const int code = in.ConsumeIntegralInRange<int>(0, 4);
    int x1 = in.ConsumeIntegralInRange<int>(0, p.w - 1), x2 = in.ConsumeIntegralInRange<int>(0, p.w - 1);
    int y1 = in.ConsumeIntegralInRange<int>(0, p.h - 1), y2 = in.ConsumeIntegralInRange<int>(0, p.h - 1);
    if (x1 > x2) std::swap(x1, x2);
    if (y1 > y2) std::swap(y1, y2);
    const bool outlineOnly = in.ConsumeBool();
    for (int y = y1; y <= y2; ++y)
      for (int x = x1; x <= x2; ++x)
        if (!outlineOnly || x == x1 || x == x2 || y == y1 || y == y2)
          m[static_cast<size_t>(y) * p.w + x] = code;
  }
  const int scattered = in.ConsumeIntegralInRange<int>(0, 64);
  for (int s = 0; s < scattered; ++s) {
    const size_t i = in.ConsumeIntegralInRange<size_t>(0, m.size() - 1);
    m[i] = in.ConsumeIntegralInRange<int>(0, 4);
  }
  return m;
}

// Stroke points: none, one, or up to 48, inside or far outside the photo.
std::vector<int> makeStroke(FuzzedDataProvider& in, const Photo& p) {
  const int kind = in.ConsumeIntegralInRange<int>(0, 3);
  const int points = kind == 0 ? 0 : kind == 1 ? 1 : in.ConsumeIntegralInRange<int>(2, 48);
  std::vector<int> xy;
  for (int i = 0; i < points; ++i) {
    if (in.ConsumeBool()) {
      xy.push_back(in.ConsumeIntegralInRange<int>(-1000000, 1000000));
      xy.push_back(in.ConsumeIntegralInRange<int>(-1000000, 1000000));
    } else {
      xy.push_back(in.ConsumeIntegralInRange<int>(0, p.w - 1));
      xy.push_back(in.ConsumeIntegralInRange<int>(0, p.h - 1));
    }
  }
  return xy;
}

// Hands the marks over; with a photo stored, checks the clamp the bridge sees
// in its own array.
void setMarks(FuzzedDataProvider& in, const Photo& p, bool photoStored, int step) {
  std::vector<int> stroke = makeStroke(in, p);
  CHECK(setCurrentMarkerVector(static_cast<int>(stroke.size()), stroke.data()) == 0, step);
  for (size_t i = 0; photoStored && i < stroke.size(); i += 2) {
    CHECK(stroke[i] >= 0 && stroke[i] < p.w, step);
    CHECK(stroke[i + 1] >= 0 && stroke[i + 1] < p.h, step);
  }
  std::vector<int> markers = makeMarkers(in, p);
  CHECK(setMarkerImage(p.w, p.h, markers.data(), in.ConsumeIntegralInRange<int>(0, 3)) == 0, step);
}

bool maskIsWellFormed(const std::vector<unsigned char>& mask) {
  if (mask[0] == kUntouched) {
    for (unsigned char v : mask)
      if (v != kUntouched) return false;
    return true;
  }
  for (unsigned char v : mask)
    if (v != 0 && v != 255) return false;
  return true;
}

void checkOutline(const Photo& p, int step) {
  int* array = nullptr;
  int count = -1;
  CHECK(fetch_path_array(&array, &count) == 0, step);
  CHECK(array != nullptr && count >= 1, step);
  const int contoursTotal = array[0];
  CHECK(contoursTotal >= 0, step);
  int at = 1;
  for (int c = 0; c < contoursTotal; ++c) {
    CHECK(at < count, step);
    const int m = array[at++];
    CHECK(m >= 1 && at + 2 * m < count, step);
    for (int i = 0; i < m; ++i, at += 2) {
      CHECK(array[at] >= 0 && array[at] < p.w, step);
      CHECK(array[at + 1] >= 0 && array[at + 1] < p.h, step);
    }
    CHECK(array[at++] == -1, step);
  }
  CHECK(at == count, step);
  delete[] array;
}

// What the bridge knows about the context: whether one exists, and the two
// cancel flags as its own calls have left them.
struct Model {
  bool alive = false;
  bool cancelled = false;  // cancelSegmentation since the context (re)started
  bool exitArmed = false;  // exitSegmentation answered 1, not yet consumed

  void started() { alive = true; cancelled = false; }
  // End of a request on a live context: the exit check.
  bool tearsDown() const { return alive && exitArmed && cancelled; }
};

}  // namespace

// liblog writes every size check the library logs to stderr; with
// SEGCORE_LOG_QUIET set (scripts/fuzz.sh) the run keeps to libFuzzer's output.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (std::getenv("SEGCORE_LOG_QUIET") != nullptr) __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  // Every input starts without a context and without leftovers.
  deinitSegmentation();
  freeLocalBuffers();
  resetSegmentationInterface();
  exitSegmentation();  // clears a stale exit status (no cancel is pending now)

  Photo photo = makePhoto(in);
  Model model;
  std::vector<unsigned int> blended(photo.argb.size());
  std::vector<unsigned char> mask(photo.argb.size());
  if (in.ConsumeIntegralInRange<int>(0, 7) != 0) {
    CHECK(setSourceImage(photo.w, photo.h, photo.argb.data()) == 0, -1);
    CHECK(initSegmentationEngine(0) == 0, -1);
    model.started();
  }

  for (int step = 0; step < kMaxSteps && in.remaining_bytes() > 0; ++step) {
    const int op = in.ConsumeIntegralInRange<int>(0, 13);
    const auto started = std::chrono::steady_clock::now();
    std::fill(mask.begin(), mask.end(), kUntouched);
    int result = 0;
    bool request = false;   // ends with the exit check
    bool process = false;
    switch (op) {
      case 0: case 1: case 2:  // a cut from new marks
        setMarks(in, photo, model.alive, step);
        result = processSegment(0, 0, 0, blended.data(), mask.data());
        request = process = true;
        break;
      case 3:  // a cut without marks
        result = processSegment(0, 0, 0, blended.data(), mask.data());
        request = process = true;
        break;
      case 4: {  // an edit, into either or both buffers
        setMarks(in, photo, model.alive, step);
        const int buffers = in.ConsumeIntegralInRange<int>(0, 3);
        result = cutOutImage(0, 0, 0, buffers & 1 ? blended.data() : nullptr,
                             buffers & 2 ? mask.data() : nullptr);
        request = true;
        break;
      }
      case 5:
        result = undo(blended.data(), mask.data());
        request = true;
        break;
      case 6:
        result = redo(blended.data(), mask.data());
        request = true;
        break;
      case 7: {
        const int u = canUndo(), r = canRedo();
        CHECK((u == 0 || u == 1) && (r == 0 || r == 1), step);
        break;
      }
      case 8:
        // Clears the cancel flag with the marks; an armed exit status stays
        // until a request consumes it.
        CHECK(resetSegmentationInterface() == 0, step);
        model.cancelled = false;
        break;
      case 9:
        checkOutline(photo, step);
        break;
      case 10: {  // a rectangle on a fresh context, possibly a new photo
        if (in.ConsumeBool()) {
          photo = makePhoto(in);
          blended.assign(photo.argb.size(), 0u);
          mask.assign(photo.argb.size(), kUntouched);
        }
        const int x1 = in.ConsumeIntegralInRange<int>(0, photo.w - 1);
        const int x2 = in.ConsumeIntegralInRange<int>(0, photo.w - 1);
        const int y1 = in.ConsumeIntegralInRange<int>(0, photo.h - 1);
        const int y2 = in.ConsumeIntegralInRange<int>(0, photo.h - 1);
        result = doSegmentationBB(photo.w, photo.h, photo.argb.data(), x1, y1, x2, y2, mask.data());
        CHECK(result == 0, step);
        model.started();
        model.exitArmed = false;
        break;
      }
      case 11:  // cancel, sometimes followed by exit, between requests
        CHECK(cancelSegmentation() == 1, step);
        model.cancelled = true;
        if (in.ConsumeBool()) {
          CHECK(exitSegmentation() == 1, step);
          model.exitArmed = true;
        }
        break;
      case 12:  // end the context
        CHECK(deinitSegmentation() == 0, step);
        freeLocalBuffers();
        model.alive = false;
        break;
      default:  // a new context, possibly on a new photo
        deinitSegmentation();
        freeLocalBuffers();
        if (in.ConsumeBool()) {
          photo = makePhoto(in);
          blended.assign(photo.argb.size(), 0u);
          mask.assign(photo.argb.size(), kUntouched);
        }
        CHECK(setSourceImage(photo.w, photo.h, photo.argb.data()) == 0, step);
        CHECK(initSegmentationEngine(0) == 0, step);
        model.started();
        break;
    }
    if (tracing()) {
      std::fprintf(stderr, "step %d: op %d on %d x %d -> %d, alive %d, %.0f ms\n", step, op, photo.w,
                   photo.h, result, model.alive ? 1 : 0,
                   std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started)
                       .count());
    }
    if (request) {
      if (!model.alive) {
        // No context: the request is refused and nothing is written.
        CHECK(result == -1, step);
        CHECK(maskIsWellFormed(mask) && mask[0] == kUntouched, step);
        freeLocalBuffers();  // the marks handed over for it
        continue;
      }
      const bool teardown = model.tearsDown();
      CHECK(result == (process && teardown ? -1 : 0), step);
      CHECK(maskIsWellFormed(mask), step);
      if (teardown) model.alive = false;
      if (!process || !teardown) model.exitArmed = false;
    }
  }
  deinitSegmentation();
  freeLocalBuffers();
  resetSegmentationInterface();
  return 0;
}
