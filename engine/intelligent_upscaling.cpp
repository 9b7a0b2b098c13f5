// Full-resolution re-cut of the object boundary.
//
// The cut runs on a reduced working image; simply enlarging its mask would
// give a blocky outline. Instead a trimap is built around the working mask's
// boundary, enlarged to the photo's size, and only the thin band between the
// inner and outer rings is cut again at full resolution with the engine's
// colour models and full-resolution contrast. Everything outside the band
// keeps the enlarged working labels.
//
// Trimap codes: 7 fixed (outside the band: no edges, no terminal links),
// 1 outer ring (background), 0 the band, 2 inner ring (object).
//
// Cost. On a large photo the box round the band is most of the photo while
// the band itself is a few percent of it, so nothing here is built at the
// box's or the photo's size that the band does not need:
//   * the graph holds only the non-fixed pixels (graph/band_graph.h); a fixed
//     pixel has no terminal link and no edge, so no search ever reaches it
//     and leaving it out changes neither the cut nor the flow;
//   * the enlarged trimap and labels are never materialised: the
//     nearest-neighbour enlargement is a pair of index maps (one per axis,
//     taken from cvResize itself), read through where a pixel is needed;
//   * the photo is read in place through a header on the box.
//
// The steps, in the order intelligentUpscaling takes them:
//   workingTrimap     rings and band of the working mask, at working size
//   Enlargement       where each full-size row and column comes from
//   findBandBox       the full-size box of every pixel that is not fixed
//   cropBand          trimap, photo (and textures) of the box
//   constructGraphTrimapVELD   the band graph: BandNumbering,
//                     addBandTerminals, contrastTable, addBandEdges
//   solveBesideLabels the cut, while the enlarged labels are written
//   writeBandCut      the band's pixels take the cut
//   plainEnlargement  the fall-back when there is no band or no graph
// Every loop over band pixels walks them through one walk (forEachBandNode,
// and BandNumbering built on it), so that the builder, the likelihoods and
// the write-back agree on which node is which.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <numeric>
#include <vector>

#include <android/log.h>
#include <opencv2/core/core_c.h>
#include <opencv2/imgproc/imgproc_c.h>

#include "engine/veldse_hybrid.h"
#include "graph/band_graph.h"
#include "interface/veldse_marker.h"
#include "support/byte_runs.h"
#include "support/image_rows.h"
#include "support/owned.h"
#include "support/size_check.h"
#include "support/slices.h"
#include "support/veld_memory.h"

