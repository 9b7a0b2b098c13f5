// Path tracing: the node record size, and the search (its step costs and the
// marks it writes) checked against a plain Bellman-Ford relaxation written here.
#include <cfloat>
#include <functional>
#include <memory>

#include "interface/path_tracing.h"
#include "tests/test_support.h"

namespace {

using testsupport::at;

using ImagePtr = std::unique_ptr<IplImage, void (*)(IplImage*)>;
ImagePtr makeImage(int rows, int cols, int channels, int value = 0) {
  return ImagePtr(testsupport::newImage(cols, rows, channels, value),
                  [](IplImage* p) { cvReleaseImage(&p); });
}
ImagePtr randomImage(int rows, int cols, int channels, int maxValue, std::mt19937& rng) {
  ImagePtr img = makeImage(rows, cols, channels);
  std::uniform_int_distribution<int> d(0, maxValue);
  for (int r = 0; r < rows; ++r)
    for (int c = 0; c < cols * channels; ++c) at(img.get(), 0, r, c) = static_cast<unsigned char>(d(rng));
  return img;
}
// A step between an object mark (2, 4) and a background one (1, 3) is blocked.
bool crosses(int a, int b) {
  auto side = [](int v) { return v == 2 || v == 4 ? 1 : v == 1 || v == 3 ? -1 : 0; };
  return side(a) * side(b) == -1;
}
double refCost(IplImage* img, int r1, int c1, int r2, int c2, double alpha) {
  double colour = 0.0;
  for (int k = 0; k < 3; ++k) colour += std::pow(at(img, c1, r1, k) - at(img, c2, r2, k), 2);
  const double spatial = (r2 - r1) * (r2 - r1) + (c2 - c1) * (c2 - c1);
  return std::sqrt(alpha * spatial + (1.0 - alpha) * colour / 3.0);
}

TEST(FindParentInfo, NodeRecordIs152Bytes) { EXPECT_EQ(sizeof(Node_), 152u); }

// Checks parents against Bellman-Ford distances; the exact comparisons use the
// search's own step costs so that rounding is identical.
void checkAgainstReference(IplImage* src, IplImage* label, int sr, int sc, double alpha,
                           const std::vector<int>& parent) {
  const int rows = src->height, cols = src->width, n = rows * cols;
  std::vector<double> ref(n, HUGE_VAL);
  ref[sr * cols + sc] = 0.0;
  for (bool changed = true; changed;) {
    changed = false;
    for (int v = 0; v < n; ++v)
      for (int dr = -1; dr <= 1; ++dr)
        for (int dc = -1; dc <= 1; ++dc) {
          const int r = v / cols + dr, c = v % cols + dc;
          if ((!dr && !dc) || r < 0 || c < 0 || r >= rows || c >= cols) continue;
          if (label && crosses(at(label, c, r), at(label, v % cols, v / cols))) continue;
          const double alt = ref[r * cols + c] + refCost(src, r, c, v / cols, v % cols, alpha);
          if (alt < ref[v]) {
            ref[v] = alt;
            changed = true;
          }
        }
  }
  // The search's own step costs; a wrong cost shows as a distance off the reference.
  std::vector<Node_> node(n);
  for (int v = 0; v < n; ++v) {
    assign_index(node[v], rows, cols, v / cols, v % cols, 0.0);
    assign_weight(src, label, node[v], v / cols, v % cols, alpha);
  }
  auto cost = [&](int from, int to) {
    for (const Node_::Neighbour& nb : node[from].neighbours)
      if (nb.index == to) return nb.cost;
    ADD_FAILURE() << to << " is no neighbour of " << from;
    return DBL_MAX;
  };
  std::vector<double> dist(n, -1.0);  // distances the search itself arrived at
  std::function<double(int)> chain = [&](int v) {
    if (dist[v] < 0) dist[v] = parent[v] == v ? 0.0 : chain(parent[v]) + cost(parent[v], v);
    return dist[v];
  };
  ASSERT_EQ(parent[sr * cols + sc], sr * cols + sc);
  for (int v = 0; v < n; ++v) {
    ASSERT_EQ(parent[v] == -1, ref[v] == HUGE_VAL) << v;
    if (parent[v] != -1) {
      EXPECT_NEAR(chain(v), ref[v], 1e-9 * (1 + ref[v])) << v;
    }
  }
  for (int v = 0; v < n; ++v) {
    if (parent[v] == -1 || parent[v] == v) continue;
    for (const Node_::Neighbour& nb : node[v].neighbours) {
      if (nb.index == -1 || parent[nb.index] == -1 || nb.cost == DBL_MAX) continue;
      const double alt = dist[nb.index] + cost(nb.index, v);
      EXPECT_GE(alt, dist[v]) << nb.index << " -> " << v;
      // A neighbour settled before the parent that offers the same cost would
      // have been the parent: ties keep the earlier one.
      if (dist[nb.index] < dist[parent[v]]) {
        EXPECT_GT(alt, dist[v]) << nb.index << " -> " << v;
      }
    }
  }
}

TEST(FindParentInfo, MatchesIndependentShortestPaths) {
  struct Case {
    int rows, cols;
    double alpha;
    bool labelled;
    int maxColour;
  };
  const Case cases[] = {{1, 1, 0.5, false, 255}, {1, 7, 0.3, true, 255}, {6, 1, 0.0, false, 255},
                        {5, 5, 1.0, true, 3},    {7, 9, 0.0, true, 2},   {10, 12, 0.3, true, 255},
                        {12, 10, 0.7, false, 4}, {9, 11, 1.0, false, 0}, {4, 5, 0.25, true, 255}};
  std::mt19937 rng(11);
  for (const Case& t : cases) {
    for (int trial = 0; trial < 3; ++trial) {
      SCOPED_TRACE(testing::Message()
                   << t.rows << "x" << t.cols << " alpha " << t.alpha << " trial " << trial);
      ImagePtr src = randomImage(t.rows, t.cols, 3, t.maxColour, rng);
      ImagePtr label = randomImage(t.rows, t.cols, 1, 4, rng);
      const int sr = rng() % t.rows, sc = rng() % t.cols;
      IplImage* lab = t.labelled ? label.get() : nullptr;
      if (lab) at(lab, sc, sr) = 0;  // keep some paths open from the seed
      // The marking image (one or three channels) holds the parent directions.
      ImagePtr out = makeImage(t.rows, t.cols, 1 + 2 * (trial % 2), 77);
      const std::vector<int> parent = find_parent_info(src.get(), lab, sr, sc, t.alpha, out.get());
      EXPECT_EQ(find_parent_info(src.get(), lab, sr, sc, t.alpha), parent);
      checkAgainstReference(src.get(), lab, sr, sc, t.alpha, parent);
      for (int v = 0; v < t.rows * t.cols; ++v) {
        const int r = v / t.cols, c = v % t.cols, mark = at(out.get(), c, r), k = mark / kPathMarkStep - 1;
        for (int ch = 1; ch < out->nChannels; ++ch) EXPECT_EQ(at(out.get(), c, r, ch), mark);
        if (parent[v] == -1 || parent[v] == v)
          EXPECT_EQ(mark, parent[v] == v ? kPathMarkSeed : kPathMarkUnreached) << v;
        else if (mark % kPathMarkStep != 0 || k < 0 || k >= kPathNeighbours)
          ADD_FAILURE() << "mark " << mark << " at " << v;
        else
          EXPECT_EQ(c + kPathNeighbourCol[k] + (r + kPathNeighbourRow[k]) * t.cols, parent[v]) << v;
      }
    }
  }
}

// The seed is the flat index r * cols + c: a column past the row's end names
// a pixel of a later row (the bridge's (0, cols) is pixel (1, 0)). Only a flat
// index outside the image is refused, with one error line and an empty result
// from both forms; nothing is thrown across the boundary.
TEST(FindParentInfo, SeedIsTheFlatIndex) {
  const int rows = 4, cols = 5;
  std::mt19937 rng(5);
  ImagePtr src = randomImage(rows, cols, 3, 255, rng);
  struct Case {
    int r, c, flat;
  };  // flat -1: outside the image
  const Case cases[] = {{0, cols, 5},  {1, -1, 4},    {0, 2 * cols + 1, 11}, {3, 4, 19},
                        {rows, 0, -1}, {3, cols, -1}, {0, -1, -1},           {1 << 30, 1 << 30, -1}};
  for (const Case& t : cases) {
    SCOPED_TRACE(testing::Message() << "seed (" << t.r << ", " << t.c << ")");
    ImagePtr out = makeImage(rows, cols, 1, 77);
    std::vector<int> parent, plain;
    const testsupport::Lines log = testsupport::logged([&] {
      ASSERT_NO_THROW(parent = find_parent_info(src.get(), nullptr, t.r, t.c, 0.5, out.get()));
      ASSERT_NO_THROW(plain = find_parent_info(src.get(), nullptr, t.r, t.c, 0.5));
    });
    EXPECT_EQ(plain, parent);
    if (t.flat >= 0) {
      EXPECT_TRUE(log.empty());
      EXPECT_EQ(parent, find_parent_info(src.get(), nullptr, t.flat / cols, t.flat % cols, 0.5));
      ASSERT_EQ(parent.size(), static_cast<size_t>(rows * cols));
      EXPECT_TRUE(parent[t.flat] == t.flat && at(out.get(), t.flat % cols, t.flat / cols) == kPathMarkSeed);
      continue;
    }
    EXPECT_TRUE(parent.empty());
    const std::string line = "E/Error: find_parent_info: seed (" + std::to_string(t.r) + ", " +
                             std::to_string(t.c) + ") outside the 5 x 4 image";
    EXPECT_EQ(log, testsupport::Lines(2, line));
    for (int v = 0; v < rows * cols; ++v) EXPECT_EQ(at(out.get(), v % cols, v / cols), 77) << v;
  }
}

}  // namespace
