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
#include <climits>
#include <cmath>
#include <cstdlib>

#include <android/log.h>
#include <opencv2/core/core_c.h>
#include <opencv2/imgproc/imgproc_c.h>

#include "engine/engine_util.h"
#include "engine/veldse_hybrid.h"
#include "interface/veldse_marker.h"
#include "support/veld_memory.h"

namespace {

const unsigned char kFixed = 7;
const unsigned char kOuterRing = 1;
const unsigned char kBand = 0;
const unsigned char kInnerRing = 2;
const float kHardConstraint = 1000.0f;

void releaseImage(IplImage*& image) {
  if (image != nullptr) cvReleaseImage(&image);
}

IplImage* createChecked(int width, int height, int line) {
  checkImageSize(width, height, "intelligentUpscaling", line);
  return cvCreateImage(cvSize(width, height), IPL_DEPTH_8U, 1);
}

}  // namespace

IplImage* VELDSEHybrid::cropImageTrimap(IplImage* src, int w, int h, int y0, int x0) {
  if (w < 1 || h < 1) logMemoryCrash("cropImageTrimap", 1762);
  IplImage* crop = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, src->nChannels);
  const int channels = src->nChannels;
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
  const int width = m_boundWidthTrimap;
  const int height = m_boundHeightTrimap;
  const int n = width * height;
  m_trimapGraph = new VELDSEGraph(n, 8 * n, width, height, 0);
  VELDSEGraph* graph = m_trimapGraph;
  if (graph->m_nodes == nullptr || graph->m_caps == nullptr) return 1;
  graph->reset();
  graph->addNode(n);

  // Terminal links. Fixed pixels get none, so they stay isolated.
  const bool grey = VELDSEMarker::m_isGreyScale;
  for (int y = 0; y < height; ++y) {
    const unsigned char* code = imageRow(trimap, y);
    const unsigned char* px = imageRow(img, y);
    const unsigned char* hor = grey ? imageRow(texHor, y) : nullptr;
    const unsigned char* ver = grey ? imageRow(texVer, y) : nullptr;
    for (int x = 0; x < width; ++x, px += 3) {
      const int node = x + y * width;
      switch (code[x]) {
        case kOuterRing:
          graph->addtWeights(node, 0.0f, kHardConstraint);
          break;
        case kInnerRing:
          graph->addtWeights(node, kHardConstraint, 0.0f);
          break;
        case kFixed:
          // addtWeights(node, 0, 0) on a fresh node leaves trCap at +0 and
          // adds 0 to the flow: nothing to write, and most of the box is
          // fixed.
          break;
        default: {
          pixelVal sample;
          sample.val[0] = px[0];
          sample.val[1] = grey ? hor[x] : px[1];
          sample.val[2] = grey ? ver[x] : px[2];
          const double lb = std::log(m_bgModel.GMMProb(sample));
          const double lf = std::log(m_fgModel.GMMProb(sample));
          graph->addtWeights(node, -static_cast<float>(lb), -static_cast<float>(lf));
          break;
        }
      }
    }
  }

  // Contrast table: t[d] = exp(-beta d^2), one entry per byte difference.
  float* table = static_cast<float*>(VELD_Malloc_Msg(256 * sizeof(float), "constructGraphTrimapVELD", 2385));
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
  auto absent = [&](int node) { graph->addEdge(node, node, 0.0f, 0.0f, true); };

  // Row 0: only left links.
  {
    const unsigned char* code = imageRow(trimap, 0);
    absent(0);
    absent(0);
    absent(0);
    absent(0);
    for (int x = 1; x < width; ++x) {
      const bool off = code[x] == kFixed || code[x - 1] == kFixed;
      graph->addEdge(x, x - 1, horizontal, horizontal, off);
      absent(x);
      absent(x);
      absent(x);
    }
  }
  for (int y = 1; y < height; ++y) {
    const unsigned char* code = imageRow(trimap, y);
    const unsigned char* codeUp = imageRow(trimap, y - 1);
    const unsigned char* row = imageRow(colours, y);
    const unsigned char* rowUp = imageRow(colours, y - 1);
    for (int x = 0; x < width; ++x) {
      const int node = x + y * width;
      if (code[x] == kFixed) {
        // A fixed pixel never joins a tree, so the solver reads its pairs
        // only from a non-fixed neighbour at the other end of one of them.
        // Deep inside a fixed area nobody does: those pairs are passed over
        // unwritten, which keeps most of the box's capacity pages untouched
        // (the box around a long band is mostly fixed).
        const bool reachable = (x > 0 && (code[x - 1] != kFixed || codeUp[x - 1] != kFixed)) ||
                               codeUp[x] != kFixed || (x < width - 1 && codeUp[x + 1] != kFixed);
        if (reachable) {
          absent(node);
          absent(node);
          absent(node);
          absent(node);
        } else {
          graph->skipNodeEdges();
        }
        continue;
      }
      const unsigned char* p = row + 3 * x;
      if (x == 0 || code[x - 1] == kFixed) {
        absent(node);
      } else {
        graph->addEdge(node, node - 1, horizontal, horizontal, false);
      }
      if (x == 0 || codeUp[x - 1] == kFixed) {
        absent(node);
      } else {
        const float w = diagonal(p, rowUp + 3 * (x - 1));
        graph->addEdge(node, node - width - 1, w, w, false);
      }
      if (codeUp[x] == kFixed) {
        absent(node);
      } else {
        const float w = vertical(p, rowUp + 3 * x);
        graph->addEdge(node, node - width, w, w, false);
      }
      if (x == width - 1 || codeUp[x + 1] == kFixed) {
        absent(node);
      } else {
        const float w = diagonal(p, rowUp + 3 * (x + 1));
        graph->addEdge(node, node - width + 1, w, w, false);
      }
    }
  }

  VELD_Free_Msg(table, "constructGraphTrimapVELD", 2631);
  return 0;
}

