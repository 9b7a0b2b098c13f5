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
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include <android/log.h>
#include <opencv2/core/core_c.h>
#include <opencv2/imgproc/imgproc_c.h>

#include "engine/engine_util.h"
#include "engine/veldse_hybrid.h"
#include "graph/band_graph.h"
#include "interface/veldse_marker.h"
#include "support/owned.h"
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

// The first x' >= x of the row below width that is not fixed (width if none).
// Most of a box is fixed, so the rows are skimmed eight bytes at a time.
int nextCut(const unsigned char* row, int x, int width) {
  const uint64_t fixed8 = 0x0101010101010101ull * kFixed;
  while (x + 8 <= width) {
    uint64_t word;
    std::memcpy(&word, row + x, 8);
    if (word != fixed8) break;
    x += 8;
  }
  while (x < width && row[x] == kFixed) ++x;
  return x;
}

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
    for (int x = nextCut(row, 0, w); x < w; x = nextCut(row, x + 1, w)) {
      if (row[x] != kOuterRing && row[x] != kInnerRing) continue;
      const int x0 = x > 0 ? x - 1 : x;
      const int x1 = x < w - 1 ? x + 1 : x;
      bool touches = false;
      for (int i = x0; i <= x1 && !touches; ++i) {
        touches = row[i] == kBand || (above != nullptr && above[i] == kBand) ||
                  (below != nullptr && below[i] == kBand);
      }
      if (!touches) row[x] = kFixed;
    }
  }
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

namespace {

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

  // cost() for every band pixel of row y, into consecutive pairs from `out`
  // on: one pair per non-fixed pixel (the rings' pairs are left unset).
  void rowCosts(const IplImage* trimap, int y, float* out) const {
    const unsigned char* code = imageRow(trimap, y);
    const int width = trimap->width;
    for (int x = nextCut(code, 0, width); x < width; x = nextCut(code, x + 1, width)) {
      if (code[x] != kOuterRing && code[x] != kInnerRing) cost(x, y, out);
      out += 2;
    }
  }
};

}  // namespace

