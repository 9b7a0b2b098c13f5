// The graph of one cut over the working box.
//
// Terminal links come from the label codes and the two colour models; the
// neighbour links are the precomputed contrast weights of the working image
// scaled by the smoothness weight. Every node gets exactly four edge pairs
// (left, up-left, up, up-right), placeholders included, so the graph built
// with 8 x nodes capacity floats never grows and the position of a pair alone
// identifies its edge.
//
// The two mixture densities per pixel are most of a build: they are worked
// out in row slices side by side into a list of weight pairs, and then added
// to the graph one node after the other (the graph sums its terminal flow in
// node order). The neighbour links of a row slice go straight to the floats
// the node's four addEdge calls would write.
#include <cmath>
#include <cstdint>
#include <vector>

#include "engine/veldse_hybrid.h"
#include "colormodel/training.h"
#include "engine/working_cuts.h"
#include "interface/veldse_marker.h"
#include "support/colour_memo.h"
#include "support/image_rows.h"
#include "support/owned.h"
#include "support/slices.h"
#include "support/veld_memory.h"

namespace {

// Terminal capacity of a hard constraint; not scaled by the smoothness weight.
const float kHardConstraint = 1000.0f;

struct WeightPair {
  float toObject;
  float toBackground;
  unsigned char clusters;  // as RecordedClusters::perPixel holds them
};

// Calls put(node, toObject, toBackground) for every pixel of box rows
// [r0, r1), row by row; when `clusters` is given, also records there each
// pixel's components under both models (RecordedClusters::perPixel).
template <class Put>
void forTerminalWeights(const VELDSEHybrid& h, const IplImage* label, int r0, int r1, unsigned char* clusters,
                        const Put& put) {
  const int width = h.m_boundWidth;
  const int x0 = VELDSEMarker::m_xMinBBox;
  const int y0 = VELDSEMarker::m_yMinBBox;
  const bool grey = VELDSEMarker::m_isGreyScale;
  // Evaluation only reads a model; copies keep each slice's on its own lines.
  VELDSEColorModel bgModel = h.m_bgModel;
  VELDSEColorModel fgModel = h.m_fgModel;
  // The weights are a function of the pixel's three bytes: each distinct
  // triple is worked out once.
  ColourMemo<WeightPair> memo(static_cast<long>(r1 - r0) * width);
  for (int r = r0; r < r1; ++r) {
    const unsigned char* codes = imageRow(label, r);
    const unsigned char* src = imageRow(h.m_cropSrc, r);
    const unsigned char* texHor = grey ? imageRow(VELDSEMarker::m_texHor, y0 + r) + x0 : nullptr;
    const unsigned char* texVer = grey ? imageRow(VELDSEMarker::m_texVer, y0 + r) + x0 : nullptr;
    for (int c = 0; c < width; ++c) {
      const int node = r * width + c;
      const unsigned char code = codes[c];
      if (code == LABEL_BG || code == LABEL_FG) {
        if (clusters != nullptr) clusters[node] = RecordedClusters::kNone;
        if (code == LABEL_BG) {
          put(node, 0.0f, kHardConstraint);
        } else {
          put(node, kHardConstraint, 0.0f);
        }
        continue;
      }
      const unsigned char* px = src + 3 * c;
      const unsigned char v0 = px[0];
      const unsigned char v1 = grey ? texHor[c] : px[1];
      const unsigned char v2 = grey ? texVer[c] : px[2];
      const WeightPair w = memo.get(v0 | static_cast<uint32_t>(v1) << 8 | static_cast<uint32_t>(v2) << 16, [&] {
        pixelVal sample;
        sample.val[0] = v0;
        sample.val[1] = v1;
        sample.val[2] = v2;
        // Background first; a zero density gives an infinite weight on
        // purpose (the pixel cannot belong to that side), so nothing is
        // clamped.
        int bgCluster;
        int fgCluster;
        const double lb = std::log(densityAndCluster(bgModel, sample, &bgCluster));
        const double lf = std::log(densityAndCluster(fgModel, sample, &fgCluster));
        WeightPair pair{static_cast<float>(-lb), static_cast<float>(-lf),
                        static_cast<unsigned char>(fgCluster | bgCluster << 4)};
        // Grey photos give many pixels the two models cannot tell apart; tie
        // them exactly so that only the smoothness term decides.
        if (grey && std::fabs(static_cast<float>(lf - lb)) < 0.0001) pair.toObject = pair.toBackground;
        return pair;
      });
      if (clusters != nullptr) clusters[node] = w.clusters;
      put(node, w.toObject, w.toBackground);
    }
  }
}

// The graph's node count and capacity cursor as after four addEdge calls per
// node.
void finishEdges(VELDSEGraph* g, int nodeCount) {
  g->m_capLast = g->m_caps + 8 * static_cast<long>(nodeCount);
  g->m_capCount = 8 * nodeCount;
}

// Room for the components of every box pixel and copies of the models they
// are worked out with; null (nothing recorded) when none is asked for or the
// room cannot be had.
unsigned char* startRecording(const VELDSEHybrid& h, RecordedClusters* record) {
  if (record == nullptr) return nullptr;
  record->valid = false;
  try {
    record->perPixel.resize(static_cast<size_t>(h.m_boundWidth) * static_cast<size_t>(h.m_boundHeight));
  } catch (const std::bad_alloc&) {
    // Only a saving is lost: the refit assigns every sample itself.
    record->perPixel.clear();
    return nullptr;
  }
  record->objectModel = h.m_fgModel;
  record->backgroundModel = h.m_bgModel;
  return record->perPixel.data();
}

// The record holds once every entry is written.
void finishRecording(RecordedClusters* record, const unsigned char* clusters) {
  if (clusters != nullptr) record->valid = true;
}

}  // namespace

