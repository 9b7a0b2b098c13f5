// The exported calls against memory running out, at every allocation point.
//
// For each call of a small session the call is first made with allocations
// counted only, which gives N, the number of allocation points it passes.
// Then for every i in 0..N-1 a child process, forked from a parent that has
// built the context up to just before the call, arms the i-th allocation to
// fail and makes the call. The child inherits the exact context, so every
// point starts from the same state, and a crash, a hang or a leak stays in
// the child, which reports back through its exit status and a pipe.
//
// What a child checks (interface/segmentation_core.h, "Failures"):
//   - status SEGCORE_FAILED with exactly one "Error" line "<call>: memory ran
//     out" (TAG_MEM lines of the tracked allocator may come too); or status 0
//     when the failure was absorbed by a fall-back (a thread that could not be
//     started, the band graph that gives way to the coarse mask) with a
//     complete result;
//   - after a failure: photo, engine, history indices, canUndo/canRedo and an
//     outline not yet fetched as before the call (doSegmentationBB may instead
//     leave no context at all once it has torn the old one down);
//   - with memory back, the same request sent again gives byte for byte what
//     a clean run gives;
//   - nothing leaked (see leakCheck()).
//
// Logging: this program takes __android_log_print itself (instead of linking
// tests/log_capture.cpp) and records the lines into static storage. On the
// phone liblog formats into a stack buffer; a capture that allocated would
// put allocation points into the library's logging that the field does not
// have, and a failure injected there would be the test's own.
//
// Two photos. On the small one (120 x 90) every allocation point of every
// call is tried. The large one (322 x 240, just over the 76,800 pixels from
// which a cut is made on a reduced photo and re-cut at full resolution along
// the band) is there for the band re-cut only, so only the rectangle cut is
// swept on it: that one call passes every allocation the re-cut makes.
// Natively every point is tried, as many children at a time as there are
// cores. Under AddressSanitizer each child costs several times as much, and
// under an emulator (SEGCORE_EMULATED=1) far more, so there every k-th point
// is tried, k chosen to keep about kSanitizedPoints (resp. kEmulatedPoints)
// points a call (stride() below); the sweep always includes the last point.
// A point that fails after its request ran for the cut's whole time limit
// (an emulated run on a busy machine) is run again, up to three times: the
// limit, not the injected failure, may have stopped it.
// SEGCORE_FAULT_POINT="<case label>:<index>" (e.g. "processSegment
// rectangle 322x240:120") runs that one point only, for a debugger
// (gdb -ex 'set follow-fork-mode child'); with SEGCORE_ALLOC_FAULTS_TRACE=1
// the failing allocation's stack goes to stderr.
#include <android/log.h>
#include <dirent.h>
#include <execinfo.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <system_error>
#include <thread>
#include <tuple>
#include <vector>

#include "graph/veldse_graph.h"
#include "interface/segmentation_core.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"
#include "tests/alloc_faults.h"
#include "tests/static_log.h"
#include "tests/synthetic_scene.h"
#include "tests/test_support.h"

extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