int VELDSEHybrid::constructGraphTrimapVELD(IplImage* img, IplImage* /*extraTex*/, IplImage* trimap,
                                           IplImage* texHor, IplImage* texVer) {
  const int width = m_boundWidthTrimap;
  const int height = m_boundHeightTrimap;
  // Only the pixels that take part in the cut become nodes (see the top of
  // this file); node k is the k-th of them in row-major order.
  // rowStart[y]: the index of row y's first node.
  std::vector<int> rowStart(height + 1, 0);
  for (int y = 0; y < height; ++y) {
    const unsigned char* code = imageRow(trimap, y);
    int count = 0;
    for (int x = nextCut(code, 0, width); x < width; x = nextCut(code, x + 1, width)) ++count;
    rowStart[y + 1] = rowStart[y] + count;
  }
  const int n = rowStart[height];
  m_trimapGraph = createBandGraph(n, width, height);
  VELDSEGraph* graph = m_trimapGraph;
  if (graph->m_nodes == nullptr || graph->m_caps == nullptr) return 1;
  graph->reset();
  graph->addNode(n);

  // Terminal links. The band pixels' two likelihoods are the costly part;
  // they depend on the pixel alone, so on a large band they are worked out
  // for slices of rows side by side first. The links are then added one node
  // after another as before (addtWeights sums the flow in node order).
  const BandColours band{img, texHor, texVer, &m_bgModel, &m_fgModel, VELDSEMarker::m_isGreyScale};
  std::vector<float> costs;
  const int parts = slices::partsFor(height, n >= kParallelLikelihoodNodes);
  if (parts > 1) {
    try {
      costs.resize(2 * static_cast<size_t>(n));
    } catch (const std::bad_alloc&) {
      costs.clear();  // no room: each node's pair is worked out as it is added
    }
  }
  if (!costs.empty()) {
    // Row slices of about equal node counts.
    std::vector<int> bounds(parts + 1, height);
    bounds[0] = 0;
    for (int k = 1, y = 0; k < parts; ++k) {
      const long target = static_cast<long>(n) * k / parts;
      while (y < height && rowStart[y] < target) ++y;
      bounds[k] = y;
    }
    slices::runSlices(bounds, [&](int y0, int y1) {
      for (int y = y0; y < y1; ++y) band.rowCosts(trimap, y, costs.data() + 2L * rowStart[y]);
    });
  }
  int node = 0;
  for (int y = 0; y < height; ++y) {
    const unsigned char* code = imageRow(trimap, y);
    for (int x = nextCut(code, 0, width); x < width; x = nextCut(code, x + 1, width)) {
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
            band.cost(x, y, pair);
          } else {
            c = costs.data() + 2L * node;
          }
          graph->addtWeights(node, c[0], c[1]);
          break;
        }
      }
      ++node;
    }
  }

  // Contrast table: t[d] = exp(-beta d^2), one entry per byte difference.
  // The graph is built and kept (the caller deletes it); only the table would
  // be lost if a failure ended the build here.
  owned::Tracked<float> tableOwner(
      needMemory(static_cast<float*>(VELD_Malloc_Msg(256 * sizeof(float), "constructGraphTrimapVELD", 2385))));
  float* const table = tableOwner.get();
  for (int d = 0; d < 256; ++d) {
    table[d] = expf(-static_cast<float>(static_cast<double>(d) * static_cast<double>(d) * m_beta));
  }
  // The colours are only read, so the crop itself serves.
  const IplImage* colours = img;

  const double lambda = m_lambda;
  // Horizontal links deliberately carry the plain smoothness weight,
  // independent of the colours; only the vertical and diagonal links follow
  // the full-resolution contrast.
  const float horizontal = static_cast<float>(lambda * (table[0] * table[0] * table[0]));
  const float diagonalScale = static_cast<float>(lambda * 0.7071067932881648);
  auto diagonal = [&](const unsigned char* p, const unsigned char* q) {
    return table[std::abs(p[0] - q[0])] * diagonalScale * table[std::abs(p[1] - q[1])] *
           table[std::abs(p[2] - q[2])];
  };
  auto vertical = [&](const unsigned char* p, const unsigned char* q) {
    return static_cast<float>(lambda * table[std::abs(p[0] - q[0])] * table[std::abs(p[1] - q[1])] *
                              table[std::abs(p[2] - q[2])]);
  };
  // Node index of each pixel of the previous and the current row (-1: fixed
  // or outside the box). Only non-fixed pixels are ever set, so before a row
  // goes into an array, the entries the row two above set there are cleared.
  std::vector<int> upIndex(width + 2, -1), rowIndex(width + 2, -1);
  int* up = upIndex.data() + 1;
  int* cur = rowIndex.data() + 1;
  const unsigned char* rowUp = nullptr;
  node = 0;
  for (int y = 0; y < height; ++y) {
    const unsigned char* code = imageRow(trimap, y);
    const unsigned char* row = imageRow(colours, y);
    if (y >= 2) {
      const unsigned char* old = imageRow(trimap, y - 2);
      for (int x = nextCut(old, 0, width); x < width; x = nextCut(old, x + 1, width)) cur[x] = -1;
    }
    for (int x = nextCut(code, 0, width); x < width; x = nextCut(code, x + 1, width)) {
      cur[x] = node;
      const int left = cur[x - 1];
      const int upLeft = y > 0 ? up[x - 1] : -1;
      const int above = y > 0 ? up[x] : -1;
      const int upRight = y > 0 && x < width - 1 ? up[x + 1] : -1;
      setBandNeighbours(graph, node, left, upLeft, above, upRight);
      const unsigned char* p = row + 3 * x;
      graph->addEdge(node, left, horizontal, horizontal, left < 0);
      const float wUpLeft = upLeft < 0 ? 0.0f : diagonal(p, rowUp + 3 * (x - 1));
      graph->addEdge(node, upLeft, wUpLeft, wUpLeft, upLeft < 0);
      const float wUp = above < 0 ? 0.0f : vertical(p, rowUp + 3 * x);
      graph->addEdge(node, above, wUp, wUp, above < 0);
      const float wUpRight = upRight < 0 ? 0.0f : diagonal(p, rowUp + 3 * (x + 1));
      graph->addEdge(node, upRight, wUpRight, wUpRight, upRight < 0);
      ++node;
    }
    std::swap(up, cur);
    rowUp = row;
  }

  VELD_Free_Msg(tableOwner.release(), "constructGraphTrimapVELD", 2631);
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
  const owned::Image sumOwner(createChecked(mask->width, mask->height, 1812));
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

  // The enlarged labels (the working label image at full size).
  checkImageSize(fullW, fullH, "intelligentUpscaling", 1870);
  const IplImage* labelImage = VELDSEMarker::m_labelImage;
  const std::vector<int> sumXs = nearestMap(sum->width, fullW);
  const std::vector<int> sumYs = nearestMap(sum->height, fullH);
  const bool sameSize = labelImage->width == sum->width && labelImage->height == sum->height;
  const std::vector<int> labelXs = sameSize ? std::vector<int>() : nearestMap(labelImage->width, fullW);
  const std::vector<int> labelYs = sameSize ? std::vector<int>() : nearestMap(labelImage->height, fullH);
  const Enlarged trimap{sum, &sumXs, &sumYs};
  const Enlarged labels{labelImage, sameSize ? &sumXs : &labelXs, sameSize ? &sumYs : &labelYs};

  // Box of everything that is not fixed: the enlarged columns and rows whose
  // working column or row holds a non-fixed pixel of a used row or column.
  std::vector<unsigned char> usedRow(sum->height, 0), usedColumn(sum->width, 0);
  std::vector<unsigned char> bandColumn(sum->width, 0), bandRow(sum->height, 0);
  for (int y = 0; y < fullH; ++y) usedRow[sumYs[y]] = 1;
  for (int x = 0; x < fullW; ++x) usedColumn[sumXs[x]] = 1;
  for (int sy = 0; sy < sum->height; ++sy) {
    if (!usedRow[sy]) continue;
    const unsigned char* t = imageRow(sum, sy);
    for (int sx = 0; sx < sum->width; ++sx) {
      if (t[sx] == kFixed || !usedColumn[sx]) continue;
      bandColumn[sx] = 1;
      bandRow[sy] = 1;
    }
  }
  int xmin = INT_MAX, xmax = -1, ymin = INT_MAX, ymax = -1;
  for (int x = 0; x < fullW; ++x) {
    if (!bandColumn[sumXs[x]]) continue;
    if (x < xmin) xmin = x;
    xmax = x;
  }
  for (int y = 0; y < fullH; ++y) {
    if (!bandRow[sumYs[y]]) continue;
    if (y < ymin) ymin = y;
    ymax = y;
  }
  m_boundWidthTrimap = xmax - xmin + 1;
  m_boundHeightTrimap = ymax - ymin + 1;

  owned::Image trimapCrop;
  // The builder only reads the photo, so a header on the box (kept here,
  // nothing to allocate or release) serves as its crop.
  IplImage photoBox;
  owned::Image horCrop;
  owned::Image verCrop;
  bool failed = false;
  if (xmin >= fullW || ymin >= fullH || xmax - xmin < 0 || ymax - ymin < 0 || xmax < 0 || ymax < 0) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "Failed: xmin:%d, xmax:%d, ymin:%d, ymax:%d", xmin, xmax,
                        ymin, ymax);
    failed = true;
  } else {
    __android_log_print(ANDROID_LOG_INFO, "Info", "Passed: xmin:%d, xmax:%d, ymin:%d, ymax:%d", xmin, xmax,
                        ymin, ymax);
    if (m_boundWidthTrimap > fullW) m_boundWidthTrimap = fullW;
    if (m_boundHeightTrimap > fullH) m_boundHeightTrimap = fullH;
    __android_log_print(ANDROID_LOG_INFO, "Info", "m_boundWidthTrimap:%d, m_boundHeightTrimap:%d",
                        m_boundWidthTrimap, m_boundHeightTrimap);

    trimapCrop = cropEnlarged(trimap, xmin, ymin, m_boundWidthTrimap, m_boundHeightTrimap);
    fixInertRingPixels(trimapCrop.get(), m_lambda);
    const IplImage* photo = VELDSEMarker::m_originalImage;
    constexpr int kRowAlign = 4;  // as cvCreateImageHeader
    cvInitImageHeader(&photoBox, cvSize(m_boundWidthTrimap, m_boundHeightTrimap), IPL_DEPTH_8U, 3,
                      IPL_ORIGIN_TL, kRowAlign);
    cvSetData(&photoBox, photo->imageData + static_cast<long>(ymin) * photo->widthStep + 3 * xmin,
              photo->widthStep);
    if (VELDSEMarker::m_isGreyScale) {
      checkImageSize(fullW, fullH, "intelligentUpscaling", 1981);
      checkImageSize(fullW, fullH, "intelligentUpscaling", 1982);
      const IplImage* hor = VELDSEMarker::m_texHor;
      const IplImage* ver = VELDSEMarker::m_texVer;
      const std::vector<int> texXs = nearestMap(hor->width, fullW);
      const std::vector<int> texYs = nearestMap(hor->height, fullH);
      horCrop = cropEnlarged(Enlarged{hor, &texXs, &texYs}, xmin, ymin, m_boundWidthTrimap, m_boundHeightTrimap);
      verCrop = cropEnlarged(Enlarged{ver, &texXs, &texYs}, xmin, ymin, m_boundWidthTrimap, m_boundHeightTrimap);
    }

    const int status = constructGraphTrimapVELD(&photoBox, horCrop.get(), trimapCrop.get(), horCrop.get(), verCrop.get());
    if (status != 0) {
      __android_log_print(ANDROID_LOG_ERROR, "Error", "Failed: intelligentUpscaling (status_flag = %d)", status);
      failed = true;
    }
  }

  owned::Image resultOwner;
  IplImage* result = nullptr;
  if (!failed) {
    // The enlarged working labels (object: codes 2 and 4), then the band
    // takes the new cut; the rings and the fixed pixels keep the labels. The
    // labels do not depend on the cut, so on a large photo a thread of its own
    // writes them while the band is solved (much of that on one core).
    resultOwner.reset(createChecked(fullW, fullH, 2085));
    result = resultOwner.get();
    const auto writeLabels = [&] {
      for (int y = 0; y < fullH; ++y) {
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
    };
    if (static_cast<long>(fullW) * fullH >= slices::kParallelPixels) {
      // The band is solved here and the labels written on a thread of their
      // own (here too, after the solve, when no thread can be had).
      slices::runSlices({0, 1, 2}, [&](int part, int) {
        if (part == 0) bandMaxFlow(m_trimapGraph); else writeLabels();
      });
    } else {
      bandMaxFlow(m_trimapGraph);
      writeLabels();
    }
    int node = 0;
    for (int y = 0; y < m_boundHeightTrimap; ++y) {
      const unsigned char* t = imageRow(trimapCrop.get(), y);
      unsigned char* r = imageRow(result, ymin + y) + xmin;
      const int w = m_boundWidthTrimap;
      for (int x = nextCut(t, 0, w); x < w; x = nextCut(t, x + 1, w)) {
        // Sink side (1) is background.
        if (t[x] == kBand) r[x] = m_trimapGraph->getTreeofNode(node) == 1 ? 0 : 255;
        ++node;
      }
    }
  } else {
    // Plain enlargement of the working mask.
    for (int y = 0; y < mask->height; ++y) {
      unsigned char* m = imageRow(mask, y);
      for (int x = 0; x < mask->width; ++x) {
        if (m[x] == 1) m[x] = 255;
      }
    }
    resultOwner = owned::Image::create(cvSize(fullW, fullH), IPL_DEPTH_8U, 1);
    result = resultOwner.get();
    cvResize(mask, result, CV_INTER_NN);
  }

  // The crops, the working images and the graph (its guard) go with
  // this scope; the mask is the caller's.
  return resultOwner.release();
}
