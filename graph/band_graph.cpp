#include "graph/band_graph.h"

#include <cstring>

#include "graph/solver_core.h"

namespace {

long records(const VELDSEGraph* g) { return g->m_nodeMax - g->m_nodes; }

// Past the capacities of every allocated node record: the neighbour table,
// then each node's parent node.
int* neighbourTable(const VELDSEGraph* g) { return reinterpret_cast<int*>(g->m_caps + 8 * records(g)); }
int* parentNodes(const VELDSEGraph* g) { return neighbourTable(g) + 8 * records(g); }

}  // namespace

VELDSEGraph* createBandGraph(int nodeCount, int width, int height) {
  const int records = nodeCount > 16 ? nodeCount : 16;
  // Per record: four capacity pairs, 8 ints of neighbour table and one parent
  // node (17 four-byte words), in pairs of two words.
  VELDSEGraph* g = new VELDSEGraph(nodeCount, (17 * records + 1) / 2, width, height, 0);
  if (g->m_nodes == nullptr || g->m_caps == nullptr) return g;
  g->m_capMax = g->m_caps + 8 * static_cast<long>(records);
  std::memset(neighbourTable(g), 0xFF, static_cast<size_t>(records) * 8 * sizeof(int));
  return g;
}

void setBandNeighbours(VELDSEGraph* g, int i, int left, int upLeft, int up, int upRight) {
  int* t = neighbourTable(g);
  int* own = t + 8 * static_cast<long>(i);
  own[0] = left;
  own[1] = upLeft;
  own[2] = up;
  own[3] = upRight;
  // The opposite direction of k (k < 4) is k + 4: i is its neighbour's right,
  // lower-right, down or lower-left neighbour.
  for (int k = 0; k < 4; ++k) {
    if (own[k] >= 0) t[8 * static_cast<long>(own[k]) + k + 4] = i;
  }
}

int bandNeighbour(const VELDSEGraph* g, int i, int k) { return neighbourTable(g)[8 * static_cast<long>(i) + k]; }

float bandMaxFlow(VELDSEGraph* g) {
  g->maxflowInit();
  return graphcore::serialLoop(g, graphcore::BandTopology{neighbourTable(g), parentNodes(g)});
}