namespace {

const unsigned char kFixed = 7;
const unsigned char kOuterRing = 1;
const unsigned char kBand = 0;
const unsigned char kInnerRing = 2;
const float kHardConstraint = 1000.0f;

IplImage* createChecked(int width, int height, int line) {
  checkImageSize(width, height, "intelligentUpscaling", line);
  return createImage(cvSize(width, height), IPL_DEPTH_8U, 1);
}

// Where cvResize with CV_INTER_NN takes each of `to` output columns (or rows)
// from, out of `from`: the map is separable, so resizing a single row of
// indices gives exactly the columns (rows) an image of any height (width)
// would take.
std::vector<int> nearestMap(int from, int to) {
  std::vector<int> map(to > 0 ? to : 0);
  if (from < 1 || to < 1) return map;
  const owned::Image src = owned::Image::create(cvSize(from, 1), IPL_DEPTH_32S, 1);
  const owned::Image dst = owned::Image::create(cvSize(to, 1), IPL_DEPTH_32S, 1);
  int* s = imageRow<int>(src.get(), 0);
  for (int i = 0; i < from; ++i) s[i] = i;
  cvResize(src.get(), dst.get(), CV_INTER_NN);
  const int* d = imageRow<int>(dst.get(), 0);
  for (int i = 0; i < to; ++i) map[i] = d[i];
  return map;
}

// visit(x) for every pixel of the row below width that is not fixed (a cut
// pixel), left to right. Most of a box is fixed, so the runs of fixed pixels
// are skimmed a word at a time.
template <class Visit>
void forEachCutPixel(const unsigned char* row, int width, const Visit& visit) {
  for (int x = skipByteRun(row, 0, width, kFixed); x < width; x = skipByteRun(row, x + 1, width, kFixed)) {
    visit(x);
  }
}

// visit(x, y, node) for every cut pixel of the trimap's width x height box,
// in row-major order, node counting them from 0: the band graph's numbering
// (graph/band_graph.h). Every loop over band nodes goes through this walk or
// BandNumbering, which is built from it.
template <class Visit>
void forEachBandNode(const IplImage* trimap, int width, int height, const Visit& visit) {
  int node = 0;
  for (int y = 0; y < height; ++y) {
    forEachCutPixel(imageRow(trimap, y), width, [&](int x) { visit(x, y, node++); });
  }
}

// How the band graph numbers the pixels of a cropped trimap: node k is the
// k-th pixel that is not fixed, in row-major order; with the index of each
// row's first node, so that slices of rows can be walked on their own.
class BandNumbering {
 public:
  BandNumbering(const IplImage* trimap, int width, int height)
      : trimap_(trimap), width_(width), rowStart_(static_cast<size_t>(height) + 1, 0) {
    forEachBandNode(trimap, width, height, [this](int, int y, int) { ++rowStart_[y + 1]; });
    std::partial_sum(rowStart_.begin(), rowStart_.end(), rowStart_.begin());
  }
  int nodes() const { return rowStart_.back(); }
  int height() const { return static_cast<int>(rowStart_.size()) - 1; }
  // The node of row y's first cut pixel (nodes() for y = height()).
  int first(int y) const { return rowStart_[y]; }
  const unsigned char* codes(int y) const { return imageRow(trimap_, y); }
  // visit(x, node) for every cut pixel of row y, left to right.
  template <class Visit>
  void row(int y, const Visit& visit) const {
    int node = rowStart_[y];
    forEachCutPixel(codes(y), width_, [&](int x) { visit(x, node++); });
  }

 private:
  const IplImage* trimap_;
  int width_;
  std::vector<int> rowStart_;
};

// A working-size image seen at full size through the nearest-neighbour maps.
struct Enlarged {
  const IplImage* image;
  const std::vector<int>* xs;
  const std::vector<int>* ys;
  const unsigned char* row(int y) const { return imageRow(image, (*ys)[y]); }
  int column(int x) const { return (*xs)[x]; }
};

// The box [x0, x0 + w) x [y0, y0 + h) of an enlarged image, as a new image.
owned::Image cropEnlarged(const Enlarged& e, int x0, int y0, int w, int h) {
  owned::Image cropOwner = owned::Image::create(cvSize(w, h), IPL_DEPTH_8U, 1);
  IplImage* crop = cropOwner.get();
  for (int y = 0; y < h; ++y) {
    const unsigned char* in = e.row(y0 + y);
    unsigned char* out = imageRow(crop, y);
    // Consecutive rows enlarged from the same working row are equal.
    if (y > 0 && in == e.row(y0 + y - 1)) {
      std::memcpy(out, imageRow(crop, y - 1), static_cast<size_t>(w));
      continue;
    }
    for (int x = 0; x < w; ++x) out[x] = in[e.column(x0 + x)];
  }
  return cropOwner;
}

// The full-resolution graph lives in m_trimapGraph while it is built and
// solved; when a failure leaves intelligentUpscaling early it is deleted and
// the handle left null, as the normal end does.
class TrimapGraphGuard {
 public:
  explicit TrimapGraphGuard(VELDSEGraph*& graph) : graph_(graph) {}
  ~TrimapGraphGuard() {
    delete graph_;
    graph_ = nullptr;
  }
  TrimapGraphGuard(const TrimapGraphGuard&) = delete;
  TrimapGraphGuard& operator=(const TrimapGraphGuard&) = delete;

