// Segmentation-like max-flow graphs for the benchmarks, built from
// samples/coffee.png:
//  * buildWholeImage(lambda): a 320 x 240 working image, 8-connected,
//    contrast n-links lambda * exp(-beta |dI|^2) (diagonals / sqrt 2),
//    t-links -log of colour-histogram likelihoods learned from a central
//    rectangle (object) and the border outside it (background, hard
//    constrained with 1000 as the first cut of a rectangle request does).
//  * buildBand(w, h): a w x h graph like the full-resolution re-cut builds:
//    almost every node isolated (zero t-links, absent edges), a band about
//    30 pixels wide along an elliptical outline with colour-model t-links and
//    contrast edges, rings of hard object / background on either side.
// A BuiltGraph keeps a pristine copy of its arrays so that every benchmark
// iteration can start from the graph as built (restore() is not timed).
#ifndef SEGCORE_BENCH_GRAPH_FIXTURES_H
#define SEGCORE_BENCH_GRAPH_FIXTURES_H

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "graph/veldse_graph.h"

namespace graph_fixtures {

inline constexpr float kHard = 1000.0f;

inline cv::Mat loadPhoto(int w, int h, int interpolation) {
  cv::Mat img = cv::imread(std::string(SEGCORE_SOURCE_DIR) + "/samples/coffee.png", cv::IMREAD_COLOR);
  if (img.empty()) return img;
  cv::Mat out;
  cv::resize(img, out, cv::Size(w, h), 0, 0, interpolation);
  return out;
}

inline int sqDiff(const uchar* a, const uchar* b) {
  const int d0 = a[0] - b[0], d1 = a[1] - b[1], d2 = a[2] - b[2];
  return d0 * d0 + d1 * d1 + d2 * d2;
}

// beta = 1 / (2 mean |dI|^2) over the 8-neighbour pairs (each once).
inline double contrastBeta(const cv::Mat& img) {
  double sum = 0.0;
  long count = 0;
  for (int y = 0; y < img.rows; ++y) {
    const uchar* row = img.ptr<uchar>(y);
    const uchar* up = y > 0 ? img.ptr<uchar>(y - 1) : nullptr;
    for (int x = 0; x < img.cols; ++x) {
      const uchar* p = row + 3 * x;
      if (x > 0) sum += sqDiff(p, p - 3), ++count;
      if (up == nullptr) continue;
      if (x > 0) sum += sqDiff(p, up + 3 * (x - 1)), ++count;
      sum += sqDiff(p, up + 3 * x), ++count;
      if (x + 1 < img.cols) sum += sqDiff(p, up + 3 * (x + 1)), ++count;
    }
  }
  return sum > 0.0 ? count / (2.0 * sum) : 0.0;
}

// A 16^3-bin colour histogram turned into a smoothed density over the RGB cube.
class ColourHistogram {
 public:
  ColourHistogram() : bins_(4096, 1.0) {}
  void add(const uchar* p) { bins_[index(p)] += 1.0; }
  void finish() {
    double total = 0.0;
    for (double b : bins_) total += b;
    for (double& b : bins_) b = b / total / (16.0 * 16.0 * 16.0);  // per unit colour volume
  }
  double density(const uchar* p) const { return bins_[index(p)]; }

 private:
  static int index(const uchar* p) { return (p[0] >> 4) << 8 | (p[1] >> 4) << 4 | (p[2] >> 4); }
  std::vector<double> bins_;
};

// A built graph plus a pristine copy of its arrays for restoring between runs.
struct BuiltGraph {
  std::unique_ptr<VELDSEGraph> graph;
  std::vector<nodes> pristineNodes;
  std::vector<float> pristineCaps;
  float pristineFlow = 0.0f;

