// Whole rectangle requests on large photos: wall time and the memory a
// request adds.
//
// Photos (argument "photo"): 0 samples/coffee.png (cup and saucer, about a
// third of the photo), 1 GrabCut's 189080 (the object covers about half of
// it) and 2 GrabCut's person1 (both read from the shared dataset folder,
// skipped when absent), scaled (cubic) to 0.3, 3, 12 and 50 megapixels with
// their rectangle.
//
// BM_Request makes the request as the app's bridge does: setSourceImage,
// initSegmentationEngine, the rectangle's marks (its border as the stroke, 4
// inside it in the marker grid, mode 0), processSegment. The time is all of
// these calls (not the app's own buffers, nor the previous context's
// teardown). peak_B_per_px is the peak resident memory processSegment adds on top of
// the set-up context, per photo pixel. The history's bit planes (4 bytes per
// pixel) are allocated and their pages touched by setSourceImage: they are in
// the time, not in the peak.
//
// BM_RequestSetUp is BM_Request without processSegment (and the outline's
// hand-over): the instructions a request executes are BM_Request's less
// these. bench/request_compare.sh runs two builds of this program side by
// side: wall-time medians, and instruction counts under callgrind.
//
// BM_RequestAgain repeats the rectangle on a context that already holds a
// result (the planes resident): the request's own peak.
//
// BM_DoSegmentationBB is the same rectangle through doSegmentationBB, which
// makes its own copies of the photo, the marker grid and a fresh context;
// its peak_B_per_px is over the whole call.
//
// BM_PeerGrabCut runs OpenCV's cv::grabCut on the same photos and rectangles
// for comparison (see there).
//
// The stages of a request are timed by bench/stages_bench.cpp.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <opencv2/core/core_c.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "bench/bench_photos.h"
#include "interface/segmentation_core.h"

// Counting a request's instructions under callgrind (bench/request_compare.sh)
// runs it some fifty times slower, into the library's ten-second budget: the
// request would be abandoned part-way, after a varying amount of work. With
// SEGCORE_BENCH_CLOCK_REVERSED=1 in the environment the wall clock the
// library reads (gettimeofday, replaced here for the whole program) runs
// backwards from its first reading, so no budget ever runs out and the
// solver's budget watcher never wakes. Otherwise this is the plain clock.
extern "C" int gettimeofday(struct timeval* __restrict tv, void* __restrict) __THROW {
  static const bool reversed = [] {
    const char* v = std::getenv("SEGCORE_BENCH_CLOCK_REVERSED");
    return v != nullptr && v[0] == '1';
  }();
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  long long micros = static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
  if (reversed) {
    static const long long first = micros;
    micros = 2 * first - micros;
  }
  tv->tv_sec = static_cast<time_t>(micros / 1000000);
  tv->tv_usec = static_cast<suseconds_t>(micros % 1000000);
  return 0;
}

namespace {

using benchphotos::borderAndGrid;
using benchphotos::Photo;

// Resident memory from /proc/self/status (kB fields), in bytes.
long statusBytes(const char* field) {
  std::ifstream f("/proc/self/status");
  const std::string want = std::string(field) + ":";
  for (std::string line; std::getline(f, line);) {
    if (line.compare(0, want.size(), want) == 0) return std::stol(line.substr(want.size())) * 1024;
  }
  return -1;
}

// Peak resident memory of a stretch of work above the memory resident when it
// starts. Freed memory is handed back to the system first, and large blocks
// always come from their own mappings, so what was freed before cannot hide
// what the work allocates.
class PeakMemory {
 public:
  PeakMemory() {
    static const bool fixed = mallopt(M_MMAP_THRESHOLD, 128 * 1024) == 1;
    (void)fixed;
    malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << "5";  // peak := current
    base_ = statusBytes("VmRSS");
  }
  long added() const { return statusBytes("VmHWM") - base_; }

