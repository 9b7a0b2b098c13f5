#include "graph/veldse_graph.h"

#include <cassert>
#include <climits>
#include <cstdint>
#include <cstring>

#include "graph/parallel_gc.h"
#include "interface/veldse_marker.h"
#include "support/cpu_timer.h"
#include "support/veld_memory.h"

namespace {

// Exact i / w for 0 <= i < 2^31 with one widening multiply instead of a
// divide: m = ceil(2^(32+l) / w) with 2^l >= w is exact for every 32-bit
// dividend (Granlund and Montgomery), and i * m stays below 2^64.
struct RowDivider {
  uint64_t magic;
  int shift;

  explicit RowDivider(int w) {
    int l = 0;
    while ((1ull << l) < static_cast<uint64_t>(w)) ++l;
    shift = 32 + l;
    magic = ((1ull << shift) + static_cast<uint64_t>(w) - 1) / static_cast<uint64_t>(w);
  }
  int row(int i) const {
    return static_cast<int>((static_cast<uint64_t>(static_cast<uint32_t>(i)) * magic) >> shift);
  }
};

// Direction bits in the fixed neighbour order.
enum : unsigned {
  kLeft = 1u << 0,
  kUpLeft = 1u << 1,
  kUp = 1u << 2,
  kUpRight = 1u << 3,
  kRight = 1u << 4,
  kDownRight = 1u << 5,
  kDown = 1u << 6,
  kDownLeft = 1u << 7,
};

// Everything a node visit needs that depends only on the grid: the leaving
// slot of each direction relative to 8i, the neighbour's index offset, and
// the border masks. Built once per call on the stack.
struct GridWalk {
  int slotOffset[8];
  int nodeOffset[8];
  int width;
  int lastRow;
  RowDivider div;

  GridWalk(int w, int h) : width(w), lastRow(h - 1), div(w < 1 ? 1 : w) {
    const int slot[8] = {0, 2, 4, 6, 9, 8 * w + 11, 8 * w + 5, 8 * w - 1};
    const int node[8] = {-1, -w - 1, -w, -w + 1, 1, w + 1, w, w - 1};
    for (int k = 0; k < 8; ++k) {
      slotOffset[k] = slot[k];
      nodeOffset[k] = node[k];
    }
  }

  // Directions of node i that lie inside the grid.
  unsigned mask(int i) const {
    const int r = div.row(i);
    const int c = i - r * width;
    unsigned m = 0xFFu;
    if (c == 0) m &= ~(kLeft | kUpLeft | kDownLeft);
    if (r == 0) m &= ~(kUpLeft | kUp | kUpRight);
    if (c == width - 1) m &= ~(kUpRight | kRight | kDownRight);
    if (r == lastRow) m &= ~(kDownRight | kDown | kDownLeft);
    return m;
  }
};

inline bool residual(float c) { return c != 0.0f && c != VELDSEGraph::ABSENT_EDGE; }

inline void freshNode(nodes* n) {
  n->parent = VELDSEGraph::NONE;
  n->tree = VELDSEGraph::FREE_TREE;
  n->trCap = 0.0f;
  n->nextActive = nullptr;
  n->nextOrphan = nullptr;
}

// Allocation of count elements of elemSize bytes, or null when the byte count
// does not fit the allocator's 32-bit size.
void* allocArray(int count, unsigned elemSize, int line) {
  const uint64_t bytes = static_cast<uint64_t>(count) * elemSize;
  if (bytes > UINT_MAX) return nullptr;
  return VELD_Malloc_Msg(static_cast<unsigned>(bytes), "VELDSEGraph", line);
}

bool exitRequested() { return VELDSEMarker::m_exitApp.load(std::memory_order_relaxed); }

// The check after every node visit: the time limit (which raises the cancel
// flag itself) and then the flag. The limit counts from the start of the
// request's timer up to now, also when the driver stopped the timer after an
// earlier cut.
bool stopAfterVisit() {
  CpuTimer* t = g_cancelTimer;
  if (t != nullptr) {
    // Read the time without writing the timer on every visit: the solver
    // threads of the parallel path check it concurrently. Only a run that is
    // over the limit stops the timer, as the elapsed-time query expects.
    struct timeval now;
    gettimeofday(&now, nullptr);
    const double startMicros =
        static_cast<double>(t->start.tv_sec) * 1e6 + static_cast<double>(t->start.tv_usec);
    const double nowMicros = static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_usec);
    if ((nowMicros - startMicros) * 0.001 > VELDSEGraph::TIME_LIMIT_MS) {
      stop_cpu_timer(t);
      VELDSEMarker::m_exitApp.store(true, std::memory_order_relaxed);
      return true;
    }
  }
  return exitRequested();
}

}  // namespace

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

