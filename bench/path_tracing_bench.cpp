// Shortest-path parents over a 640 x 480 photo, with the peak heap use of one
// search (counted by replacing operator new/delete in this program).
#include <benchmark/benchmark.h>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/imgproc/imgproc_c.h>

#include <cstdlib>
#include <new>
#include <string>

#include "interface/path_tracing.h"

namespace {

size_t g_liveBytes = 0;
size_t g_peakBytes = 0;
constexpr size_t kHeader = 16;  // keeps the returned block max-aligned

void* trackedAlloc(size_t size) {
  char* block = static_cast<char*>(std::malloc(size + kHeader));
  if (!block) throw std::bad_alloc();
  *reinterpret_cast<size_t*>(block) = size;
  g_liveBytes += size;
  if (g_liveBytes > g_peakBytes) g_peakBytes = g_liveBytes;
  return block + kHeader;
}

void trackedFree(void* p) {
  if (!p) return;
  char* block = static_cast<char*>(p) - kHeader;
  g_liveBytes -= *reinterpret_cast<size_t*>(block);
  std::free(block);
}

}  // namespace

void* operator new(size_t size) { return trackedAlloc(size); }
void* operator new[](size_t size) { return trackedAlloc(size); }
void operator delete(void* p) noexcept { trackedFree(p); }
void operator delete[](void* p) noexcept { trackedFree(p); }
void operator delete(void* p, size_t) noexcept { trackedFree(p); }
void operator delete[](void* p, size_t) noexcept { trackedFree(p); }

namespace {

constexpr int kRows = 480;
constexpr int kCols = 640;

struct Scene {
  IplImage* src = nullptr;
  IplImage* label = nullptr;
  IplImage* out = nullptr;
};

// The rocket photo resized to 640 x 480, with object marks in a central box and
// background marks along the border, as a caller would pass after a request.
// Kept for the life of the program.
Scene& scene() {
  static Scene s;
  if (!s.src) {
    cv::Mat photo = cv::imread(std::string(SEGCORE_SOURCE_DIR) + "/samples/rocket.jpg", cv::IMREAD_COLOR);
    if (photo.empty()) photo = cv::Mat(kRows, kCols, CV_8UC3, cv::Scalar(90, 120, 150));
    s.src = cvCreateImage(cvSize(kCols, kRows), IPL_DEPTH_8U, 3);
    s.label = cvCreateImage(cvSize(kCols, kRows), IPL_DEPTH_8U, 1);
    s.out = cvCreateImage(cvSize(kCols, kRows), IPL_DEPTH_8U, 1);
    cv::Mat srcView = cv::cvarrToMat(s.src), labelView = cv::cvarrToMat(s.label);
    cv::resize(photo, srcView, srcView.size(), 0, 0, cv::INTER_AREA);
    labelView.setTo(cv::Scalar(0));
    cv::rectangle(labelView, cv::Rect(0, 0, kCols, kRows), cv::Scalar(1), 12);
    cv::rectangle(labelView, cv::Rect(kCols / 2 - 40, kRows / 2 - 60, 80, 120), cv::Scalar(2), cv::FILLED);
  }
  return s;
}

void reportPeak(benchmark::State& state, size_t before) {
  state.counters["peak_bytes_per_px"] =
      static_cast<double>(g_peakBytes - before) / (static_cast<double>(kRows) * kCols);
  state.counters["node_bytes"] = sizeof(Node_);
}

void BM_FindParentInfo(benchmark::State& state) {
  Scene& s = scene();
  const size_t before = g_liveBytes;
  g_peakBytes = g_liveBytes;
  for (auto _ : state) {
    std::vector<int> parents = find_parent_info(s.src, s.label, kRows / 2, kCols / 2, 0.5);
    benchmark::DoNotOptimize(parents.data());
  }
  reportPeak(state, before);
}
BENCHMARK(BM_FindParentInfo)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_FindParentInfoWithImage(benchmark::State& state) {
  Scene& s = scene();
  const size_t before = g_liveBytes;
  g_peakBytes = g_liveBytes;
  for (auto _ : state) {
    std::vector<int> parents = find_parent_info(s.src, s.label, kRows / 2, kCols / 2, 0.5, s.out);
    benchmark::DoNotOptimize(parents.data());
  }
  reportPeak(state, before);
}
BENCHMARK(BM_FindParentInfoWithImage)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace
