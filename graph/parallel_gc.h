// ParallelGC: block-parallel max-flow on a VELDSEGraph, and the block-parallel
// terminal-link computation from two colour models.
//
// The grid is cut into a near-square array of columns x rows = n rectangular
// blocks, one per thread. Every grid edge that crosses a block border is taken
// out of the graph (both slots set to the absent marker) and kept per pair of
// adjacent blocks; each block is then solved by the serial solver on its own
// thread, through a block view (a VELDSEGraph sharing the graph's arrays with
// queues of its own). Blocks are merged pairwise, disjoint pairs in parallel
// rounds, by putting the stored edges back, queueing both end nodes of every
// restored edge and resuming the serial solver from the trees both blocks
// already have. When the last merge is done every edge is back and the trees
// describe a minimum cut of the whole graph.
//
// Usage: VELDSEGraph::maxFlow() runs it when the graph's thread count is above
// 1. Directly:
//     ParallelGC pgc(&g, 4);
//     pgc.maxFlow();            // returns 0; g.getTreeofNode(i) as usual
//
// Contracts
//   * The graph must be fully built (all nodes and all four edge pairs per
//     node) before the ParallelGC is constructed: the views copy its counts.
//   * maxFlow() returns 0, not the flow. The flow the blocks push is added to
//     the graph's m_flow field after each phase has joined, so m_flow ends as
//     the serial solver would leave it (up to float summation order).
//   * Block ids are written into the `tree` field of every block's border
//     nodes while the graph is partitioned; the per-block initialisation
//     rewrites them. The partition matches stored edges by that field, so an
//     edge from a border node to a node of its own block whose `tree` value
//     happens to equal the neighbouring block's id is taken out too. That
//     costs nothing but a little block-local work: the edge is stored with
//     the pair and comes back when the two blocks merge.
//   * Block pairs whose border has no present edge get no pair record; if the
//     records do not link all blocks, merging stops when no pair is left (the
//     separated blocks are already solved on their own).
//   * The cancel flag and the 10 s limit act inside every thread's serial
//     run. The limit is checked on g_cancelTimer, which the serial solver
//     stops (writes) on every check; with several threads that shared timer
//     is written concurrently, so leave g_cancelTimer null while this runs.
//   * Views are never destroyed (their destructor would reset and free the
//     shared arrays); their storage comes from operator new and goes back
//     through operator delete without running ~VELDSEGraph.
//
// Threads: every phase starts its threads and joins them before the next; the
// pair list, written by all partition threads, is guarded by a semaphore. A
// block whose thread cannot be started is worked on the calling thread
// instead (the blocks of a phase are independent, so the result is the same),
// and only threads that did start are joined. Whatever a phase's work throws
// (memory running out while edges are stored) is kept and thrown again from
// maxFlow() or ComputeGMMProbsParallely() once every thread of the phase has
// been joined; the destructor then frees whatever pairs are left.
//
// Failures: the constructor releases what it allocated before it throws.
// Costs: O(n^2) pointers for the pair table; one heap record per removed edge.
#ifndef SEGCORE_GRAPH_PARALLEL_GC_H
#define SEGCORE_GRAPH_PARALLEL_GC_H

#include <semaphore.h>

#include <cstdint>
#include <exception>
#include <mutex>
#include <vector>

#include <opencv2/core.hpp>

#include "colormodel/veldse_color_model.h"
#include "graph/veldse_graph.h"

// One grid edge pair taken out of the graph while its blocks are apart.
struct storedEdge {
  int slot;         // slot leaving a border node
  int revSlot;      // slot ^ 1
  float cap;        // capacity of slot
  float revCap;     // capacity of revSlot
  storedEdge* next;
};

// All stored edges between two adjacent blocks.
struct blockEdges {
  int first;         // block id
  int second;        // block id
  storedEdge* edges; // newest first
};

class ParallelGC;

// Argument record of the max-flow phase threads: the solver, the running
// index and two ints whose meaning depends on the phase (block row and
// column; block id and unused; the two block ids of a merge).
struct ParallelGCThreadArg {
  ParallelGC* gc;
  int index;
  int a;
  int b;
};

// Argument record of ThreadComputeGMMProbs. flow receives what the thread's
// addtWeights calls counted as terminal flow.
struct GMMThreadArg {
  ParallelGC* gc;
  int index;
  int by;
  int bx;
  cv::Mat* img;
  cv::Mat* labels;
  double K;
  int sinkCode;
  int sourceCode;
  VELDSEColorModel* m1;
  VELDSEColorModel* m2;
  VELDSEGraph* g;
  float flow;
};

class ParallelGC {
 public:
  // Blocks for n threads (n below 1 counts as 1); creates the n block views.
  ParallelGC(VELDSEGraph* g, int n);
  ~ParallelGC();
  ParallelGC(const ParallelGC&) = delete;
  ParallelGC& operator=(const ParallelGC&) = delete;

  // All phases: block ids, partition, per-block solving, merge rounds.
  // Returns 0.
  int maxFlow();

  // Block id into the `tree` field of every border node of block (by, bx).
  void AssignIDs(int by, int bx);
  // Takes out and stores the edges towards the block's right, lower and
  // upper-right/lower-right neighbours.
  void PartitionGraph(int by, int bx);
  // Takes out the edges of n towards the pair's second block; returns how many.
  int RemoveAndStoreEdges(nodes* n, blockEdges* pair);
  // Restores the stored edges of blocks a and b into the lower id's view and
  // queues their end nodes; returns the lower id.
  int MergeBlocks(int a, int b);
  // After a merge: drops the pair and hands the higher id's pairs to the
  // lower id.
  void MakeNeighbourChanges(int a, int b);

  // Terminal links of every node of g from two colour models, one thread per
  // block; m1 gives the sink weight, m2 the source weight. Pixels labelled
  // sourceCode (checked first) or sinkCode get K towards that terminal.
  void ComputeGMMProbsParallely(cv::Mat* img, cv::Mat* labels, double K, int sinkCode, int sourceCode,
                                VELDSEColorModel* m1, VELDSEColorModel* m2, VELDSEGraph* g);
  // The same for block (by, bx), clipped to the grid.
  void ComputeGMMProbs(int by, int bx, cv::Mat* img, cv::Mat* labels, double K, int sinkCode, int sourceCode,
                       VELDSEColorModel* m1, VELDSEColorModel* m2, VELDSEGraph* g);

  // Fields, in this order; public for the thread entry points and tests.
  VELDSEGraph* m_graph;          // the full graph (not owned)
  int m_threads;                 // n: blocks and threads per phase
  VELDSEGraph** m_blockGraphs;   // view per block id
  blockEdges*** m_blockTable;    // n x n: pair record of blocks a and b, or null
  uint8_t* m_busy;               // blocks taken in the current merge round
  nodes* m_nodes;
  float* m_caps;
  int m_nodeCount;
  int m_capCount;
  int m_width;
  int m_height;
  int m_blockCols;
  int m_blockRows;
  int m_blockWidth;
  int m_blockHeight;
  sem_t m_pairSem;               // guards m_pairs during the partition
  std::vector<blockEdges*> m_pairs;  // live pairs, creation order

  // Keeps the first exception of the running phase's work (called from the
  // thread entry points, which must not let it leave the thread).
  void noteFailure(std::exception_ptr failure);

 private:
  void freePair(blockEdges* p);
  void releaseBlocks();
  // Throws the phase's first failure, if any, and clears it.
  void rethrowFailure();

  std::mutex m_failureLock;
  std::exception_ptr m_failure;
};

// Thread entry points. Each takes a ParallelGCThreadArg* (GMMThreadArg* for
// the last) and ends with pthread_exit(nullptr). They have C++ linkage: they
// are exported under their mangled names, which is how a caller outside the
// library declares and finds them.
void* ThreadAssignBlockIDs(void* arg);  // AssignIDs(a, b) = (by, bx)
void* ThreadPartition(void* arg);       // PartitionGraph(a, b) = (by, bx)
void* ThreadMaxFlow(void* arg);         // serial solver on view `index`
void* ThreadMerge(void* arg);           // MergeBlocks(a, b), then resume
void* ThreadComputeGMMProbs(void* arg);

#endif
