// The two-search-tree solver shared by the grid graph and the band graph.
//
// Internal to graph/: VELDSEGraph's methods and the band solver instantiate
// these templates with their topology. Everything here works on a
// VELDSEGraph's node records, capacity floats and queues. Outside graph/
// only LimitWatch is used: by callers that solve several graphs side by side
// under one watcher (VELDSEGraph::maxFlow(const LimitWatch&)).
#ifndef SEGCORE_GRAPH_SOLVER_CORE_H
#define SEGCORE_GRAPH_SOLVER_CORE_H

#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <type_traits>
#include <utility>

#include "graph/veldse_graph.h"
#include "interface/veldse_marker.h"
#include "support/cpu_timer.h"
#include "support/threads.h"
#include "support/veld_memory.h"

namespace graphcore {

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

// Step counts for bench/maxflow_steps.sh, which divides a callgrind run's
// instructions by them. They exist only in a benchmark build configured with
// -DSEGCORE_SOLVER_STEP_COUNTS (the counting adds an atomic increment per
// step, so the instruction counts are taken from a build without it); the
// shipped library compiles none of this. Band solves and grid solves are
// counted apart; the totals are written to stderr when the process exits.
#if defined(SEGCORE_SOLVER_STEP_COUNTS)
struct StepCounts {
  std::atomic<long long> visits[2];         // growth node visits: grid, band
  std::atomic<long long> augmentations[2];  // augmenting paths
  std::atomic<long long> orphans[2];        // orphans taken from the queue
  StepCounts() {
    for (int b = 0; b < 2; ++b) visits[b] = augmentations[b] = orphans[b] = 0;
  }
  ~StepCounts() {
    for (int b = 0; b < 2; ++b) {
      std::fprintf(stderr, "solver steps %s: visits %lld augmentations %lld orphans %lld\n",
                   b ? "band" : "grid", visits[b].load(), augmentations[b].load(), orphans[b].load());
    }
  }
};
inline StepCounts& stepCounts() {
  static StepCounts counts;
  return counts;
}
#define SEGCORE_COUNT_STEP(Topology, field) \
  graphcore::stepCounts().field[Topology::kBand ? 1 : 0].fetch_add(1, std::memory_order_relaxed)
#else
#define SEGCORE_COUNT_STEP(Topology, field) ((void)0)
#endif

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

// Tests on a capacity's bits instead of float compares: an integer compare
// is one instruction where a float equality also has to rule out an
// unordered result. Each answers exactly as its float compare would, NaN
// included (a NaN is neither zero nor ABSENT_EDGE).
inline uint32_t bitsOf(float c) {
  uint32_t b;
  std::memcpy(&b, &c, sizeof b);
  return b;
}
constexpr uint32_t kAbsentBits = 0xC0000000u;  // ABSENT_EDGE, -2.0f
// c == 0.0f: +0.0 or -0.0, the sign bit aside.
inline bool isZero(float c) { return (bitsOf(c) << 1) == 0; }
inline bool isAbsent(float c) { return bitsOf(c) == kAbsentBits; }
// c != 0.0f && c != ABSENT_EDGE.
inline bool residual(float c) {
  const uint32_t b = bitsOf(c);
  return (b << 1) != 0 && b != kAbsentBits;
}

// The eight directions in the fixed order, unrolled: body(k) runs for k = 0
// .. 7, each k a std::integral_constant, until one returns true (which this
// then returns). With k known at compile time a band node's neighbour and
// slot arithmetic folds to an add or two per direction, where a loop over k
// had to dispatch through a jump table on every step.
#if defined(__GNUC__)
#define SEGCORE_ALWAYS_INLINE __attribute__((always_inline))
#else
#define SEGCORE_ALWAYS_INLINE
#endif
template <class Body, int... K>
SEGCORE_ALWAYS_INLINE inline bool eachDirectionIn(Body& body, std::integer_sequence<int, K...>) {
  return (body(std::integral_constant<int, K>()) || ...);
}
template <class Body>
SEGCORE_ALWAYS_INLINE inline bool eachDirection(Body&& body) {
  return eachDirectionIn(body, std::make_integer_sequence<int, 8>());
}

inline void freshNode(nodes* n) {
  n->parent = VELDSEGraph::NONE;
  n->tree = VELDSEGraph::FREE_TREE;
  n->trCap = 0.0f;
  n->nextActive = nullptr;
  n->nextOrphan = nullptr;
}

// Allocation of count elements of elemSize bytes, or null when the byte count
// does not fit the allocator's 32-bit size.
inline void* allocArray(int count, unsigned elemSize, int line) {
  const uint64_t bytes = static_cast<uint64_t>(count) * elemSize;
  if (bytes > UINT_MAX) return nullptr;
  return VELD_Malloc_Msg(static_cast<unsigned>(bytes), "VELDSEGraph", line);
}

inline bool exitRequested() { return VELDSEMarker::m_exitApp.load(std::memory_order_relaxed); }

// The check after every node visit: the time limit (which raises the cancel
// flag itself) and then the flag. The limit counts from the start of the
// request's timer up to now, also when the driver stopped the timer after an
// earlier cut.
inline bool stopAfterVisit() {
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
      // Solvers on other threads (block views, band pieces) may pass the
      // limit at the same moment: the timer is stopped by one at a time.
      static std::mutex stopping;
      const std::lock_guard<std::mutex> lock(stopping);
      stop_cpu_timer(t);
      VELDSEMarker::m_exitApp.store(true, std::memory_order_relaxed);
      return true;
    }
  }
  return exitRequested();
}


