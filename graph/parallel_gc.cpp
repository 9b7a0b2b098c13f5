#include "graph/parallel_gc.h"

#include <pthread.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include "support/threads.h"

namespace {

// Leaving slot of node i and the neighbour it leads to, per direction in the
// fixed order left, upper-left, up, upper-right, right, lower-right, down,
// lower-left.
struct Leaving {
  int slot[8];
  int head[8];
  int count;
};

// The present directions of node i (grid border rules applied).
void leavingSlots(int i, int w, int h, Leaving* out) {
  const int r = i / w, c = i % w;
  const bool left = c > 0, right = c < w - 1, up = r > 0, down = r < h - 1;
  out->count = 0;
  auto add = [out](bool ok, int slot, int head) {
    if (!ok) return;
    out->slot[out->count] = slot;
    out->head[out->count] = head;
    ++out->count;
  };
  add(left, 8 * i + 0, i - 1);
  add(left && up, 8 * i + 2, i - w - 1);
  add(up, 8 * i + 4, i - w);
  add(up && right, 8 * i + 6, i - w + 1);
  add(right, 8 * (i + 1) + 1, i + 1);
  add(right && down, 8 * (i + w + 1) + 3, i + w + 1);
  add(down, 8 * (i + w) + 5, i + w);
  add(down && left, 8 * (i + w - 1) + 7, i + w - 1);
}

// The threads of one phase, one per block, each started at its entry point.
// A block whose thread cannot be had has its work done right here instead
// (the library's rule): the blocks of a phase touch disjoint nodes, so running
// one on the calling thread gives the same result. Only threads that did
// start are joined - by join(), or when the phase is left by an exception.
class Phase {
 public:
  explicit Phase(int n) : threads_(new threads::Thread[n]), count_(n) {}
  ~Phase() { join(); }
  Phase(const Phase&) = delete;
  Phase& operator=(const Phase&) = delete;

  // entry: the thread entry point; work: the same work without the thread's
  // exit, which never throws (failures are noted on the ParallelGC).
  void start(int k, void* (*entry)(void*), void (*work)(void*), void* arg) {
    if (!threads_[k].startEntry(entry, arg)) work(arg);
  }
  void join() {
    for (int k = 0; k < count_; ++k) threads_[k].join();
  }

 private:
  std::unique_ptr<threads::Thread[]> threads_;
  int count_;
};

// The work of each thread entry point. Nothing may leave a thread's body (that
// ends the process): a failure is kept on the ParallelGC and thrown again by
// the phase's starter once all its threads are joined.
template <class Arg, class Work>
void guarded(void* arg, Work work) {
  Arg* a = static_cast<Arg*>(arg);
  try {
    work(a);
  } catch (...) {
    a->gc->noteFailure(std::current_exception());
  }
}

void assignWork(void* arg) {
  guarded<ParallelGCThreadArg>(arg, [](ParallelGCThreadArg* a) { a->gc->AssignIDs(a->a, a->b); });
}

void partitionWork(void* arg) {
  guarded<ParallelGCThreadArg>(arg, [](ParallelGCThreadArg* a) { a->gc->PartitionGraph(a->a, a->b); });
}

void maxFlowWork(void* arg) {
  guarded<ParallelGCThreadArg>(arg, [](ParallelGCThreadArg* a) {
    a->gc->m_blockGraphs[a->index]->maxFlowSerialCall();
  });
}

void mergeWork(void* arg) {
  guarded<ParallelGCThreadArg>(arg, [](ParallelGCThreadArg* a) {
    const int lo = a->gc->MergeBlocks(a->a, a->b);
    a->gc->m_blockGraphs[lo]->maxFlowSerialCall();
  });
}

void gmmWork(void* arg) {
  guarded<GMMThreadArg>(arg, [](GMMThreadArg* a) {
    // The graph's flow field is shared by all threads: each thread adds its
    // weights through a view of the graph (same node array, flow of its own)
    // and hands its flow back in the record. The view is never destroyed.
    alignas(VELDSEGraph) unsigned char storage[sizeof(VELDSEGraph)];
    VELDSEGraph* view = new (storage) VELDSEGraph(a->g, a->by, a->bx, a->gc->m_blockWidth, a->gc->m_blockHeight);
    view->m_flow = 0.0f;
    a->gc->ComputeGMMProbs(a->by, a->bx, a->img, a->labels, a->K, a->sinkCode, a->sourceCode, a->m1, a->m2, view);
    a->flow = view->m_flow;
  });
}

}  // namespace

// ---------------------------------------------------------------------------
// Construction

