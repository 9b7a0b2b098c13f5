// The graph of one cut over the working box.
//
// Terminal links come from the label codes and the two colour models; the
// neighbour links are the precomputed contrast weights of the working image
// scaled by the smoothness weight. Every node gets exactly four edge pairs
// (left, up-left, up, up-right), placeholders included, so the graph built
// with 8 x nodes capacity floats never grows and the position of a pair alone
// identifies its edge.
//
// The two mixture densities per pixel are most of a build. They are a
// function of the pixel's three bytes alone, so a request lists the box's
// distinct triples once (its palette) and each build works every entry out
// once, in equal shares side by side; the pixels then take their entry's
// weights as they are added to the graph one node after the other (the graph
// sums its terminal flow in node order). Without a palette (no room for one)
// the same weights are worked out on the calling thread, each triple
// remembered as it comes. The neighbour links of a share's rows go straight
// to the floats the node's four addEdge calls would write.
#include <cmath>
#include <cstdint>
#include <vector>

#include "colormodel/training.h"
#include "engine/veldse_hybrid.h"
#include "engine/working_cuts.h"
#include "interface/veldse_marker.h"
#include "support/colour_memo.h"
#include "support/image_rows.h"
#include "support/slices.h"

namespace {

// Terminal capacity of a hard constraint; not scaled by the smoothness weight.
const float kHardConstraint = 1000.0f;

struct WeightPair {
  float toObject;
  float toBackground;
  unsigned char clusters;  // as RecordedClusters::perPixel holds them
};

// One row of the box as the weights read it: label codes and the three bytes
// of each pixel (colour, or grey and the two texture values).
struct BoxRow {
  const unsigned char* codes;
  const unsigned char* src;
  const unsigned char* texHor;  // grey photos only
  const unsigned char* texVer;

  BoxRow(const VELDSEHybrid& h, const IplImage* label, int r)
      : codes(imageRow(label, r)), src(imageRow(h.m_cropSrc, r)), texHor(nullptr), texVer(nullptr) {
    if (VELDSEMarker::m_isGreyScale) {
      texHor = imageRow(VELDSEMarker::m_texHor, VELDSEMarker::m_yMinBBox + r) + VELDSEMarker::m_xMinBBox;
      texVer = imageRow(VELDSEMarker::m_texVer, VELDSEMarker::m_yMinBBox + r) + VELDSEMarker::m_xMinBBox;
    }
  }