 private:
  VELDSEGraph*& graph_;
};

// Ring pixels that touch no band pixel (of their 8 neighbours) become fixed.
//
// Such a pixel only neighbours pixels of its own ring, which start in its own
// tree (tied to the same terminal), or fixed ones, so a search visits it once
// and finds nothing to grow into or to join. It would only matter if it lost
// its tree - if its terminal link, or that of a ring pixel next to the band,
// were saturated - and that cannot happen: the flow through a ring pixel is
// bounded by its eight neighbour links, at most 8 x lambda, while the hard
// constraint is 1000 and lambda never exceeds 50 (the guard keeps this exact
// for any lambda). Leaving them out of the graph therefore changes no cut,
// and it removes about two thirds of the graph: the rings are as wide as the
// band on either side of it.
void fixInertRingPixels(IplImage* trimap, double lambda) {
  if (8.0 * lambda >= kHardConstraint) return;
  const int w = trimap->width;
  const int h = trimap->height;
  for (int y = 0; y < h; ++y) {
    const unsigned char* above = y > 0 ? imageRow(trimap, y - 1) : nullptr;
    unsigned char* row = imageRow(trimap, y);
    const unsigned char* below = y < h - 1 ? imageRow(trimap, y + 1) : nullptr;
    forEachCutPixel(row, w, [&](int x) {
      if (row[x] != kOuterRing && row[x] != kInnerRing) return;
      const int x0 = x > 0 ? x - 1 : x;
      const int x1 = x < w - 1 ? x + 1 : x;
      bool touches = false;
      for (int i = x0; i <= x1 && !touches; ++i) {
        touches = row[i] == kBand || (above != nullptr && above[i] == kBand) ||
                  (below != nullptr && below[i] == kBand);
      }
      if (!touches) row[x] = kFixed;
    });
  }
}

// --- Step: the trimap at working size ----------------------------------------

// The trimap of a working mask (object 1, background 0): a new image of the
// mask's size holding kFixed, kOuterRing, kBand or kInnerRing per pixel.
owned::Image workingTrimap(const IplImage* mask) {
  owned::Image sumOwner(createChecked(mask->width, mask->height, 1812));
  const owned::Image scratchOwner(createChecked(mask->width, mask->height, 1813));
  IplImage* const sum = sumOwner.get();
  IplImage* const scratch = scratchOwner.get();

  // How many of dilate x3, dilate x1, erode x1, erode x3 call each pixel
  // object (the mask holds 1 for object, so the saturating sum counts).
  cvSetZero(sum);
  cvSetZero(scratch);
  cvDilate(mask, scratch, nullptr, 3);
  cvAdd(sum, scratch, sum);
  cvDilate(mask, scratch, nullptr, 1);
  cvAdd(sum, scratch, sum);
  cvErode(mask, scratch, nullptr, 1);
  cvAdd(sum, scratch, sum);
  cvErode(mask, scratch, nullptr, 3);
  cvAdd(sum, scratch, sum);

  // 0 and 4: far from the boundary; 1: outer ring; 2: band; 3: inner ring.
  static const unsigned char kRecode[5] = {kFixed, kOuterRing, kBand, kInnerRing, kFixed};
  for (int y = 0; y < sum->height; ++y) {
    unsigned char* s = imageRow(sum, y);
    for (int x = 0; x < sum->width; ++x) {
      if (s[x] <= 4) s[x] = kRecode[s[x]];
    }
  }
  return sumOwner;
}

// --- Step: the enlargement ---------------------------------------------------

// Where every full-size row and column of the trimap and of the working label
// image comes from (the two share their maps when they share their size).
// Nothing of full size is materialised; the images are read through these.
class Enlargement {
 public:
  Enlargement(const IplImage* trimap, const IplImage* labels, int fullW, int fullH)
      : trimap_(trimap),
        labels_(labels),
        xs_(nearestMap(trimap->width, fullW)),
        ys_(nearestMap(trimap->height, fullH)),
        sameSize_(labels->width == trimap->width && labels->height == trimap->height),
        labelXs_(sameSize_ ? std::vector<int>() : nearestMap(labels->width, fullW)),
        labelYs_(sameSize_ ? std::vector<int>() : nearestMap(labels->height, fullH)) {}
  Enlarged trimap() const { return Enlarged{trimap_, &xs_, &ys_}; }
  Enlarged labels() const {
    return Enlarged{labels_, sameSize_ ? &xs_ : &labelXs_, sameSize_ ? &ys_ : &labelYs_};
  }