// The time limit is checked after every node visit, but reading the clock
// there costs more than many a visit. A watcher thread sleeps until shortly
// before the limit and then raises `due`; from then on every visit reads the
// clock exactly as stopAfterVisit does, so a run still stops at the first
// visit after the limit. Without a timer there is no limit to watch; when the
// limit has passed already, or no thread can be had, the calling thread does
// the watching itself: the clock is read on every visit from the start. The
// watcher's own failures (a wait that cannot be had) end the same way:
// reading the clock on every visit stops a run at the same visit, only a
// little more slowly. The watcher ends when the LimitWatch is destroyed.
class LimitWatch {
 public:
  LimitWatch() {
    const CpuTimer* t = g_cancelTimer;
    if (t == nullptr) return;
    untilDueMs_ = VELDSEGraph::TIME_LIMIT_MS - elapsedMsSoFar(t) - kEarlyMs;
    if (untilDueMs_ <= 0.0 || !watcher_.start(wait_)) due_.store(true, std::memory_order_relaxed);
  }
  ~LimitWatch() {
    if (!watcher_.running()) return;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      finished_ = true;
    }
    wake_.notify_one();
    watcher_.join();
  }
  LimitWatch(const LimitWatch&) = delete;
  LimitWatch& operator=(const LimitWatch&) = delete;

  // The check after a node visit.
  bool stop() const { return due_.load(std::memory_order_relaxed) ? stopAfterVisit() : exitRequested(); }

 private:
  // How long before the limit the clock is read on every visit again: far
  // more than the watcher's wake-up delay.
  static constexpr double kEarlyMs = 20.0;

  // The watcher's body: sleeps until shortly before the limit, or until the
  // LimitWatch ends.
  struct Wait {
    LimitWatch* self;
    void operator()() const {
      try {
        std::unique_lock<std::mutex> lock(self->mutex_);
        const auto wait = std::chrono::microseconds(static_cast<long long>(self->untilDueMs_ * 1000.0));
        if (!self->wake_.wait_for(lock, wait, [this] { return self->finished_; })) {
          self->due_.store(true, std::memory_order_relaxed);
        }
      } catch (...) {
        self->due_.store(true, std::memory_order_relaxed);
      }
    }
  };

  std::atomic<bool> due_{false};
  double untilDueMs_ = 0.0;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool finished_ = false;
  Wait wait_{this};
  threads::Thread watcher_;
};

// The FIFO queues of VELDSEGraph (same rules as its members, which call
// these), here so that the solver loops inline them.
// A record queue is threaded through one successor field (`link`): null
// means not queued, the last node points at itself.

// Appends n unless it is queued already.
template <nodes* nodes::*link>
inline void pushTail(nodes* n, nodes*& head, nodes*& tail) {
  if (n->*link != nullptr) return;
  n->*link = n;
  if (tail != nullptr) {
    tail->*link = n;
  } else {
    head = n;
  }
  tail = n;
}

// Unlinks the head and returns it, or null; the head's own link is left as
// it is.
template <nodes* nodes::*link>
inline nodes* popHead(nodes*& head, nodes*& tail) {
  nodes* n = head;
  if (n == nullptr) return nullptr;
  if (n == tail) {
    head = tail = nullptr;
  } else {
    head = n->*link;
  }
  return n;
}

inline void pushActive(VELDSEGraph* g, nodes* n) {
  pushTail<&nodes::nextActive>(n, g->m_activeHead, g->m_activeTail);
}

