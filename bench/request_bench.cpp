// A whole rectangle request at about 0.3, 3 and 12 megapixels, and where its
// time goes.
//
// The photo is samples/coffee.png scaled up to the size (3:2), the rectangle
// round cup and saucer scaled with it. BM_RectangleRequest times
// doSegmentationBB exactly as the app calls it (fresh context, five cuts,
// full-resolution re-cut, post-processing, history).
//
// BM_RequestStages runs the same work stage by stage through the engine's
// members and reports each stage's time per request as a counter (ms):
//   reduce_weights  setSourceImage + initSegmentationEngine (working image,
//                   grey test, neighbour weights)
//   labels_box      marks -> label image, working box, pre-processing, crops
//   colour_models   one fit (k-means seeded) and four refits of both models
//   graph_build     five whole-box graph builds
//   maxflow         five max-flows and label updates
//   recut           the full-resolution re-cut of the boundary band
//   post_process    island and hole clean-up, merge
// It cuts five times at the default smoothness weight instead of choosing it
// with three trial cuts, so its sum is close to, not equal to, the request.
#include <benchmark/benchmark.h>
#include <opencv2/core/core_c.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <chrono>
#include <cmath>
#include <vector>

#include "colormodel/kmeans_init.h"
#include "colormodel/training.h"
#include "engine/veldse_hybrid.h"
#include "interface/segmentation_core.h"
#include "interface/veldse_marker.h"
#include "support/cpu_timer.h"

namespace {

struct Photo {
  int width = 0;
  int height = 0;
  std::vector<unsigned int> argb;
  int x1 = 0, y1 = 0, x2 = 0, y2 = 0;  // rectangle, inclusive
};

// coffee.png (600x400) scaled to `tenthsMp` tenths of a megapixel.
Photo makePhoto(int tenthsMp) {
  const cv::Mat src = cv::imread(SEGCORE_SOURCE_DIR "/samples/coffee.png", cv::IMREAD_COLOR);
  const double scale = std::sqrt(tenthsMp * 1e5 / (static_cast<double>(src.cols) * src.rows));
  Photo p;
  p.width = static_cast<int>(std::lround(src.cols * scale));
  p.height = static_cast<int>(std::lround(src.rows * scale));
  cv::Mat img;
  cv::resize(src, img, cv::Size(p.width, p.height), 0, 0, cv::INTER_CUBIC);
  p.argb.resize(static_cast<size_t>(p.width) * p.height);
  for (int y = 0; y < p.height; ++y) {
    const unsigned char* row = img.ptr<unsigned char>(y);
    for (int x = 0; x < p.width; ++x) {
      p.argb[static_cast<size_t>(y) * p.width + x] =
          0xFF000000u | row[3 * x] | (row[3 * x + 1] << 8) | (row[3 * x + 2] << 16);
    }
  }
  // The demo's rectangle on the 600x400 original.
  p.x1 = static_cast<int>(65 * scale);
  p.y1 = static_cast<int>(50 * scale);
  p.x2 = std::min(p.width - 1, static_cast<int>(485 * scale));
  p.y2 = std::min(p.height - 1, static_cast<int>(392 * scale));
  return p;
}

const Photo& photoOf(int tenthsMp) {
  static Photo cache[3];
  const int i = tenthsMp <= 3 ? 0 : tenthsMp <= 30 ? 1 : 2;
  if (cache[i].width == 0) cache[i] = makePhoto(tenthsMp);
  return cache[i];
}

void BM_RectangleRequest(benchmark::State& state) {
  const Photo& p = photoOf(static_cast<int>(state.range(0)));
  std::vector<unsigned int> pixels = p.argb;
  std::vector<unsigned char> mask(pixels.size());
  for (auto _ : state) {
    doSegmentationBB(p.width, p.height, pixels.data(), p.x1, p.y1, p.x2, p.y2, mask.data());
    benchmark::DoNotOptimize(mask.data());
  }
  deinitSegmentation();
  state.counters["megapixels"] = p.width * static_cast<double>(p.height) * 1e-6;
  state.counters["object_pixels"] =
      static_cast<double>(std::count(mask.begin(), mask.end(), 0));
}
// Wall time: k-means runs on worker threads.
BENCHMARK(BM_RectangleRequest)->Arg(3)->Arg(30)->Arg(120)->UseRealTime()->Unit(benchmark::kMillisecond);

class StageClock {
 public:
  explicit StageClock(double* sink) : sink_(sink), t0_(std::chrono::steady_clock::now()) {}
  ~StageClock() {
    *sink_ += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0_).count();
  }

 private:
  double* sink_;
  std::chrono::steady_clock::time_point t0_;
};