ParallelGC::ParallelGC(VELDSEGraph* g, int n)
    : m_graph(g),
      m_threads(n < 1 ? 1 : n),
      m_blockGraphs(nullptr),
      m_blockTable(nullptr),
      m_busy(nullptr),
      m_nodes(g->m_nodes),
      m_caps(g->m_caps),
      m_nodeCount(g->m_nodeCount),
      m_capCount(g->m_capCount),
      m_width(g->m_width),
      m_height(g->m_height),
      m_blockCols(1),
      m_blockRows(1),
      m_blockWidth(0),
      m_blockHeight(0) {
  n = m_threads;
  // Near-square block array: start a little above sqrt(n) columns and step
  // down to a divisor; a divisor that leaves one row but not all n columns
  // is retried from one column further up.
  const float s = ceilf(sqrtf(static_cast<float>(n)));
  int c = 1, rows = 1;
  for (int k = 1;; ++k) {
    c = static_cast<int>(s + static_cast<float>(k));
    if (n % c == 0) {
      rows = 1;
    } else {
      while (n % c != 0) --c;
      rows = static_cast<int>(ceilf(static_cast<float>(n) / static_cast<float>(c)));
    }
    if (c * rows == n) break;
  }
  m_blockCols = c;
  m_blockRows = rows;
  m_blockWidth = static_cast<int>(ceilf(static_cast<float>(m_width) / static_cast<float>(m_blockCols)));
  m_blockHeight = static_cast<int>(ceilf(static_cast<float>(m_height) / static_cast<float>(m_blockRows)));

  // Null-filled first, so that a failure part-way releases exactly what was
  // allocated (the destructor does not run for a constructor that throws).
  try {
    m_blockTable = new blockEdges**[n]();
    for (int a = 0; a < n; ++a) m_blockTable[a] = new blockEdges*[n]();
    m_busy = new uint8_t[n]();
    m_blockGraphs = new VELDSEGraph*[n]();
    for (int by = 0; by < m_blockRows; ++by) {
      for (int bx = 0; bx < m_blockCols; ++bx) {
        void* raw = ::operator new(sizeof(VELDSEGraph));
        m_blockGraphs[bx + m_blockCols * by] = new (raw) VELDSEGraph(g, by, bx, m_blockWidth, m_blockHeight);
      }
    }
  } catch (...) {
    releaseBlocks();
    throw;
  }
  // Initialised here rather than at the start of maxFlow() so that every
  // ParallelGC, also one used only for terminal links or run twice, pairs
  // exactly one sem_init with the sem_destroy of its destructor.
  sem_init(&m_pairSem, 0, 1);
}

ParallelGC::~ParallelGC() {
  sem_destroy(&m_pairSem);
  // Only an interrupted life leaves pairs behind; a finished maxFlow() has
  // merged or dropped all of them.
  for (blockEdges* p : m_pairs) freePair(p);
  m_pairs.clear();
  releaseBlocks();
  std::vector<blockEdges*>().swap(m_pairs);
}

void ParallelGC::releaseBlocks() {
  if (m_blockTable != nullptr) {
    for (int a = 0; a < m_threads; ++a) delete[] m_blockTable[a];
    delete[] m_blockTable;
    m_blockTable = nullptr;
  }
  // The views share the graph's arrays: their destructor must not run. Only
  // their own storage is released.
  if (m_blockGraphs != nullptr) {
    for (int k = 0; k < m_threads; ++k) ::operator delete(static_cast<void*>(m_blockGraphs[k]));
    delete[] m_blockGraphs;
    m_blockGraphs = nullptr;
  }
  delete[] m_busy;
  m_busy = nullptr;
}

void ParallelGC::noteFailure(std::exception_ptr failure) {
  const std::lock_guard<std::mutex> lock(m_failureLock);
  if (!m_failure) m_failure = failure;
}

void ParallelGC::rethrowFailure() {
  std::exception_ptr failure;
  {
    const std::lock_guard<std::mutex> lock(m_failureLock);
    failure = m_failure;
    m_failure = nullptr;
  }
  if (failure) std::rethrow_exception(failure);
}

void ParallelGC::freePair(blockEdges* p) {
  storedEdge* e = p->edges;
  while (e != nullptr) {
    storedEdge* next = e->next;
    delete e;
    e = next;
  }
  delete p;
}

// ---------------------------------------------------------------------------
// Phases