 private:
  const IplImage* trimap_;
  const IplImage* labels_;
  std::vector<int> xs_;
  std::vector<int> ys_;
  bool sameSize_;
  std::vector<int> labelXs_;
  std::vector<int> labelYs_;
};

// --- Step: the band box ------------------------------------------------------

// Full-size box of every pixel that is not fixed; INT_MAX / -1 bounds when
// there is none.
struct BandBox {
  int xmin = INT_MAX;
  int xmax = -1;
  int ymin = INT_MAX;
  int ymax = -1;

  int width() const { return xmax - xmin + 1; }
  int height() const { return ymax - ymin + 1; }
  bool usable(int fullW, int fullH) const {
    return !(xmin >= fullW || ymin >= fullH || xmax - xmin < 0 || ymax - ymin < 0 || xmax < 0 || ymax < 0);
  }
};

// Marks in `from` the working columns (rows) that some full-size column (row)
// is enlarged from.
std::vector<unsigned char> usedBy(const std::vector<int>& map, int size) {
  std::vector<unsigned char> used(static_cast<size_t>(size), 0);
  for (int source : map) used[source] = 1;
  return used;
}

// The first and last full-size index whose working index is marked.
void extent(const std::vector<int>& map, const std::vector<unsigned char>& marked, int* lo, int* hi) {
  for (int i = 0; i < static_cast<int>(map.size()); ++i) {
    if (!marked[map[i]]) continue;
    if (i < *lo) *lo = i;
    *hi = i;
  }
}

// The enlarged columns and rows whose working column or row holds a
// non-fixed pixel of a used row or column.
BandBox findBandBox(const IplImage* trimap, const Enlarged& enlarged) {
  const std::vector<unsigned char> usedRow = usedBy(*enlarged.ys, trimap->height);
  const std::vector<unsigned char> usedColumn = usedBy(*enlarged.xs, trimap->width);
  std::vector<unsigned char> bandColumn(trimap->width, 0), bandRow(trimap->height, 0);
  for (int sy = 0; sy < trimap->height; ++sy) {
    if (!usedRow[sy]) continue;
    const unsigned char* t = imageRow(trimap, sy);
    for (int sx = 0; sx < trimap->width; ++sx) {
      if (t[sx] == kFixed || !usedColumn[sx]) continue;
      bandColumn[sx] = 1;
      bandRow[sy] = 1;
    }
  }
  BandBox box;
  extent(*enlarged.xs, bandColumn, &box.xmin, &box.xmax);
  extent(*enlarged.ys, bandRow, &box.ymin, &box.ymax);
  return box;
}

// --- Step: the crops ---------------------------------------------------------

// What the band graph is built from, all of the box's size.
struct BandCrops {
  owned::Image trimap;
  // The builder only reads the photo, so a header on the box (nothing to
  // allocate or release) serves as its crop.
  IplImage photo;
  owned::Image hor;  // grey photos only
  owned::Image ver;
};

void cropBand(const Enlarged& trimap, int x0, int y0, int w, int h, double lambda, BandCrops* crops) {
  crops->trimap = cropEnlarged(trimap, x0, y0, w, h);
  fixInertRingPixels(crops->trimap.get(), lambda);
  const IplImage* photo = VELDSEMarker::m_originalImage;
  constexpr int kRowAlign = 4;  // as cvCreateImageHeader
  cvInitImageHeader(&crops->photo, cvSize(w, h), IPL_DEPTH_8U, 3, IPL_ORIGIN_TL, kRowAlign);
  cvSetData(&crops->photo, photo->imageData + static_cast<long>(y0) * photo->widthStep + 3 * x0,
            photo->widthStep);
  if (!VELDSEMarker::m_isGreyScale) return;
  const int fullW = VELDSEMarker::m_originalWidth;
  const int fullH = VELDSEMarker::m_originalHeight;
  checkImageSize(fullW, fullH, "intelligentUpscaling", 1981);
  checkImageSize(fullW, fullH, "intelligentUpscaling", 1982);
  const IplImage* hor = VELDSEMarker::m_texHor;
  const IplImage* ver = VELDSEMarker::m_texVer;
  const std::vector<int> texXs = nearestMap(hor->width, fullW);
  const std::vector<int> texYs = nearestMap(hor->height, fullH);
  crops->hor = cropEnlarged(Enlarged{hor, &texXs, &texYs}, x0, y0, w, h);
  crops->ver = cropEnlarged(Enlarged{ver, &texXs, &texYs}, x0, y0, w, h);
}

// --- Step: the band graph's terminal links -----------------------------------

// Above this many band nodes the likelihoods are worked out on several
// threads (at most four).
const int kParallelLikelihoodNodes = 100000;

// What a band pixel's terminal weights are read from: the box of the photo
// (or, in a grey photo, of its grey values and two textures) and the models.
// The models are only read.
struct BandColours {
  const IplImage* img;
  const IplImage* texHor;
  const IplImage* texVer;
  VELDSEColorModel* background;
  VELDSEColorModel* object;
  bool grey;

  // -log of the background and of the object model's likelihood of the
  // colour of box pixel (x, y).
  void cost(int x, int y, float* pair) const {
    const unsigned char* px = imageRow(img, y) + 3 * x;
    pixelVal sample;
    sample.val[0] = px[0];
    sample.val[1] = grey ? imageRow(texHor, y)[x] : px[1];
    sample.val[2] = grey ? imageRow(texVer, y)[x] : px[2];
    const double lb = std::log(background->GMMProb(sample));
    const double lf = std::log(object->GMMProb(sample));
    pair[0] = -static_cast<float>(lb);
    pair[1] = -static_cast<float>(lf);
  }
};

// The band pixels' likelihood pairs, node by node (the rings' pairs left
// unset), worked out for slices of rows side by side; empty when the band is
// small or there is no room for them (each pair is then worked out as its
// node is added).
std::vector<float> bandCosts(const BandNumbering& band, const BandColours& colours) {
  std::vector<float> costs;
  const int n = band.nodes();
  const int height = band.height();
  const int parts = slices::partsFor(height, n >= kParallelLikelihoodNodes);
  if (parts < 2) return costs;
  try {
    costs.resize(2 * static_cast<size_t>(n));
  } catch (const std::bad_alloc&) {
    costs.clear();
    return costs;
  }
  // Row slices of about equal node counts.
  std::vector<int> bounds(parts + 1, height);
  bounds[0] = 0;
  for (int k = 1, y = 0; k < parts; ++k) {
    const long target = static_cast<long>(n) * k / parts;
    while (y < height && band.first(y) < target) ++y;
    bounds[k] = y;
  }
  slices::runSlices(bounds, [&](int y0, int y1) {
    for (int y = y0; y < y1; ++y) {
      const unsigned char* code = band.codes(y);
      band.row(y, [&](int x, int node) {
        if (code[x] != kOuterRing && code[x] != kInnerRing) colours.cost(x, y, costs.data() + 2L * node);
      });
    }
  });
  return costs;
}

// Terminal links of every node, in node order (addtWeights sums the flow in
// that order): the rings are tied to their terminal, the band pixels get
// their likelihoods. The likelihoods are the costly part; they depend on the
// pixel alone, so on a large band they are worked out side by side first.
void addBandTerminals(VELDSEGraph* graph, const BandNumbering& band, const BandColours& colours) {
  const std::vector<float> costs = bandCosts(band, colours);
  for (int y = 0; y < band.height(); ++y) {
    const unsigned char* code = band.codes(y);
    band.row(y, [&](int x, int node) {
      switch (code[x]) {
        case kOuterRing:
          graph->addtWeights(node, 0.0f, kHardConstraint);
          break;
        case kInnerRing:
          graph->addtWeights(node, kHardConstraint, 0.0f);
          break;
        default: {
          float pair[2];
          const float* c = pair;
          if (costs.empty()) {
            colours.cost(x, y, pair);
          } else {
            c = costs.data() + 2L * node;
          }
          graph->addtWeights(node, c[0], c[1]);
          break;
        }
      }
    });
  }
}

// --- Step: the band graph's neighbour links ----------------------------------

// Contrast table: t[d] = exp(-beta d^2), one entry per byte difference.
owned::Tracked<float> contrastTable(double beta) {
  owned::Tracked<float> tableOwner(
      needMemory(static_cast<float*>(VELD_Malloc_Msg(256 * sizeof(float), "constructGraphTrimapVELD", 2385))));
  float* const table = tableOwner.get();
  for (int d = 0; d < 256; ++d) {
    table[d] = expf(-static_cast<float>(static_cast<double>(d) * static_cast<double>(d) * beta));
  }
  return tableOwner;
}

// The link weights between two photo pixels (three bytes each).
struct BandContrast {
  const float* table;
  double lambda;
  float diagonalScale;