void BM_RequestStages(benchmark::State& state) {
  const Photo& p = photoOf(static_cast<int>(state.range(0)));
  std::vector<unsigned int> pixels = p.argb;
  // The rectangle's marks as doSegmentationBB makes them.
  std::vector<int> border;
  for (int x = p.x1; x < p.x2; ++x) border.insert(border.end(), {x, p.y1});
  for (int y = p.y1; y < p.y2; ++y) border.insert(border.end(), {p.x2, y});
  for (int x = p.x2; x > p.x1; --x) border.insert(border.end(), {x, p.y2});
  for (int y = p.y2; y > p.y1; --y) border.insert(border.end(), {p.x1, y});
  std::vector<int> grid(pixels.size(), 0);
  for (int y = p.y1; y <= p.y2; ++y) {
    for (int x = p.x1; x <= p.x2; ++x) grid[static_cast<size_t>(y) * p.width + x] = LABEL_PR_FG;
  }

  enum { kReduce, kLabels, kModels, kBuild, kFlow, kRecut, kPost, kStages };
  double ms[kStages] = {};
  for (auto _ : state) {
    {
      StageClock c(&ms[kReduce]);
      deinitSegmentation();
      resetSegmentationInterface();
      setSourceImage(p.width, p.height, pixels.data());
      initSegmentationEngine(0);
    }
    VELDSEHybrid* h = pHybrid;
    {
      StageClock c(&ms[kLabels]);
      std::vector<int> points = border;
      std::vector<int> markers = grid;
      setCurrentMarkerVector(static_cast<int>(points.size()), points.data());
      setMarkerImage(p.width, p.height, markers.data(), 0);
      h->setLabelImage(g_markerImage);
      cvReleaseImage(&g_markerImage);
      g_cancelTimer = create_timer();
      start_cpu_timer(g_cancelTimer);
      h->computeBoundingBox();
      h->preProcess();
      h->m_graph = h->graphSpaceAllocator();
      h->m_cropSrc = h->cropImage(VELDSEMarker::m_srcImage);
      h->m_cropLabel = h->cropImage(VELDSEMarker::m_labelImage);
      h->m_cropLabelInit = cvCloneImage(h->m_cropLabel);
      h->m_lambda = 50.0;
      VELDSEMarker::m_noiseLevel = 0.1;
    }
    std::vector<pixelVal> objectSet, backgroundSet;
    for (int cut = 0; cut < 5; ++cut) {
      {
        StageClock c(&ms[kModels]);
        extractTrainingData(h->m_cropSrc, h->m_cropLabel, objectSet, backgroundSet);
        if (cut == 0) {
          initModel(backgroundSet, h->m_bgModel, 10);
          initModel(objectSet, h->m_fgModel, 10);
        } else {
          updateModel(objectSet, backgroundSet, h->m_fgModel, h->m_bgModel);
        }
        h->m_fgModel.setInverseCovariance();
        h->m_bgModel.setInverseCovariance();
      }
      {
        StageClock c(&ms[kBuild]);
        h->constructGraphVELD_Whole_Image();
      }
      {
        StageClock c(&ms[kFlow]);
        h->m_graph->maxFlow();
        h->updateLabelImage();
      }
    }
    delete h->m_graph;
    h->m_graph = nullptr;
    // The working mask as the mask extraction hands it to the re-cut: labels
    // written back into the working label image, object 1 inside the box.
    const bool scaled = g_imageResizeFactor > 1.0f;
    IplImage* w = cvCreateImage(cvSize(h->m_imgWidth, h->m_imgHeight), IPL_DEPTH_8U, 1);
    cvSetZero(w);
    for (int r = 0; r < h->m_boundHeight; ++r) {
      const unsigned char* lab =
          reinterpret_cast<unsigned char*>(h->m_cropLabel->imageData + r * h->m_cropLabel->widthStep);
      const int y = VELDSEMarker::m_yMinBBox + r;
      unsigned char* full = reinterpret_cast<unsigned char*>(
          VELDSEMarker::m_labelImage->imageData + y * VELDSEMarker::m_labelImage->widthStep);
      unsigned char* out = reinterpret_cast<unsigned char*>(w->imageData + y * w->widthStep);
      for (int c = 0; c < h->m_boundWidth; ++c) {
        const int x = VELDSEMarker::m_xMinBBox + c;
        full[x] = lab[c];
        if (lab[c] == LABEL_FG || lab[c] == LABEL_PR_FG) out[x] = scaled ? 1 : 255;
      }
    }
    IplImage* result = w;
    if (scaled) {
      StageClock c(&ms[kRecut]);
      result = h->intelligentUpscaling(w);
    }
    {
      StageClock c(&ms[kPost]);
      h->postProcess(result);
    }
    if (result != w) cvReleaseImage(&result);
    cvReleaseImage(&w);
    h->clearMemory();
  }
  deinitSegmentation();
  const char* names[kStages] = {"reduce_weights", "labels_box", "colour_models", "graph_build",
                                "maxflow", "recut", "post_process"};
  double total = 0.0;
  for (int s = 0; s < kStages; ++s) {
    state.counters[names[s]] = benchmark::Counter(ms[s], benchmark::Counter::kAvgIterations);
    total += ms[s];
  }
  state.counters["sum"] = benchmark::Counter(total, benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_RequestStages)->Arg(3)->Arg(30)->Arg(120)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