int ParallelGC::maxFlow() {
  const int n = m_threads;
  std::vector<ParallelGCThreadArg> args(n);
  Phase phase(n);
  std::vector<int> started;  // lo, hi of each merge of the round, start order
  started.reserve(2 * static_cast<size_t>(n));
  m_pairs.clear();

  // Block ids into the border nodes.
  for (int by = 0; by < m_blockRows; ++by) {
    for (int bx = 0; bx < m_blockCols; ++bx) {
      const int k = bx + m_blockCols * by;
      args[k] = ParallelGCThreadArg{this, k, by, bx};
      phase.start(k, ThreadAssignBlockIDs, assignWork, &args[k]);
    }
  }
  phase.join();
  rethrowFailure();
  for (int a = 0; a < n; ++a) std::fill(m_blockTable[a], m_blockTable[a] + n, nullptr);

  // Cross-block edges out.
  for (int by = 0; by < m_blockRows; ++by) {
    for (int bx = 0; bx < m_blockCols; ++bx) {
      const int k = bx + m_blockCols * by;
      args[k] = ParallelGCThreadArg{this, k, by, bx};
      phase.start(k, ThreadPartition, partitionWork, &args[k]);
    }
  }
  phase.join();
  rethrowFailure();

  // Every block on its own. Initialising block k while blocks below k
  // already run is safe: a running block touches only its own nodes, all
  // edges out of it being absent now.
  for (int k = 0; k < n; ++k) {
    m_blockGraphs[k]->InitBlock();
    args[k] = ParallelGCThreadArg{this, k, k, 0};
    phase.start(k, ThreadMaxFlow, maxFlowWork, &args[k]);
  }
  phase.join();
  rethrowFailure();
  for (int k = 0; k < n; ++k) m_graph->m_flow += m_blockGraphs[k]->m_flow;

  // Merge rounds of disjoint pairs.
  int remaining = n;
  while (remaining >= 2) {
    started.clear();
    int m = 0;
    for (blockEdges* p : m_pairs) {
      if (m_busy[p->first] || m_busy[p->second]) continue;
      m_busy[p->first] = m_busy[p->second] = 1;
      args[m] = ParallelGCThreadArg{this, m, p->first, p->second};
      phase.start(m, ThreadMerge, mergeWork, &args[m]);
      started.push_back(p->first);
      started.push_back(p->second);
      ++m;
    }
    // With all flags clear at the start of a round the first pair always
    // starts, so no merge means no pair is left: the remaining blocks share
    // no present edge and are each solved already. Waiting for a merge
    // that can never come would loop for ever.
    if (m == 0) break;
    phase.join();
    rethrowFailure();
    for (int k = 0; k < m; ++k) {
      const int lo = std::min(started[2 * k], started[2 * k + 1]);
      m_graph->m_flow += m_blockGraphs[lo]->m_flow;
      MakeNeighbourChanges(started[2 * k], started[2 * k + 1]);
    }
    remaining -= m;
    std::fill(m_busy, m_busy + n, 0);
  }
  return 0;
}

void ParallelGC::AssignIDs(int by, int bx) {
  const int id = bx + m_blockCols * by;
  const int x0 = bx * m_blockWidth, x1 = (bx + 1) * m_blockWidth - 1;
  const int y0 = by * m_blockHeight, y1 = (by + 1) * m_blockHeight - 1;
  auto mark = [this, id](int y, int x) {
    if (x >= m_width) return;
    const long i = static_cast<long>(y) * m_width + x;
    if (i >= m_nodeCount) return;
    m_nodes[i].tree = id;
  };
  for (int x = x0; x <= x1; ++x) {
    mark(y0, x);
    mark(y1, x);
  }
  for (int y = y0; y <= y1; ++y) {
    mark(y, x0);
    mark(y, x1);
  }
}