  BandContrast(const float* t, double l)
      : table(t), lambda(l), diagonalScale(static_cast<float>(l * 0.7071067932881648)) {}
  // Horizontal links deliberately carry the plain smoothness weight,
  // independent of the colours; only the vertical and diagonal links follow
  // the full-resolution contrast.
  float horizontal() const { return static_cast<float>(lambda * (table[0] * table[0] * table[0])); }
  float diagonal(const unsigned char* p, const unsigned char* q) const {
    return table[std::abs(p[0] - q[0])] * diagonalScale * table[std::abs(p[1] - q[1])] *
           table[std::abs(p[2] - q[2])];
  }
  float vertical(const unsigned char* p, const unsigned char* q) const {
    return static_cast<float>(lambda * table[std::abs(p[0] - q[0])] * table[std::abs(p[1] - q[1])] *
                              table[std::abs(p[2] - q[2])]);
  }
};

// The four earlier neighbour links of every node, in node order, from the
// colours of the photo's box.
void addBandEdges(VELDSEGraph* graph, const BandNumbering& band, const IplImage* colours,
                  const BandContrast& contrast) {
  const int width = colours->width;
  const float horizontal = contrast.horizontal();
  // Node index of each pixel of the previous and the current row (-1: fixed
  // or outside the box). Only non-fixed pixels are ever set, so before a row
  // goes into an array, the entries the row two above set there are cleared.
  std::vector<int> upIndex(width + 2, -1), rowIndex(width + 2, -1);
  int* up = upIndex.data() + 1;
  int* cur = rowIndex.data() + 1;
  const unsigned char* rowUp = nullptr;
  for (int y = 0; y < band.height(); ++y) {
    const unsigned char* row = imageRow(colours, y);
    if (y >= 2) band.row(y - 2, [cur](int x, int) { cur[x] = -1; });
    band.row(y, [&](int x, int node) {
      cur[x] = node;
      const int left = cur[x - 1];
      const int upLeft = y > 0 ? up[x - 1] : -1;
      const int above = y > 0 ? up[x] : -1;
      const int upRight = y > 0 && x < width - 1 ? up[x + 1] : -1;
      setBandNeighbours(graph, node, left, upLeft, above, upRight);
      const unsigned char* p = row + 3 * x;
      graph->addEdge(node, left, horizontal, horizontal, left < 0);
      const float wUpLeft = upLeft < 0 ? 0.0f : contrast.diagonal(p, rowUp + 3 * (x - 1));
      graph->addEdge(node, upLeft, wUpLeft, wUpLeft, upLeft < 0);
      const float wUp = above < 0 ? 0.0f : contrast.vertical(p, rowUp + 3 * x);
      graph->addEdge(node, above, wUp, wUp, above < 0);
      const float wUpRight = upRight < 0 ? 0.0f : contrast.diagonal(p, rowUp + 3 * (x + 1));
      graph->addEdge(node, upRight, wUpRight, wUpRight, upRight < 0);
    });
    std::swap(up, cur);
    rowUp = row;
  }
}

// --- Steps: solve, write back, fall back -------------------------------------

// The enlarged working labels: 255 where the code is object (2 or 4), else 0.
void writeEnlargedLabels(const Enlarged& labels, IplImage* result) {
  const int fullW = result->width;
  for (int y = 0; y < result->height; ++y) {
    const unsigned char* e = labels.row(y);
    unsigned char* r = imageRow(result, y);
    // Consecutive rows enlarged from the same working row are equal.
    if (y > 0 && e == labels.row(y - 1)) {
      std::memcpy(r, imageRow(result, y - 1), static_cast<size_t>(fullW));
      continue;
    }
    for (int x = 0; x < fullW; ++x) {
      const unsigned char code = e[labels.column(x)];
      r[x] = (code == LABEL_FG || code == LABEL_PR_FG) ? 255 : 0;
    }
  }
}

// Solves the band graph and writes the enlarged labels into result. The
// labels do not depend on the cut, so on a large photo a thread of its own
// writes them while the band is solved (much of that on one core), and the
// band's pieces get one thread fewer, so that four at most work at once; when
// no thread can be had, they are written here after the solve.
void solveBesideLabels(VELDSEGraph* graph, const Enlarged& labels, IplImage* result) {
  if (static_cast<long>(result->width) * result->height >= slices::kParallelPixels) {
    slices::runSlices({0, 1, 2}, [&](int part, int) {
      if (part == 0) {
        bandMaxFlow(graph, slices::kMaxThreads - 1);
      } else {
        writeEnlargedLabels(labels, result);
      }
    });
  } else {
    bandMaxFlow(graph);
    writeEnlargedLabels(labels, result);
  }
}

// The band pixels of the box at (x0, y0) take the cut (sink side, tree 1, is
// background); the rings and the fixed pixels keep the labels.
void writeBandCut(VELDSEGraph* graph, const IplImage* trimap, int x0, int y0, IplImage* result) {
  forEachBandNode(trimap, graph->m_width, graph->m_height, [&](int x, int y, int node) {
    if (imageRow(trimap, y)[x] == kBand) {
      imageRow(result, y0 + y)[x0 + x] = graph->getTreeofNode(node) == 1 ? 0 : 255;
    }
  });
}

// The fall-back: the working mask made 0/255 in place and enlarged.
owned::Image plainEnlargement(IplImage* mask, int fullW, int fullH) {
  for (int y = 0; y < mask->height; ++y) {
    unsigned char* m = imageRow(mask, y);
    for (int x = 0; x < mask->width; ++x) {
      if (m[x] == 1) m[x] = 255;
    }
  }
  owned::Image result = owned::Image::create(cvSize(fullW, fullH), IPL_DEPTH_8U, 1);
  cvResize(mask, result.get(), CV_INTER_NN);
  return result;
}

}  // namespace