namespace {

using synthetic::Bytes;
using synthetic::Pixels;

// --- The session -----------------------------------------------------------------

struct Marks {
  std::vector<int> points;
  std::vector<int> grid;
  int mode = 0;
};

struct Photo {
  int w, h;
  Pixels argb;
  int x1, y1, x2, y2;  // the rectangle round the disc
  Marks rectangle, loop, objectStroke, backgroundStroke;
};

Photo makePhoto(int w, int h) {
  synthetic::Scene s = synthetic::makeScene(w, h, false, true);
  Photo p{w, h, s.argb, 0, 0, 0, 0, {}, {}, {}, {}};
  const int r = h / 4, cx = w * 2 / 5, cy = h / 2, m = h / 12;
  p.x1 = cx - r - m;
  p.y1 = cy - r - m;
  p.x2 = cx + r + m;
  p.y2 = cy + r + m;
  const size_t n = static_cast<size_t>(w) * h;
  auto gridOf = [&](std::vector<int>& g) { return cv::Mat(h, w, CV_32S, g.data()); };
  // The rectangle as the app sends it: its border as a loop, code 4 inside.
  p.rectangle.points = testsupport::borderLoop(p.x1, p.y1, p.x2, p.y2);
  p.rectangle.grid = testsupport::filledGrid(w, h, p.x1, p.y1, p.x2, p.y2, LABEL_PR_FG);
  // A free loop (an octagon) round disc and square, code 4 inside.
  std::vector<cv::Point> octagon;
  const int lx0 = w / 8, lx1 = w - w / 20, ly0 = h / 8, ly1 = h - h / 8, cut = h / 8;
  for (cv::Point q : {cv::Point(lx0 + cut, ly0), cv::Point(lx1 - cut, ly0), cv::Point(lx1, ly0 + cut),
                      cv::Point(lx1, ly1 - cut), cv::Point(lx1 - cut, ly1), cv::Point(lx0 + cut, ly1),
                      cv::Point(lx0, ly1 - cut), cv::Point(lx0, ly0 + cut)}) {
    octagon.push_back(q);
    p.loop.points.insert(p.loop.points.end(), {q.x, q.y});
  }
  p.loop.grid.assign(n, 0);
  cv::fillPoly(gridOf(p.loop.grid), std::vector<std::vector<cv::Point>>{octagon}, cv::Scalar(LABEL_PR_FG));
  // An object stroke across the square, a background stroke across the
  // disc's top.
  const int sx = w * 3 / 4, sy = h / 3, side = w / 8;
  p.objectStroke.points = {sx + side / 4, sy + side / 2, sx + side * 3 / 4, sy + side / 2};
  p.backgroundStroke.points = {cx - r / 2, cy - r * 3 / 4, cx + r / 2, cy - r * 3 / 4};
  for (auto [marks, code, mode] :
       {std::make_tuple(&p.objectStroke, LABEL_FG, 2), std::make_tuple(&p.backgroundStroke, LABEL_BG, 3)}) {
    const std::vector<int>& q = marks->points;
    marks->grid.assign(n, 0);
    cv::line(gridOf(marks->grid), {q[0], q[1]}, {q[2], q[3]}, cv::Scalar(code), w / 60 + 2);
    marks->mode = mode;
  }
  return p;
}

// Sends marks as the bridge does (the point list is clamped in place, so a
// copy goes).
void send(const Photo& p, const Marks& m) {
  std::vector<int> points = m.points, grid = m.grid;
  setCurrentMarkerVector(static_cast<int>(points.size()), points.data());
  setMarkerImage(p.w, p.h, grid.data(), m.mode);
}

// What a call hands back. Sized before anything is measured, so that the
// test's own buffers never show in the live-block counts.
struct Out {
  Bytes mask;
  Pixels blended;
  std::vector<int> outline;
  explicit Out(const Photo& p) : mask(p.argb.size()), blended(p.argb.size()) { outline.reserve(1 << 18); }
  void reset(const Photo& p) {
    std::fill(mask.begin(), mask.end(), 77);
    std::copy(p.argb.begin(), p.argb.end(), blended.begin());
    outline.clear();
  }
};

// The outline as fetch_path_array delivers it.
int fetchInto(std::vector<int>& out) {
  int* array = nullptr;
  int count = 0;
  const int status = fetch_path_array(&array, &count);
  out.clear();
  if (status == 0 && array != nullptr && count > 0 && static_cast<size_t>(count) <= out.capacity()) {
    out.assign(array, array + count);
  }
  delete[] array;
  return status;
}

using Run = int (*)(const Photo&, Out&);

int runSetSource(const Photo& p, Out&) {
  return setSourceImage(p.w, p.h, const_cast<unsigned int*>(p.argb.data()));
}
int runInit(const Photo&, Out&) { return initSegmentationEngine(0); }
int runProcess(const Photo&, Out& o) { return processSegment(0, 0, 0, o.blended.data(), o.mask.data()); }
int runCutOut(const Photo&, Out& o) { return cutOutImage(0, 0, 0, o.blended.data(), o.mask.data()); }
int runUndo(const Photo&, Out& o) { return undo(o.blended.data(), o.mask.data()); }
int runRedo(const Photo&, Out& o) { return redo(o.blended.data(), o.mask.data()); }
int runRectangle(const Photo& p, Out& o) {
  return doSegmentationBB(p.w, p.h, const_cast<unsigned int*>(p.argb.data()), p.x1, p.y1, p.x2, p.y2,
                          o.mask.data());
}
int runFetch(const Photo&, Out& o) { return fetchInto(o.outline); }

// How far the parent builds the context before the call.
enum State { kNothing, kPhoto, kEngine, kCut, kTwoCuts, kUndone };

struct Call {
  const char* label;  // the case's name; its first word is the call's name in its log line
  State state;
  Marks Photo::*marks;  // sent before the call and again for the retry; null: none
  Run run;
  bool followUp;  // photo and engine calls: a rectangle cut afterwards shows what they left
};

const Call kCalls[] = {
    {"setSourceImage", kNothing, nullptr, runSetSource, true},
    {"initSegmentationEngine", kPhoto, nullptr, runInit, true},
    {"processSegment rectangle", kEngine, &Photo::rectangle, runProcess, false},
    {"processSegment loop", kCut, &Photo::loop, runProcess, false},
    {"processSegment object stroke", kCut, &Photo::objectStroke, runProcess, false},
    {"processSegment background stroke", kCut, &Photo::backgroundStroke, runProcess, false},
    {"cutOutImage", kCut, &Photo::objectStroke, runCutOut, false},
    {"undo", kTwoCuts, nullptr, runUndo, false},
    {"redo", kUndone, nullptr, runRedo, false},
    {"doSegmentationBB", kCut, nullptr, runRectangle, false},
    {"fetch_path_array", kCut, nullptr, runFetch, false},
};

// Ends the context, so that what is left allocated can be compared.
void tearDown() {
  deinitSegmentation();
  freeLocalBuffers();
  VELDSEMarker::resetMarkers();
}

bool buildState(const Photo& p, State state) {
  tearDown();
  Out o(p);
  o.reset(p);
  bool ok = true;
  if (state >= kPhoto) ok = ok && setSourceImage(p.w, p.h, const_cast<unsigned int*>(p.argb.data())) == 0;
  if (state >= kEngine) ok = ok && initSegmentationEngine(0) == 0;
  if (state >= kCut) {
    send(p, p.rectangle);
    ok = ok && processSegment(0, 0, 0, o.blended.data(), o.mask.data()) == 0;
  }
  if (state >= kTwoCuts) {
    send(p, p.objectStroke);
    ok = ok && processSegment(0, 0, 0, o.blended.data(), o.mask.data()) == 0;
  }
  if (state >= kUndone) ok = ok && undo(o.blended.data(), o.mask.data()) == 0;
  return ok;
}

struct History {
  int canUndo, canRedo, current, top, bottom;
  bool operator==(const History& o) const { return std::memcmp(this, &o, sizeof(History)) == 0; }
};

History history() {
  return {canUndo(), canRedo(), VELDSEManageUndoRedo::m_current, VELDSEManageUndoRedo::m_top,
          VELDSEManageUndoRedo::m_bottom};
}

// A follow-up rectangle cut on what a photo or engine call left.
void followUp(const Photo& p, bool needsEngine, Out& o) {
  if (needsEngine) initSegmentationEngine(0);
  send(p, p.rectangle);
  o.reset(p);
  processSegment(0, 0, 0, o.blended.data(), o.mask.data());
}

// --- The clean run -------------------------------------------------------------

struct Reference {
  int status = 0;
  long points = 0;  // N
  long liveDelta = 0;
  History after{};
  Bytes mask, followMask;
  Pixels blended;
  std::vector<int> outlineBefore, outlineAfter;
};

// Pipe transfer of plain values and vectors, one way or the other.
struct Pipe {
  int fd;
  bool writing;
  bool ok = true;
  void raw(void* data, size_t n) {
    for (char* c = static_cast<char*>(data); ok && n > 0;) {
      const ssize_t k = writing ? write(fd, c, n) : read(fd, c, n);
      ok = k > 0;
      c += ok ? k : 0;
      n -= ok ? static_cast<size_t>(k) : 0;
    }
  }
  template <class T>
  void vec(std::vector<T>& v) {
    size_t n = v.size();
    raw(&n, sizeof(n));
    if (!ok || n > (1u << 26)) return void(ok = false);
    v.resize(n);
    raw(v.data(), n * sizeof(T));
  }
};

// The reference through the pipe, field by field, with a Writer or a Reader.
void transfer(Pipe& io, Reference& r) {
  io.raw(&r.status, sizeof(r.status));
  io.raw(&r.points, sizeof(r.points));
  io.raw(&r.liveDelta, sizeof(r.liveDelta));
  io.raw(&r.after, sizeof(r.after));
  io.vec(r.mask);
  io.vec(r.followMask);
  io.vec(r.blended);
  io.vec(r.outlineBefore);
  io.vec(r.outlineAfter);
}

// --- Children --------------------------------------------------------------------

int g_reportFd = -1;

// A crash or a hang: the signal and the stack ("<object>(<symbol>+<offset>)",
// glibc's own, which writes without allocating), then out.
void onFatalSignal(int sig) {
  char line[512];
  int n = std::snprintf(line, sizeof(line), "signal %d (%s)\n", sig,
                        sig == SIGALRM   ? "hang"
                        : sig == SIGABRT ? "abort"
                                         : "crash");
  if (write(g_reportFd, line, static_cast<size_t>(n)) < 0) _exit(128 + sig);
  void* frames[48];
  const int count = backtrace(frames, 48);
  backtrace_symbols_fd(frames + 2, count - 2, g_reportFd);
  _exit(128 + sig);
}

void prepareChild(int fd) {
  g_reportFd = fd;
  struct sigaction sa {};
  sa.sa_handler = onFatalSignal;
  for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGALRM}) sigaction(sig, &sa, nullptr);
  alarm(synthetic::emulated() ? 300 : 60);  // a cut normally ends within 10 s
}

