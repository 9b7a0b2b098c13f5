// Test reference for connected components: the plain flood fill, one
// component at a time, 4-connected, written out so that it holds at any image
// width (OpenCV's own flood fill keeps its segments in 16 bits).
#pragma once

#include <opencv2/core.hpp>

#include <vector>

namespace flood_reference {

struct Labels {
  std::vector<int> label;  // per pixel, row-major: component, or -1 (not of the value)
  std::vector<int> size;   // per component, numbered in row-major order of first pixel
};

// Scans the rows; every pixel of `value` not yet labelled starts a new
// component, flooded through left, right, up and down neighbours.
inline Labels flood(const cv::Mat& m, unsigned char value) {
  const int w = m.cols, h = m.rows;
  Labels out;
  out.label.assign(static_cast<size_t>(w) * h, -1);
  std::vector<long> stack;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const long start = static_cast<long>(y) * w + x;
      if (m.at<unsigned char>(y, x) != value || out.label[start] >= 0) continue;
      const int id = static_cast<int>(out.size.size());
      int count = 0;
      out.label[start] = id;
      stack.assign(1, start);
      while (!stack.empty()) {
        const long p = stack.back();
        stack.pop_back();
        ++count;
        const int px = static_cast<int>(p % w), py = static_cast<int>(p / w);
        const int nx[4] = {px - 1, px + 1, px, px};
        const int ny[4] = {py, py, py - 1, py + 1};
        for (int k = 0; k < 4; ++k) {
          if (nx[k] < 0 || ny[k] < 0 || nx[k] >= w || ny[k] >= h) continue;
          const long q = static_cast<long>(ny[k]) * w + nx[k];
          if (m.at<unsigned char>(ny[k], nx[k]) != value || out.label[q] >= 0) continue;
          out.label[q] = id;
          stack.push_back(q);
        }
      }
      out.size.push_back(count);
    }
  }
  return out;
}

}  // namespace flood_reference
