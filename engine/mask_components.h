// 4-connected components of one value in an 8-bit single-channel image.
//
// Every flood the engine makes on a full-size mask (the island and hole
// passes of a loop or rectangle clean-up, the stroke-connected changes of a
// stroke edit) asks the same question: which pixels of a value are joined to
// which through their left, right, upper and lower neighbours. This class
// answers it once for the whole image, from its runs: each row's runs of the
// value are joined (union-find) with the runs of the row above that share a
// column with them. A component is exactly the pixel set a 4-connected flood
// fill from any of its pixels reaches, on images of any width: positions are
// plain ints here, where OpenCV's flood fill keeps its segments in 16 bits and
// so mixes up columns 65,536 apart on wider images.
//
// Components are numbered by their first pixel in row-major order (0, 1,
// ...), which is the order in which a row-major scan that floods each new
// component would meet them.
//
// Cost: one pass over the image, O(width x height) reads, plus O(runs) work
// and memory: 16 bytes per run (24 while building) and 4 bytes per row. Building may throw
// std::bad_alloc; nothing else here allocates or throws. The image is only
// read while building; later calls read no image unless they are given one.
#ifndef SEGCORE_ENGINE_MASK_COMPONENTS_H
#define SEGCORE_ENGINE_MASK_COMPONENTS_H

#include <opencv2/core/core_c.h>

#include <vector>

class MaskComponents {
 public:
  // Reads every pixel of `image` (8-bit, one channel) once; finds the
  // components of the pixels equal to `value`.
  MaskComponents(const IplImage* image, unsigned char value);

  // Number of components. O(1).
  int count() const { return components_; }
  // Component of pixel (x, y), or -1 when (x, y) is outside the image or not
  // of the value. O(log runs of row y).
  int componentAt(int x, int y) const;
  // Pixel count of component c (0 <= c < count()). O(1).
  int size(int c) const { return size_[c]; }
  // Largest component's pixel count, 0 without components. O(components).
  int largest() const;
  // Writes `paint` over every pixel of the components c for which
  // chosen[c] is true (chosen holds count() flags), in `image` (same size as
  // the one measured). O(runs + painted pixels).
  void paint(IplImage* image, const std::vector<bool>& chosen, unsigned char paint) const;
  // Writes `paint` over every component of fewer than `limit` pixels.
  // O(runs + painted pixels).
  void paintSmaller(IplImage* image, int limit, unsigned char paint) const;
  // Writes values[c] over every pixel of component c, for every c (values
  // holds count() bytes). O(runs + component pixels).
  void paintEach(IplImage* image, const std::vector<unsigned char>& values) const;

 private:
  struct Run {
    int y, x0, x1;  // row, first column, one past the last
  };
  std::vector<Run> runs_;           // row-major
  std::vector<int> rowStart_;       // runs of row y: [rowStart_[y], rowStart_[y + 1])
  std::vector<int> component_;      // per run
  std::vector<int> size_;           // per component
  int components_ = 0;
};

#endif
