// VELDSEGraph: an 8-connected pixel-grid s-t graph and its max-flow solver.
//
// This is not a general graph. It holds one node per pixel of a width x height
// box, in row-major order, and stores every edge implicitly by position, so a
// node costs a record of five fields (20 bytes on 32-bit ARM; 32 on 64-bit
// ARM and x86_64, where its two queue pointers take 8 bytes each and 4 bytes
// pad) and eight capacity floats, and nothing else. The solver is a
// two-search-tree augmenting-path method: a source tree and a sink tree grow
// from the terminals over non-saturated edges; where they touch the path is
// augmented; nodes cut off by saturation become orphans and are re-adopted or
// freed. After maxFlow() returns, getTreeofNode(i) tells on which side of the
// minimum cut node i lies.
//
// Conventions
//   * Source side = object, sink side = background. getTreeofNode answers 1
//     for the sink tree and 0 otherwise (nodes no search reached count as
//     source side).
//   * Node record `nodes`: parent, tree, trCap, nextActive, nextOrphan (see
//     below). trCap is one signed residual terminal capacity: > 0 from the
//     source, < 0 (minus) to the sink, 0 = no terminal link left.
//   * Capacity slots: node i owns the floats 8i .. 8i+7, four pairs towards
//     its four "earlier" neighbours:
//         8i+0  i -> left         8i+1  left -> i
//         8i+2  i -> upper-left   8i+3  upper-left -> i
//         8i+4  i -> up           8i+5  up -> i
//         8i+6  i -> upper-right  8i+7  upper-right -> i
//     The reverse of slot s is s ^ 1. The head (target node) of slot s is
//     computed, never stored: m_offsets[(s + 1) & 7] + (s + 1) / 8, with
//     m_offsets = {-1, -1, 0, -w-1, 0, -w, 0, 1-w}. The tail is head(s ^ 1).
//   * A capacity of exactly -2.0 (ABSENT_EDGE) marks an absent edge; both
//     slots of an absent pair hold it. A slot holding +0.0 or -0.0 is
//     saturated.
//   * The edges leaving node i are always visited in this order (searching,
//     growing, adopting): left, upper-left, up, upper-right, right,
//     lower-right, down, lower-left. At the grid border the missing directions
//     are skipped: column 0 drops left/upper-left/lower-left, row 0 drops
//     upper-left/up/upper-right, column w-1 drops upper-right/right/lower-right,
//     row h-1 drops lower-right/down/lower-left.
//
// Building a graph
//     VELDSEGraph g(w * h, 8 * w * h, w, h, 0);
//     if (g.m_nodes == nullptr || g.m_caps == nullptr) give up;   // creator
//     g.reset(); g.addNode(w * h);                                  // builder
//     for i in 0 .. w*h-1:                        // index order, 4 calls each
//       g.addEdge(i, left, c, rc, !hasLeft);
//       g.addEdge(i, upLeft, c, rc, !hasUpLeft);
//       g.addEdge(i, up, c, rc, !hasUp);
//       g.addEdge(i, upRight, c, rc, !hasUpRight);
//     for i: g.addtWeights(i, toObject, toBackground);
//     g.maxFlow();  then g.getTreeofNode(i) for every i.
// Whoever creates the graph tests its arrays, once, before any builder
// writes: VELDSEHybrid::segment() right after creating the whole-image graph
// (which constructGraphVELD_Whole_Image() then rebuilds for every cut without
// testing again), constructGraphTrimapVELD() for the graph it creates itself.
//
// Calls, contracts and costs (n = nodes added, W = width)
//   VELDSEGraph(nodeMax, edgeMax, width, height, threads)
//       Allocates max(nodeMax, 16) node records and max(edgeMax, 16) capacity
//       pairs (8 bytes each) through VELD_Malloc_Msg (tag "VELDSEGraph", lines
//       53 and 54). The arrays are not tested here: a failed allocation leaves
//       m_nodes or m_caps null and the creator must check. nodeMax and edgeMax
//       are hard limits: nothing grows later. O(1) besides malloc.
//   VELDSEGraph(g, blockRow, blockCol, blockWidth, blockHeight)
//       Block view for the parallel solver: shares g's arrays, counts, cursors
//       and flow, has its own empty queues and owns nothing. Never destroy a
//       view (its destructor would reset and free the shared arrays).
//   ~VELDSEGraph()
//       Frees both arrays (tag "~VELDSEGraph", lines 128, 129); the reset()
//       that would precede it is skipped as unobservable.
//   reset()
//       Every added node fresh, every written capacity float 0.0, counts,
//       cursors, flow and queues cleared; arrays kept. O(n).
//   resetNew()
//       As reset() but keeps counts and cursors (so absent markers become 0.0).
//       Returns 0. O(n).
//   addNode(k)
//       Appends k fresh nodes (parent NONE, tree FREE, trCap 0, no links);
//       k < 1 does nothing. No growth, no bound check in release builds. O(k).
//   addEdge(i, j, cap, revCap, absent)
//       Writes the next capacity pair [cap, revCap], or [-2, -2] when absent.
//       i and j are ignored: the position alone says which edge it is, so the
//       builder must call it exactly four times per node in the order above.
//       O(1).
//   addToEdge(i, j, cap, revCap)
//       Adds cap to the first present slot i -> j in the neighbour order and
//       revCap to its reverse; nothing happens if j is not a present
//       neighbour. The int result carries no meaning. O(1).
//   addtWeights(i, capSource, capSink)
//       Combines new terminal capacities with node i's residual one and counts
//       the common part as flow: flow += min(source, sink), trCap = source -
//       sink. Repeated calls accumulate. O(1).
//   getTreeofNode(i)
//       1 if node i ended in the sink tree, else 0. O(1).
//   maxFlow()
//       Initialises the trees from trCap and runs the solver; returns the flow
//       field (the terminal flow counted by addtWeights plus everything pushed
//       through the grid). The run is abandoned, leaving the trees as they
//       are, when VELDSEMarker::m_exitApp is set (checked before the loop,
//       between orphans and after each node visit) or when g_cancelTimer shows
//       more than 10000.0 ms (checked after each node visit; the solver then
//       sets m_exitApp itself). No allocation during the run. Typical cost on
//       segmentation energies is a few node visits per node; the adoption
//       walks whole parent chains (no distance cache). With a thread count
//       above 1 the block-parallel solver (graph/parallel_gc.h) runs instead
//       and 0 is returned; m_flow still receives the flow.
//   maxFlow(limit)
//       The serial maxFlow() with the time limit watched by `limit`
//       (graph/solver_core.h) instead of a watcher thread of its own: graphs
//       solved side by side share one. Same steps, same result. A graph with
//       a thread count above 1 runs maxFlow() instead.
//   maxflowInit(), maxFlowSerialCall()
//       The two halves of the serial maxFlow(): tree initialisation over all
//       added nodes (trCap above zero: source tree, below zero: sink tree,
//       otherwise - zero or NaN - free; terminal-linked nodes queued in index
//       order), and the main loop over whatever the active queue holds.
//   InitBlock()
//       maxflowInit() restricted to a block view's rectangle; also clears the
//       view's flow and queues.
//   AddToActiveQueue / GetTopActiveQueueNode / AddToOrphanQueue /
//   GetTopOrphanQueueNode
//       Strict FIFO queues linked through the node records. A queued node's
//       link is non-null; the last node links to itself. O(1).
//   AugmentPath(middle), ProcessSourceOrphans(o), ProcessSinkOrphans(o)
//       Solver steps, public for the parallel solver and for tests.
//
// Threads: a graph is used by one thread at a time. Block views of one graph
// may run maxFlowSerialCall() concurrently on disjoint blocks whose
// cross-block edges have been removed.
#ifndef SEGCORE_GRAPH_VELDSE_GRAPH_H
#define SEGCORE_GRAPH_VELDSE_GRAPH_H

