// The photos and rectangles of the request benchmarks (request_bench,
// stages_bench): samples/coffee.png (photo 0) and GrabCut's 189080 (1) and
// person1 (2) from the shared dataset folder, scaled (cubic) to a number of
// tenths of a megapixel, with their rectangle scaled alike.
#ifndef SEGCORE_BENCH_BENCH_PHOTOS_H
#define SEGCORE_BENCH_BENCH_PHOTOS_H

#include <benchmark/benchmark.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <vector>

#include "interface/segmentation_core.h"
#include "interface/veldse_marker.h"

namespace benchphotos {

struct Photo {
  int width = 0;
  int height = 0;
  std::vector<unsigned int> argb;
  int x1 = 0, y1 = 0, x2 = 0, y2 = 0;  // rectangle, inclusive
};

struct Source {
  const char* path;
  int x1, y1, x2, y2;
};

const Source kSources[] = {
    {SEGCORE_SOURCE_DIR "/samples/coffee.png", 65, 50, 485, 392},
    {SEGCORE_SOURCE_DIR "/../shared/datasets/grabcut/images/189080.jpg", 15, 0, 298, 480},
    {SEGCORE_SOURCE_DIR "/../shared/datasets/grabcut/images/person1.jpg", 55, 61, 599, 449},
};

// Source `which` scaled to `tenthsMp` tenths of a megapixel; empty when the
// file is missing.
inline Photo makePhoto(int which, int tenthsMp) {
  const Source& s = kSources[which];
  const cv::Mat src = cv::imread(s.path, cv::IMREAD_COLOR);
  Photo p;
  if (src.empty()) return p;
  const double scale = std::sqrt(tenthsMp * 1e5 / (static_cast<double>(src.cols) * src.rows));
  p.width = static_cast<int>(std::lround(src.cols * scale));
  p.height = static_cast<int>(std::lround(src.rows * scale));
  cv::Mat img;
  cv::resize(src, img, cv::Size(p.width, p.height), 0, 0, cv::INTER_CUBIC);
  p.argb.resize(static_cast<size_t>(p.width) * p.height);
  for (int y = 0; y < p.height; ++y) {
    const unsigned char* row = img.ptr<unsigned char>(y);
    unsigned int* out = &p.argb[static_cast<size_t>(y) * p.width];
    for (int x = 0; x < p.width; ++x) {
      out[x] = 0xFF000000u | row[3 * x] | (row[3 * x + 1] << 8) | (row[3 * x + 2] << 16);
    }
  }
  p.x1 = static_cast<int>(s.x1 * scale);
  p.y1 = static_cast<int>(s.y1 * scale);
  p.x2 = std::min(p.width - 1, static_cast<int>(s.x2 * scale));
  p.y2 = std::min(p.height - 1, static_cast<int>(s.y2 * scale));
  return p;
}

// One photo at a time is kept: a 50 megapixel one is 200 MB.
inline const Photo& photoOf(int which, int tenthsMp) {
  static Photo cached;
  static int key = -1;
  if (key != which * 10000 + tenthsMp) {
    cached = Photo();
    cached = makePhoto(which, tenthsMp);
    key = which * 10000 + tenthsMp;
  }
  return cached;
}


inline void borderAndGrid(const Photo& p, std::vector<int>* border, std::vector<int>* grid) {
  border->clear();
  for (int x = p.x1; x < p.x2; ++x) border->insert(border->end(), {x, p.y1});
  for (int y = p.y1; y < p.y2; ++y) border->insert(border->end(), {p.x2, y});
  for (int x = p.x2; x > p.x1; --x) border->insert(border->end(), {x, p.y2});
  for (int y = p.y2; y > p.y1; --y) border->insert(border->end(), {p.x1, y});
  grid->assign(p.argb.size(), 0);
  for (int y = p.y1; y <= p.y2; ++y) {
    std::fill(grid->begin() + static_cast<long>(y) * p.width + p.x1,
              grid->begin() + static_cast<long>(y) * p.width + p.x2 + 1, LABEL_PR_FG);
  }
}

// The photo a benchmark's arguments (photo, tenths of a megapixel) name; null,
// with the benchmark skipped, when its file is missing.
inline const Photo* photoArg(benchmark::State& state) {
  const Photo& p = photoOf(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
  if (p.width != 0) return &p;
  state.SkipWithError("photo not found");
  return nullptr;
}

// The app's side of a rectangle request, which is not timed: the previous
// context torn down, fresh copies of the photo for the library and for the
// preview, and the rectangle's marks.
struct RequestBuffers {
  std::vector<unsigned int> photo;
  std::vector<unsigned int> preview;
  std::vector<int> border;
  std::vector<int> grid;
};

inline void prepareRequest(const Photo& p, RequestBuffers* b) {
  deinitSegmentation();
  resetSegmentationInterface();
  b->photo = p.argb;
  b->preview = p.argb;
  borderAndGrid(p, &b->border, &b->grid);
}

}  // namespace benchphotos

#endif
