#include "graph/veldse_graph.h"

#include <cassert>
#include <cstring>

#include "graph/parallel_gc.h"
#include "graph/solver_core.h"

using namespace graphcore;

// ---------------------------------------------------------------------------
// Construction

VELDSEGraph::VELDSEGraph(int nodeMax, int edgeMax, int width, int height, int threads)
    : m_nodeCount(0),
      m_capCount(0),
      m_nodes(nullptr),
      m_nodeLast(nullptr),
      m_nodeMax(nullptr),
      m_caps(nullptr),
      m_capLast(nullptr),
      m_capMax(nullptr),
      m_flow(0.0f),
      m_activeHead(nullptr),
      m_activeTail(nullptr),
      m_orphanHead(nullptr),
      m_orphanTail(nullptr),
      m_offsets(),
      m_threads(threads),
      m_blockWidth(0),
      m_blockHeight(0),
      m_blockRow(0),
      m_blockCol(0),
      m_width(width),
      m_height(height) {
  const int nodeAlloc = nodeMax > 16 ? nodeMax : 16;
  const int pairAlloc = edgeMax > 16 ? edgeMax : 16;
  m_nodes = static_cast<nodes*>(allocArray(nodeAlloc, sizeof(nodes), 53));
  m_caps = static_cast<float*>(allocArray(pairAlloc, 2 * sizeof(float), 54));
  m_nodeLast = m_nodes;
  if (m_nodes != nullptr) m_nodeMax = m_nodes + nodeAlloc;
  m_capLast = m_caps;
  if (m_caps != nullptr) m_capMax = m_caps + 2 * static_cast<long>(pairAlloc);
  setOffsets();
}

VELDSEGraph::VELDSEGraph(VELDSEGraph* g, int blockRow, int blockCol, int blockWidth, int blockHeight)
    : m_nodeCount(g->m_nodeCount),
      m_capCount(g->m_capCount),
      m_nodes(g->m_nodes),
      m_nodeLast(g->m_nodeLast),
      m_nodeMax(g->m_nodeMax),
      m_caps(g->m_caps),
      m_capLast(g->m_capLast),
      m_capMax(g->m_capMax),
      m_flow(g->m_flow),
      m_activeHead(nullptr),
      m_activeTail(nullptr),
      m_orphanHead(nullptr),
      m_orphanTail(nullptr),
      m_offsets(),
      m_threads(0),
      m_blockWidth(blockWidth),
      m_blockHeight(blockHeight),
      m_blockRow(blockRow),
      m_blockCol(blockCol),
      m_width(g->m_width),
      m_height(g->m_height) {
  setOffsets();
}

VELDSEGraph::~VELDSEGraph() {
  // No reset() first: returning every node and capacity to its fresh state
  // right before the arrays are freed cannot be observed, and on a
  // full-resolution re-cut it would rewrite hundreds of megabytes.
  VELD_Free_Msg(m_nodes, "~VELDSEGraph", 128);
  VELD_Free_Msg(m_caps, "~VELDSEGraph", 129);
}

void VELDSEGraph::setOffsets() {
  const int w = m_width;
  const int offsets[8] = {-1, -1, 0, -w - 1, 0, -w, 0, 1 - w};
  for (int k = 0; k < 8; ++k) m_offsets[k] = offsets[k];
}

void VELDSEGraph::reset() {
  resetNew();
  m_nodeCount = 0;
  m_capCount = 0;
  m_nodeLast = m_nodes;
  m_capLast = m_caps;
}

int VELDSEGraph::resetNew() {
  for (int i = 0; i < m_nodeCount; ++i) freshNode(m_nodes + i);
  if (m_capCount > 0) std::memset(m_caps, 0, static_cast<size_t>(m_capCount) * sizeof(float));
  m_flow = 0.0f;
  m_activeHead = m_activeTail = nullptr;
  m_orphanHead = m_orphanTail = nullptr;
  return 0;
}

void VELDSEGraph::addNode(int n) {
  if (n < 1) return;
  assert(m_nodeLast + n <= m_nodeMax);
  for (int k = 0; k < n; ++k) freshNode(m_nodeLast + k);
  m_nodeLast += n;
  m_nodeCount += n;
}

void VELDSEGraph::addEdge(int /*i*/, int /*j*/, float cap, float revCap, bool absent) {
  assert(m_capLast + 2 <= m_capMax);
  if (absent) {
    m_capLast[0] = ABSENT_EDGE;
    m_capLast[1] = ABSENT_EDGE;
  } else {
    m_capLast[0] = cap;
    m_capLast[1] = revCap;
  }
  m_capLast += 2;
  m_capCount = static_cast<int>(m_capLast - m_caps);
}