// An orphan loses its parent slot even when it is queued already.
inline void pushOrphan(VELDSEGraph* g, nodes* n) {
  n->parent = VELDSEGraph::NONE;
  pushTail<&nodes::nextOrphan>(n, g->m_orphanHead, g->m_orphanTail);
}

// The head of the active queue; its link is left as it is (the solver holds
// and releases the node itself).
inline nodes* popActive(VELDSEGraph* g) { return popHead<&nodes::nextActive>(g->m_activeHead, g->m_activeTail); }

inline nodes* popOrphan(VELDSEGraph* g) {
  nodes* n = popHead<&nodes::nextOrphan>(g->m_orphanHead, g->m_orphanTail);
  if (n != nullptr) n->nextOrphan = nullptr;
  return n;
}

// Topologies: where the neighbour of node i in direction k (the fixed order
// left, upper-left, up, upper-right, right, lower-right, down, lower-left)
// is, and which capacity slot leads there. The solver below only ever asks
// these four questions, so the same search runs on the full grid and on a
// subset of its pixels and visits the common nodes in the same order.

// Every pixel of a width x height box is a node; all is implicit.
struct GridTopology {
  // The block-parallel solver runs block views of one grid side by side: a
  // neighbour across a block's edge belongs to another thread, and only the
  // pair's capacity (absent there) keeps a view from reading it. So the
  // capacity is looked at before the neighbour.
  static constexpr bool kTreeFirst = false;
  static constexpr bool kBand = false;

  GridWalk walk;
  int offsets[8];

  explicit GridTopology(const VELDSEGraph* g) : walk(g->m_width, g->m_height) {
    for (int k = 0; k < 8; ++k) offsets[k] = g->m_offsets[k];
  }
  unsigned mask(int i) const { return walk.mask(i); }
  int slot(int i, int k) const { return 8 * i + walk.slotOffset[k]; }
  int neighbour(int i, int k) const { return i + walk.nodeOffset[k]; }
  // What a node visit reads once for all its directions.
  struct Visit {
    int i;
    unsigned mask;
  };
  Visit visit(int i) const { return {i, walk.mask(i)}; }
  template <int k>
  int neighbourOf(const Visit& v) const {
    return v.i + walk.nodeOffset[k];
  }
  template <int k>
  int slotOf(const Visit& v) const {
    return 8 * v.i + walk.slotOffset[k];
  }
  int head(int s) const { return offsets[(s + 1) & 7] + ((s + 1) >> 3); }
  // Node state as the solver reads and writes it.
  int parent(const nodes* base, int x) const { return base[x].parent; }
  // The parent node, or the parent's TERMINAL / NONE code.
  int up(const nodes* base, int x) const {
    const int p = base[x].parent;
    return p >= 0 ? head(p) : p;
  }
  int tree(const nodes* base, int x) const { return base[x].tree; }
  void setParent(nodes* base, int x, int s, int /*to*/) const { base[x].parent = s; }
  // setParent with s a slot (never TERMINAL or NONE).
  void linkParent(nodes* base, int x, int s, int /*to*/) const { base[x].parent = s; }
  void setTree(nodes* base, int x, int t) const { base[x].tree = t; }
  float& terminal(nodes* base, int x) const { return base[x].trCap; }
  // The queues, in the records. An active node being visited counts as
  // queued (held) so that its own augmentation cannot queue it again.
  void pushActive(VELDSEGraph* g, int x) const { graphcore::pushActive(g, g->m_nodes + x); }
  int popActive(VELDSEGraph* g) const {
    nodes* const n = graphcore::popActive(g);
    return n != nullptr ? static_cast<int>(n - g->m_nodes) : -1;
  }
  void holdActive(VELDSEGraph* g, int x) const { g->m_nodes[x].nextActive = g->m_nodes + x; }
  void releaseActive(VELDSEGraph* g, int x) const { g->m_nodes[x].nextActive = nullptr; }
  void orphan(VELDSEGraph* g, int x) const { graphcore::pushOrphan(g, g->m_nodes + x); }
  int popOrphan(VELDSEGraph* g) const {
    nodes* const n = graphcore::popOrphan(g);
    return n != nullptr ? static_cast<int>(n - g->m_nodes) : -1;
  }
};

