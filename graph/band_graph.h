// Band graphs: the grid graph of graph/veldse_graph.h restricted to some of
// the pixels of its box.
//
// The full-resolution re-cut fixes nearly all of its box and cuts only a thin
// band. A band graph holds just the band's pixels, yet its solver visits them
// exactly as the full grid solver would visit the same pixels when every other
// pixel of the box is isolated (no terminal link, no edge): the same node
// order (row-major), the same fixed neighbour order, the same queues. So the
// cut, the trees and the flow are identical, at the cost of the band instead
// of the box.
//
// A band graph is a VELDSEGraph object: node i is the i-th band pixel in
// row-major order and owns the capacity floats 8i .. 8i+7 exactly as a grid
// node does (pairs towards its left, upper-left, up and upper-right
// neighbours; ABSENT_EDGE where that neighbour is not in the band). Where a
// grid node finds its neighbours by arithmetic alone, a band node needs which
// of its eight neighbours are band pixels and the index of the pixels above
// and below it (the rest follows from the row-major numbering). While it
// runs, the solver keeps each node's state (parent slot and node, tree,
// terminal capacity, queue links) in dense arrays of its own and writes it
// back into the records before it returns. These live in the same
// allocation as the capacities, just past m_capMax, so that deleting the
// graph frees them too; one table in band_graph.cpp lays them out (and sizes
// the allocation). m_width and m_height give the box.
//
// Building one (the calls of a grid builder, plus the neighbour table):
//     VELDSEGraph* g = createBandGraph(n, boxWidth, boxHeight);
//     if (g->m_nodes == nullptr || g->m_caps == nullptr) give up;
//     g->reset(); g->addNode(n);
//     g->addtWeights(i, ...) for the nodes in index order;
//     for i in 0 .. n-1:
//       setBandNeighbours(g, i, left, upLeft, up, upRight);   // node or -1
//       four addEdge calls as for a grid node (absent where the index is -1)
//     bandMaxFlow(g);  then g->getTreeofNode(i).
// Never call the grid solver (maxFlow, maxFlowSerialCall) on a band graph.
#ifndef SEGCORE_GRAPH_BAND_GRAPH_H
#define SEGCORE_GRAPH_BAND_GRAPH_H

#include "graph/veldse_graph.h"

// A graph of nodeCount band nodes in a width x height box: node records, four
// capacity pairs per node and the neighbour links (no neighbours yet), one
// thread. The arrays may be null when memory is short; the caller checks as
// for a grid. Cost per node: 20 bytes of record (32-bit ARM; 32 on 64-bit ARM and x86_64),
// 32 of capacities, 9 of neighbour links, 21 of the solver's own node state.
VELDSEGraph* createBandGraph(int nodeCount, int width, int height);

// Node i's earlier neighbours (left, upper-left, up, upper-right: node index
// or -1); records i as their later neighbour in turn, and gives i's own link
// to the pixel below a placeholder that a later node's call overwrites (the
// solver reads it with the rest of i's links, used or not). Call once per
// node, in index order, before i's four addEdge calls. Nodes must be
// numbered in the row-major order of their pixels.
void setBandNeighbours(VELDSEGraph* g, int i, int left, int upLeft, int up, int upRight);

// The neighbour index of node i in direction k (the fixed order left,
// upper-left, up, upper-right, right, lower-right, down, lower-left), or -1.
int bandNeighbour(const VELDSEGraph* g, int i, int k);

// maxFlow() of a band graph: tree initialisation in node order (terminal
// capacity above zero: source tree, below zero: sink tree, otherwise - zero
// or NaN - free, exactly as maxflowInit does for a grid), then the serial
// two-tree solver with the same cancel and time-limit checks. A large
// band made of several separate pieces (an object and the holes in it, say)
// has its pieces solved side by side on up to maxThreads threads: no augmenting
// path, growth or adoption ever crosses from one piece to another, and each
// piece sees exactly the operations it sees in one serial run, so the trees
// and capacities come out the same (only the order in which the pieces' flows
// are added to m_flow differs). maxThreads (at least 1) bounds the threads
// working on the pieces, the calling thread included: a caller that keeps a
// thread of its own busy meanwhile passes 3, so that four at most work at once.
float bandMaxFlow(VELDSEGraph* g, int maxThreads = 4);

#endif