  void snapshot() {
    VELDSEGraph& g = *graph;
    pristineNodes.assign(g.m_nodes, g.m_nodes + g.m_nodeCount);
    pristineCaps.assign(g.m_caps, g.m_caps + g.m_capCount);
    pristineFlow = g.m_flow;
  }
  void restore() {
    VELDSEGraph& g = *graph;
    std::memcpy(g.m_nodes, pristineNodes.data(), pristineNodes.size() * sizeof(nodes));
    std::memcpy(g.m_caps, pristineCaps.data(), pristineCaps.size() * sizeof(float));
    g.m_flow = pristineFlow;
    g.m_activeHead = g.m_activeTail = g.m_orphanHead = g.m_orphanTail = nullptr;
  }
};

// Per pixel: 0 = unknown (colour t-links), 1 = hard background, 2 = hard
// object, 7 = isolated (no t-links, no edges).
inline BuiltGraph buildGraph(const cv::Mat& img, const cv::Mat& codes, const ColourHistogram& fg, const ColourHistogram& bg,
                      double lambda) {
  const int w = img.cols, h = img.rows, n = w * h;
  const double beta = contrastBeta(img);
  BuiltGraph b;
  b.graph.reset(new VELDSEGraph(n, 8 * n, w, h, 0));
  VELDSEGraph& g = *b.graph;
  g.reset();
  g.addNode(n);
  for (int y = 0; y < h; ++y) {
    const uchar* row = img.ptr<uchar>(y);
    const uchar* code = codes.ptr<uchar>(y);
    for (int x = 0; x < w; ++x) {
      const int i = y * w + x;
      if (code[x] == 1) {
        g.addtWeights(i, 0.0f, kHard);
      } else if (code[x] == 2) {
        g.addtWeights(i, kHard, 0.0f);
      } else if (code[x] == 0) {
        const uchar* p = row + 3 * x;
        g.addtWeights(i, -static_cast<float>(std::log(bg.density(p))), -static_cast<float>(std::log(fg.density(p))));
      }
    }
  }
  const double diag = lambda / std::sqrt(2.0);
  for (int y = 0; y < h; ++y) {
    const uchar* row = img.ptr<uchar>(y);
    const uchar* up = y > 0 ? img.ptr<uchar>(y - 1) : nullptr;
    const uchar* code = codes.ptr<uchar>(y);
    const uchar* upCode = y > 0 ? codes.ptr<uchar>(y - 1) : nullptr;
    for (int x = 0; x < w; ++x) {
      const int i = y * w + x;
      const uchar* p = row + 3 * x;
      auto edge = [&](bool exists, const uchar* q, uchar qCode, double scale) {
        if (!exists || code[x] == 7 || qCode == 7) {
          g.addEdge(i, i, 0.0f, 0.0f, true);
          return;
        }
        const float c = static_cast<float>(scale * std::exp(-beta * sqDiff(p, q)));
        g.addEdge(i, i, c, c, false);
      };
      edge(x > 0, p - 3, x > 0 ? code[x - 1] : 7, lambda);
      edge(x > 0 && up, up ? up + 3 * (x - 1) : p, x > 0 && up ? upCode[x - 1] : 7, diag);
      edge(up != nullptr, up ? up + 3 * x : p, up ? upCode[x] : 7, lambda);
      edge(x + 1 < w && up, up ? up + 3 * (x + 1) : p, x + 1 < w && up ? upCode[x + 1] : 7, diag);
    }
  }
  b.snapshot();
  return b;
}

// Rectangle request on the working image: object model from the central
// rectangle, background model from outside it, outside hard background.
inline BuiltGraph buildWholeImage(double lambda) {
  const cv::Mat img = loadPhoto(320, 240, cv::INTER_AREA);
  if (img.empty()) return BuiltGraph();
  const cv::Rect rect(40, 30, 240, 180);
  cv::Mat codes(img.size(), CV_8UC1, cv::Scalar(1));
  codes(rect).setTo(cv::Scalar(0));
  ColourHistogram fg, bg;
  for (int y = 0; y < img.rows; ++y) {
    for (int x = 0; x < img.cols; ++x) {
      const uchar* p = img.ptr<uchar>(y) + 3 * x;
      if (rect.contains(cv::Point(x, y))) fg.add(p); else bg.add(p);
    }
  }
  fg.finish();
  bg.finish();
  return buildGraph(img, codes, fg, bg, lambda);
}

// Full-resolution re-cut: band |d| <= 15 along an ellipse, 25-pixel rings of
// hard object inside and hard background outside, everything else isolated.
inline BuiltGraph buildBand(int w, int h) {
  const cv::Mat img = loadPhoto(w, h, cv::INTER_CUBIC);
  if (img.empty()) return BuiltGraph();
  cv::Mat codes(img.size(), CV_8UC1, cv::Scalar(7));
  const double cx = w * 0.5, cy = h * 0.52, a = w * 0.36, bAxis = h * 0.38;
  for (int y = 0; y < h; ++y) {
    uchar* code = codes.ptr<uchar>(y);
    for (int x = 0; x < w; ++x) {
      const double u = (x - cx) / a, v = (y - cy) / bAxis;
      const double f = std::sqrt(u * u + v * v);
      if (f == 0.0) continue;
      const double gx = u / (a * f), gy = v / (bAxis * f);
      const double d = (f - 1.0) / std::sqrt(gx * gx + gy * gy);  // signed distance, outside > 0
      if (std::fabs(d) <= 15.0) code[x] = 0;
      else if (d > 15.0 && d <= 40.0) code[x] = 1;
      else if (d < -15.0 && d >= -40.0) code[x] = 2;
    }
  }
  ColourHistogram fg, bg;
  for (int y = 0; y < h; ++y) {
    const uchar* code = codes.ptr<uchar>(y);
    for (int x = 0; x < w; ++x) {
      if (code[x] == 2) fg.add(img.ptr<uchar>(y) + 3 * x);
      if (code[x] == 1) bg.add(img.ptr<uchar>(y) + 3 * x);
    }
  }
  fg.finish();
  bg.finish();
  return buildGraph(img, codes, fg, bg, 50.0);
}

}  // namespace graph_fixtures

#endif
