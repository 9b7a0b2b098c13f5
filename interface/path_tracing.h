// Shortest paths over the pixel grid from a seed pixel.
//
// find_parent_info runs Dijkstra's algorithm over the 8-connected grid of an
// 8-bit, 3-channel colour image. The cost of a step mixes spatial distance and
// colour difference (alpha weighs the two), and a step between an object-labelled
// pixel (label 2 or 4) and a background-labelled one (label 1 or 3) costs the
// largest finite double, which never improves a distance: paths do not cross
// between object and background marks. The result is, for every pixel, the index
// (column + row * cols) of its predecessor on the cheapest path from the seed;
// following predecessors from any pixel leads back to the seed, whose parent is
// itself. Pixels that cannot be reached keep -1.
//
// The seed (r, c) is the pixel at flat index r * cols + c, so a column past
// the end of a row names a pixel of a later row. A seed whose flat index lies
// outside the image is logged (tag "Error") and gives an empty result; no
// exception leaves find_parent_info. The heap's own operations check every
// index and raise std::out_of_range when called with a slot it does not hold.
#ifndef SEGCORE_INTERFACE_PATH_TRACING_H
#define SEGCORE_INTERFACE_PATH_TRACING_H

#include <opencv2/core/core_c.h>

#include <vector>

// Number of neighbour entries of a pixel, and their order (row grows downwards):
// down-right, right, up-right, up, up-left, left, down-left, down.
enum { kPathNeighbours = 8 };
extern const int kPathNeighbourRow[kPathNeighbours];
extern const int kPathNeighbourCol[kPathNeighbours];

// One record per pixel of the search.
struct Node_ {
  struct Neighbour {
    int index;    // neighbour pixel index, -1 when outside the image
    double cost;  // cost of the step to it
  };
  int index;        // this pixel's own index (column + row * cols)
  double distance;  // cheapest cost from the seed so far; DBL_MAX until reached
  int parent;       // predecessor on that path; -1 until reached
  Neighbour neighbours[kPathNeighbours];
};

// Heap entry: a node and its tentative distance.
struct Qnode {
  int index;
  double key;
};

// Min-heap of Qnode stored 1-based (slot i has children 2i and 2i + 1); slot 0
// holds a dummy {-1, -1.0}. m_position[node index] is the heap slot of that
// node, -1 once popped. The position array is indexed by push order, so nodes
// must be pushed in index order 0, 1, 2, ... A decrease-key is done by lowering
// m_heap[m_position[v]].key and calling prelocate_up(m_position[v]).
class MinPriorityQueue {
 public:
  MinPriorityQueue();

  void push(Qnode q);
  // Removes and returns the entry with the smallest key. On an empty queue it
  // prints "Empty queue" on standard output and returns the dummy entry.
  Qnode pop_min();
  void prelocate_up(int slot);
  void prelocate_down(int slot);
  // Exchanges two heap entries and the position values of their nodes.
  void swap(int slotA, int slotB);
  // Pre-sizes both arrays for n nodes (optional; avoids regrowth).
  void reserve(int n);
  // Number of entries still queued (the dummy not counted).
  int size() const { return static_cast<int>(m_heap.size()) - 1; }

  std::vector<Qnode> m_heap;
  std::vector<int> m_position;
};

// Cost between pixels (r1, c1) and (r2, c2) of an 8-bit 3-channel image:
// sqrt(alpha * (dr^2 + dc^2) + (1 - alpha) / 3 * (d0^2 + d1^2 + d2^2)), dk the
// difference of channel k.
double find_weight(IplImage* img, int r1, int c1, int r2, int c2, double alpha);

// Fills the eight neighbour indices of pixel (r, c); neighbours outside the
// image get -1. The last argument is unused.
void assign_index(Node_& node, int rows, int cols, int r, int c, double);

// Fills the eight step costs of pixel (r, c) from its neighbour indices (set by
// assign_index first). A null label image forbids no step. Entries without a
// neighbour cost the largest finite double.
void assign_weight(IplImage* src, IplImage* label, Node_& node, int r, int c, double alpha);

// Predecessor of every pixel, in index order, on the cheapest paths from the
// seed r * cols + c; empty when that index is outside the image. src: 8-bit,
// 3 channels; label: 8-bit, 1 channel, same size, or null.
std::vector<int> find_parent_info(IplImage* src, IplImage* label, int r, int c, double alpha);

// The same search, also drawing the predecessor relation into `out` so a caller
// can trace a path, or look at the result, from the image alone. Each pixel of
// out (written with cvSet2D, the same value in every channel) receives:
//   kPathMarkSeed (255)               the seed;
//   kPathMarkStep * (k + 1) (30..240) a reached pixel whose parent is its
//                                     neighbour k in the order above
//                                     (k = value / 30 - 1);
//   kPathMarkUnreached (0)            a pixel no path reaches.
// Parent directions rather than a distance map because a distance map still
// needs the neighbour search to recover a path, while a direction per pixel is
// the path itself; the 30-step spacing keeps the eight directions distinct
// shades of grey, and cut-off regions show as black. out must have src's size
// (any depth that holds 0..255); otherwise it is left untouched.
enum { kPathMarkUnreached = 0, kPathMarkStep = 30, kPathMarkSeed = 255 };
std::vector<int> find_parent_info(IplImage* src, IplImage* label, int r, int c, double alpha,
                                  IplImage* out);

#endif