void ParallelGC::PartitionGraph(int by, int bx) {
  const int id = bx + m_blockCols * by;
  const int right = (bx + 1) * m_blockWidth - 1;   // this block's right column
  const int bottom = (by + 1) * m_blockHeight - 1;  // and bottom row
  // A node of the listed border, or -1 outside the grid. Positions past the
  // last column are skipped rather than wrapped into the next row: there
  // the neighbouring block is empty, and the wrapped node belongs to another
  // block whose own thread is changing its edges.
  auto nodeAt = [this](int y, int x) -> long {
    if (x >= m_width || y >= m_height) return -1;
    const long i = static_cast<long>(y) * m_width + x;
    return i < m_nodeCount ? i : -1;
  };
  auto pairWith = [this, id](int other, const std::vector<long>& border) {
    blockEdges* pair = new blockEdges{id, other, nullptr};
    int removed = 0;
    try {
      for (long i : border) removed += RemoveAndStoreEdges(m_nodes + i, pair);
      if (removed > 0) {
        // Listed before it enters the table: the destructor frees what the
        // list holds, so a pair must never be in the table alone.
        sem_wait(&m_pairSem);
        try {
          m_pairs.push_back(pair);
        } catch (...) {
          sem_post(&m_pairSem);
          throw;
        }
        sem_post(&m_pairSem);
      }
    } catch (...) {
      freePair(pair);
      throw;
    }
    if (removed > 0) {
      m_blockTable[id][other] = pair;
      m_blockTable[other][id] = pair;
    } else {
      delete pair;
      m_blockTable[id][other] = nullptr;
      m_blockTable[other][id] = nullptr;
    }
  };
  const bool hasRight = bx <= m_blockCols - 2;
  const bool hasBelow = by <= m_blockRows - 2;
  std::vector<long> border;
  if (hasRight && by >= 1) {
    border.clear();
    const long i = nodeAt(by * m_blockHeight, right);
    if (i >= 0) border.push_back(i);
    pairWith((bx + 1) + m_blockCols * (by - 1), border);
  }
  if (hasRight) {
    border.clear();
    for (int y = by * m_blockHeight; y <= bottom; ++y) {
      const long i = nodeAt(y, right);
      if (i >= 0) border.push_back(i);
    }
    pairWith((bx + 1) + m_blockCols * by, border);
  }
  if (hasBelow && hasRight) {
    border.clear();
    const long i = nodeAt(bottom, right);
    if (i >= 0) border.push_back(i);
    pairWith((bx + 1) + m_blockCols * (by + 1), border);
  }
  if (hasBelow) {
    border.clear();
    for (int x = bx * m_blockWidth; x <= right; ++x) {
      const long i = nodeAt(bottom, x);
      if (i >= 0) border.push_back(i);
    }
    pairWith(bx + m_blockCols * (by + 1), border);
  }
}

int ParallelGC::RemoveAndStoreEdges(nodes* n, blockEdges* pair) {
  const int i = static_cast<int>(n - m_nodes);
  Leaving out;
  leavingSlots(i, m_width, m_height, &out);
  int removed = 0;
  for (int k = 0; k < out.count; ++k) {
    // The head's block id first: partition threads write capacities only on
    // edges into the block they pair with, so an edge whose head carries
    // another id may be changing under another thread and is not read.
    if (m_nodes[out.head[k]].tree != pair->second) continue;
    const int e = out.slot[k];
    if (m_caps[e] == VELDSEGraph::ABSENT_EDGE) continue;
    pair->edges = new storedEdge{e, e ^ 1, m_caps[e], m_caps[e ^ 1], pair->edges};
    m_caps[e] = VELDSEGraph::ABSENT_EDGE;
    m_caps[e ^ 1] = VELDSEGraph::ABSENT_EDGE;
    ++removed;
  }
  return removed;
}

int ParallelGC::MergeBlocks(int a, int b) {
  const int lo = std::min(a, b), hi = std::max(a, b);
  VELDSEGraph* view = m_blockGraphs[lo];
  view->m_activeHead = view->m_activeTail = nullptr;
  view->m_orphanHead = view->m_orphanTail = nullptr;
  view->m_flow = 0.0f;
  blockEdges* pair = m_blockTable[lo][hi];
  storedEdge* e = pair->edges;
  while (e != nullptr) {
    m_caps[e->slot] = e->cap;
    m_caps[e->revSlot] = e->revCap;
    // Both ends may now have a residual edge out of their tree (or into a
    // free node): they must grow again.
    view->AddToActiveQueue(m_nodes + view->headOfSlot(e->revSlot));
    view->AddToActiveQueue(m_nodes + view->headOfSlot(e->slot));
    storedEdge* next = e->next;
    delete e;
    e = next;
  }
  pair->edges = nullptr;
  return lo;
}

void ParallelGC::MakeNeighbourChanges(int a, int b) {
  const int lo = std::min(a, b), hi = std::max(a, b);
  blockEdges* done = m_blockTable[lo][hi];
  m_pairs.erase(std::remove(m_pairs.begin(), m_pairs.end(), done), m_pairs.end());
  freePair(done);
  m_blockTable[lo][hi] = m_blockTable[hi][lo] = nullptr;

  for (int k = 0; k < m_threads; ++k) {
    blockEdges* p = m_blockTable[hi][k];
    if (p == nullptr) continue;
    if (p->first == hi) p->first = lo;
    if (p->second == hi) p->second = lo;
    blockEdges* q = m_blockTable[lo][k];
    if (q != nullptr) {
      // Both blocks bordered k: one record for the merged block.
      storedEdge** tail = &q->edges;
      while (*tail != nullptr) tail = &(*tail)->next;
      *tail = p->edges;
      p->edges = nullptr;
      m_pairs.erase(std::remove(m_pairs.begin(), m_pairs.end(), p), m_pairs.end());
      freePair(p);
    } else {
      m_blockTable[lo][k] = p;
      m_blockTable[k][lo] = p;
    }
    m_blockTable[hi][k] = nullptr;
    m_blockTable[k][hi] = nullptr;
  }
}