// Nodes are some of the box's pixels, numbered in row-major order. Node i
// still owns the 8 capacity floats 8i .. 8i+7 towards its four earlier
// neighbours, so the pair between i and a later neighbour j lives in j's
// floats. Because of the numbering, a node's neighbours follow from three
// small facts: which of the eight are present (a bit each), and the index
// that the pixels right above and right below the node have or would have
// (the count of band pixels before them):
//   left i-1, upper-left above-1, up above, upper-right above+[up present],
//   right i+1, lower-right below+[down present], down below, lower-left below-1.
struct BandLinks {
  int above;
  int below;
};

// While a band piece is solved, its nodes' state lives in dense arrays beside
// the records, and the records are brought up to date when the run ends
// (nothing else reads them meanwhile). The parent chains, which the solver
// walks one dependent load after another, are an array of their own holding
// just the parent node (or the TERMINAL / NONE code): four bytes a step. The
// parent slot is read beside it, off the walk's critical path. The queues are
// the records' queues with indices for pointers: -1 for null, the last node
// pointing at itself.
struct BandNext {
  int active;  // as nodes::nextActive
  int orphan;  // as nodes::nextOrphan
};

// A FIFO of node indices threaded through one field of BandNext.
struct IndexFifo {
  int head = -1;
  int tail = -1;

  // Appends x unless it is queued already (its link set).
  template <int BandNext::*link>
  void push(BandNext* next, int x) {
    if (next[x].*link >= 0) return;
    next[x].*link = x;
    if (tail >= 0) {
      next[tail].*link = x;
    } else {
      head = x;
    }
    tail = x;
  }
  // The head, or -1; its link is left as it is.
  template <int BandNext::*link>
  int pop(const BandNext* next) {
    const int x = head;
    if (x < 0) return -1;
    if (x == tail) {
      head = tail = -1;
    } else {
      head = next[x].*link;
    }
    return x;
  }
};

struct BandQueues {
  IndexFifo active;
  IndexFifo orphans;
};

struct BandTopology {
  // A band piece's neighbours are all in the piece (pieces are connected
  // components), so a neighbour's state may be read before the pair's
  // capacity.
  static constexpr bool kTreeFirst = true;
  static constexpr bool kBand = true;
  const BandLinks* links;
  const unsigned char* present;
  int* ups;          // parent node, or TERMINAL / NONE
  int* slots;        // as nodes::parent
  BandNext* next;
  float* terminals;  // as nodes::trCap
  unsigned char* trees;
  BandQueues* queues;  // of the run in progress

  unsigned mask(int i) const { return present[i]; }
  int neighbour(int i, int k) const {
    const unsigned m = present[i];
    switch (k) {
      case 0: return i - 1;
      case 1: return links[i].above - 1;
      case 2: return links[i].above;
      case 3: return links[i].above + static_cast<int>((m >> 2) & 1u);
      case 4: return i + 1;
      case 5: return links[i].below + static_cast<int>((m >> 6) & 1u);
      case 6: return links[i].below;
      default: return links[i].below - 1;
    }
  }
  int slot(int i, int k) const { return k < 4 ? 8 * i + 2 * k : 8 * neighbour(i, k) + 2 * (k - 4) + 1; }
  // What a node visit reads once for all its directions (setBandNeighbours
  // gives `below` a value even where nothing lies below).
  struct Visit {
    int i;
    unsigned mask;
    int above;
    int below;
  };
  Visit visit(int i) const { return {i, present[i], links[i].above, links[i].below}; }
  template <int k>
  int neighbourOf(const Visit& v) const {
    if (k == 0) return v.i - 1;
    if (k == 1) return v.above - 1;
    if (k == 2) return v.above;
    if (k == 3) return v.above + static_cast<int>((v.mask >> 2) & 1u);
    if (k == 4) return v.i + 1;
    if (k == 5) return v.below + static_cast<int>((v.mask >> 6) & 1u);
    if (k == 6) return v.below;
    return v.below - 1;
  }
  template <int k>
  int slotOf(const Visit& v) const {
    return k < 4 ? 8 * v.i + 2 * k : 8 * neighbourOf<k>(v) + 2 * (k - 4) + 1;
  }
  int head(int s) const { return (s & 1) ? (s >> 3) : neighbour(s >> 3, (s & 7) >> 1); }
  int parent(const nodes* /*base*/, int x) const { return slots[x]; }
  int up(const nodes* /*base*/, int x) const { return ups[x]; }
  int tree(const nodes* /*base*/, int x) const { return trees[x]; }
  void setParent(nodes* /*base*/, int x, int s, int to) const {
    slots[x] = s;
    ups[x] = s >= 0 ? to : s;
  }
  // setParent with s a slot (never TERMINAL or NONE).
  void linkParent(nodes* /*base*/, int x, int s, int to) const {
    slots[x] = s;
    ups[x] = to;
  }
  void setTree(nodes* /*base*/, int x, int t) const { trees[x] = static_cast<unsigned char>(t); }
  float& terminal(nodes* /*base*/, int x) const { return terminals[x]; }
  void pushActive(VELDSEGraph* /*g*/, int x) const { queues->active.push<&BandNext::active>(next, x); }
  int popActive(VELDSEGraph* /*g*/) const { return queues->active.pop<&BandNext::active>(next); }
  void holdActive(VELDSEGraph* /*g*/, int x) const { next[x].active = x; }
  void releaseActive(VELDSEGraph* /*g*/, int x) const { next[x].active = -1; }
  void orphan(VELDSEGraph* /*g*/, int x) const {
    slots[x] = VELDSEGraph::NONE;
    ups[x] = VELDSEGraph::NONE;
    queues->orphans.push<&BandNext::orphan>(next, x);
  }
  int popOrphan(VELDSEGraph* /*g*/) const {
    const int x = queues->orphans.pop<&BandNext::orphan>(next);
    if (x >= 0) next[x].orphan = -1;
    return x;
  }
};

