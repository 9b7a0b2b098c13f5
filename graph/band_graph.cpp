#include "graph/band_graph.h"

#include <cstring>

#include "graph/solver_core.h"

using graphcore::BandLinks;

namespace {

long records(const VELDSEGraph* g) { return g->m_nodeMax - g->m_nodes; }

// Past the capacities of every allocated node record: the neighbour links,
// the solver's mirror of parent and tree, and the presence bits of the
// neighbours.
BandLinks* links(const VELDSEGraph* g) { return reinterpret_cast<BandLinks*>(g->m_caps + 8 * records(g)); }
graphcore::BandLink* state(const VELDSEGraph* g) {
  return reinterpret_cast<graphcore::BandLink*>(links(g) + records(g));
}
unsigned char* present(const VELDSEGraph* g) { return reinterpret_cast<unsigned char*>(state(g) + records(g)); }
unsigned char* trees(const VELDSEGraph* g) { return present(g) + records(g); }

graphcore::BandTopology topology(const VELDSEGraph* g) { return {links(g), present(g), state(g), trees(g)}; }

}  // namespace

VELDSEGraph* createBandGraph(int nodeCount, int width, int height) {
  const long records = nodeCount > 16 ? nodeCount : 16;
  // Per record, in four-byte words: 8 capacities, 2 of links, 2 of mirrored
  // parent, and two bytes (presence bits, mirrored tree); the allocation
  // counts pairs of words.
  const long words = 12 * records + (2 * records + 3) / 4;
  VELDSEGraph* g = new VELDSEGraph(nodeCount, static_cast<int>((words + 1) / 2), width, height, 0);
  if (g->m_nodes == nullptr || g->m_caps == nullptr) return g;
  g->m_capMax = g->m_caps + 8 * records;
  std::memset(present(g), 0, static_cast<size_t>(records));
  return g;
}

void setBandNeighbours(VELDSEGraph* g, int i, int left, int upLeft, int up, int upRight) {
  BandLinks* l = links(g);
  unsigned char* p = present(g);
  // Index of the pixel right above i: up itself, or the one after the
  // upper-left neighbour, or the upper-right one when up is missing.
  const int above = up >= 0 ? up : upLeft >= 0 ? upLeft + 1 : upRight;
  unsigned bits = p[i];
  if (left >= 0) bits |= 1u << 0;
  if (upLeft >= 0) bits |= 1u << 1;
  if (up >= 0) bits |= 1u << 2;
  if (upRight >= 0) bits |= 1u << 3;
  p[i] = static_cast<unsigned char>(bits);
  l[i].above = above;
  // i is its earlier neighbours' right, lower-right, down or lower-left
  // neighbour; the pixel below each of them is i, i's left one or i's right
  // one, whose index is i, i-1 (left present) or i, and i+1.
  if (left >= 0) p[left] |= 1u << 4;
  if (upLeft >= 0) {
    p[upLeft] |= 1u << 5;
    l[upLeft].below = left >= 0 ? i - 1 : i;
  }
  if (up >= 0) {
    p[up] |= 1u << 6;
    l[up].below = i;
  }
  if (upRight >= 0) {
    p[upRight] |= 1u << 7;
    l[upRight].below = i + 1;
  }
}

int bandNeighbour(const VELDSEGraph* g, int i, int k) {
  const graphcore::BandTopology t = topology(g);
  return (t.mask(i) >> k) & 1u ? t.neighbour(i, k) : -1;
}

float bandMaxFlow(VELDSEGraph* g) {
  g->maxflowInit();
  const graphcore::BandTopology t = topology(g);
  for (int i = 0; i < g->m_nodeCount; ++i) {
    t.state[i].parent = g->m_nodes[i].parent;
    t.trees[i] = static_cast<unsigned char>(g->m_nodes[i].tree);
  }
  return graphcore::serialLoop(g, t);
}