void VELDSEGraph::skipNodeEdges() {
  assert(m_capLast + 8 <= m_capMax);
  m_capLast += 8;
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

void VELDSEGraph::AddToActiveQueue(nodes* n) {
  if (n->nextActive != nullptr) return;
  n->nextActive = n;
  if (m_activeTail != nullptr) {
    m_activeTail->nextActive = n;
  } else {
    m_activeHead = n;
  }
  m_activeTail = n;
}

nodes* VELDSEGraph::GetTopActiveQueueNode() {
  nodes* n = m_activeHead;
  if (n == nullptr) return nullptr;
  if (n == m_activeTail) {
    m_activeHead = m_activeTail = nullptr;
  } else {
    m_activeHead = n->nextActive;
  }
  return n;
}

void VELDSEGraph::AddToOrphanQueue(nodes* n) {
  n->parent = NONE;
  if (n->nextOrphan != nullptr) return;
  n->nextOrphan = n;
  if (m_orphanTail != nullptr) {
    m_orphanTail->nextOrphan = n;
  } else {
    m_orphanHead = n;
  }
  m_orphanTail = n;
}

nodes* VELDSEGraph::GetTopOrphanQueueNode() {
  nodes* n = m_orphanHead;
  if (n == nullptr) return nullptr;
  if (n == m_orphanTail) {
    m_orphanHead = m_orphanTail = nullptr;
  } else {
    m_orphanHead = n->nextOrphan;
  }
  n->nextOrphan = nullptr;
  return n;
}

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

void VELDSEGraph::AugmentPath(int middle) {
  float* const caps = m_caps;
  nodes* const base = m_nodes;
  // The first pass records the slots of each half so that the second pass
  // need not chase the parent chain again; a half longer than the buffer is
  // walked twice instead.
  constexpr int kRecorded = 1024;
  int sinkSlots[kRecorded], sourceSlots[kRecorded];

  // Bottleneck over the sink half, the middle edge and the source half.
  float f = caps[middle];
  nodes* x = base + headOfSlot(middle);
  int sinkLen = 0;
  for (int p = x->parent; p != TERMINAL; p = x->parent) {
    if (caps[p] < f) f = caps[p];
    if (sinkLen < kRecorded) sinkSlots[sinkLen] = p;
    ++sinkLen;
    x = base + headOfSlot(p);
  }
  nodes* const sinkRoot = x;
  if (-x->trCap < f) f = -x->trCap;
  x = base + headOfSlot(middle ^ 1);
  int sourceLen = 0;
  for (int p = x->parent; p != TERMINAL; p = x->parent) {
    if (caps[p ^ 1] < f) f = caps[p ^ 1];
    if (sourceLen < kRecorded) sourceSlots[sourceLen] = p;
    ++sourceLen;
    x = base + headOfSlot(p);
  }
  nodes* const sourceRoot = x;
  if (x->trCap < f) f = x->trCap;

  caps[middle] -= f;
  caps[middle ^ 1] += f;

  // Push and collect orphans, sink half first, each half from the middle out.
  // The node whose parent slot is p is the tail of p.
  if (sinkLen <= kRecorded) {
    for (int k = 0; k < sinkLen; ++k) {
      const int p = sinkSlots[k];
      caps[p] -= f;
      caps[p ^ 1] += f;
      if (caps[p] == 0.0f) AddToOrphanQueue(base + headOfSlot(p ^ 1));
    }
  } else {
    x = base + headOfSlot(middle);
    for (int p = x->parent; p != TERMINAL; p = x->parent) {
      caps[p] -= f;
      caps[p ^ 1] += f;
      nodes* const next = base + headOfSlot(p);
      if (caps[p] == 0.0f) AddToOrphanQueue(x);
      x = next;
    }
  }
  sinkRoot->trCap += f;
  if (sinkRoot->trCap == 0.0f) AddToOrphanQueue(sinkRoot);

  if (sourceLen <= kRecorded) {
    for (int k = 0; k < sourceLen; ++k) {
      const int p = sourceSlots[k];
      caps[p ^ 1] -= f;
      caps[p] += f;
      if (caps[p ^ 1] == 0.0f) AddToOrphanQueue(base + headOfSlot(p ^ 1));
    }
  } else {
    x = base + headOfSlot(middle ^ 1);
    for (int p = x->parent; p != TERMINAL; p = x->parent) {
      caps[p ^ 1] -= f;
      caps[p] += f;
      nodes* const next = base + headOfSlot(p);
      if (caps[p ^ 1] == 0.0f) AddToOrphanQueue(x);
      x = next;
    }
  }
  sourceRoot->trCap -= f;
  if (sourceRoot->trCap == 0.0f) AddToOrphanQueue(sourceRoot);

  m_flow += f;
}

namespace {

// Adoption of orphan o of tree `tree`. sinkSide selects which slot of a pair
// carries the residual towards the parent: from o to j in the sink tree, from
// j to o in the source tree.
template <bool sinkSide>
void adoptOrphan(VELDSEGraph* g, nodes* o, const GridWalk& walk) {
  const int tree = sinkSide ? VELDSEGraph::SINK_TREE : VELDSEGraph::SOURCE_TREE;
  nodes* const base = g->m_nodes;
  float* const caps = g->m_caps;
  const int i = static_cast<int>(o - base);
  const unsigned mask = walk.mask(i);
  const int slotBase = 8 * i;

  int bestSlot = VELDSEGraph::NONE;
  int bestDist = INT_MAX;
  for (int k = 0; k < 8; ++k) {
    if ((mask & (1u << k)) == 0) continue;
    const int e = slotBase + walk.slotOffset[k];
    if (caps[e] == VELDSEGraph::ABSENT_EDGE) continue;
    if ((sinkSide ? caps[e] : caps[e ^ 1]) == 0.0f) continue;
    const nodes* const j = o + walk.nodeOffset[k];
    if (j->parent == VELDSEGraph::NONE || j->tree != tree) continue;
    // Walk the whole chain to the terminal; a chain through an orphan fails.
    // A walk already as long as the best cannot win (ties go to the earlier
    // slot), so it may stop there.
    int d = 2;
    int s = j->parent;
    while (s != VELDSEGraph::TERMINAL && d < bestDist) {
      s = base[g->headOfSlot(s)].parent;
      ++d;
      if (s == VELDSEGraph::NONE) break;
    }
    if (s == VELDSEGraph::TERMINAL && d < bestDist) {
      bestDist = d;
      bestSlot = e;
      if (d == 2) break;  // nothing later can be strictly nearer
    }
  }
  if (bestSlot != VELDSEGraph::NONE) {
    o->parent = bestSlot;
    return;
  }

  o->parent = VELDSEGraph::NONE;
  o->tree = VELDSEGraph::FREE_TREE;
  for (int k = 0; k < 8; ++k) {
    if ((mask & (1u << k)) == 0) continue;
    const int e = slotBase + walk.slotOffset[k];
    if (caps[e] == VELDSEGraph::ABSENT_EDGE) continue;
    // Neighbours of the same tree, including ones that are themselves orphans
    // still waiting in the queue: such a neighbour may be re-adopted later,
    // and unless it is queued now nobody would grow back into o. Skipping
    // them leaves free nodes with residual edges into a tree at the end, so
    // the cut is not minimal (and an augmenting path can be missed).
    nodes* const j = o + walk.nodeOffset[k];
    if (j->tree != tree) continue;
    if ((sinkSide ? caps[e] : caps[e ^ 1]) != 0.0f) g->AddToActiveQueue(j);
    if (j->parent >= 0 && g->headOfSlot(j->parent) == i) g->AddToOrphanQueue(j);
  }
}

}  // namespace

void VELDSEGraph::ProcessSourceOrphans(nodes* o) { adoptOrphan<false>(this, o, GridWalk(m_width, m_height)); }

void VELDSEGraph::ProcessSinkOrphans(nodes* o) { adoptOrphan<true>(this, o, GridWalk(m_width, m_height)); }

float VELDSEGraph::maxFlowSerialCall() {
  if (exitRequested()) return m_flow;
  nodes* const base = m_nodes;
  float* const caps = m_caps;
  const GridWalk walk(m_width, m_height);

  for (;;) {
    // Pop the head of the active queue.
    nodes* const n = m_activeHead;
    if (n == nullptr) return m_flow;
    if (n == m_activeTail) {
      m_activeHead = m_activeTail = nullptr;
    } else {
      m_activeHead = n->nextActive;
    }

    const int i = static_cast<int>(n - base);
    const unsigned mask = walk.mask(i);
    const int slotBase = 8 * i;
    for (;;) {
      n->nextActive = nullptr;
      int middle = -1;
      if (n->tree == SOURCE_TREE) {
        for (int k = 0; k < 8; ++k) {
          if ((mask & (1u << k)) == 0) continue;
          const int e = slotBase + walk.slotOffset[k];
          if (!residual(caps[e])) continue;
          nodes* const j = n + walk.nodeOffset[k];
          if (j->tree == FREE_TREE) {
            j->tree = SOURCE_TREE;
            j->parent = e ^ 1;
            AddToActiveQueue(j);
          } else if (j->tree == SINK_TREE) {
            middle = e;
            break;
          }
        }
      } else if (n->tree == SINK_TREE) {
        for (int k = 0; k < 8; ++k) {
          if ((mask & (1u << k)) == 0) continue;
          const int e = (slotBase + walk.slotOffset[k]) ^ 1;
          if (!residual(caps[e])) continue;
          nodes* const j = n + walk.nodeOffset[k];
          if (j->tree == FREE_TREE) {
            j->tree = SINK_TREE;
            j->parent = e;
            AddToActiveQueue(j);
          } else if (j->tree == SOURCE_TREE) {
            middle = e;
            break;
          }
        }
      }
      if (middle < 0) {
        if (stopAfterVisit()) return m_flow;
        break;
      }

      // Counts as queued while its own augmentation's orphans are adopted;
      // it is visited again right after.
      n->nextActive = n;
      AugmentPath(middle);
      while (!exitRequested()) {
        nodes* const o = GetTopOrphanQueueNode();
        if (o == nullptr) break;
        // ProcessSinkOrphans / ProcessSourceOrphans with the grid tables
        // already at hand.
        if (o->tree == SINK_TREE) {
          adoptOrphan<true>(this, o, walk);
        } else if (o->tree == SOURCE_TREE) {
          adoptOrphan<false>(this, o, walk);
        }
      }
      if (stopAfterVisit()) return m_flow;
    }
  }
}