// How many slots of each half of an augmenting path augmentPath records on
// its first pass.
constexpr int kRecordedPath = 1024;

// Pushes f along one half of an augmenting path, from the node next to the
// middle edge (`start`) out to the half's root, and makes orphans of the
// nodes whose parent edge (and of the root whose terminal link) it
// saturates. On the sink half the residual runs from a node to its parent
// (slot p), on the source half from the parent to the node (slot p ^ 1): the
// forward slot. When the first pass recorded the half (len <=
// kRecordedPath) it recorded the forward slots, and the node that loses its
// parent is worked out only then, as the tail of its parent slot p (head(p ^
// 1)); otherwise the parent chain is walked again.
template <bool sinkHalf, class Topology>
void pushHalf(VELDSEGraph* g, const Topology& topo, int start, const int* forwards, int len, int root, float f) {
  float* const caps = g->m_caps;
  nodes* const base = g->m_nodes;
  if (len <= kRecordedPath) {
    // Indices held as long (a no-op on 32-bit targets): a slot index is
    // widened once, at its load, instead of again after every xor. Two
    // steps per round of the loop: half the loop's own test and count.
#pragma GCC unroll 2
    for (int k = 0; k < len; ++k) {
      const long forward = forwards[k];
      const float left = caps[forward] - f;
      caps[forward] = left;
      caps[forward ^ 1] += f;
      if (left == 0.0f) topo.orphan(g, topo.head(static_cast<int>(sinkHalf ? forward ^ 1 : forward)));
    }
  } else {
    int x = start;
    for (int p = topo.parent(base, x); p != VELDSEGraph::TERMINAL; p = topo.parent(base, x)) {
      const int forward = sinkHalf ? p : p ^ 1;
      caps[forward] -= f;
      caps[forward ^ 1] += f;
      const int next = topo.up(base, x);
      if (caps[forward] == 0.0f) topo.orphan(g, x);
      x = next;
    }
  }
  float& terminal = topo.terminal(base, root);
  if (sinkHalf) {
    terminal += f;
  } else {
    terminal -= f;
  }
  if (terminal == 0.0f) topo.orphan(g, root);
}

