// The graph of one cut over the working box.
//
// Terminal links come from the label codes and the two colour models; the
// neighbour links are the precomputed contrast weights of the working image
// scaled by the smoothness weight. Every node gets exactly four addEdge calls
// (left, up-left, up, up-right), placeholders included, so the graph built
// with 8 x nodes capacity floats never grows and the position of a pair alone
// identifies its edge.
#include <cmath>

#include "engine/engine_util.h"
#include "engine/veldse_hybrid.h"
#include "interface/veldse_marker.h"

namespace {

// Terminal capacity of a hard constraint; not scaled by the smoothness weight.
const float kHardConstraint = 1000.0f;

}  // namespace

void VELDSEHybrid::constructGraphVELD() { constructGraphVELD_Whole_Image(); }

void VELDSEHybrid::constructGraphVELD_Whole_Image() {
  VELDSEGraph* graph = m_graph;
  const int width = m_boundWidth;
  const int height = m_boundHeight;
  const int x0 = VELDSEMarker::m_xMinBBox;
  const int y0 = VELDSEMarker::m_yMinBBox;
  const bool grey = VELDSEMarker::m_isGreyScale;

  graph->reset();
  graph->addNode(height * width);

  // Terminal links.
  for (int r = 0; r < height; ++r) {
    const unsigned char* label = imageRow(m_cropLabel, r);
    const unsigned char* src = imageRow(m_cropSrc, r);
    const unsigned char* texHor = grey ? imageRow(VELDSEMarker::m_texHor, y0 + r) + x0 : nullptr;
    const unsigned char* texVer = grey ? imageRow(VELDSEMarker::m_texVer, y0 + r) + x0 : nullptr;
    for (int c = 0; c < width; ++c) {
      const int node = r * width + c;
      const unsigned char code = label[c];
      if (code == LABEL_BG) {
        graph->addtWeights(node, 0.0f, kHardConstraint);
        continue;
      }
      if (code == LABEL_FG) {
        graph->addtWeights(node, kHardConstraint, 0.0f);
        continue;
      }
      pixelVal sample;
      const unsigned char* px = src + 3 * c;
      if (grey) {
        sample.val[0] = px[0];
        sample.val[1] = texHor[c];
        sample.val[2] = texVer[c];
      } else {
        sample.val[0] = px[0];
        sample.val[1] = px[1];
        sample.val[2] = px[2];
      }
      // Background first; a zero density gives an infinite weight on purpose
      // (the pixel cannot belong to that side), so nothing is clamped.
      const double lb = std::log(m_bgModel.GMMProb(sample));
      const double lf = std::log(m_fgModel.GMMProb(sample));
      float toObject = static_cast<float>(-lb);
      const float toBackground = static_cast<float>(-lf);
      // Grey photos give many pixels the two models cannot tell apart; tie
      // them exactly so that only the smoothness term decides.
      if (grey && std::fabs(static_cast<float>(lf - lb)) < 0.0001) toObject = toBackground;
      graph->addtWeights(node, toObject, toBackground);
    }
  }

  // Neighbour links, read at the node's own working pixel.
  const double lambda = m_lambda;
  auto weight = [&](const float* links, int slot) {
    return static_cast<float>(lambda * static_cast<double>(links[slot]));
  };
  for (int r = 0; r < height; ++r) {
    const float* links = m_nlinks + (static_cast<long>(y0 + r) * m_imgWidth + x0) * 4;
    for (int c = 0; c < width; ++c, links += 4) {
      const int node = r * width + c;
      if (c >= 1) {
        const float w = weight(links, 0);
        graph->addEdge(node, node - 1, w, w, false);
      } else {
        graph->addEdge(node, node, 0.0f, 0.0f, true);
      }
      if (r >= 1 && c >= 1) {
        const float w = weight(links, 1);
        graph->addEdge(node, node - width - 1, w, w, false);
      } else {
        graph->addEdge(node, node, 0.0f, 0.0f, true);
      }
      if (r >= 1) {
        const float w = weight(links, 2);
        graph->addEdge(node, node - width, w, w, false);
      } else {
        graph->addEdge(node, node, 0.0f, 0.0f, true);
      }
      if (r >= 1 && c + 1 < width) {
        const float w = weight(links, 3);
        graph->addEdge(node, node - width + 1, w, w, false);
      } else {
        graph->addEdge(node, node, 0.0f, 0.0f, true);
      }
    }
  }
}