// A child's findings, kept in a fixed buffer (a growing string would show
// in the live-block count).
struct Findings {
  char text[6144];
  size_t used = 0;
  bool any() const { return used > 0; }
  void add(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    if (used + 2 >= sizeof(text)) return;
    va_list ap;
    va_start(ap, format);
    const int n = std::vsnprintf(text + used, sizeof(text) - used - 1, format, ap);
    va_end(ap);
    if (n > 0) used = std::min(sizeof(text) - 2, used + static_cast<size_t>(n));
    text[used++] = '\n';
    text[used] = '\0';
  }
};

int firstDifference(const Bytes& a, const Bytes& b) {
  if (a.size() != b.size()) return -2;
  for (size_t i = 0; i < a.size(); ++i)
    if (a[i] != b[i]) return static_cast<int>(i);
  return -1;
}

// The live blocks that a call leaves are compared with the clean run's
// (tearDown() first, then the count). Both children start from the same
// forked state and end in the same one - no context - and neither holds a
// buffer of its own made in between, so without a leak their counts differ
// by exactly nothing: what a failed call made and released balances, what
// one-time set-up (OpenCV's thread data, the outline storage) it made is
// made once in either child, and threads that ended have returned their
// blocks (worker threads are joined inside each call). Under LeakSanitizer
// unreachable blocks are reported besides.
void leakCheck(long liveBefore, const Reference& ref, Findings& f) {
  const long delta = alloc_faults::liveBlocks() - liveBefore;
  if (delta != ref.liveDelta)
    f.add("leak: %ld blocks more live than after a clean run", delta - ref.liveDelta);
  if (__lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0) {
    f.add("leak: LeakSanitizer reports unreachable blocks (its report is on stderr)");
  }
}