  uint32_t key(int c) const {
    const unsigned char* px = src + 3 * c;
    const unsigned char v1 = texHor != nullptr ? texHor[c] : px[1];
    const unsigned char v2 = texVer != nullptr ? texVer[c] : px[2];
    return px[0] | static_cast<uint32_t>(v1) << 8 | static_cast<uint32_t>(v2) << 16;
  }
};

bool hardCode(unsigned char code) { return code == LABEL_BG || code == LABEL_FG; }

WeightPair hardWeights(unsigned char code) {
  return code == LABEL_BG ? WeightPair{0.0f, kHardConstraint, RecordedClusters::kNone}
                          : WeightPair{kHardConstraint, 0.0f, RecordedClusters::kNone};
}

// The weights of one triple (and its components) under the two models.
WeightPair weightsOf(uint32_t key, const VELDSEColorModel& bgModel, const VELDSEColorModel& fgModel) {
  pixelVal sample;
  sample.val[0] = key & 0xFFu;
  sample.val[1] = key >> 8 & 0xFFu;
  sample.val[2] = key >> 16;
  int bgCluster;
  int fgCluster;
  // Background first; a zero density gives an infinite weight on purpose
  // (the pixel cannot belong to that side), so nothing is clamped.
  const double lb = std::log(densityAndCluster(bgModel, sample, &bgCluster));
  const double lf = std::log(densityAndCluster(fgModel, sample, &fgCluster));
  WeightPair pair{static_cast<float>(-lb), static_cast<float>(-lf),
                  static_cast<unsigned char>(fgCluster | bgCluster << 4)};
  // Grey photos give many pixels the two models cannot tell apart; tie them
  // exactly so that only the smoothness term decides.
  if (VELDSEMarker::m_isGreyScale && std::fabs(static_cast<float>(lf - lb)) < 0.0001) {
    pair.toObject = pair.toBackground;
  }
  return pair;
}

// Calls put(node, weights) for every pixel of box rows [r0, r1), row by row,
// each distinct triple worked out once.
template <class Put>
void forTerminalWeights(const VELDSEHybrid& h, const IplImage* label, int r0, int r1, const Put& put) {
  const int width = h.m_boundWidth;
  // Evaluation only reads a model; copies keep each slice's on its own lines.
  const VELDSEColorModel bgModel = h.m_bgModel;
  const VELDSEColorModel fgModel = h.m_fgModel;
  ColourMemo<WeightPair> memo(static_cast<long>(r1 - r0) * width);
  for (int r = r0; r < r1; ++r) {
    const BoxRow row(h, label, r);
    for (int c = 0; c < width; ++c) {
      const unsigned char code = row.codes[c];
      if (hardCode(code)) {
        put(r * width + c, hardWeights(code));
        continue;
      }
      const uint32_t key = row.key(c);
      put(r * width + c, memo.get(key, [&] { return weightsOf(key, bgModel, fgModel); }));
    }
  }
}

// The weights of every palette entry (there is at least one) under the
// current models, in equal shares side by side, into `table` (one per
// entry); each share then runs `alongside(r0, r1)` on its part of the box's
// rows, so that the row work of the same build rides on the same threads.
template <class Alongside>
void paletteWeights(const VELDSEHybrid& h, const workingcuts::BoxPalette& palette, std::vector<WeightPair>& table,
                    const Alongside& alongside) {
  const int entries = static_cast<int>(palette.keys.size());
  const long height = h.m_boundHeight;
  slices::forSlicesFrom(entries, entries, slices::parallelItems() / 8, [&](int e0, int e1) {
    const VELDSEColorModel bgModel = h.m_bgModel;
    const VELDSEColorModel fgModel = h.m_fgModel;
    for (int e = e0; e < e1; ++e) table[e] = weightsOf(palette.keys[e], bgModel, fgModel);
    alongside(static_cast<int>(height * e0 / entries), static_cast<int>(height * e1 / entries));
  });
}

// Calls put(node, weights) for every pixel of the box, row by row, taking the
// palette's table: what forTerminalWeights would give it. A pixel the
// palette left out though its code is not hard (labels other than those the
// palette was made from) is worked out here.
template <class Put>
void forPaletteWeights(const VELDSEHybrid& h, const IplImage* label, const workingcuts::BoxPalette& palette,
                       const std::vector<WeightPair>& table, const Put& put) {
  const int width = h.m_boundWidth;
  const int* entryOf = palette.entryOf.data();
  for (int r = 0; r < h.m_boundHeight; ++r) {
    const BoxRow row(h, label, r);
    for (int c = 0; c < width; ++c, ++entryOf) {
      const unsigned char code = row.codes[c];
      if (hardCode(code)) {
        put(r * width + c, hardWeights(code));
      } else if (*entryOf >= 0) {
        put(r * width + c, table[static_cast<size_t>(*entryOf)]);
      } else {
        put(r * width + c, weightsOf(row.key(c), h.m_bgModel, h.m_fgModel));
      }
    }
  }
}

// Calls put(node, weights) for every pixel of the box, row by row, and
// alongside(r0, r1) once for every row: by `palette` when it was made for
// this box and its table has room (entries worked out side by side), else on
// this thread, each distinct triple remembered as it comes (the same weights).
template <class Alongside, class Put>
void boxWeights(const VELDSEHybrid& h, const IplImage* label, const workingcuts::BoxPalette* palette,
                const Alongside& alongside, const Put& put) {
  std::vector<WeightPair> table;
  bool byPalette = palette != nullptr && !palette->keys.empty() &&
                   palette->entryOf.size() == static_cast<size_t>(h.m_boundWidth) * h.m_boundHeight;
  if (byPalette) {
    try {
      table.resize(palette->keys.size());
    } catch (const std::bad_alloc&) {
      byPalette = false;
    }
  }
  if (byPalette) {
    paletteWeights(h, *palette, table, alongside);
    forPaletteWeights(h, label, *palette, table, put);
  } else {
    forTerminalWeights(h, label, 0, h.m_boundHeight, put);
    alongside(0, h.m_boundHeight);
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

}  // namespace

namespace workingcuts {

void makeBoxPalette(const VELDSEHybrid& h, const IplImage* label, BoxPalette* palette) {
  const int width = h.m_boundWidth;
  const size_t n = static_cast<size_t>(width) * static_cast<size_t>(h.m_boundHeight);
  try {
    palette->entryOf.resize(n);
    palette->keys.clear();
    palette->keys.reserve(n);
    // Room for half the pixels as distinct triples keeps the table within
    // the cache on a full box; beyond that, a triple not remembered becomes
    // an entry of its own (the same weights, worked out twice).
    ColourMemo<int> entries(static_cast<long>(n / 2));
    for (int r = 0; r < h.m_boundHeight; ++r) {
      const BoxRow row(h, label, r);
      int* entryOf = palette->entryOf.data() + static_cast<size_t>(r) * width;
      for (int c = 0; c < width; ++c) {
        if (hardCode(row.codes[c])) {
          entryOf[c] = -1;
          continue;
        }
        const uint32_t key = row.key(c);
        // Within the reserved room: push_back cannot throw here.
        entryOf[c] = entries.get(key, [&] {
          palette->keys.push_back(key);
          return static_cast<int>(palette->keys.size()) - 1;
        });
      }
    }
  } catch (const std::bad_alloc&) {
    // Without a palette the builds remember triples as they come.
    palette->entryOf.clear();
    palette->keys.clear();
  }
}

void terminalWeights(const VELDSEHybrid& h, const IplImage* label, float* pairs, RecordedClusters* record,
                     const BoxPalette* palette) {
  unsigned char* const clusters = startRecording(h, record);
  boxWeights(h, label, palette, [](int, int) {}, [pairs, clusters](int node, const WeightPair& w) {
    pairs[2 * node] = w.toObject;
    pairs[2 * node + 1] = w.toBackground;
    if (clusters != nullptr) clusters[node] = w.clusters;
  });
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

void VELDSEHybrid::constructGraphVELD_Whole_Image() {
  workingcuts::BoxPalette palette;
  workingcuts::makeBoxPalette(*this, m_cropLabel, &palette);
  workingcuts::wholeBoxGraph(*this, nullptr, &palette);
}

namespace workingcuts {

void wholeBoxGraph(VELDSEHybrid& h, RecordedClusters* record, const BoxPalette* palette) {
  VELDSEGraph* graph = h.m_graph;
  const int n = h.m_boundHeight * h.m_boundWidth;
  graph->reset();
  graph->addNode(n);
  float* const caps = graph->m_caps;
  unsigned char* const clusters = startRecording(h, record);
  boxWeights(
      h, h.m_cropLabel, palette, [&](int r0, int r1) { neighbourLinkRows(h, h.m_lambda, caps, r0, r1); },
      [graph, clusters](int node, const WeightPair& w) {
        graph->addtWeights(node, w.toObject, w.toBackground);
        if (clusters != nullptr) clusters[node] = w.clusters;
      });
  finishEdges(graph, n);
}

}  // namespace workingcuts