namespace workingcuts {

void terminalWeightRows(const VELDSEHybrid& h, const IplImage* label, float* pairs, int r0, int r1,
                        unsigned char* clusters) {
  forTerminalWeights(h, label, r0, r1, clusters, [pairs](int node, float toObject, float toBackground) {
    pairs[2 * node] = toObject;
    pairs[2 * node + 1] = toBackground;
  });
}

void terminalWeights(const VELDSEHybrid& h, const IplImage* label, float* pairs, RecordedClusters* record) {
  unsigned char* const clusters = startRecording(h, record);
  const int height = h.m_boundHeight;
  slices::forSlicesFrom(height, static_cast<long>(height) * h.m_boundWidth, slices::parallelItems(),
                        [&](int r0, int r1) { terminalWeightRows(h, label, pairs, r0, r1, clusters); });
  finishRecording(record, clusters);
}

void neighbourLinkRows(const VELDSEHybrid& h, double lambda, float* caps, int r0, int r1) {
  const int width = h.m_boundWidth;
  const int x0 = VELDSEMarker::m_xMinBBox;
  const int y0 = VELDSEMarker::m_yMinBBox;
  const float absent = VELDSEGraph::ABSENT_EDGE;
  for (int r = r0; r < r1; ++r) {
    // Read at the node's own working pixel (the lower or right-hand one).
    const float* links = h.m_nlinks + (static_cast<long>(y0 + r) * h.m_imgWidth + x0) * 4;
    float* out = caps + 8 * static_cast<long>(r) * width;
    for (int c = 0; c < width; ++c, links += 4, out += 8) {
      const bool up = r >= 1;
      float w = c >= 1 ? static_cast<float>(lambda * static_cast<double>(links[0])) : absent;
      out[0] = w;
      out[1] = w;
      w = up && c >= 1 ? static_cast<float>(lambda * static_cast<double>(links[1])) : absent;
      out[2] = w;
      out[3] = w;
      w = up ? static_cast<float>(lambda * static_cast<double>(links[2])) : absent;
      out[4] = w;
      out[5] = w;
      w = up && c + 1 < width ? static_cast<float>(lambda * static_cast<double>(links[3])) : absent;
      out[6] = w;
      out[7] = w;
    }
  }
}

void fillGraph(const VELDSEHybrid& h, VELDSEGraph* g, const float* pairs, double lambda) {
  const int height = h.m_boundHeight;
  const int n = h.m_boundWidth * height;
  g->reset();
  g->addNode(n);
  for (int node = 0; node < n; ++node) g->addtWeights(node, pairs[2 * node], pairs[2 * node + 1]);
  neighbourLinkRows(h, lambda, g->m_caps, 0, height);
  finishEdges(g, n);
}

int writeCut(VELDSEGraph* g, IplImage* label) {
  const int height = label->height;
  const int width = label->width;
  const nodes* const records = g->m_nodes;
  int objectCount = 0;
  for (int r = 0; r < height; ++r) {
    unsigned char* codes = imageRow(label, r);
    const nodes* row = records + static_cast<long>(r) * width;
    for (int c = 0; c < width; ++c) {
      const unsigned char code = codes[c];
      if (row[c].tree == VELDSEGraph::SINK_TREE) {
        if (code == LABEL_UNKNOWN || code > LABEL_FG) codes[c] = LABEL_PR_BG;
      } else if (code != LABEL_BG && code != LABEL_FG) {
        codes[c] = LABEL_PR_FG;
        ++objectCount;
      }
    }
  }
  return objectCount;
}

}  // namespace workingcuts

void VELDSEHybrid::constructGraphVELD() { constructGraphVELD_Whole_Image(); }

void VELDSEHybrid::constructGraphVELD_Whole_Image() { workingcuts::wholeBoxGraph(*this, nullptr); }

namespace workingcuts {

void wholeBoxGraph(VELDSEHybrid& h, RecordedClusters* record) {
  VELDSEGraph* graph = h.m_graph;
  const int n = h.m_boundHeight * h.m_boundWidth;
  // The weight pairs of all nodes; without them the weights go to the graph
  // as they are worked out, on this thread alone (the same graph).
  const owned::Tracked<float> pairs(static_cast<float*>(VELD_Malloc_Msg(
      static_cast<unsigned int>(8 * static_cast<unsigned long>(n > 0 ? n : 1)),
      "constructGraphVELD_Whole_Image", 3342)));
  graph->reset();
  graph->addNode(n);
  float* const caps = graph->m_caps;
  unsigned char* const clusters = startRecording(h, record);
  if (pairs.get() != nullptr) {
    float* const p = pairs.get();
    slices::forSlicesFrom(h.m_boundHeight, static_cast<long>(n), slices::parallelItems(), [&](int r0, int r1) {
      terminalWeightRows(h, h.m_cropLabel, p, r0, r1, clusters);
      neighbourLinkRows(h, h.m_lambda, caps, r0, r1);
    });
    for (int node = 0; node < n; ++node) graph->addtWeights(node, p[2 * node], p[2 * node + 1]);
  } else {
    forTerminalWeights(h, h.m_cropLabel, 0, h.m_boundHeight, clusters,
                       [graph](int node, float toObject, float toBackground) {
                         graph->addtWeights(node, toObject, toBackground);
                       });
    neighbourLinkRows(h, h.m_lambda, caps, 0, h.m_boundHeight);
  }
  finishEdges(graph, n);
  finishRecording(record, clusters);
}

}  // namespace workingcuts