// Compares a successful result with the clean run's.
void compareWithClean(const Call& c, const Photo& p, Out& o, int status, const Reference& ref,
                      const char* what, Findings& f) {
  if (status != ref.status) f.add("%s: status %d, clean run %d", what, status, ref.status);
  const int m = firstDifference(o.mask, ref.mask);
  if (m != -1) f.add("%s: mask differs from a clean run's (first at %d)", what, m);
  if (o.blended != ref.blended) f.add("%s: preview differs from a clean run's", what);
  const History h = history();
  if (!(h == ref.after)) {
    f.add("%s: history %d/%d (current %d top %d bottom %d), clean run %d/%d (%d %d %d)", what, h.canUndo,
          h.canRedo, h.current, h.top, h.bottom, ref.after.canUndo, ref.after.canRedo, ref.after.current,
          ref.after.top, ref.after.bottom);
  }
  fetchInto(o.outline);
  if (o.outline != ref.outlineAfter) f.add("%s: outline differs from a clean run's", what);
  if (c.followUp) {
    followUp(p, c.state == kNothing, o);
    const int k = firstDifference(o.mask, ref.followMask);
    if (k != -1) f.add("%s: a rectangle cut afterwards differs from a clean run's (first at %d)", what, k);
  }
}

void childReference(const Call& c, const Photo& p, int fd) {
  prepareChild(fd);
  // Everything this child keeps is sized before the count is taken.
  Reference r;
  Out o(p);
  r.mask.resize(p.argb.size());
  r.blended.resize(p.argb.size());
  if (c.followUp) r.followMask.resize(p.argb.size());
  r.outlineBefore.reserve(1 << 18);
  r.outlineAfter.reserve(1 << 18);
  if (c.run != runFetch) fetchInto(r.outlineBefore);
  o.reset(p);
  staticlog::start();
  const long live = alloc_faults::liveBlocks();
  alloc_faults::failAt(-1);
  r.status = c.run(p, o);
  alloc_faults::stop();
  r.points = alloc_faults::counted();
  r.after = history();
  std::copy(o.mask.begin(), o.mask.end(), r.mask.begin());
  std::copy(o.blended.begin(), o.blended.end(), r.blended.begin());
  fetchInto(r.outlineAfter);
  if (c.followUp) {
    followUp(p, c.state == kNothing, o);
    std::copy(o.mask.begin(), o.mask.end(), r.followMask.begin());
  }
  tearDown();
  r.liveDelta = alloc_faults::liveBlocks() - live;
  Pipe out{fd, true};
  transfer(out, r);
  _exit(out.ok ? 0 : 3);
}

