// Colour-model training and evaluation on working-size samples of a photo.
#include <benchmark/benchmark.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <vector>

#include "colormodel/kmeans_init.h"
#include "colormodel/training.h"
#include "colormodel/veldse_color_model.h"
#include "interface/veldse_marker.h"

namespace {

// The first n pixels of the photo at the working size 320x240 (76800 pixels).
const std::vector<pixelVal>& photoSamples() {
  static const std::vector<pixelVal> samples = [] {
    cv::Mat img = cv::imread(SEGCORE_SOURCE_DIR "/samples/coffee.png", cv::IMREAD_COLOR);
    cv::Mat small;
    cv::resize(img, small, cv::Size(320, 240), 0, 0, cv::INTER_AREA);
    std::vector<pixelVal> s;
    s.reserve(small.total());
    for (int y = 0; y < small.rows; ++y) {
      const unsigned char* row = small.ptr<unsigned char>(y);
      for (int x = 0; x < small.cols; ++x) {
        s.push_back(pixelVal{{double(row[3 * x]), double(row[3 * x + 1]), double(row[3 * x + 2])}});
      }
    }
    return s;
  }();
  return samples;
}

std::vector<pixelVal> firstSamples(int n) {
  const std::vector<pixelVal>& all = photoSamples();
  return std::vector<pixelVal>(all.begin(), all.begin() + n);
}

void BM_InitModel(benchmark::State& state) {
  const std::vector<pixelVal> samples = firstSamples(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    VELDSEColorModel model;
    initModel(samples, model, 10);
    benchmark::DoNotOptimize(model.weight[0]);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
// Wall time: the assignment passes run on four worker threads.
BENCHMARK(BM_InitModel)->Arg(20000)->Arg(76800)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_UpdateModel(benchmark::State& state) {
  VELDSEMarker::m_noiseLevel = 0.1;
  const std::vector<pixelVal> samples = firstSamples(static_cast<int>(state.range(0)));
  VELDSEColorModel trained;
  initModel(samples, trained, 10);
  trained.setInverseCovariance();
  for (auto _ : state) {
    VELDSEColorModel model = trained;
    updateModel(samples, model);
    benchmark::DoNotOptimize(model.weight[0]);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_UpdateModel)->Arg(20000)->Arg(76800)->Unit(benchmark::kMillisecond);

// One model evaluated over a whole working image, as a graph build does.
void BM_GMMProb(benchmark::State& state) {
  VELDSEMarker::m_noiseLevel = 0.1;
  const std::vector<pixelVal>& samples = photoSamples();
  VELDSEColorModel model;
  initModel(samples, model, 10);
  model.setInverseCovariance();
  for (auto _ : state) {
    double acc = 0;
    for (const pixelVal& x : samples) acc += model.GMMProb(x);
    benchmark::DoNotOptimize(acc);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(samples.size()));
}
BENCHMARK(BM_GMMProb)->Unit(benchmark::kMicrosecond);

}  // namespace