// The augmentation through slot `middle`, whose head (sinkStart) is in the
// sink tree and whose tail (sourceStart) in the source tree: the searching
// loop knows both nodes already.
template <class Topology>
void augmentPath(VELDSEGraph* g, const Topology& shared, int middle, int sinkStart, int sourceStart) {
  // A copy of the topology's fields that nothing else can reach (see
  // adoptOrphan): the path buffers' stores cannot force reloads.
  const Topology topo = shared;
  float* const caps = g->m_caps;
  nodes* const base = g->m_nodes;
  // The first pass records the forward slots of each half so that the second
  // pass need not chase the parent chain again; a half longer than the
  // buffer is walked twice instead.
  constexpr int kRecorded = kRecordedPath;
  int sinkForwards[kRecorded], sourceForwards[kRecorded];

  // Bottleneck over the sink half, the middle edge and the source half. The
  // two halves are independent chains, walked in step so that their loads
  // overlap; the minimum does not depend on the order it is taken in. The
  // steps are taken in this order whether or not they are recorded: the
  // loops below only move the buffer's bound test out of the steps.
  float f = caps[middle];
  int sinkLen = 0;
  int sourceLen = 0;
  // Node and slot indices as long (see pushHalf).
  long xs = sinkStart;
  long xr = sourceStart;
  long us = topo.up(base, sinkStart);
  long ur = topo.up(base, sourceStart);
  const auto sinkStep = [&](auto record) SEGCORE_ALWAYS_INLINE {
    const long p = topo.parent(base, static_cast<int>(xs));
    if (caps[p] < f) f = caps[p];
    if (decltype(record)::value) sinkForwards[sinkLen] = static_cast<int>(p);
    ++sinkLen;
    xs = us;
    us = topo.up(base, static_cast<int>(xs));
  };
  const auto sourceStep = [&](auto record) SEGCORE_ALWAYS_INLINE {
    const long forward = static_cast<long>(topo.parent(base, static_cast<int>(xr))) ^ 1;
    if (caps[forward] < f) f = caps[forward];
    if (decltype(record)::value) sourceForwards[sourceLen] = static_cast<int>(forward);
    ++sourceLen;
    xr = ur;
    ur = topo.up(base, static_cast<int>(xr));
  };
  const std::true_type recorded{};
  const std::false_type unrecorded{};
  // In step, both halves equally long so far.
  while (us != VELDSEGraph::TERMINAL && ur != VELDSEGraph::TERMINAL && sinkLen < kRecorded) {
    sinkStep(recorded);
    sourceStep(recorded);
  }
  while (us != VELDSEGraph::TERMINAL && ur != VELDSEGraph::TERMINAL) {
    sinkStep(unrecorded);
    sourceStep(unrecorded);
  }
  while (us != VELDSEGraph::TERMINAL && sinkLen < kRecorded) sinkStep(recorded);
  while (us != VELDSEGraph::TERMINAL) sinkStep(unrecorded);
  while (ur != VELDSEGraph::TERMINAL && sourceLen < kRecorded) sourceStep(recorded);
  while (ur != VELDSEGraph::TERMINAL) sourceStep(unrecorded);
  const int sinkRoot = static_cast<int>(xs);
  const int sourceRoot = static_cast<int>(xr);
  if (-topo.terminal(base, sinkRoot) < f) f = -topo.terminal(base, sinkRoot);
  if (topo.terminal(base, sourceRoot) < f) f = topo.terminal(base, sourceRoot);

  caps[middle] -= f;
  caps[middle ^ 1] += f;

  // Push and collect orphans, sink half first, each half from the middle out.
  pushHalf<true>(g, topo, sinkStart, sinkForwards, sinkLen, sinkRoot, f);
  pushHalf<false>(g, topo, sourceStart, sourceForwards, sourceLen, sourceRoot, f);

  g->m_flow += f;
}

template <class Topology>
void augmentPath(VELDSEGraph* g, const Topology& topo, int middle) {
  augmentPath(g, topo, middle, topo.head(middle), topo.head(middle ^ 1));
}

// The first look of an orphan's visit v in direction k, the same for its
// parent search and its freeing: the neighbour j there and the slot e of the
// pair towards it, when the direction exists and the pair is present; where
// the topology reads a node's own state first (dense arrays), also only when
// j is of tree `tree` (else the caller tests that itself, after the pair).
template <int k, class Topology, class Visit>
SEGCORE_ALWAYS_INLINE inline bool presentNeighbour(const Topology& topo, const nodes* base, const float* caps,
                                                   const Visit& v, int tree, int* j, int* e) {
  if ((v.mask & (1u << k)) == 0) return false;
  *j = topo.template neighbourOf<k>(v);
  if (Topology::kTreeFirst && topo.tree(base, *j) != tree) return false;
  *e = topo.template slotOf<k>(v);
  return !isAbsent(caps[*e]);
}