// Exit status of a failing point whose request ran for the whole time limit.
constexpr int kRanPastTheLimit = 3;

void childPoint(const Call& c, const Photo& p, const Reference& ref, long index, int fd) {
  prepareChild(fd);
  Findings f;
  Out o(p);
  Pixels photoBefore(p.argb.size(), 0x12345678u), photoAfter(p.argb.size(), 0x12345678u);
  copySourceImage(photoBefore.data());
  const History before = history();
  const void* engine = pHybrid;
  o.reset(p);
  staticlog::start();
  const long live = alloc_faults::liveBlocks();

  alloc_faults::failAt(index);
  const auto started = std::chrono::steady_clock::now();
  const int status = c.run(p, o);
  const double ranMs =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();
  alloc_faults::stop();
  const bool fired = alloc_faults::fired();

  const int lines = std::min(staticlog::count(), staticlog::kMaxLines);
  int errorLines = 0, ranOut = 0, upscalingFallBack = 0;
  char expected[96];
  std::snprintf(expected, sizeof(expected), "%.*s: memory ran out",
                static_cast<int>(std::strcspn(c.label, " ")), c.label);
  for (int k = 0; k < lines; ++k) {
    if (std::strcmp(staticlog::line(k).tag, "Error") != 0) continue;
    if (std::strncmp(staticlog::line(k).text, "Failed: intelligentUpscaling", 28) == 0) {
      ++upscalingFallBack;
      continue;
    }
    ++errorLines;
    ranOut += staticlog::line(k).priority == ANDROID_LOG_ERROR &&
              std::strcmp(staticlog::line(k).text, expected) == 0;
  }
  auto listErrorLines = [&] {
    for (int k = 0; k < lines; ++k)
      if (std::strcmp(staticlog::line(k).tag, "Error") == 0)
        f.add("  logged: %d/Error: %s", staticlog::line(k).priority, staticlog::line(k).text);
  };

  if (!fired) {
    // This run passed fewer allocation points than the counting one.
    compareWithClean(c, p, o, status, ref, "point not reached, result", f);
  } else if (status == SEGCORE_FAILED) {
    if (errorLines != 1 || ranOut != 1 || upscalingFallBack != 0) {
      f.add("log: expected exactly one Error line \"%s\"", expected);
      listErrorLines();
    }
    const bool noContext = pHybrid == nullptr && VELDSEMarker::m_originalImage == nullptr &&
                           VELDSEManageUndoRedo::m_bitPlane == nullptr;
    if (!(c.run == runRectangle && noContext)) {
      const History h = history();
      if (!(h == before)) {
        f.add("history changed: %d/%d (current %d top %d bottom %d), before %d/%d (%d %d %d)", h.canUndo,
              h.canRedo, h.current, h.top, h.bottom, before.canUndo, before.canRedo, before.current,
              before.top, before.bottom);
      }
      if (pHybrid != engine) f.add("engine changed (%p, before %p)", static_cast<void*>(pHybrid), engine);
      copySourceImage(photoAfter.data());
      if (photoAfter != photoBefore) f.add("photo changed");
      if (c.run != runFetch) {
        fetchInto(o.outline);
        if (o.outline != ref.outlineBefore) {
          f.add("outline not fetched before the call is gone or changed (%zu ints, before %zu)",
                o.outline.size(), ref.outlineBefore.size());
        }
      }
    }
    // With memory back, the same request again.
    if (c.marks != nullptr) send(p, p.*(c.marks));
    o.reset(p);
    compareWithClean(c, p, o, c.run(p, o), ref, "retry", f);
  } else if (status == ref.status) {
    // Absorbed by a fall-back. The result must be whole; a cut may come out
    // coarser than a clean one (the band graph gave way to the coarse mask).
    if (errorLines != 0) {
      f.add("log: status %d but an Error line", status);
      listErrorLines();
    }
    Findings exact;
    compareWithClean(c, p, o, status, ref, "absorbed failure, result", exact);
    const bool cut = c.run == runProcess || c.run == runRectangle;
    bool whole = true;
    for (unsigned char v : o.mask) whole = whole && (v == 0 || v == 255);
    if (exact.any() && !(cut && whole && history() == ref.after)) {
      f.add("absorbed failure left an incomplete result:");
      f.add("%s", exact.text);
    }
  } else {
    f.add("status %d (expected %d, or %d after a fall-back)", status, SEGCORE_FAILED, ref.status);
    listErrorLines();
  }
  tearDown();
  leakCheck(live, ref, f);
  if (f.any()) {
    if (write(fd, f.text, f.used) < 0) _exit(2);
    // A request that ran as long as the cut's time limit may have been
    // stopped by it rather than by anything the failure did (an emulated
    // run on a loaded machine): the parent runs the point again.
    _exit(ranMs >= VELDSEGraph::TIME_LIMIT_MS ? kRanPastTheLimit : 1);
  }
  _exit(0);
}

