// libFuzzer target: drives the exported functions the way the app's bridge
// does, one call at a time, with hostile but legal input - photos from 1 x 1
// up to 400 x 300, random marker grids and marking modes, stroke points far
// outside the photo, empty and one-point strokes, requests in any order
// (edits before a result, undo and redo past both ends of the history, resets
// between requests, cancel and exit between requests, requests after a
// teardown) - and with arguments a bridge must never send: negative sizes,
// sides of 0 (a photo or grid of 0 pixels is stored as it always was, and
// whatever needs pixels refuses it later), huge sizes or ones with products
// beyond 32 bits, null buffers, odd and negative point
// counts, marking modes outside 0-3, marker codes outside 0-4, rectangles
// with any corners, calls before a photo and after a teardown.
//
// Besides the sanitizers, the target checks what the bridge relies on:
// return codes, masks that hold only 0 and 255, an outline array whose layout
// matches its length and whose points lie in the photo, teardown exactly
// when a cancel and an exit were both requested, and for a refused call:
// SEGCORE_FAILED, exactly one "<call>: " line under "Error" (after the
// MEMORY_CRASH lines bad sizes have always produced), the caller's buffers
// untouched and the photo, engine, history and unfetched outline unchanged.
//
// The same source builds without libFuzzer (fuzz/replay_main.cpp) so that
// ctest replays the seed corpus in every build.
#include <android/log.h>

#include <atomic>
#include <cstdarg>
#include <cstring>

#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/byte_reader.h"
#include "interface/segmentation_core.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"
#include "tests/alloc_faults.h"
#include "tests/static_log.h"

// The library's log lines, recorded into static storage (tests/static_log.h)
// rather than through the tests' log capture, which allocates: an armed
// allocation failure stays inside the library.
namespace fuzzlog {
struct Record {
  int priority;
  std::string tag, text;
};
void start() { staticlog::start(); }
std::vector<Record> stop() {
  staticlog::stop();
  std::vector<Record> out;
  const int n = std::min(staticlog::count(), staticlog::kMaxLines);
  for (int i = 0; i < n; ++i) {
    const staticlog::Line& l = staticlog::line(i);
    out.push_back({l.priority, l.tag, l.text});
  }
  // More lines than the storage holds: surely more than one refusal line.
  if (staticlog::count() > staticlog::kMaxLines) out.push_back({ANDROID_LOG_ERROR, "Error", "(lines lost)"});
  return out;
}
}  // namespace fuzzlog

