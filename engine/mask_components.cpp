#include "engine/mask_components.h"

#include <algorithm>

#include "support/image_rows.h"

MaskComponents::MaskComponents(const IplImage* image, unsigned char value) {
  const int width = image->width;
  const int height = image->height > 0 ? image->height : 0;
  rowStart_.assign(static_cast<size_t>(height) + 1, 0);
  // Union-find over the runs while the rows are read: the root of a set is
  // always its earliest run, so that numbering the roots in run order below
  // numbers the components by their first pixel.
  std::vector<int> parent;
  std::vector<int> pixels;  // per run; the set's total at its root
  auto find = [&parent](int r) {
    while (parent[r] != r) {
      parent[r] = parent[parent[r]];
      r = parent[r];
    }
    return r;
  };
  auto join = [&](int a, int b) {
    a = find(a);
    b = find(b);
    if (a == b) return;
    if (a > b) std::swap(a, b);
    parent[b] = a;
    pixels[a] += pixels[b];
  };
  for (int y = 0; y < height; ++y) {
    const unsigned char* row = imageRow(image, y);
    const int previousEnd = static_cast<int>(runs_.size());
    const int previousBegin = y > 0 ? rowStart_[y - 1] : previousEnd;
    rowStart_[y] = previousEnd;
    int above = previousBegin;
    for (int x = 0; x < width;) {
      if (row[x] != value) {
        ++x;
        continue;
      }
      const int x0 = x;
      while (x < width && row[x] == value) ++x;
      const int id = static_cast<int>(runs_.size());
      runs_.push_back({y, x0, x});
      parent.push_back(id);
      pixels.push_back(x - x0);
      // Runs above that end before this one starts cannot touch it or any
      // later run of this row.
      while (above < previousEnd && runs_[above].x1 <= x0) ++above;
      for (int a = above; a < previousEnd && runs_[a].x0 < x; ++a) join(a, id);
    }
  }
  rowStart_[height] = static_cast<int>(runs_.size());

  const int runs = static_cast<int>(runs_.size());
  component_.resize(runs);
  for (int r = 0; r < runs; ++r) {
    const int root = find(r);
    if (root == r) {
      component_[r] = components_++;
      size_.push_back(pixels[r]);
    } else {
      component_[r] = component_[root];  // root < r: numbered already
    }
  }
}

int MaskComponents::componentAt(int x, int y) const {
  if (y < 0 || y + 1 >= static_cast<int>(rowStart_.size()) || x < 0) return -1;
  const auto first = runs_.begin() + rowStart_[y];
  const auto last = runs_.begin() + rowStart_[y + 1];
  // The last run of the row that starts at or before x.
  auto it = std::upper_bound(first, last, x, [](int column, const Run& r) { return column < r.x0; });
  if (it == first) return -1;
  --it;
  return x < it->x1 ? component_[it - runs_.begin()] : -1;
}

int MaskComponents::largest() const {
  int best = 0;
  for (int s : size_) best = std::max(best, s);
  return best;
}

void MaskComponents::paint(IplImage* image, const std::vector<bool>& chosen, unsigned char paint) const {
  for (size_t r = 0; r < runs_.size(); ++r) {
    if (!chosen[component_[r]]) continue;
    unsigned char* row = imageRow(image, runs_[r].y);
    std::fill(row + runs_[r].x0, row + runs_[r].x1, paint);
  }
}

void MaskComponents::paintSmaller(IplImage* image, int limit, unsigned char paint) const {
  for (size_t r = 0; r < runs_.size(); ++r) {
    if (size_[component_[r]] >= limit) continue;
    unsigned char* row = imageRow(image, runs_[r].y);
    std::fill(row + runs_[r].x0, row + runs_[r].x1, paint);
  }
}

void MaskComponents::paintEach(IplImage* image, const std::vector<unsigned char>& values) const {
  for (size_t r = 0; r < runs_.size(); ++r) {
    unsigned char* row = imageRow(image, runs_[r].y);
    std::fill(row + runs_[r].x0, row + runs_[r].x1, values[component_[r]]);
  }
}