int VELDSEGraph::addToEdge(int i, int j, float cap, float revCap) {
  const GridWalk walk(m_width, m_height);
  const unsigned mask = walk.mask(i);
  for (int k = 0; k < 8; ++k) {
    if ((mask & (1u << k)) == 0) continue;
    const int e = 8 * i + walk.slotOffset[k];
    if (m_caps[e] == ABSENT_EDGE) continue;
    if (i + walk.nodeOffset[k] != j) continue;
    m_caps[e] += cap;
    m_caps[e ^ 1] += revCap;
    break;
  }
  return 0;
}

void VELDSEGraph::addtWeights(int i, float capSource, float capSink) {
  nodes* n = m_nodes + i;
  const float r = n->trCap;
  if (r > 0.0f) {
    capSource += r;
  } else {
    capSink -= r;
  }
  m_flow += capSource < capSink ? capSource : capSink;
  n->trCap = capSource - capSink;
}

int VELDSEGraph::getTreeofNode(int i) { return m_nodes[i].tree == SINK_TREE ? 1 : 0; }

// ---------------------------------------------------------------------------
// Queues

void VELDSEGraph::AddToActiveQueue(nodes* n) { pushActive(this, n); }

nodes* VELDSEGraph::GetTopActiveQueueNode() { return popActive(this); }

void VELDSEGraph::AddToOrphanQueue(nodes* n) { pushOrphan(this, n); }

nodes* VELDSEGraph::GetTopOrphanQueueNode() { return popOrphan(this); }

// ---------------------------------------------------------------------------
// Solver

void VELDSEGraph::initNodeTrees(nodes* first, nodes* last) {
  for (nodes* n = first; n != last; ++n) {
    if (n->trCap > 0.0f) {
      n->parent = TERMINAL;
      n->tree = SOURCE_TREE;
    } else if (n->trCap < 0.0f) {
      n->parent = TERMINAL;
      n->tree = SINK_TREE;
    } else {
      n->parent = NONE;
      n->tree = FREE_TREE;
      continue;
    }
    AddToActiveQueue(n);
  }
}

void VELDSEGraph::maxflowInit() { initNodeTrees(m_nodes, m_nodes + m_nodeCount); }

void VELDSEGraph::InitBlock() {
  if (m_blockWidth < 1 || m_blockHeight < 1) return;
  m_flow = 0.0f;
  m_activeHead = m_activeTail = nullptr;
  m_orphanHead = m_orphanTail = nullptr;
  const int x0 = m_blockCol * m_blockWidth;
  int x1 = x0 + m_blockWidth;
  if (x1 > m_width) x1 = m_width;
  if (x0 >= x1) return;
  for (int y = m_blockRow * m_blockHeight; y < (m_blockRow + 1) * m_blockHeight; ++y) {
    const long rowStart = static_cast<long>(y) * m_width;
    if (rowStart + x0 >= m_nodeCount) break;
    long end = rowStart + x1;
    if (end > m_nodeCount) end = m_nodeCount;
    initNodeTrees(m_nodes + rowStart + x0, m_nodes + end);
  }
}

float VELDSEGraph::maxFlow() {
  // A thread count above 1 selects the block-parallel solver, which reports
  // 0 instead of the flow (the pushed flow still reaches m_flow).
  if (m_threads > 1) {
    ParallelGC pgc(this, m_threads);
    return static_cast<float>(pgc.maxFlow());
  }
  maxflowInit();
  return maxFlowSerialCall();
}

float VELDSEGraph::maxFlow(const LimitWatch& limit) {
  if (m_threads > 1) return maxFlow();
  maxflowInit();
  return serialLoop(this, GridTopology(this), limit);
}

void VELDSEGraph::AugmentPath(int middle) { augmentPath(this, GridTopology(this), middle); }

void VELDSEGraph::ProcessSourceOrphans(nodes* o) { adoptOrphan<false>(this, static_cast<int>(o - m_nodes), GridTopology(this)); }

void VELDSEGraph::ProcessSinkOrphans(nodes* o) { adoptOrphan<true>(this, static_cast<int>(o - m_nodes), GridTopology(this)); }

float VELDSEGraph::maxFlowSerialCall() { return serialLoop(this, GridTopology(this)); }