// The new parent of orphan i (visit v) of tree `tree`, linked; false when no
// neighbour qualifies. The parent is the candidate nearest the terminal, ties
// to the earlier slot. The candidates' chains are walked side by side, one
// step each per round, so the first chain to reach the terminal (the earliest
// of a round) is the nearest, no chain is walked beyond that distance, and
// the loads of up to eight independent chains overlap. A chain through an
// orphan fails. A candidate is its slot (the neighbour is the slot's head,
// worked out for the winner alone) and the node its chain has reached.
template <bool sinkSide, class Topology, class Visit>
SEGCORE_ALWAYS_INLINE inline bool findParent(VELDSEGraph* g, int i, const Topology& topo, const Visit& v) {
  const int tree = sinkSide ? VELDSEGraph::SINK_TREE : VELDSEGraph::SOURCE_TREE;
  nodes* const base = g->m_nodes;
  float* const caps = g->m_caps;
  int candSlot[8], candUp[8];
  int n = 0;
  const bool adopted = eachDirection([&](auto dir) SEGCORE_ALWAYS_INLINE {
    int j = 0;
    int e = 0;
    // Its pair's capacity (perhaps in the neighbour's floats) only for a
    // possible parent. The parent node is NONE exactly when the parent slot
    // is, and it is needed next anyway.
    if (!presentNeighbour<decltype(dir)::value>(topo, base, caps, v, tree, &j, &e)) return false;
    if (isZero(sinkSide ? caps[e] : caps[e ^ 1])) return false;
    if (!Topology::kTreeFirst && topo.tree(base, j) != tree) return false;
    const int u = topo.up(base, j);
    if (u == VELDSEGraph::NONE) return false;
    if (u == VELDSEGraph::TERMINAL) {
      // Two steps from the terminal: nothing later can be strictly nearer,
      // and every earlier candidate is further.
      topo.linkParent(base, i, e, j);
      return true;
    }
    candSlot[n] = e;
    candUp[n] = u;
    ++n;
    return false;
  });
  if (adopted) return true;
  while (n > 0) {
    int alive = 0;
    for (int c = 0; c < n; ++c) {
      const int u = topo.up(base, candUp[c]);
      if (u == VELDSEGraph::TERMINAL) {
        topo.linkParent(base, i, candSlot[c], topo.head(candSlot[c]));
        return true;
      }
      if (u == VELDSEGraph::NONE) continue;
      candSlot[alive] = candSlot[c];
      candUp[alive] = u;
      ++alive;
    }
    n = alive;
  }
  return false;
}

// Orphan i (visit v) of tree `tree` found no parent: it becomes free, its
// neighbours of the tree that could grow back into it are queued as active,
// and its children become orphans.
template <bool sinkSide, class Topology, class Visit>
SEGCORE_ALWAYS_INLINE inline void freeOrphan(VELDSEGraph* g, int i, const Topology& topo, const Visit& v) {
  const int tree = sinkSide ? VELDSEGraph::SINK_TREE : VELDSEGraph::SOURCE_TREE;
  nodes* const base = g->m_nodes;
  float* const caps = g->m_caps;
  topo.setParent(base, i, VELDSEGraph::NONE, -1);
  topo.setTree(base, i, VELDSEGraph::FREE_TREE);
  eachDirection([&](auto dir) SEGCORE_ALWAYS_INLINE {
    // Neighbours of the same tree, including ones that are themselves orphans
    // still waiting in the queue: such a neighbour may be re-adopted later,
    // and unless it is queued now nobody would grow back into o. Skipping
    // them leaves free nodes with residual edges into a tree at the end, so
    // the cut is not minimal (and an augmenting path can be missed).
    int j = 0;
    int e = 0;
    if (!presentNeighbour<decltype(dir)::value>(topo, base, caps, v, tree, &j, &e)) return false;
    if (!Topology::kTreeFirst && topo.tree(base, j) != tree) return false;
    if (!isZero(sinkSide ? caps[e] : caps[e ^ 1])) topo.pushActive(g, j);
    if (topo.up(base, j) == i) topo.orphan(g, j);
    return false;
  });
}

// Adoption of orphan o of tree `tree`. sinkSide selects which slot of a pair
// carries the residual towards the parent: from o to j in the sink tree, from
// j to o in the source tree.
template <bool sinkSide, class Topology>
SEGCORE_ALWAYS_INLINE inline void adoptOrphan(VELDSEGraph* g, int i, const Topology& shared) {
  // A copy of the topology's fields that nothing else can reach: the stores
  // into the node state (some through a byte pointer, which may alias
  // anything) then cannot force them to be reloaded from the caller's
  // object on every direction.
  const Topology topo = shared;
  const auto v = topo.visit(i);
  if (!findParent<sinkSide>(g, i, topo, v)) freeOrphan<sinkSide>(g, i, topo, v);
}