namespace {

constexpr int kMaxWidth = 400;
constexpr int kMaxHeight = 300;
constexpr int kMaxSteps = 10;
constexpr unsigned char kUntouched = 77;
constexpr unsigned int kBlendedUntouched = 0x5A5A5A5Au;
constexpr int kNoStatus = 1000;  // a void call's "status"
int arrayTarget = 0;
int* const kArraySentinel = &arrayTarget;  // no library hands out this pointer

int currentOp = -1;  // named in a failure

[[noreturn]] void fail(const char* what, int step) {
  std::fprintf(stderr, "session_fuzz: %s (step %d, op %d)\n", what, step, currentOp);
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
Photo makePhoto(ByteReader& in) {
  Photo p;
  // Mostly small photos (a cut under the sanitizers costs about its area);
  // large ones reach the reduced working image and the full-size re-cut.
  const bool large = in.range<int>(0, 3) == 0;
  p.w = in.range<int>(1, large ? kMaxWidth : kMaxWidth / 4);
  p.h = in.range<int>(1, large ? kMaxHeight : kMaxHeight / 4);
  const int kind = in.range<int>(0, 4);
  const unsigned int a = in.any<uint32_t>(), b = in.any<uint32_t>();
  const int noise = in.range<int>(0, 60);
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

// Marker grid: up to four rectangles of label codes 0..4, or scattered codes
// (with `wild`, scattered codes of any int: saturated, they act as unknown).
std::vector<int> makeMarkers(ByteReader& in, const Photo& p, bool wild = false) {
  std::vector<int> m(p.argb.size(), 0);
  const int shapes = in.range<int>(0, 4);
  for (int s = 0; s < shapes; ++s) {
    const int code = in.range<int>(0, 4);
    int x1 = in.range<int>(0, p.w - 1), x2 = in.range<int>(0, p.w - 1);
    int y1 = in.range<int>(0, p.h - 1), y2 = in.range<int>(0, p.h - 1);
    if (x1 > x2) std::swap(x1, x2);
    if (y1 > y2) std::swap(y1, y2);
    const bool outlineOnly = in.flag();
    for (int y = y1; y <= y2; ++y)
      for (int x = x1; x <= x2; ++x)
        if (!outlineOnly || x == x1 || x == x2 || y == y1 || y == y2)
          m[static_cast<size_t>(y) * p.w + x] = code;
  }
  const int scattered = in.range<int>(0, 64);
  for (int s = 0; s < scattered; ++s) {
    const size_t i = in.range<uint32_t>(0, static_cast<uint32_t>(m.size() - 1));
    m[i] = wild ? in.any<int>() : in.range<int>(0, 4);
  }
  return m;
}

// Stroke points: none, one, or up to 48, inside or far outside the photo.
std::vector<int> makeStroke(ByteReader& in, const Photo& p) {
  const int kind = in.range<int>(0, 3);
  const int points = kind == 0 ? 0 : kind == 1 ? 1 : in.range<int>(2, 48);
  std::vector<int> xy;
  for (int i = 0; i < points; ++i) {
    if (in.flag()) {
      xy.push_back(in.range<int>(-1000000, 1000000));
      xy.push_back(in.range<int>(-1000000, 1000000));
    } else {
      xy.push_back(in.range<int>(0, p.w - 1));
      xy.push_back(in.range<int>(0, p.h - 1));
    }
  }
  return xy;
}

// Hands the marks over; with a photo stored, checks the clamp the bridge sees
// in its own array.
void setMarks(ByteReader& in, const Photo& p, bool photoStored, int step, bool wild = false) {
  std::vector<int> stroke = makeStroke(in, p);
  CHECK(setCurrentMarkerVector(static_cast<int>(stroke.size()), stroke.data()) == 0, step);
  for (size_t i = 0; photoStored && i < stroke.size(); i += 2) {
    CHECK(stroke[i] >= 0 && stroke[i] < p.w, step);
    CHECK(stroke[i + 1] >= 0 && stroke[i + 1] < p.h, step);
  }
  std::vector<int> markers = makeMarkers(in, p, wild);
  CHECK(setMarkerImage(p.w, p.h, markers.data(), in.range<int>(0, 3)) == 0, step);
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

// What a refused call must leave as it was: the photo, the engine, the
// history and an outline not yet fetched.
struct Snapshot {
  const void* photo;
  const void* engine;
  const void* planes;
  const void* outline;
  int outlineReady, current, top, bottom, canUndo, canRedo;

  bool operator==(const Snapshot& o) const {
    return photo == o.photo && engine == o.engine && planes == o.planes && outline == o.outline &&
           outlineReady == o.outlineReady && current == o.current && top == o.top && bottom == o.bottom &&
           canUndo == o.canUndo && canRedo == o.canRedo;
  }
};

Snapshot snapshot() {
  return {VELDSEMarker::m_originalImage, pHybrid, VELDSEManageUndoRedo::m_bitPlane, contours, g_contoursReady,
          VELDSEManageUndoRedo::m_current, VELDSEManageUndoRedo::m_top, VELDSEManageUndoRedo::m_bottom,
          canUndo(), canRedo()};
}

using Log = std::vector<fuzzlog::Record>;

bool startsWith(const std::string& s, const std::string& prefix) { return s.compare(0, prefix.size(), prefix) == 0; }

// The "Error" lines of a refused call: the MEMORY_CRASH lines `crashLines`
// of `call` in this order (with `anyCrashLines`, whatever MEMORY_CRASH lines
// the calls it wraps log), then exactly one "<call>: " line.
void checkRefusalLog(const Log& log, const char* call, std::vector<int> crashLines, bool anyCrashLines, int step) {
  std::vector<const fuzzlog::Record*> crashes, others;
  for (const fuzzlog::Record& r : log) {
    if (r.tag != "Error") continue;
    CHECK(r.priority == ANDROID_LOG_ERROR, step);
    if (startsWith(r.text, "MEMORY_CRASH : ")) {
      CHECK(others.empty(), step);  // before the refusal, never after
      crashes.push_back(&r);
    } else {
      others.push_back(&r);
    }
  }
  CHECK(others.size() == 1, step);
  CHECK(startsWith(others[0]->text, std::string(call) + ": "), step);
  if (anyCrashLines) return;
  CHECK(crashes.size() == crashLines.size(), step);
  for (size_t i = 0; i < crashes.size(); ++i) {
    CHECK(crashes[i]->text == "MEMORY_CRASH : " + std::string(call) + " " + std::to_string(crashLines[i]), step);
  }
}

// A call that went through logs no "<call>: " line.
void checkNoRefusal(const Log& log, const char* call, int step) {
  for (const fuzzlog::Record& r : log) CHECK(!(r.tag == "Error" && startsWith(r.text, std::string(call) + ": ")), step);
}

// Whether a size passes the size checks at `bytes` per entry: no side below
// 0 and at most 2^31 bytes in all.
bool sizeFits(int w, int h, int bytes) {
  return w >= 0 && h >= 0 &&
         static_cast<uint64_t>(w) * static_cast<uint64_t>(h) * static_cast<uint64_t>(bytes) <= (uint64_t{1} << 31);
}

// A size that is stored although it holds nothing: a side of 0, none below,
// and rows that OpenCV can still describe (a row of `bytes` per entry, padded
// to 4, within 2^31 bytes - also when there are no rows).
bool emptySize(int w, int h, int bytes) {
  return w >= 0 && h >= 0 && (w == 0 || h == 0) &&
         (static_cast<uint64_t>(w) * static_cast<uint64_t>(bytes) + 3) / 4 * 4 <= uint64_t{INT_MAX};
}

// One side of a size a bridge should never send: zero, negative, the int
// limits, sides whose squares wrap 32 bits, anything, or a plain side.
int hostileSide(ByteReader& in) {
  switch (in.range<int>(0, 9)) {
    case 0: return 0;
    case 1: return -1;
    case 2: return INT_MIN;
    case 3: return INT_MAX;
    case 4: return 65536;
    case 5: return 70000;
    case 6: return 32768;
    case 7: return 46341;
    case 8: return in.any<int>();
    default: return in.range<int>(1, 400);
  }
}

// A size every size check must refuse at `bytes` per entry, or one with a
// side of 0 (stored, empty); the caller's buffer that goes with it is small
// on purpose.
std::pair<int, int> hostileSize(ByteReader& in, int bytes) {
  int w = hostileSide(in), h = hostileSide(in);
  if (sizeFits(w, h, bytes) && !emptySize(w, h, bytes)) {
    if (in.flag()) h = -h; else w = 0;
  }
  return {w, h};
}

template <typename T>
bool allEqual(const std::vector<T>& v, T value) {
  for (const T& x : v)
    if (x != value) return false;
  return true;
}

// One allocation failure per session: in the armed call of step `step`,
// the `index`-th allocation (counted from the call's start) fails.
struct Fault {
  int step = -1;
  long index = 0;
  bool fired = false;  // in the step just run
};
Fault fault;

// Runs a call of the session, with the allocation failure armed when this is
// its step.
template <typename F>
int maybeFailing(int step, F&& call) {
  if (step != fault.step) return call();
  alloc_faults::failAt(fault.index);
  const int r = call();
  fault.fired = alloc_faults::fired();
  alloc_faults::stop();
  return r;
}

// What the bridge knows about the context: whether one exists, and the two
// cancel flags as its own calls have left them.
struct Model {
  bool alive = false;
  bool emptyPhoto = false; // a photo of 0 pixels is held: requests refuse it
  bool cancelled = false;  // cancelSegmentation since the context (re)started
  bool exitArmed = false;  // exitSegmentation answered 1, not yet consumed

  void started() { alive = true; emptyPhoto = false; cancelled = false; }
  // A photo with pixels, as the session's requests need.
  bool usable() const { return alive && !emptyPhoto; }
  // End of a request on a live context: the exit check.
  bool tearsDown() const { return alive && exitArmed && cancelled; }
};

}  // namespace

// The library's log lines only reach fuzzlog, so the run keeps to
// libFuzzer's output.
extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ByteReader in(data, size);
  // Every input starts without a context and without leftovers.
  deinitSegmentation();
  freeLocalBuffers();
  resetSegmentationInterface();
  exitSegmentation();  // clears a stale exit status (no cancel is pending now)

  Photo photo = makePhoto(in);
  // Half the sessions have one call whose allocation fails.
  fault = Fault{};
  fault.step = in.range<int>(0, 2 * kMaxSteps - 1);
  fault.index = in.range<int>(0, 4095);
  Model model;
  std::vector<unsigned int> blended(photo.argb.size());
  std::vector<unsigned char> mask(photo.argb.size());
  if (in.range<int>(0, 7) != 0) {
    CHECK(setSourceImage(photo.w, photo.h, photo.argb.data()) == 0, -1);
    CHECK(initSegmentationEngine(0) == 0, -1);
    model.started();
  }

  for (int step = 0; step < kMaxSteps && in.remaining() > 0; ++step) {
    const int op = in.range<int>(0, 25);
    currentOp = op;
    fault.fired = false;
    const auto started = std::chrono::steady_clock::now();
    std::fill(mask.begin(), mask.end(), kUntouched);
    std::fill(blended.begin(), blended.end(), kBlendedUntouched);
    int result = 0;
    bool request = false;   // ends with the exit check
    bool process = false;
    const char* call = "";  // the request's name in its log line
    const Snapshot before = snapshot();
    fuzzlog::start();
    // A refused call: its status, its log so far, the caller's buffers and
    // the context as they were.
    auto refused = [&](int status, const char* name, std::vector<int> crashLines = {}, bool anyCrashLines = false) {
      const Log sofar = fuzzlog::stop();
      if (status != kNoStatus) CHECK(result == status, step);
      checkRefusalLog(sofar, name, std::move(crashLines), anyCrashLines, step);
      CHECK(allEqual(mask, kUntouched) && allEqual(blended, kBlendedUntouched), step);
      CHECK(before == snapshot(), step);
      fuzzlog::start();
    };
    switch (op) {
      case 0: case 1: case 2:  // a cut from new marks
        setMarks(in, photo, model.usable(), step);
        result = maybeFailing(step, [&] { return processSegment(0, 0, 0, blended.data(), mask.data()); });
        request = process = true;
        call = "processSegment";
        break;
      case 3:  // a cut without marks
        result = maybeFailing(step, [&] { return processSegment(0, 0, 0, blended.data(), mask.data()); });
        request = process = true;
        call = "processSegment";
        break;
      case 4: {  // an edit, into either or both buffers
        setMarks(in, photo, model.usable(), step);
        const int buffers = in.range<int>(0, 3);
        result = maybeFailing(step, [&] {
          return cutOutImage(0, 0, 0, buffers & 1 ? blended.data() : nullptr, buffers & 2 ? mask.data() : nullptr);
        });
        request = true;
        call = "cutOutImage";
        break;
      }
      case 5:
        result = maybeFailing(step, [&] { return undo(blended.data(), mask.data()); });
        request = true;
        call = "undo";
        break;
      case 6:
        result = maybeFailing(step, [&] { return redo(blended.data(), mask.data()); });
        request = true;
        call = "redo";
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
        Photo previous = photo;
        if (in.flag()) {
          photo = makePhoto(in);
          blended.assign(photo.argb.size(), 0u);
          mask.assign(photo.argb.size(), kUntouched);
        }
        const int x1 = in.range<int>(0, photo.w - 1);
        const int x2 = in.range<int>(0, photo.w - 1);
        const int y1 = in.range<int>(0, photo.h - 1);
        const int y2 = in.range<int>(0, photo.h - 1);
        result = maybeFailing(
            step, [&] { return doSegmentationBB(photo.w, photo.h, photo.argb.data(), x1, y1, x2, y2, mask.data()); });
        CHECK(maskIsWellFormed(mask), step);
        if (fault.fired && result == SEGCORE_FAILED) {
          // Failed before the old context was torn down (all as it was) or
          // after it (no context at all), never half-built.
          checkRefusalLog(fuzzlog::stop(), "doSegmentationBB", {}, true, step);
          fuzzlog::start();
          const bool none = VELDSEMarker::m_originalImage == nullptr && pHybrid == nullptr &&
                            VELDSEManageUndoRedo::m_bitPlane == nullptr;
          CHECK(before == snapshot() || none, step);
          if (none) {
            model.alive = model.emptyPhoto = false;
          } else {
            // Failed before its teardown: the context still holds the
            // earlier photo, so the session goes on with that one.
            photo = std::move(previous);
            blended.assign(photo.argb.size(), 0u);
            mask.assign(photo.argb.size(), kUntouched);
          }
          break;
        }
        CHECK(result == 0, step);
        model.started();
        model.exitArmed = false;
        break;
      }
      case 11:  // cancel, sometimes followed by exit, between requests
        CHECK(cancelSegmentation() == 1, step);
        model.cancelled = true;
        if (in.flag()) {
          CHECK(exitSegmentation() == 1, step);
          model.exitArmed = true;
        }
        break;
      case 12:  // end the context
        CHECK(deinitSegmentation() == 0, step);
        freeLocalBuffers();
        model.alive = model.emptyPhoto = false;
        break;
      case 14: {  // a photo of a refused size, of 0 pixels or without pixels
        std::vector<unsigned int> small(16, 0xFF000000u);
        const bool nullPixels = in.flag();
        std::pair<int, int> size{photo.w, photo.h};
        if (!nullPixels || in.flag()) size = hostileSize(in, 3);
        const auto [w, h] = size;
        result = setSourceImage(w, h, nullPixels ? nullptr : small.data());
        if (tracing()) std::fprintf(stderr, "  setSourceImage(%d, %d, %s) -> %d\n", w, h, nullPixels ? "null" : "pixels", result);
        const std::vector<int> crashLines = w < 1 || h < 1 ? std::vector<int>{115} : std::vector<int>{};
        if (!emptySize(w, h, 3)) {
          refused(SEGCORE_FAILED, "setSourceImage", crashLines);
          break;
        }
        // Stored: it replaces the photo, the history is sized to it and
        // emptied, the engine stays; the pixels are never read.
        const Log sofar = fuzzlog::stop();
        CHECK(result == 0, step);
        CHECK(sofar.size() == 1 && sofar[0].tag == "Error" && sofar[0].priority == ANDROID_LOG_ERROR &&
                  sofar[0].text == "MEMORY_CRASH : setSourceImage 115",
              step);
        CHECK(VELDSEMarker::m_originalImage != nullptr && VELDSEMarker::m_originalImage != before.photo, step);
        CHECK(VELDSEMarker::m_originalWidth == w && VELDSEMarker::m_originalHeight == h, step);
        CHECK(pHybrid == before.engine && canUndo() == 0 && canRedo() == 0, step);
        CHECK(allEqual(small, 0xFF000000u), step);
        model.emptyPhoto = true;
        fuzzlog::start();
        break;
      }
      case 15: {  // the photo back, into a buffer or into null
        if (in.flag()) {
          copySourceImage(nullptr);
          if (model.alive || model.emptyPhoto) refused(kNoStatus, "copySourceImage");
          // Without a photo there is nothing to write, refused or not.
          CHECK(before == snapshot(), step);
        } else {
          std::vector<unsigned int> out(photo.argb.size(), kBlendedUntouched);
          copySourceImage(out.data());
          // An empty photo has nothing to write.
          CHECK(model.usable() ? out == photo.argb : allEqual(out, kBlendedUntouched), step);
          checkNoRefusal(fuzzlog::stop(), "copySourceImage", step);
          fuzzlog::start();
        }
        break;
      }
      case 16: {  // a marker grid of a refused size or of 0 entries, without markers, or in a mode outside 0-3
        std::vector<int> small(16, 2), full(photo.argb.size(), 2);
        int* markers = full.data();
        std::pair<int, int> size{photo.w, photo.h};
        int mode = in.range<int>(0, 3);
        switch (in.range<int>(0, 2)) {
          case 0: size = hostileSize(in, 4), markers = in.flag() ? nullptr : small.data(); break;
          case 1: markers = nullptr; break;
          default: mode = in.any<int>(); if (mode >= 0 && mode <= 3) mode -= 4; break;
        }
        const auto [w, h] = size;
        result = setMarkerImage(w, h, markers, mode);
        if (tracing()) std::fprintf(stderr, "  setMarkerImage(%d, %d, %s, %d) -> %d\n", w, h, markers ? "grid" : "null", mode, result);
        const std::vector<int> crashLines = w < 1 || h < 1 ? std::vector<int>{164, 173} : std::vector<int>{};
        if (!emptySize(w, h, 4) || mode < 0 || mode > 3) {
          refused(SEGCORE_FAILED, "setMarkerImage", crashLines);
          break;
        }
        // Stored, and nothing else changes (a request on it: op 19). Dropped
        // here so that the session's requests keep their marks.
        const Log sofar = fuzzlog::stop();
        CHECK(result == 0, step);
        CHECK(sofar.size() == 2, step);
        for (size_t i = 0; i < sofar.size(); ++i) {
          CHECK(sofar[i].tag == "Error" && sofar[i].priority == ANDROID_LOG_ERROR &&
                    sofar[i].text == "MEMORY_CRASH : setMarkerImage " + std::to_string(crashLines[i]),
                step);
        }
        CHECK(before == snapshot(), step);
        CHECK(allEqual(small, 2), step);
        freeLocalBuffers();
        fuzzlog::start();
        break;
      }
      case 17: {  // a point list with an odd count, null points, or a count below 1
        std::vector<int> coords(8);
        for (int& c : coords) c = in.any<int>();
        const std::vector<int> original = coords;
        const int kind = in.range<int>(0, 2);
        if (kind == 0) {
          result = setCurrentMarkerVector(in.flag() ? INT_MAX : 2 * in.range<int>(0, 3) + 1, coords.data());
          refused(SEGCORE_FAILED, "setCurrentMarkerVector");
        } else if (kind == 1) {
          result = setCurrentMarkerVector(in.range<int>(1, INT_MAX), nullptr);
          refused(SEGCORE_FAILED, "setCurrentMarkerVector");
        } else {
          // Below 1 the stroke is emptied and the list never looked at.
          result = setCurrentMarkerVector(in.range<int>(INT_MIN, 0), in.flag() ? nullptr : coords.data());
          CHECK(result == 0, step);
          CHECK(before == snapshot(), step);
        }
        CHECK(coords == original, step);
        break;
      }
      case 18: {  // a cut or a history step with a null buffer
        const int which = in.range<int>(0, 2);
        const int nulls = in.range<int>(1, 3);
        unsigned int* b = nulls & 1 ? nullptr : blended.data();
        unsigned char* m = nulls & 2 ? nullptr : mask.data();
        if (which == 0) {
          setMarks(in, photo, model.usable(), step);
          result = processSegment(0, 0, 0, b, m);
          refused(SEGCORE_FAILED, "processSegment");
        } else {
          result = which == 1 ? undo(b, m) : redo(b, m);
          refused(SEGCORE_FAILED, which == 1 ? "undo" : "redo");
        }
        freeLocalBuffers();  // marks a refusal kept
        break;
      }
      case 19: {  // a request on a marker grid of another size than the photo (possibly of 0 entries)
        const int w = in.range<int>(0, 64);
        int h = in.range<int>(w == 0 ? 0 : 1, 64);
        if (w == photo.w && h == photo.h) ++h;
        std::vector<int> grid(static_cast<size_t>(w) * h);
        for (int& c : grid) c = in.range<int>(0, 4);
        CHECK(setCurrentMarkerVector(0, nullptr) == 0, step);
        CHECK(setMarkerImage(w, h, grid.empty() ? nullptr : grid.data(), in.range<int>(0, 3)) == 0, step);
        // A grid of 0 entries is logged as it always was; the request then
        // refuses it like any grid of another size.
        const Log marked = fuzzlog::stop();
        CHECK(marked.size() == (w < 1 || h < 1 ? 2u : 0u), step);
        checkNoRefusal(marked, "setMarkerImage", step);
        fuzzlog::start();
        const bool cut = in.flag();
        result = cut ? processSegment(0, 0, 0, blended.data(), mask.data())
                     : cutOutImage(0, 0, 0, blended.data(), mask.data());
        refused(SEGCORE_FAILED, cut ? "processSegment" : "cutOutImage");
        freeLocalBuffers();
        break;
      }
      case 20:  // the result loaders: no result is held between calls
        if (in.flag()) {
          loadMaskImageInfo(in.flag() ? nullptr : mask.data());
          refused(kNoStatus, "loadMaskImageInfo");
        } else {
          loadBlendedImageInfo(in.flag() ? nullptr : blended.data());
          refused(kNoStatus, "loadBlendedImageInfo");
        }
        break;
      case 21: {  // the outline into null
        int* array = kArraySentinel;
        int count = -7;
        const int kind = in.range<int>(0, 2);
        result = fetch_path_array(kind == 1 ? &array : nullptr, kind == 0 ? &count : nullptr);
        refused(SEGCORE_FAILED, "fetch_path_array");
        CHECK(array == kArraySentinel && count == -7, step);
        break;
      }
      case 22:  // an engine without a photo, or on an empty one
        if (model.usable()) break;  // a second engine on a live context is not a bad argument
        result = initSegmentationEngine(0);
        refused(SEGCORE_FAILED, "initSegmentationEngine");
        break;
      case 23: {  // a rectangle of a refused size, without pixels or mask, or with any corners
        std::vector<unsigned int> small(16, 0xFF000000u);
        const int kind = in.range<int>(0, 3);
        if (kind < 3) {
          std::pair<int, int> size{photo.w, photo.h};
          if (kind == 0) size = hostileSize(in, 3);
          result = doSegmentationBB(size.first, size.second, kind == 1 ? nullptr : small.data(), 0, 0, 3, 3,
                                    kind == 2 ? nullptr : mask.data());
          refused(SEGCORE_FAILED, "doSegmentationBB", {}, true);
          break;
        }
        auto corner = [&](int side) { return in.flag() ? in.any<int>() : in.range<int>(-side, 2 * side); };
        const int x1 = corner(photo.w), y1 = corner(photo.h), x2 = corner(photo.w), y2 = corner(photo.h);
        result = doSegmentationBB(photo.w, photo.h, photo.argb.data(), x1, y1, x2, y2, mask.data());
        CHECK(result == 0, step);
        CHECK(maskIsWellFormed(mask), step);
        checkNoRefusal(fuzzlog::stop(), "doSegmentationBB", step);
        fuzzlog::start();
        model.started();
        model.exitArmed = false;
        break;
      }
      case 24: {  // an edit without a marker grid
        freeLocalBuffers();
        const int buffers = in.range<int>(0, 3);
        result = cutOutImage(0, 0, 0, buffers & 1 ? blended.data() : nullptr, buffers & 2 ? mask.data() : nullptr);
        refused(SEGCORE_FAILED, "cutOutImage");
        break;
      }
      case 25:  // a cut from marks with codes outside 0-4
        setMarks(in, photo, model.usable(), step, true);
        result = maybeFailing(step, [&] { return processSegment(0, 0, 0, blended.data(), mask.data()); });
        request = process = true;
        call = "processSegment";
        break;
      default:  // a new context, possibly on a new photo
        deinitSegmentation();
        freeLocalBuffers();
        if (in.flag()) {
          photo = makePhoto(in);
          blended.assign(photo.argb.size(), 0u);
          mask.assign(photo.argb.size(), kUntouched);
        }
        CHECK(setSourceImage(photo.w, photo.h, photo.argb.data()) == 0, step);
        CHECK(initSegmentationEngine(0) == 0, step);
        model.started();
        break;
    }
    const Log log = fuzzlog::stop();
    if (tracing()) {
      std::fprintf(stderr, "step %d: op %d on %d x %d -> %d, alive %d%s, %.0f ms\n", step, op, photo.w,
                   photo.h, result, model.alive ? 1 : 0, fault.fired ? ", allocation failed" : "",
                   std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started)
                       .count());
    }
    if (request && fault.fired && result == SEGCORE_FAILED) {
      // Memory ran out in the request: one line, the history, photo, engine
      // and outline as they were (a result the library absorbed is checked
      // as any other below).
      checkRefusalLog(log, call, {}, true, step);
      CHECK(maskIsWellFormed(mask), step);
      CHECK(before == snapshot(), step);
      continue;
    }
    if (request) {
      if (!model.usable()) {
        // No context, or an empty photo: the request is refused and nothing
        // is written.
        CHECK(result == SEGCORE_FAILED, step);
        checkRefusalLog(log, call, {}, false, step);
        CHECK(allEqual(mask, kUntouched) && allEqual(blended, kBlendedUntouched), step);
        CHECK(before == snapshot(), step);
        freeLocalBuffers();  // the marks handed over for it
        continue;
      }
      const bool teardown = model.tearsDown();
      CHECK(result == (process && teardown ? -1 : 0), step);
      checkNoRefusal(log, call, step);
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