int threadCount() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
  }
  return n;
}

// The thread count once threads that have been joined are gone. Under qemu
// user-mode emulation the guest's join returns before the emulator's own
// thread has ended, so a joined thread can stay listed for a moment on a busy
// machine; a thread that is still running stays listed.
int settledThreadCount(int expected) {
  for (int waitedMs = 0; waitedMs < 5000 && threadCount() != expected; waitedMs += 10) usleep(10000);
  return threadCount();
}

struct Child {
  pid_t pid;
  int fd;
};

template <class Body>
Child forkChild(Body&& body) {
  int fds[2];
  if (pipe(fds) != 0) return {-1, -1};
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    body(fds[1]);
    _exit(0);
  }
  close(fds[1]);
  return {pid, fds[0]};
}

std::string readAll(int fd) {
  std::string s;
  char buf[4096];
  for (ssize_t k; (k = read(fd, buf, sizeof(buf))) > 0;) s.append(buf, static_cast<size_t>(k));
  close(fd);
  return s;
}

std::string describeStatus(int status) {
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  const int code = WEXITSTATUS(status);
  if (code == 1) return "";
  if (code == kRanPastTheLimit) return "ran past the time limit on every try";
  if (code > 128) return "";  // the handler has written the signal and stack
  return "exit status " + std::to_string(code) + " (a sanitizer report is on stderr)";
}

struct Tally {
  long points = 0, tested = 0, failing = 0;
  std::string first;  // the report of the first point found failing
  std::string where;  // the failing points' indices
};

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

// Points tried per call where not every one is: AddressSanitizer makes a
// child about five times as slow, qemu about thirty times.
constexpr long kSanitizedPoints = 400;
constexpr long kEmulatedPoints = 150;

// Every stride-th point is tried.
long stride(long points) {
  if (synthetic::emulated()) return std::max(1L, points / kEmulatedPoints);
  if (kSanitized) return std::max(1L, points / kSanitizedPoints);
  return 1;
}

Tally sweep(const Call& c, const Photo& p, const Reference& ref, long only) {
  Tally t;
  t.points = ref.points;
  const long step = only >= 0 ? 1 : stride(ref.points);
  std::vector<long> indices;
  for (long i = 0; i < ref.points; i += step)
    if (only < 0 || i == only) indices.push_back(i);
  // The last point too: allocations at the very end of a call (the result's
  // hand-over) are where a rollback is easiest to get wrong.
  if (only < 0 && indices.back() != ref.points - 1) indices.push_back(ref.points - 1);
  // One child per core.
  const size_t kJobs = static_cast<size_t>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
  std::map<pid_t, std::pair<long, int>> running;  // pid -> (index, fd)
  std::map<long, int> reruns;                     // index -> runs past the time limit so far
  constexpr int kMaxReruns = 3;
  size_t next = 0;
  while (next < indices.size() || !running.empty()) {
    while (next < indices.size() && running.size() < kJobs) {
      const long i = indices[next++];
      const Child ch = forkChild([&](int fd) { childPoint(c, p, ref, i, fd); });
      if (ch.pid < 0) continue;
      running[ch.pid] = {i, ch.fd};
    }
    int status = 0;
    const pid_t pid = waitpid(-1, &status, 0);
    auto it = running.find(pid);
    if (it == running.end()) continue;
    const long i = it->second.first;
    // Reports are small: they sit in the pipe's buffer until read here.
    std::string report = readAll(it->second.second);
    running.erase(it);
    if (WIFEXITED(status) && WEXITSTATUS(status) == kRanPastTheLimit && reruns[i]++ < kMaxReruns) {
      indices.push_back(i);
      continue;
    }
    ++t.tested;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) continue;
    ++t.failing;
    t.where += (t.where.empty() ? "" : " ") + std::to_string(i);
    const std::string how = describeStatus(status);
    if (!how.empty()) report = how + "\n" + report;
    if (t.first.empty()) t.first = "point " + std::to_string(i) + ":\n" + report;
  }
  return t;
}