// Growth from node i (visit v) of the source tree, or of the sink tree when
// fromSink: free neighbours reachable through a residual slot join the tree
// as i's children and become active. Returns the first slot, oriented from
// the source side, whose far node is in the other tree (the middle of an
// augmenting path; that node in *middleNode), or -1 when there is none. A
// neighbour of the node's own tree is passed over whatever its capacity;
// where the topology allows (kTreeFirst), its tree is looked at first, since
// the capacity of a pair towards a later neighbour lies in that neighbour's
// floats.
template <bool fromSink, class Topology, class Visit>
SEGCORE_ALWAYS_INLINE inline int growFrom(VELDSEGraph* g, const Topology& topo, int i, const Visit& v,
                                          int* middleNode) {
  constexpr int own = fromSink ? VELDSEGraph::SINK_TREE : VELDSEGraph::SOURCE_TREE;
  constexpr int other = fromSink ? VELDSEGraph::SOURCE_TREE : VELDSEGraph::SINK_TREE;
  nodes* const base = g->m_nodes;
  float* const caps = g->m_caps;
  int middle = -1;
  eachDirection([&](auto dir) SEGCORE_ALWAYS_INLINE {
    constexpr int k = decltype(dir)::value;
    if ((v.mask & (1u << k)) == 0) return false;
    const int j = topo.template neighbourOf<k>(v);
    if (Topology::kTreeFirst && topo.tree(base, j) == own) return false;
    const int e = fromSink ? topo.template slotOf<k>(v) ^ 1 : topo.template slotOf<k>(v);
    if (!residual(caps[e])) return false;
    const int jTree = topo.tree(base, j);
    if (jTree == VELDSEGraph::FREE_TREE) {
      topo.setTree(base, j, own);
      topo.linkParent(base, j, fromSink ? e : e ^ 1, i);
      topo.pushActive(g, j);
    } else if (jTree == other) {
      middle = e;
      *middleNode = j;
      return true;
    }
    return false;
  });
  return middle;
}

// The orphans an augmentation left, adopted in queue order until none is left
// (or a cancel arrives).
template <class Topology>
SEGCORE_ALWAYS_INLINE inline void adoptOrphans(VELDSEGraph* g, const Topology& topo) {
  nodes* const base = g->m_nodes;
  while (!exitRequested()) {
    const int o = topo.popOrphan(g);
    if (o < 0) break;
    SEGCORE_COUNT_STEP(Topology, orphans);
    const int oTree = topo.tree(base, o);
    if (oTree == VELDSEGraph::SINK_TREE) {
      adoptOrphan<true>(g, o, topo);
    } else if (oTree == VELDSEGraph::SOURCE_TREE) {
      adoptOrphan<false>(g, o, topo);
    }
  }
}

// The main loop under `limit`, a watch that other runs going on side by side
// may share (one watcher thread for all of them).
template <class Topology>
float serialLoop(VELDSEGraph* g, const Topology& shared, const LimitWatch& limit) {
  if (exitRequested()) return g->m_flow;
  // A copy of the topology's fields that nothing else can reach (see
  // adoptOrphan); augmentPath, not inlined, gets the caller's object.
  const Topology topo = shared;
  nodes* const base = g->m_nodes;

  for (;;) {
    const int i = topo.popActive(g);
    if (i < 0) return g->m_flow;
    const auto v = topo.visit(i);
    for (;;) {
      SEGCORE_COUNT_STEP(Topology, visits);
      topo.releaseActive(g, i);
      int middle = -1;
      int middleNode = -1;  // the neighbour across the middle slot
      const int tree = topo.tree(base, i);
      if (tree == VELDSEGraph::SOURCE_TREE) {
        middle = growFrom<false>(g, topo, i, v, &middleNode);
      } else if (tree == VELDSEGraph::SINK_TREE) {
        middle = growFrom<true>(g, topo, i, v, &middleNode);
      }
      if (middle < 0) {
        if (limit.stop()) return g->m_flow;
        break;
      }

      // Counts as queued while its own augmentation's orphans are adopted;
      // it is visited again right after.
      topo.holdActive(g, i);
      SEGCORE_COUNT_STEP(Topology, augmentations);
      if (tree == VELDSEGraph::SOURCE_TREE) {
        augmentPath(g, shared, middle, middleNode, i);
      } else {
        augmentPath(g, shared, middle, i, middleNode);
      }
      adoptOrphans(g, topo);
      if (limit.stop()) return g->m_flow;
    }
  }
}

// The main loop under a watch of its own (none is started when the run is
// cancelled already).
template <class Topology>
float serialLoop(VELDSEGraph* g, const Topology& topo) {
  if (exitRequested()) return g->m_flow;
  const LimitWatch limit;
  return serialLoop(g, topo, limit);
}

}  // namespace graphcore

#endif
