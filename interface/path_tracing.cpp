#include "interface/path_tracing.h"

#include <android/log.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <iostream>
#include <new>
#include <stdexcept>
#include <utility>

#include "interface/boundary.h"
#include "support/image_rows.h"

const int kPathNeighbourRow[kPathNeighbours] = {1, 0, -1, -1, -1, 0, 1, 1};
const int kPathNeighbourCol[kPathNeighbours] = {1, 1, 1, 0, -1, -1, -1, 0};

namespace {

inline const unsigned char* pixelAt(const IplImage* img, int r, int c) {
  return imageRow(img, r) + c * img->nChannels;
}

// sqrt(alpha * spatial + (1 - alpha) / 3 * |colour difference|^2), in double.
inline double mixedCost(const unsigned char* p, const unsigned char* q, double spatial,
                        double alpha) {
  const double d0 = static_cast<double>(p[0]) - static_cast<double>(q[0]);
  const double d1 = static_cast<double>(p[1]) - static_cast<double>(q[1]);
  const double d2 = static_cast<double>(p[2]) - static_cast<double>(q[2]);
  return std::sqrt(alpha * spatial + ((1.0 - alpha) / 3.0) * (d0 * d0 + d1 * d1 + d2 * d2));
}

inline bool isObjectLabel(unsigned char l) { return l == 2 || l == 4; }
inline bool isBackgroundLabel(unsigned char l) { return l == 1 || l == 3; }

// Runs the search and returns the records, so both public forms share it.
// The seed is taken as the flat index r * cols + c, as a caller that counts
// pixels row-major hands it over: (0, cols) is the first pixel of row 1. Only
// a flat index outside the whole image is refused (logged, no records).
std::vector<Node_> runSearch(IplImage* src, IplImage* label, int r, int c, double alpha) {
  if (src == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "find_parent_info: no source image");
    return {};
  }
  const int rows = src->height;
  const int cols = src->width;
  // The colour steps read three bytes per pixel, the label steps one byte of
  // an image of the same size.
  if (src->depth != IPL_DEPTH_8U || src->nChannels != 3 || rows < 1 || cols < 1) {
    boundary::refuse("source image must be 8-bit, 3 channels, not empty");
  }
  if (label != nullptr && (label->depth != IPL_DEPTH_8U || label->nChannels != 1 ||
                           label->width != cols || label->height != rows)) {
    boundary::refuse("label image must be 8-bit, 1 channel, of the source's size");
  }
  if (static_cast<long long>(rows) * cols > INT_MAX / 8) throw std::bad_alloc();
  const int n = rows * cols;
  const long long flatSeed = static_cast<long long>(r) * cols + c;
  if (flatSeed < 0 || flatSeed >= n) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "find_parent_info: seed (%d, %d) outside the %d x %d image", r, c, cols,
                        rows);
    return {};
  }
  const int seed = static_cast<int>(flatSeed);

  std::vector<Node_> nodes(static_cast<size_t>(n));
  for (int y = 0; y < rows; ++y) {
    for (int x = 0; x < cols; ++x) {
      Node_& node = nodes[static_cast<size_t>(x + y * cols)];
      node.index = x + y * cols;
      node.distance = DBL_MAX;
      node.parent = -1;
      assign_index(node, rows, cols, y, x, alpha);
      assign_weight(src, label, node, y, x, alpha);
    }
  }

  Node_& seedNode = nodes.at(static_cast<size_t>(seed));
  seedNode.distance = 0.0;
  seedNode.parent = seed;

  MinPriorityQueue queue;
  queue.reserve(n);
  for (int i = 0; i < n; ++i) queue.push(Qnode{i, nodes[static_cast<size_t>(i)].distance});

  for (int iter = 0; iter < n; ++iter) {
    const Qnode top = queue.pop_min();
    const Node_& u = nodes.at(static_cast<size_t>(top.index));
    for (int k = 0; k < kPathNeighbours; ++k) {
      const int v = u.neighbours[k].index;
      if (v == -1) continue;
      const int slot = queue.m_position.at(static_cast<size_t>(v));
      if (slot < 0) continue;
      // A forbidden step costs DBL_MAX: the sum rounds to DBL_MAX or overflows
      // to infinity, neither of which is strictly smaller than a distance.
      const double alt = u.distance + u.neighbours[k].cost;
      Node_& nv = nodes.at(static_cast<size_t>(v));
      if (alt < nv.distance) {
        nv.parent = u.index;
        queue.m_heap.at(static_cast<size_t>(slot)).key = alt;
        queue.prelocate_up(slot);
        nv.distance = alt;
      }
    }
  }
  return nodes;
}

std::vector<int> markParents(const std::vector<Node_>& nodes, IplImage* src, IplImage* out);

std::vector<int> parentsOf(const std::vector<Node_>& nodes) {
  std::vector<int> parents(nodes.size());
  for (size_t i = 0; i < nodes.size(); ++i) parents[i] = nodes[i].parent;
  return parents;
}

}  // namespace

MinPriorityQueue::MinPriorityQueue() { m_heap.push_back(Qnode{-1, -1.0}); }

void MinPriorityQueue::reserve(int n) {
  m_heap.reserve(static_cast<size_t>(n) + 1);
  m_position.reserve(static_cast<size_t>(n));
}

void MinPriorityQueue::push(Qnode q) {
  m_heap.push_back(q);
  const int last = static_cast<int>(m_heap.size()) - 1;
  m_position.push_back(last);
  prelocate_up(last);
}