IplImage* VELDSEHybrid::intelligentUpscaling(IplImage* mask) {
  m_trimapGraph = nullptr;
  const int fullW = VELDSEMarker::m_originalWidth;
  const int fullH = VELDSEMarker::m_originalHeight;
  IplImage* trimap = createChecked(fullW, fullH, 1810);
  IplImage* fallback = createChecked(fullW, fullH, 1811);
  IplImage* sum = createChecked(mask->width, mask->height, 1812);
  IplImage* scratch = createChecked(mask->width, mask->height, 1813);

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

  IplImage* labels = createChecked(fullW, fullH, 1870);
  cvSetZero(labels);
  cvResize(VELDSEMarker::m_labelImage, labels, CV_INTER_NN);
  cvResize(sum, trimap, CV_INTER_NN);

  // Box of everything that is not fixed.
  int xmin = INT_MAX, xmax = -1, ymin = INT_MAX, ymax = -1;
  for (int y = 0; y < trimap->height; ++y) {
    const unsigned char* t = imageRow(trimap, y);
    for (int x = 0; x < trimap->width; ++x) {
      if (t[x] == kFixed) continue;
      if (x < xmin) xmin = x;
      if (x > xmax) xmax = x;
      if (y < ymin) ymin = y;
      if (y > ymax) ymax = y;
    }
  }
  m_boundWidthTrimap = xmax - xmin + 1;
  m_boundHeightTrimap = ymax - ymin + 1;

  IplImage* trimapCrop = nullptr;
  IplImage* photoCrop = nullptr;
  IplImage* horFull = nullptr;
  IplImage* verFull = nullptr;
  IplImage* horCrop = nullptr;
  IplImage* verCrop = nullptr;
  bool failed = false;
  if (xmin >= trimap->width || ymin >= trimap->height || xmax - xmin < 0 || ymax - ymin < 0 || xmax < 0 ||
      ymax < 0) {
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

    trimapCrop = cropImageTrimap(trimap, m_boundWidthTrimap, m_boundHeightTrimap, ymin, xmin);
    photoCrop = cropImageTrimap(VELDSEMarker::m_originalImage, m_boundWidthTrimap, m_boundHeightTrimap, ymin, xmin);
    if (VELDSEMarker::m_isGreyScale) {
      horFull = createChecked(fullW, fullH, 1981);
      verFull = createChecked(fullW, fullH, 1982);
      cvResize(VELDSEMarker::m_texHor, horFull, CV_INTER_NN);
      cvResize(VELDSEMarker::m_texVer, verFull, CV_INTER_NN);
      horCrop = cropImageTrimap(horFull, m_boundWidthTrimap, m_boundHeightTrimap, ymin, xmin);
      verCrop = cropImageTrimap(verFull, m_boundWidthTrimap, m_boundHeightTrimap, ymin, xmin);
    }

    const int status = constructGraphTrimapVELD(photoCrop, horCrop, trimapCrop, horCrop, verCrop);
    if (status != 0) {
      __android_log_print(ANDROID_LOG_ERROR, "Error", "Failed: intelligentUpscaling (status_flag = %d)", status);
      failed = true;
    }
  }

  IplImage* result = nullptr;
  if (!failed) {
    m_trimapGraph->maxFlow();
    // Only the band takes the new cut; the rings and the fixed pixels keep
    // the enlarged working labels.
    for (int y = 0; y < m_boundHeightTrimap; ++y) {
      const unsigned char* t = imageRow(trimapCrop, y);
      unsigned char* e = imageRow(labels, ymin + y) + xmin;
      for (int x = 0; x < m_boundWidthTrimap; ++x) {
        if (t[x] != kBand) continue;
        e[x] = m_trimapGraph->getTreeofNode(x + y * m_boundWidthTrimap) == 1 ? LABEL_PR_BG : LABEL_PR_FG;
      }
    }
    result = createChecked(fullW, fullH, 2085);
    for (int y = 0; y < fullH; ++y) {
      const unsigned char* e = imageRow(labels, y);
      unsigned char* r = imageRow(result, y);
      for (int x = 0; x < fullW; ++x) r[x] = (e[x] == LABEL_FG || e[x] == LABEL_PR_FG) ? 255 : 0;
    }
    releaseImage(fallback);
  } else {
    // Plain enlargement of the working mask.
    for (int y = 0; y < mask->height; ++y) {
      unsigned char* m = imageRow(mask, y);
      for (int x = 0; x < mask->width; ++x) {
        if (m[x] == 1) m[x] = 255;
      }
    }
    cvResize(mask, fallback, CV_INTER_NN);
    result = fallback;
  }

  delete m_trimapGraph;
  m_trimapGraph = nullptr;
  releaseImage(trimap);
  releaseImage(sum);
  releaseImage(scratch);
  releaseImage(labels);
  releaseImage(trimapCrop);
  releaseImage(photoCrop);
  releaseImage(horFull);
  releaseImage(verFull);
  releaseImage(horCrop);
  releaseImage(verCrop);
  return result;
}
