// Per-photo engine initialisation (reduction to the working size, grey test,
// texture images, neighbour weights) on phone-sized photos: a sample photo
// scaled up to 3 and 12 megapixels, in colour and in grey.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>
#include <opencv2/core/core_c.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <string>

#include "engine/veldse_hybrid.h"
#include "interface/veldse_marker.h"

namespace {

// The coffee photo (colour) or the camera photo (grey), scaled up to w x h.
IplImage* photo(int w, int h, bool grey) {
  const std::string path =
      std::string(SEGCORE_SOURCE_DIR) + (grey ? "/samples/camera.png" : "/samples/coffee.png");
  cv::Mat sample = cv::imread(path, cv::IMREAD_COLOR);
  if (sample.empty()) return nullptr;
  cv::Mat big;
  cv::resize(sample, big, cv::Size(w, h), 0, 0, cv::INTER_LINEAR);
  IplImage* image = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 3);
  big.copyTo(cv::cvarrToMat(image));
  return image;
}

void releaseWorkingImages() {
  if (VELDSEMarker::m_srcImage != nullptr) cvReleaseImage(&VELDSEMarker::m_srcImage);
  if (VELDSEMarker::m_texHor != nullptr) cvReleaseImage(&VELDSEMarker::m_texHor);
  if (VELDSEMarker::m_texVer != nullptr) cvReleaseImage(&VELDSEMarker::m_texVer);
}

// args: width, height, grey (0/1)
void BM_Intializer(benchmark::State& state) {
  const int w = static_cast<int>(state.range(0));
  const int h = static_cast<int>(state.range(1));
  const bool grey = state.range(2) != 0;
  VELDSEMarker::m_originalImage = photo(w, h, grey);
  if (VELDSEMarker::m_originalImage == nullptr) {
    state.SkipWithError("sample photo missing");
    return;
  }
  VELDSEMarker::m_originalWidth = w;
  VELDSEMarker::m_originalHeight = h;

  for (auto _ : state) {
    g_imageResizeFactor = 1.0f;
    VELDSEHybrid* engine = new VELDSEHybrid;
    engine->intializer();
    benchmark::DoNotOptimize(engine->m_nlinks);
    state.PauseTiming();
    if (VELDSEMarker::m_isGreyScale != grey) state.SkipWithError("unexpected grey-scale decision");
    delete engine;
    releaseWorkingImages();
    state.ResumeTiming();
  }
  state.counters["megapixels"] = w * static_cast<double>(h) / 1e6;
  cvReleaseImage(&VELDSEMarker::m_originalImage);
}

BENCHMARK(BM_Intializer)
    ->ArgNames({"w", "h", "grey"})
    ->Args({2000, 1500, 0})
    ->Args({2000, 1500, 1})
    ->Args({4000, 3000, 0})
    ->Args({4000, 3000, 1})
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace
