#include "graph/band_graph.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

#include "graph/solver_core.h"
#include "support/slices.h"

#if defined(__linux__)
#include <sys/mman.h>
#endif

using graphcore::BandLinks;

namespace {

long records(const VELDSEGraph* g) { return g->m_nodeMax - g->m_nodes; }

// The arrays a band graph keeps past the capacities of every allocated node
// record, in the order they are laid out: one element per record each. The
// table is the one place that says where each array starts and how much the
// allocation holds; the accessors below and createBandGraph read it.
enum BandArray { kLinks, kUps, kSlots, kNext, kTerminals, kPresent, kTrees, kBandArrays };
constexpr size_t kElementBytes[kBandArrays] = {
    sizeof(BandLinks),             // kLinks: pixel above and below
    sizeof(int),                   // kUps: parent node
    sizeof(int),                   // kSlots: parent slot
    sizeof(graphcore::BandNext),   // kNext: queue links
    sizeof(float),                 // kTerminals: residual terminal capacity
    sizeof(unsigned char),         // kPresent: neighbour presence bits
    sizeof(unsigned char),         // kTrees: tree of each node
};
constexpr size_t kCapacityBytes = 8 * sizeof(float);  // per record, before the table's arrays

// Bytes per record of the arrays before `a`.
constexpr size_t bytesBefore(BandArray a) {
  size_t bytes = 0;
  for (int k = 0; k < a; ++k) bytes += kElementBytes[k];
  return bytes;
}
// Each array starts aligned for its elements: the wider ones come first.
static_assert(bytesBefore(kUps) % alignof(int) == 0, "misaligned parent nodes");
static_assert(bytesBefore(kNext) % alignof(graphcore::BandNext) == 0, "misaligned queue links");
static_assert(bytesBefore(kTerminals) % alignof(float) == 0, "misaligned terminal capacities");

template <class T>
T* bandArray(const VELDSEGraph* g, BandArray a) {
  unsigned char* const base = reinterpret_cast<unsigned char*>(g->m_caps) + kCapacityBytes * records(g);
  return reinterpret_cast<T*>(base + bytesBefore(a) * records(g));
}
BandLinks* links(const VELDSEGraph* g) { return bandArray<BandLinks>(g, kLinks); }
unsigned char* present(const VELDSEGraph* g) { return bandArray<unsigned char>(g, kPresent); }
unsigned char* trees(const VELDSEGraph* g) { return bandArray<unsigned char>(g, kTrees); }

graphcore::BandTopology topology(const VELDSEGraph* g) {
  return {links(g),
          present(g),
          bandArray<int>(g, kUps),
          bandArray<int>(g, kSlots),
          bandArray<graphcore::BandNext>(g, kNext),
          bandArray<float>(g, kTerminals),
          trees(g),
          nullptr};
}

// The solver walks these arrays in no particular order; on large graphs a
// page-table miss per step costs as much as the step. Ask for huge pages
// where the system offers them on request (a hint: nothing changes when it
// does not).
void preferHugePages(void* begin, void* end) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  const uintptr_t page = 4096;
  const uintptr_t b = (reinterpret_cast<uintptr_t>(begin) + page - 1) & ~(page - 1);
  const uintptr_t e = reinterpret_cast<uintptr_t>(end) & ~(page - 1);
  if (e > b + (2u << 20)) madvise(reinterpret_cast<void*>(b), e - b, MADV_HUGEPAGE);
#else
  (void)begin;
  (void)end;
#endif
}

}  // namespace