void MinPriorityQueue::swap(int slotA, int slotB) {
  Qnode& a = m_heap.at(static_cast<size_t>(slotA));
  Qnode& b = m_heap.at(static_cast<size_t>(slotB));
  std::swap(m_position.at(static_cast<size_t>(a.index)),
            m_position.at(static_cast<size_t>(b.index)));
  std::swap(a, b);
}

void MinPriorityQueue::prelocate_up(int slot) {
  if (slot < 2) return;
  const int parent = slot / 2;
  if (m_heap.at(static_cast<size_t>(parent)).key > m_heap.at(static_cast<size_t>(slot)).key) {
    swap(parent, slot);
    prelocate_up(parent);
  }
}

void MinPriorityQueue::prelocate_down(int slot) {
  const int size = static_cast<int>(m_heap.size());
  const int left = 2 * slot;
  const int right = left + 1;
  if (left >= size) return;
  int child = left;
  if (right < size &&
      m_heap.at(static_cast<size_t>(right)).key < m_heap.at(static_cast<size_t>(left)).key) {
    child = right;
  }
  if (m_heap.at(static_cast<size_t>(child)).key < m_heap.at(static_cast<size_t>(slot)).key) {
    swap(child, slot);
    prelocate_down(child);
  }
}

Qnode MinPriorityQueue::pop_min() {
  if (m_heap.size() <= 1) {
    std::cout << "Empty queue" << std::endl;
    return m_heap.at(0);
  }
  const Qnode top = m_heap.at(1);
  m_position.at(static_cast<size_t>(top.index)) = -1;
  const Qnode last = m_heap.back();
  m_heap.pop_back();
  // When the taken entry was the last one there is nothing to move into slot 1.
  if (m_heap.size() > 1) {
    m_heap.at(1) = last;
    m_position.at(static_cast<size_t>(last.index)) = 1;
    prelocate_down(1);
  }
  return top;
}

double find_weight(IplImage* img, int r1, int c1, int r2, int c2, double alpha) {
  const double dr = static_cast<double>(r2 - r1);
  const double dc = static_cast<double>(c2 - c1);
  return mixedCost(pixelAt(img, r1, c1), pixelAt(img, r2, c2), dr * dr + dc * dc, alpha);
}

void assign_index(Node_& node, int rows, int cols, int r, int c, double) {
  const bool noUp = r < 1;
  const bool noLeft = c < 1;
  const bool noDown = r + 1 >= rows;
  const bool noRight = c + 1 >= cols;
  for (int k = 0; k < kPathNeighbours; ++k) {
    const int dr = kPathNeighbourRow[k];
    const int dc = kPathNeighbourCol[k];
    const bool outside = (dr < 0 && noUp) || (dr > 0 && noDown) || (dc < 0 && noLeft) ||
                         (dc > 0 && noRight);
    node.neighbours[k].index = outside ? -1 : (c + dc) + (r + dr) * cols;
  }
}

void assign_weight(IplImage* src, IplImage* label, Node_& node, int r, int c, double alpha) {
  const unsigned char* p = pixelAt(src, r, c);
  const unsigned char a = label ? *pixelAt(label, r, c) : 0;
  for (int k = 0; k < kPathNeighbours; ++k) {
    Node_::Neighbour& nb = node.neighbours[k];
    if (nb.index == -1) {
      nb.cost = DBL_MAX;
      continue;
    }
    const int r2 = r + kPathNeighbourRow[k];
    const int c2 = c + kPathNeighbourCol[k];
    const unsigned char b = label ? *pixelAt(label, r2, c2) : 0;
    if ((isObjectLabel(a) && isBackgroundLabel(b)) || (isBackgroundLabel(a) && isObjectLabel(b))) {
      nb.cost = DBL_MAX;
      continue;
    }
    const double spatial = (kPathNeighbourRow[k] != 0 && kPathNeighbourCol[k] != 0) ? 2.0 : 1.0;
    nb.cost = mixedCost(p, pixelAt(src, r2, c2), spatial, alpha);
  }
}

// Both forms are called by the app's bridge, where an escaping C++ exception
// aborts the app: whatever the search or OpenCV throws (an allocation failure
// on a huge image, an image OpenCV refuses) is logged and ends in an empty
// result.
std::vector<int> find_parent_info(IplImage* src, IplImage* label, int r, int c, double alpha) {
  try {
    matalloc::DefaultScope matrices;
    return parentsOf(runSearch(src, label, r, c, alpha));
  } catch (...) {
    boundary::failed("find_parent_info");
  }
  return {};
}

std::vector<int> find_parent_info(IplImage* src, IplImage* label, int r, int c, double alpha,
                                  IplImage* out) {
  try {
    matalloc::DefaultScope matrices;
    return markParents(runSearch(src, label, r, c, alpha), src, out);
  } catch (...) {
    boundary::failed("find_parent_info");
  }
  return {};
}

namespace {

std::vector<int> markParents(const std::vector<Node_>& nodes, IplImage* src, IplImage* out) {
  if (!nodes.empty() && out && out->width == src->width && out->height == src->height) {
    for (const Node_& node : nodes) {
      double mark = kPathMarkUnreached;
      if (node.parent == node.index) {
        mark = kPathMarkSeed;
      } else if (node.parent >= 0) {
        for (int k = 0; k < kPathNeighbours; ++k) {
          if (node.neighbours[k].index == node.parent) {
            mark = kPathMarkStep * (k + 1);
            break;
          }
        }
      }
      cvSet2D(out, node.index / src->width, node.index % src->width, cvScalarAll(mark));
    }
  }
  return parentsOf(nodes);
}

}  // namespace