 private:
  long base_;
};

void reportPhoto(benchmark::State& state, const Photo& p, double peakBytes, const std::vector<unsigned char>& mask) {
  const double pixels = p.width * static_cast<double>(p.height);
  state.counters["megapixels"] = pixels * 1e-6;
  state.counters["peak_B_per_px"] = benchmark::Counter(peakBytes / pixels, benchmark::Counter::kAvgIterations);
  state.counters["object_pixels"] = static_cast<double>(std::count(mask.begin(), mask.end(), 0));
}

// The request as the app's bridge makes it; with `request` false everything
// but processSegment and fetch_path_array (the set-up alone), so that what a
// request executes is the difference of the two.
void requestLoop(benchmark::State& state, bool request) {
  const benchphotos::Photo* named = benchphotos::photoArg(state);
  if (named == nullptr) return;
  const benchphotos::Photo& p = *named;
  benchphotos::RequestBuffers b;
  std::vector<unsigned char> mask(p.argb.size());
  double peak = 0.0;
  for (auto _ : state) {
    // The app's side (its buffers, the marker grid it draws) and the previous
    // context's teardown are not part of the request.
    state.PauseTiming();
    benchphotos::prepareRequest(p, &b);
    state.ResumeTiming();
    setSourceImage(p.width, p.height, b.photo.data());
    initSegmentationEngine(0);
    setCurrentMarkerVector(static_cast<int>(b.border.size()), b.border.data());
    setMarkerImage(p.width, p.height, b.grid.data(), 0);
    if (!request) continue;
    const PeakMemory memory;
    processSegment(0, 0, 0, b.preview.data(), mask.data());
    peak += static_cast<double>(memory.added());
    int* outline = nullptr;
    int count = 0;
    fetch_path_array(&outline, &count);
    delete[] outline;
  }
  deinitSegmentation();
  reportPhoto(state, p, peak, mask);
}

void BM_Request(benchmark::State& state) { requestLoop(state, true); }

// The set-up of BM_Request alone: for counting instructions (see
// bench/request_compare.sh), whose request share is BM_Request's count less
// this one's.
void BM_RequestSetUp(benchmark::State& state) { requestLoop(state, false); }

// The same rectangle again on a context that already holds a result: the
// history's planes are resident by then, so this is the request's own peak.
void BM_RequestAgain(benchmark::State& state) {
  const benchphotos::Photo* named = benchphotos::photoArg(state);
  if (named == nullptr) return;
  const benchphotos::Photo& p = *named;
  std::vector<unsigned int> photo = p.argb, preview(p.argb.size());
  std::vector<unsigned char> mask(p.argb.size());
  std::vector<int> border, grid;
  deinitSegmentation();
  resetSegmentationInterface();
  setSourceImage(p.width, p.height, photo.data());
  initSegmentationEngine(0);
  double peak = 0.0;
  for (auto _ : state) {
    state.PauseTiming();
    preview = p.argb;
    borderAndGrid(p, &border, &grid);
    state.ResumeTiming();
    setCurrentMarkerVector(static_cast<int>(border.size()), border.data());
    setMarkerImage(p.width, p.height, grid.data(), 0);
    const PeakMemory memory;
    processSegment(0, 0, 0, preview.data(), mask.data());
    peak += static_cast<double>(memory.added());
  }
  deinitSegmentation();
  reportPhoto(state, p, peak, mask);
}

void BM_DoSegmentationBB(benchmark::State& state) {
  const benchphotos::Photo* named = benchphotos::photoArg(state);
  if (named == nullptr) return;
  const benchphotos::Photo& p = *named;
  std::vector<unsigned char> mask(p.argb.size());
  double peak = 0.0;
  std::vector<unsigned int> photo;
  for (auto _ : state) {
    state.PauseTiming();
    deinitSegmentation();
    photo = p.argb;
    state.ResumeTiming();
    const PeakMemory memory;
    doSegmentationBB(p.width, p.height, photo.data(), p.x1, p.y1, p.x2, p.y2, mask.data());
    peak += static_cast<double>(memory.added());
  }
  deinitSegmentation();
  reportPhoto(state, p, peak, mask);
}

// {photo, tenths of a megapixel}; wall time (k-means runs on worker threads).
void photoSizes(benchmark::internal::Benchmark* b) {
  for (int which : {0, 1, 2}) {
    for (int tenths : {3, 30, 120, 500}) b->Args({which, tenths});
  }
  b->ArgNames({"photo", "tenths_mp"})->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);
}
BENCHMARK(BM_Request)->Apply(photoSizes);
BENCHMARK(BM_RequestSetUp)->Apply(photoSizes);
BENCHMARK(BM_RequestAgain)->Apply(photoSizes);
BENCHMARK(BM_DoSegmentationBB)->Apply(photoSizes);

// The peer: OpenCV's cv::grabCut on the same photo and rectangle, five
// iterations (the engine cuts five times), at full size - it has no reduced
// working image. Time from the BGR photo to the mask; its peak is over the
// call, per photo pixel. Up to 12 megapixels: that one already takes over two
// minutes here.
void BM_PeerGrabCut(benchmark::State& state) {
  const benchphotos::Photo* named = benchphotos::photoArg(state);
  if (named == nullptr) return;
  const benchphotos::Photo& p = *named;
  // The ARGB words are B, G, R, A bytes in memory.
  cv::Mat bgr;
  cv::cvtColor(cv::Mat(p.height, p.width, CV_8UC4, const_cast<unsigned int*>(p.argb.data())), bgr,
               cv::COLOR_BGRA2BGR);
  const cv::Rect rect(p.x1, p.y1, p.x2 - p.x1 + 1, p.y2 - p.y1 + 1);
  double peak = 0.0;
  std::vector<unsigned char> mask(p.argb.size());
  for (auto _ : state) {
    const PeakMemory memory;
    cv::Mat labels, bgModel, fgModel;
    cv::grabCut(bgr, labels, rect, bgModel, fgModel, 5, cv::GC_INIT_WITH_RECT);
    peak += static_cast<double>(memory.added());
    for (int y = 0; y < p.height; ++y) {
      const unsigned char* l = labels.ptr<unsigned char>(y);
      for (int x = 0; x < p.width; ++x) {
        // As the engine's mask: 0 for object.
        mask[static_cast<size_t>(y) * p.width + x] = (l[x] == cv::GC_FGD || l[x] == cv::GC_PR_FGD) ? 0 : 255;
      }
    }
  }
  reportPhoto(state, p, peak, mask);
}
void peerSizes(benchmark::internal::Benchmark* b) {
  for (int which : {0, 1, 2}) {
    for (int tenths : {3, 30, 120}) b->Args({which, tenths});
  }
  b->ArgNames({"photo", "tenths_mp"})->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1);
}
BENCHMARK(BM_PeerGrabCut)->Apply(peerSizes);

}  // namespace