VELDSEGraph* createBandGraph(int nodeCount, int width, int height) {
  const long records = nodeCount > 16 ? nodeCount : 16;
  // The capacities and every array of the table, counted in the capacity
  // pairs (eight bytes) the graph's constructor allocates.
  // In 64 bits: on a 32-bit target a band of some tens of millions of nodes
  // would overflow long. A count beyond int asks for more than the allocator
  // can give, so the arrays come back null as they would for any size it
  // cannot serve.
  const long long bytes = static_cast<long long>(kCapacityBytes + bytesBefore(kBandArrays)) * records;
  const long long pairs = std::min<long long>((bytes + 7) / 8, INT_MAX);
  VELDSEGraph* g = new VELDSEGraph(nodeCount, static_cast<int>(pairs), width, height, 0);
  if (g->m_nodes == nullptr || g->m_caps == nullptr) return g;
  g->m_capMax = g->m_caps + 8 * records;
  preferHugePages(g->m_nodes, g->m_nodeMax);
  preferHugePages(g->m_caps, reinterpret_cast<unsigned char*>(g->m_caps) + bytes);
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
  // Overwritten by the node below, if any: the solver reads `below` with
  // the rest of a node's links whether or not anything lies below.
  l[i].below = i;
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

namespace {

// Connected pieces of the band (8-connected through present neighbours): the
// solver never carries anything from one to another.
struct Pieces {
  std::vector<int> start;  // piece p holds order[start[p] .. start[p + 1])
  std::vector<int> order;  // nodes grouped by piece, in index order within each
};

Pieces findPieces(const VELDSEGraph* g, const graphcore::BandTopology& t) {
  const int n = g->m_nodeCount;
  std::vector<int> root(n);
  for (int i = 0; i < n; ++i) root[i] = i;
  auto find = [&root](int x) {
    while (root[x] != x) x = root[x] = root[root[x]];
    return x;
  };
  for (int i = 0; i < n; ++i) {
    for (int k = 0; k < 4; ++k) {
      if (((t.mask(i) >> k) & 1u) == 0) continue;
      const int a = find(i), b = find(t.neighbour(i, k));
      if (a != b) root[std::max(a, b)] = std::min(a, b);
    }
  }
  // Pieces numbered by their first node; then a counting sort keeps index
  // order within each piece.
  std::vector<int> piece(n), count;
  for (int i = 0; i < n; ++i) {
    const int r = find(i);
    if (r == i) {
      piece[i] = static_cast<int>(count.size());
      count.push_back(0);
    } else {
      piece[i] = piece[r];
    }
    ++count[piece[i]];
  }
  Pieces p;
  p.start.assign(count.size() + 1, 0);
  for (size_t q = 0; q < count.size(); ++q) p.start[q + 1] = p.start[q] + count[q];
  p.order.resize(n);
  std::vector<int> next(p.start.begin(), p.start.end() - 1);
  for (int i = 0; i < n; ++i) p.order[next[piece[i]]++] = i;
  return p;
}

// One piece solved on its own: the trees are initialised from its nodes in
// index order, into queues of its own, and the serial solver runs. Within a
// piece this is the very sequence of operations the whole band's run applies
// to it - its nodes enter the shared queue in the same relative order and no
// operation on another piece reads or writes its nodes - so the result is the
// same. nodesOf null means every node, in index order: the whole band as one
// piece. The piece's records are written back when the run ends, also when it
// stopped early. Returns `flow` plus the flow pushed.
float solvePiece(VELDSEGraph* g, const graphcore::BandTopology& shared, const int* nodesOf, int count, float flow) {
  graphcore::BandQueues queues;
  graphcore::BandTopology t = shared;
  t.queues = &queues;
  alignas(VELDSEGraph) unsigned char storage[sizeof(VELDSEGraph)];
  // A view shares the arrays and owns nothing: never destroyed.
  VELDSEGraph* view = new (storage) VELDSEGraph(g, 0, 0, 0, 0);
  view->m_flow = flow;
  nodes* const base = g->m_nodes;
  for (int c = 0; c < count; ++c) {
    const int i = nodesOf != nullptr ? nodesOf[c] : c;
    const float r = base[i].trCap;
    t.next[i] = {-1, -1};
    t.terminals[i] = r;
    // The grid solver's three-way rule, literally: a NaN terminal capacity
    // (a colour that neither model can have produced gives +inf - +inf) is
    // neither above nor below zero, so that node starts free, as it does in
    // the grid. "Not zero, then which sign" would put it in the sink tree.
    if (r > 0.0f || r < 0.0f) {
      t.slots[i] = t.ups[i] = VELDSEGraph::TERMINAL;
      t.trees[i] = static_cast<unsigned char>(r > 0.0f ? VELDSEGraph::SOURCE_TREE : VELDSEGraph::SINK_TREE);
      t.pushActive(view, i);
    } else {
      t.slots[i] = t.ups[i] = VELDSEGraph::NONE;
      t.trees[i] = static_cast<unsigned char>(VELDSEGraph::FREE_TREE);
    }
  }
  const float total = graphcore::serialLoop(view, t);
  auto pointer = [base](int x) { return x >= 0 ? base + x : nullptr; };
  for (int c = 0; c < count; ++c) {
    const int i = nodesOf != nullptr ? nodesOf[c] : c;
    nodes* const n = base + i;
    n->parent = t.slots[i];
    n->tree = t.trees[i];
    n->trCap = t.terminals[i];
    n->nextActive = pointer(t.next[i].active);
    n->nextOrphan = pointer(t.next[i].orphan);
  }
  return total;
}

// Pieces are worth their own thread only when the work is large and does not
// sit almost all in one piece.
constexpr int kParallelNodes = 100000;
constexpr int kParallelShare = 10;  // percent of the nodes outside the largest piece

}  // namespace

float bandMaxFlow(VELDSEGraph* g, int maxThreads) {
  const graphcore::BandTopology t = topology(g);
  const int cores = std::min({maxThreads, slices::kMaxThreads, slices::cores()});
  Pieces p;
  std::vector<int> bySize;
  std::vector<float> flows;
  if (cores > 1 && g->m_nodeCount >= kParallelNodes) {
    try {
      p = findPieces(g, t);
      bySize.resize(p.start.size() - 1);
      flows.assign(p.start.size() - 1, 0.0f);
    } catch (const std::bad_alloc&) {
      p = Pieces();  // no room to sort the pieces: one serial run instead
    }
  }
  if (p.start.size() > 2) {
    const int pieces = static_cast<int>(p.start.size()) - 1;
    for (int q = 0; q < pieces; ++q) bySize[q] = q;
    auto size = [&p](int q) { return p.start[q + 1] - p.start[q]; };
    std::stable_sort(bySize.begin(), bySize.end(), [&](int a, int b) { return size(a) > size(b); });
    if (100L * (g->m_nodeCount - size(bySize[0])) >= kParallelShare * static_cast<long>(g->m_nodeCount)) {
      // Largest pieces first; each worker takes the next piece left. The
      // slices runner starts the workers (running them here when no thread
      // can be had) and rethrows a failure once all are joined; a failure in
      // one piece stops every worker from taking more.
      std::atomic<int> next(0);
      const int workers = std::min(cores, pieces);
      std::vector<int> bounds(static_cast<size_t>(workers) + 1);
      for (int w = 0; w <= workers; ++w) bounds[w] = w;
      slices::runSlices(bounds, [&](int, int) {
        try {
          for (int k = next.fetch_add(1); k < pieces; k = next.fetch_add(1)) {
            const int q = bySize[k];
            flows[q] = solvePiece(g, t, p.order.data() + p.start[q], size(q), 0.0f);
          }
        } catch (...) {
          next.store(pieces);
          throw;
        }
      });
      for (int q = 0; q < pieces; ++q) g->m_flow += flows[q];
      return g->m_flow;
    }
  }
  g->m_flow = solvePiece(g, t, nullptr, g->m_nodeCount, g->m_flow);
  return g->m_flow;
}