#include "support/cpu_timer.h"

namespace graphcore {
class LimitWatch;
}

// One grid node: five 32-bit words on 32-bit ARM (20 bytes); 32 bytes on the
// 64-bit targets (8-byte pointers, aligned).
struct nodes {
  int parent;          // slot from this node to its tree parent, TERMINAL or NONE
  int tree;            // SOURCE_TREE, SINK_TREE or FREE_TREE
  float trCap;         // signed residual terminal capacity
  nodes* nextActive;   // active-queue successor; null = not queued; last -> self
  nodes* nextOrphan;   // orphan-queue successor, same convention
};

class VELDSEGraph {
 public:
  // Values of nodes::parent that are not slot indices.
  static constexpr int TERMINAL = -1;
  static constexpr int NONE = -3;
  // Values of nodes::tree.
  static constexpr int SOURCE_TREE = 0;
  static constexpr int SINK_TREE = 1;
  static constexpr int FREE_TREE = 2;
  // Capacity value of both slots of an absent edge.
  static constexpr float ABSENT_EDGE = -2.0f;
  // A run is abandoned once g_cancelTimer exceeds this (support/cpu_timer.h).
  static constexpr double TIME_LIMIT_MS = kCancelTimeLimitMs;

  VELDSEGraph(int nodeMax, int edgeMax, int width, int height, int threads);
  VELDSEGraph(VELDSEGraph* g, int blockRow, int blockCol, int blockWidth, int blockHeight);
  ~VELDSEGraph();
  VELDSEGraph(const VELDSEGraph&) = delete;
  VELDSEGraph& operator=(const VELDSEGraph&) = delete;