IplImage* VELDSEHybrid::cropImageTrimap(IplImage* src, int w, int h, int y0, int x0) {
  if (w < 1 || h < 1) logMemoryCrash("cropImageTrimap", 1762);
  IplImage* crop = createImage(cvSize(w, h), IPL_DEPTH_8U, src->nChannels);
  const int channels = src->nChannels;
  // Nothing below can fail: the crop is handed over as it is.
  if (channels < 1) return crop;
  const int bytes = m_boundWidthTrimap * channels;
  for (int r = 0; r < m_boundHeightTrimap; ++r) {
    const unsigned char* in = imageRow(src, y0 + r) + x0 * channels;
    unsigned char* out = imageRow(crop, r);
    for (int i = 0; i < bytes; ++i) out[i] = in[i];
  }
  return crop;
}

int VELDSEHybrid::constructGraphTrimapVELD(IplImage* img, IplImage* /*extraTex*/, IplImage* trimap,
                                           IplImage* texHor, IplImage* texVer) {
  // Only the pixels that take part in the cut become nodes (see the top of
  // this file).
  const BandNumbering band(trimap, m_boundWidthTrimap, m_boundHeightTrimap);
  const int n = band.nodes();
  m_trimapGraph = createBandGraph(n, m_boundWidthTrimap, m_boundHeightTrimap);
  VELDSEGraph* graph = m_trimapGraph;
  if (graph->m_nodes == nullptr || graph->m_caps == nullptr) return 1;
  graph->reset();
  graph->addNode(n);
  addBandTerminals(graph, band, BandColours{img, texHor, texVer, &m_bgModel, &m_fgModel,
                                            VELDSEMarker::m_isGreyScale});
  // The graph is built and kept (the caller deletes it); only the table would
  // be lost if a failure ended the build here.
  owned::Tracked<float> table = contrastTable(m_beta);
  addBandEdges(graph, band, img, BandContrast(table.get(), m_lambda));
  VELD_Free_Msg(table.release(), "constructGraphTrimapVELD", 2631);
  return 0;
}