// ---------------------------------------------------------------------------
// Terminal links

void ParallelGC::ComputeGMMProbsParallely(cv::Mat* img, cv::Mat* labels, double K, int sinkCode, int sourceCode,
                                          VELDSEColorModel* m1, VELDSEColorModel* m2, VELDSEGraph* g) {
  const int n = m_threads;
  std::vector<GMMThreadArg> args(n);
  Phase phase(n);
  for (int by = 0; by < m_blockRows; ++by) {
    for (int bx = 0; bx < m_blockCols; ++bx) {
      const int k = bx + m_blockCols * by;
      args[k] = GMMThreadArg{this, k, by, bx, img, labels, K, sinkCode, sourceCode, m1, m2, g, 0.0f};
      phase.start(k, ThreadComputeGMMProbs, gmmWork, &args[k]);
    }
  }
  phase.join();
  rethrowFailure();
  // The threads counted their terminal flow apart (the field is shared);
  // it reaches the graph here, in block order.
  for (int k = 0; k < n; ++k) g->m_flow += args[k].flow;
}

void ParallelGC::ComputeGMMProbs(int by, int bx, cv::Mat* img, cv::Mat* labels, double K, int sinkCode,
                                 int sourceCode, VELDSEColorModel* m1, VELDSEColorModel* m2, VELDSEGraph* g) {
  const uchar* const pixels = img->data;
  // Blocks are rounded up, so the last ones may reach past the grid: clip
  // them instead of wrapping into the next row or running off the image.
  const int yEnd = std::min(m_blockHeight * (by + 1), m_height);
  const int xEnd = std::min(m_blockWidth * (bx + 1), m_width);
  const VELDSEColorModel* const models[2] = {m1, m2};
  for (int y = m_blockHeight * by; y < yEnd; ++y) {
    const uchar* const labelRow = labels->ptr<uchar>(y);
    for (int x = m_blockWidth * bx; x < xEnd; ++x) {
      const int i = y * m_width + x;
      const uchar* const px = pixels + 3 * static_cast<long>(i);
      const double s0 = px[0], s1 = px[1], s2 = px[2];
      float p[2];
      for (int mi = 0; mi < 2; ++mi) {
        const VELDSEColorModel* const M = models[mi];
        float sum = 0.0f;
        for (int k = 0; k < 5; ++k) {
          const float d0 = static_cast<float>(s0 - M->mean[k][0]);
          const float d1 = static_cast<float>(s1 - M->mean[k][1]);
          const float d2 = static_cast<float>(s2 - M->mean[k][2]);
          const double* const A = M->inverseCovariance[k];
          const float q = static_cast<float>(((A[0] * d0 + A[3] * d1 + A[6] * d2) * d0 +
                                              (A[1] * d0 + A[4] * d1 + A[7] * d2) * d1 +
                                              (A[2] * d0 + A[5] * d1 + A[8] * d2) * d2) *
                                             -0.5);
          sum = static_cast<float>(sum + M->weight[k] * M->normFactor[k] * std::exp(static_cast<double>(q)));
        }
        p[mi] = sum;
      }
      const int l = labelRow[x];
      float capSource, capSink;
      if (l == sourceCode) {
        capSource = static_cast<float>(K);
        capSink = 0.0f;
      } else if (l == sinkCode) {
        capSource = 0.0f;
        capSink = static_cast<float>(K);
      } else {
        capSource = -logf(p[1]);
        capSink = -logf(p[0]);
      }
      g->addtWeights(i, capSource, capSink);
    }
  }
}

// ---------------------------------------------------------------------------
// Thread entry points

void* ThreadAssignBlockIDs(void* arg) {
  assignWork(arg);
  pthread_exit(nullptr);
}

void* ThreadPartition(void* arg) {
  partitionWork(arg);
  pthread_exit(nullptr);
}

void* ThreadMaxFlow(void* arg) {
  maxFlowWork(arg);
  pthread_exit(nullptr);
}

void* ThreadMerge(void* arg) {
  mergeWork(arg);
  pthread_exit(nullptr);
}

void* ThreadComputeGMMProbs(void* arg) {
  gmmWork(arg);
  pthread_exit(nullptr);
}