  void reset();
  int resetNew();
  void addNode(int n);
  void addEdge(int i, int j, float cap, float revCap, bool absent);
  int addToEdge(int i, int j, float cap, float revCap);
  void addtWeights(int i, float capSource, float capSink);
  int getTreeofNode(int i);

  float maxFlow();
  float maxFlow(const graphcore::LimitWatch& limit);
  void maxflowInit();
  float maxFlowSerialCall();
  void InitBlock();

  void AddToActiveQueue(nodes* n);
  nodes* GetTopActiveQueueNode();
  void AddToOrphanQueue(nodes* n);
  nodes* GetTopOrphanQueueNode();
  void AugmentPath(int middle);
  void ProcessSourceOrphans(nodes* o);
  void ProcessSinkOrphans(nodes* o);

  // Index of the node slot s leads to.
  int headOfSlot(int s) const { return m_offsets[(s + 1) & 7] + ((s + 1) >> 3); }

  // Fields, in this order. Public: the creators test the arrays and the
  // parallel solver works on them directly.
  int m_nodeCount;       // nodes added so far
  int m_capCount;        // capacity floats written so far
  nodes* m_nodes;        // node array
  nodes* m_nodeLast;     // where addNode writes next
  nodes* m_nodeMax;      // end of the node allocation
  float* m_caps;         // capacity array, 8 floats per node
  float* m_capLast;      // where addEdge writes next
  float* m_capMax;       // end of the capacity allocation
  float m_flow;          // total flow, including the terminal flow of addtWeights
  nodes* m_activeHead;
  nodes* m_activeTail;
  nodes* m_orphanHead;
  nodes* m_orphanTail;
  int m_offsets[8];      // {-1, -1, 0, -w-1, 0, -w, 0, 1-w}
  int m_threads;         // above 1, maxFlow() runs ParallelGC and returns 0
  int m_blockWidth;      // block covered by a block view
  int m_blockHeight;
  int m_blockRow;
  int m_blockCol;
  int m_width;           // grid width w
  int m_height;          // grid height h

 private:
  void setOffsets();
  void initNodeTrees(nodes* first, nodes* last);
};

#endif