IplImage* VELDSEHybrid::intelligentUpscaling(IplImage* mask) {
  m_trimapGraph = nullptr;
  const TrimapGraphGuard trimapGraphGuard(m_trimapGraph);
  const int fullW = VELDSEMarker::m_originalWidth;
  const int fullH = VELDSEMarker::m_originalHeight;
  // The full-size trimap and the fallback mask: the first is only ever read
  // through the enlargement maps, the second is made on the fallback path.
  checkImageSize(fullW, fullH, "intelligentUpscaling", 1810);
  checkImageSize(fullW, fullH, "intelligentUpscaling", 1811);
  const owned::Image trimap = workingTrimap(mask);
  // The enlarged labels (the working label image at full size).
  checkImageSize(fullW, fullH, "intelligentUpscaling", 1870);
  const Enlargement enlarged(trimap.get(), VELDSEMarker::m_labelImage, fullW, fullH);
  const BandBox box = findBandBox(trimap.get(), enlarged.trimap());
  m_boundWidthTrimap = box.width();
  m_boundHeightTrimap = box.height();
  if (!box.usable(fullW, fullH)) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "Failed: xmin:%d, xmax:%d, ymin:%d, ymax:%d", box.xmin,
                        box.xmax, box.ymin, box.ymax);
    return plainEnlargement(mask, fullW, fullH).release();
  }
  __android_log_print(ANDROID_LOG_INFO, "Info", "Passed: xmin:%d, xmax:%d, ymin:%d, ymax:%d", box.xmin, box.xmax,
                      box.ymin, box.ymax);
  m_boundWidthTrimap = std::min(m_boundWidthTrimap, fullW);
  m_boundHeightTrimap = std::min(m_boundHeightTrimap, fullH);
  __android_log_print(ANDROID_LOG_INFO, "Info", "m_boundWidthTrimap:%d, m_boundHeightTrimap:%d",
                      m_boundWidthTrimap, m_boundHeightTrimap);

  BandCrops crops;
  cropBand(enlarged.trimap(), box.xmin, box.ymin, m_boundWidthTrimap, m_boundHeightTrimap, m_lambda, &crops);
  const int status =
      constructGraphTrimapVELD(&crops.photo, crops.hor.get(), crops.trimap.get(), crops.hor.get(), crops.ver.get());
  if (status != 0) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "Failed: intelligentUpscaling (status_flag = %d)", status);
    return plainEnlargement(mask, fullW, fullH).release();
  }
  owned::Image result(createChecked(fullW, fullH, 2085));
  solveBesideLabels(m_trimapGraph, enlarged.labels(), result.get());
  writeBandCut(m_trimapGraph, crops.trimap.get(), box.xmin, box.ymin, result.get());
  // The crops, the working images and the graph (its guard) go with this
  // scope; the mask is the caller's.
  return result.release();
}