// SEGCORE_FAULT_POINT="<label> <w>x<h>:<index>": that point only.
bool selected(const std::string& label, long* only) {
  *only = -1;
  const char* v = std::getenv("SEGCORE_FAULT_POINT");
  if (v == nullptr) return true;
  const std::string s = v;
  const size_t colon = s.rfind(':');
  if (s.substr(0, colon) != label) return false;
  *only = std::atol(s.c_str() + colon + 1);
  return true;
}

// Sweeps the calls named in `labels` (all of kCalls when empty).
void sweepCalls(const Photo& p, const std::vector<std::string>& labels = {}) {
  // glibc dlopen()s libgcc_s.so.1 the first time it unwinds: for
  // backtrace(), and for pthread_exit(), with which the library's graph
  // threads end. Loaded here once, so that no child (a crashing one least of
  // all) loads it; the loader's own blocks are no allocation points and are
  // not leaks (tests/alloc_faults.cpp).
  const int threadsAtStart = threadCount();
  void* warm[1];
  backtrace(warm, 1);
  // OpenCV sets up its error reporting on its first error and keeps that for
  // the process. Done here once, so that it does not show as a block left
  // behind by the first failure in every child.
  alloc_faults::failAt(0);
  try {
    cv::fastFree(cv::fastMalloc(64));
  } catch (const cv::Exception&) {
  }
  alloc_faults::stop();
  ASSERT_TRUE(alloc_faults::fired());
  int swept = 0;
  for (const Call& c : kCalls) {
    if (!labels.empty() && std::find(labels.begin(), labels.end(), c.label) == labels.end()) continue;
    ++swept;
    const std::string label = std::string(c.label) + " " + std::to_string(p.w) + "x" + std::to_string(p.h);
    long only = -1;
    if (!selected(label, &only)) continue;
    SCOPED_TRACE(label);
    ASSERT_TRUE(buildState(p, c.state)) << "the context before the call could not be built";
    if (c.marks != nullptr) send(p, p.*(c.marks));
    // fork() copies the calling thread only; a thread of the library still
    // running would be missing in every child. (Compared with the count
    // before any call: an emulator such as qemu-user has threads of its own.)
    ASSERT_EQ(settledThreadCount(threadsAtStart), threadsAtStart);
    Reference ref;
    const Child ch = forkChild([&](int fd) { childReference(c, p, fd); });
    ASSERT_GE(ch.pid, 0);
    Pipe rd{ch.fd, false};
    transfer(rd, ref);
    close(ch.fd);
    int status = 0;
    waitpid(ch.pid, &status, 0);
    ASSERT_TRUE(rd.ok && WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "the clean run failed: " << describeStatus(status);
    ASSERT_EQ(ref.status, 0) << "the clean run";
    ASSERT_GT(ref.points, 0) << "the call allocates nothing?";

    const Tally t = sweep(c, p, ref, only);
    std::printf("[ fault    ] %-42s %6ld allocation points, %6ld tested (stride %ld), %5ld failing\n",
                label.c_str(), t.points, t.tested, only >= 0 ? 1 : stride(t.points), t.failing);
    std::fflush(stdout);
    // The other points: SEGCORE_FAULT_POINT runs any one of them alone.
    EXPECT_EQ(t.failing, 0) << "first " << t.first << "failing points: " << t.where;
    tearDown();
  }
  // A label that names no call would sweep nothing and pass.
  if (!labels.empty()) {
    EXPECT_EQ(swept, static_cast<int>(labels.size())) << "calls named but not in kCalls";
  }
}

// --- The injector itself --------------------------------------------------------

// Keeps the compiler from eliding an allocation whose block is never used.
template <class T>
T* keep(T* p) {
  asm volatile("" : : "r"(p) : "memory");
  return p;
}

struct Kind {
  const char* name;
  bool (*succeeds)();  // makes one allocation and releases it; false when it failed
  // Allocations that reporting the failure makes: a throwing new's
  // std::bad_alloc is itself allocated (__cxa_allocate_exception).
  long reportCost = 0;
};

void* threadBody(void*) { return nullptr; }

// One C allocation's block released; whether there was one.
bool freed(void* p) {
  std::free(keep(p));
  return p != nullptr;
}

// Whether `make` (a throwing new and its delete) got through without std::bad_alloc.
template <class F>
bool noBadAlloc(F make) {
  try {
    make();
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

struct alignas(64) Wide {
  char c[64];
};

const Kind kKinds[] = {
    {"malloc", [] { return freed(std::malloc(24)); }},
    {"calloc", [] { return freed(std::calloc(3, 8)); }},
    {"realloc of null", [] { return freed(std::realloc(nullptr, 40)); }},
    {"posix_memalign",
     [] {
       void* p = nullptr;
       return posix_memalign(&p, 64, 100) == 0 && freed(p);
     }},
    {"aligned_alloc", [] { return freed(aligned_alloc(64, 128)); }},
    {"new", [] { return noBadAlloc([] { delete keep(new int(3)); }); }, 1},
    {"new[]", [] { return noBadAlloc([] { delete[] keep(new int[9]); }); }, 1},
    {"nothrow new",
     [] {
       int* p = keep(new (std::nothrow) int(4));
       delete p;
       return p != nullptr;
     }},
    {"aligned new", [] { return noBadAlloc([] { delete keep(new Wide); }); }, 1},
    {"pthread_create",
     [] {
       pthread_t t;
       const int rc = pthread_create(&t, nullptr, threadBody, nullptr);
       if (rc == 0) pthread_join(t, nullptr);
       return rc == 0;
     }},
};

TEST(AllocFaults, FailsTheArmedAllocationOnlyAndCountsEach) {
  for (const Kind& k : kKinds) {
    SCOPED_TRACE(k.name);
    // Counting only: one point, nothing fails.
    alloc_faults::failAt(-1);
    const bool counting = k.succeeds();
    alloc_faults::stop();
    EXPECT_TRUE(counting);
    EXPECT_EQ(alloc_faults::counted(), 1);
    EXPECT_FALSE(alloc_faults::fired());
    // Armed at 1: the first succeeds, the second fails, the third succeeds.
    alloc_faults::failAt(1);
    const bool first = k.succeeds(), second = k.succeeds(), third = k.succeeds();
    alloc_faults::stop();
    EXPECT_TRUE(first);
    EXPECT_FALSE(second);
    EXPECT_TRUE(third);
    EXPECT_TRUE(alloc_faults::fired());
    EXPECT_EQ(alloc_faults::counted(), 3 + k.reportCost);
    // Stopped: nothing counted, nothing fails.
    alloc_faults::failAt(0);
    alloc_faults::stop();
    EXPECT_TRUE(k.succeeds());
    EXPECT_EQ(alloc_faults::counted(), 0);
    EXPECT_FALSE(alloc_faults::fired());
  }
}

TEST(AllocFaults, LiveBlocksFollowAllocationAndRelease) {
  struct Case {
    const char* name;
    void* (*make)();
    void (*release)(void*);
  } cases[] = {
      {"malloc / free", [] { return std::malloc(10); }, [](void* p) { std::free(p); }},
      {"new / delete", [] { return static_cast<void*>(new long(1)); },
       [](void* p) { delete static_cast<long*>(p); }},
      {"new[] / delete[]", [] { return static_cast<void*>(new char[300]); },
       [](void* p) { delete[] static_cast<char*>(p); }},
      {"realloc grow / realloc to 0", [] { return std::realloc(keep(std::malloc(8)), 4096); },
       [](void* p) { keep(std::realloc(p, 0)); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const long before = alloc_faults::liveBlocks();
    void* p = keep(c.make());
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(alloc_faults::liveBlocks(), before + 1);
    c.release(p);
    EXPECT_EQ(alloc_faults::liveBlocks(), before);
  }
}

TEST(AllocFaults, ThrowingNewAndThreadsReportExhaustionTheirWay) {
  alloc_faults::failAt(0);
  bool badAlloc = false;
  try {
    std::vector<int> v(100);
    keep(v.data());
  } catch (const std::bad_alloc&) {
    badAlloc = true;
  }
  alloc_faults::stop();
  EXPECT_TRUE(badAlloc);
  // std::thread allocates its state first (point 0), then starts the thread.
  alloc_faults::failAt(1);
  int code = 0;
  try {
    std::thread t([] {});
    t.join();
  } catch (const std::system_error& e) {
    code = e.code().value();
  }
  alloc_faults::stop();
  EXPECT_EQ(code, EAGAIN);
}

// --- The exported calls ---------------------------------------------------------

// Under 76,800 pixels: the cut runs on the photo as it is.
TEST(FaultInjection, EveryCallSurvivesEachFailedAllocationOnASmallPhoto) { sweepCalls(makePhoto(120, 90)); }

// Just over 76,800 pixels: the cut is made on a reduced photo and re-cut at
// full resolution along the band. The rectangle cut passes every allocation
// of the re-cut; the other calls do nothing here that the small photo does
// not show.
TEST(FaultInjection, RectangleCutSurvivesEachFailedAllocationWithTheFullResolutionReCut) {
  static_assert(322 * 240 > 76800, "the photo must be large enough for the band re-cut");
  sweepCalls(makePhoto(322, 240), {"processSegment rectangle"});
}

}  // namespace
