// Full-resolution re-cut of the boundary band on camera-sized photos.
//
// The photo holds an ellipse-shaped object covering about half of it, with
// noisy object and background colours; the working mask is the ellipse at
// the engine's working resolution (about 320 x 240). Reported per size:
// wall time of intelligentUpscaling, the trimap graph's bytes (the graph is
// allocated for the whole box around the band), the band's pixel count, and
// the growth of the process's peak resident size during the first call.
#include <sys/resource.h>

#include <cmath>
#include <cstdio>
#include <map>

#include <benchmark/benchmark.h>
#include <opencv2/core/core.hpp>
#include <opencv2/core/core_c.h>
#include <opencv2/imgproc/imgproc.hpp>

#include "engine/veldse_hybrid.h"
#include "graph/veldse_graph.h"
#include "interface/veldse_marker.h"

namespace {

long currentRssKb() {
  long pages = 0, resident = 0;
  FILE* f = std::fopen("/proc/self/statm", "r");
  if (f == nullptr) return 0;
  if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
  std::fclose(f);
  return resident * 4;
}

long peakRssKb() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

void setSingleComponent(VELDSEColorModel& m, double m0, double m1, double m2, double var) {
  m = VELDSEColorModel();
  m.weight[0] = 1.0;
  m.mean[0][0] = m0;
  m.mean[0][1] = m1;
  m.mean[0][2] = m2;
  for (int i = 0; i < 3; ++i) {
    m.covariance[0][4 * i] = var;
    m.inverseCovariance[0][4 * i] = 1.0 / var;
  }
  m.determinant[0] = var * var * var;
  m.normFactor[0] = 1.0 / std::sqrt(m.determinant[0]);
}

// Builds the context for a width x height photo; returns the 0/1 working mask.
IplImage* setUpPhoto(VELDSEHybrid& hybrid, int width, int height) {
  VELDSEMarker::m_originalWidth = width;
  VELDSEMarker::m_originalHeight = height;
  const float scale = std::sqrt(static_cast<float>(width * height) * 1.30208336e-05f);
  g_imageResizeFactor = scale;
  const int workW = static_cast<int>(width / scale), workH = static_cast<int>(height / scale);

  // Ellipse of area pi * a * b = half the photo, aspect of the photo.
  const double a = std::sqrt(0.5 * width * height / M_PI * width / height);
  const double b = a * height / width;
  cv::Mat objectMask(height, width, CV_8UC1, cv::Scalar(0));
  cv::ellipse(objectMask, cv::Point(width / 2, height / 2), cv::Size(int(a), int(b)), 0, 0, 360, cv::Scalar(255),
              -1);
  cv::Mat photo(height, width, CV_8UC3);
  cv::randn(photo, cv::Scalar(0, 0, 0), cv::Scalar(18, 18, 18));
  photo += cv::Scalar(170, 90, 60);
  cv::Mat object(height, width, CV_8UC3);
  cv::randn(object, cv::Scalar(0, 0, 0), cv::Scalar(18, 18, 18));
  object += cv::Scalar(50, 110, 190);
  object.copyTo(photo, objectMask);
  VELDSEMarker::m_originalImage = cvCreateImage(cvSize(width, height), IPL_DEPTH_8U, 3);
  photo.copyTo(cv::cvarrToMat(VELDSEMarker::m_originalImage));

  cv::Mat working;
  cv::resize(objectMask, working, cv::Size(workW, workH), 0, 0, cv::INTER_AREA);
  IplImage* mask = cvCreateImage(cvSize(workW, workH), IPL_DEPTH_8U, 1);
  VELDSEMarker::m_labelImage = cvCreateImage(cvSize(workW, workH), IPL_DEPTH_8U, 1);
  for (int y = 0; y < workH; ++y) {
    for (int x = 0; x < workW; ++x) {
      const bool in = working.at<unsigned char>(y, x) >= 128;
      cv::cvarrToMat(mask).at<unsigned char>(y, x) = in ? 1 : 0;
      cv::cvarrToMat(VELDSEMarker::m_labelImage).at<unsigned char>(y, x) = in ? LABEL_PR_FG : LABEL_PR_BG;
    }
  }
  VELDSEMarker::m_isGreyScale = false;
  setSingleComponent(hybrid.m_fgModel, 50, 110, 190, 18.0 * 18.0 * 2);
  setSingleComponent(hybrid.m_bgModel, 170, 90, 60, 18.0 * 18.0 * 2);
  hybrid.m_lambda = 50.0;
  hybrid.m_beta = 1.0 / (2.0 * 3 * 2 * 18.0 * 18.0);
  return mask;
}

void BM_IntelligentUpscaling(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0)), height = static_cast<int>(state.range(1));
  VELDSEHybrid hybrid;
  IplImage* mask = setUpPhoto(hybrid, width, height);
  const long rssBefore = currentRssKb();
  const long peakBefore = peakRssKb();
  // Measured on the first call of the process for this size only: later
  // calls reuse pages the allocator already holds.
  static std::map<int, long> peakGrowthKb;
  static std::map<int, long> bandPixelsOf;
  long& bandPixels = bandPixelsOf[width];
  bool first = peakGrowthKb.count(width) == 0;
  for (auto _ : state) {
    IplImage* result = hybrid.intelligentUpscaling(mask);
    benchmark::DoNotOptimize(result->imageData);
    if (first) {
      first = false;
      // The peak includes everything live before the call (the photo); when
      // an earlier, larger run set the peak, the growth is understated, so
      // run one size per process for the figure.
      peakGrowthKb[width] = peakRssKb() - (peakBefore > rssBefore ? peakBefore : rssBefore);
      state.PauseTiming();
      // Band size: pixels whose enlarged trimap code is 0 (recomputed here).
      cv::Mat m = cv::cvarrToMat(mask), d1, e1;
      cv::dilate(m, d1, cv::Mat());
      cv::erode(m, e1, cv::Mat(), cv::Point(-1, -1), 1, cv::BORDER_CONSTANT, cv::morphologyDefaultBorderValue());
      cv::Mat band = d1 - e1, big;
      cv::resize(band, big, cv::Size(width, height), 0, 0, cv::INTER_NEAREST);
      bandPixels = cv::countNonZero(big);
      state.ResumeTiming();
    }
    cvReleaseImage(&result);
  }
  const double nodeCount = static_cast<double>(hybrid.m_boundWidthTrimap) * hybrid.m_boundHeightTrimap;
  // As the graph allocates them: node records plus 8 capacity pairs per node.
  state.counters["graph_MB"] = (nodeCount * sizeof(nodes) + 8.0 * nodeCount * 2 * sizeof(float)) / 1e6;
  state.counters["box_Mpx"] = nodeCount / 1e6;
  state.counters["band_Mpx"] = bandPixels / 1e6;
  state.counters["peak_growth_MB"] = peakGrowthKb[width] / 1024.0;
  cvReleaseImage(&mask);
  cvReleaseImage(&VELDSEMarker::m_originalImage);
  cvReleaseImage(&VELDSEMarker::m_labelImage);
  g_imageResizeFactor = 1.0f;
}

// For a clean peak figure run one size per process, e.g.
//   upscaling_bench --benchmark_filter=4000
BENCHMARK(BM_IntelligentUpscaling)
    ->Args({1280, 960})
    ->Args({4000, 3000})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);

}  // namespace
