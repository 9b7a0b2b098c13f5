// Choice of the smoothness weight from three trial cuts.
//
// A fixed weight either over-smooths thin parts of an object or lets a cut
// leak into background of similar colour. The driver therefore cuts three
// times from the same initial labels with three candidate weights and keeps
// the weight whose main blob has the most convincing shape: a border that
// follows a colour contrast, and then either the tightest blob that still
// spans the box or, when none spans, a weight chosen from how much the blob
// areas differ between the trials.
#include <algorithm>
#include <cmath>
#include <vector>

#include <opencv2/core/core_c.h>

#include "engine/mask_components.h"
#include "engine/veldse_hybrid.h"
#include "interface/veldse_marker.h"
#include "support/image_rows.h"
#include "support/owned.h"
#include "support/veld_memory.h"

namespace {

// Candidate weights (and the fall-back when no trial is acceptable). Colour
// photos tolerate a stronger smoothness term than grey ones, whose colour
// models are weaker.
const float kColourLambdas[3] = {50.0f, 13.513f, 8.0f};
const float kGreyLambdas[3] = {15.0f, 10.0f, 7.0f};
const float kColourFallback = 4.0f;
const float kGreyFallback = 3.0f;

const float* candidates() {
  return VELDSEMarker::m_isGreyScale ? kGreyLambdas : kColourLambdas;
}

}  // namespace

int VELDSEHybrid::parallelLamdaSwtich(int iter) {
  if (iter >= 4) return MODELS_UPDATE;
  if (iter < 3) {
    // Trial weights are applied as whole numbers (13.513 as 13.0); the exact
    // value is only used once a trial has been chosen.
    m_lambda = static_cast<double>(static_cast<int>(candidates()[iter]));
    cvCopy(m_cropLabelInit, m_cropLabel);
    // Trials 1 and 2 reuse the models fitted at trial 0.
    return iter == 0 ? MODELS_TRAIN : MODELS_KEEP;
  }
  const int k = optimalLamda(m_iterLabel, nullptr);
  if (k == -1) {
    m_lambda = static_cast<double>(VELDSEMarker::m_isGreyScale ? kGreyFallback : kColourFallback);
    cvCopy(m_cropLabelInit, m_cropLabel);
    return MODELS_KEEP;
  }
  m_lambda = static_cast<double>(candidates()[k]);
  cvCopy(m_iterLabel[k], m_cropLabel);
  return MODELS_UPDATE;
}

namespace {

// The main object blobs of a trial's labels (box size): a new image with 255
// on every 4-connected object blob (codes 2 and 4) above 70 % of the largest
// blob's size and 0 elsewhere; *kept counts its 255 pixels.
owned::Image mainBlobs(const IplImage* label, int* kept) {
  const int width = label->width;
  const int height = label->height;
  owned::Image blobsOwner = owned::Image::create(cvSize(width, height), IPL_DEPTH_8U, 1);
  IplImage* const blobs = blobsOwner.get();
  cvSetZero(blobs);
  for (int y = 0; y < height; ++y) {
    const unsigned char* in = imageRow(label, y);
    unsigned char* out = imageRow(blobs, y);
    for (int x = 0; x < width; ++x) {
      if (in[x] == LABEL_FG || in[x] == LABEL_PR_FG) out[x] = 1;
    }
  }

  // Number the 4-connected object blobs 2, 3, ... in the order a row-major
  // scan meets them; the ids are kept in the bytes of the blob image, so
  // from 255 on they saturate and the later blobs share 255.
  int next = 2;
  {
    const MaskComponents found(blobs, 1);
    std::vector<unsigned char> ids(static_cast<size_t>(found.count()));
    for (int c = 0; c < found.count(); ++c) ids[c] = static_cast<unsigned char>(std::min(c + 2, 255));
    found.paintEach(blobs, ids);
    next += found.count();
  }

  // One count per blob id: nothing to fall back on without it.
  owned::Tracked<int> histogramOwner(needMemory(static_cast<int*>(
      VELD_Calloc_Msg(static_cast<unsigned>(next), sizeof(int), "optimalLamda", 3136))));
  int* const histogram = histogramOwner.get();
  for (int y = 0; y < height; ++y) {
    const unsigned char* in = imageRow(blobs, y);
    for (int x = 0; x < width; ++x) ++histogram[in[x]];
  }
  histogram[0] = 0;
  histogram[1] = 0;

  int largest = 0;
  if (next > 2) {
    int best = histogram[2] > 0 ? 2 : 0;
    for (int j = 3; j < next; ++j) {
      if (histogram[j] > histogram[best]) best = j;  // ties keep the earlier blob
    }
    largest = histogram[best];
  }

  // Keep every blob above 70 % of the largest: an object split by a thin
  // gap still counts as one.
  const int threshold = static_cast<int>(largest * 0.7);
  int keptCount = 0;
  for (int y = 0; y < height; ++y) {
    unsigned char* p = imageRow(blobs, y);
    for (int x = 0; x < width; ++x) {
      if (histogram[p[x]] > threshold) {
        p[x] = 255;
        ++keptCount;
      } else {
        p[x] = 0;
      }
    }
  }
  VELD_Free_Msg(histogramOwner.release(), "optimalLamda", 3165);
  *kept = keptCount;
  return blobsOwner;
}

// The trial to keep, from each trial's kept area, whether its blobs span the
// box and its contrast verdict (1 passes): see optimalLamda.
int chooseTrial(const int area[3], const bool spans[3], const int contrast[3]) {
  int valid[3];
  int n = 0;
  for (int k = 0; k < 3; ++k) {
    if (contrast[k] == 1) valid[n++] = k;
  }
  if (n == 0) return 0;

  // A blob that spans the box: the tightest such trial leaked the least.
  int bestSpanning = -1;
  for (int i = 0; i < n; ++i) {
    const int k = valid[i];
    if (spans[k] && (bestSpanning == -1 || area[k] < area[bestSpanning])) bestSpanning = k;
  }
  if (bestSpanning != -1) return bestSpanning;

  float maxArea = -1.0f;
  for (int i = 0; i < n; ++i) {
    if (static_cast<float>(area[valid[i]]) > maxArea) maxArea = static_cast<float>(area[valid[i]]);
  }
  if (maxArea < 100.0f) return -1;
  float sum = 0.0f;
  for (int i = 0; i < n; ++i) sum += static_cast<float>(area[valid[i]]);
  const float mean = sum / (maxArea * static_cast<float>(n));
  float spread = 0.0f;
  for (int i = 0; i < n; ++i) {
    const float d = mean - static_cast<float>(area[valid[i]]) / maxArea;
    spread += d * d;
  }
  // Widely differing areas: the weakest smoothing that still passed wins;
  // similar areas: one step stronger, which is as good and smoother.
  if (n == 1 || spread > 0.4f) return valid[n - 1];
  return valid[n - 2];
}

}  // namespace

int VELDSEHybrid::optimalLamda(IplImage** labels, float* /*unused*/) {
  int area[3];
  bool spans[3];
  int contrast[3];
  for (int k = 0; k < 3; ++k) {
    const owned::Image blobs = mainBlobs(labels[k], &area[k]);
    spans[k] = boundaryTest(blobs.get(), 0.15f);
    contrast[k] = intensityTest(blobs.get());
  }
  return chooseTrial(area, spans, contrast);
}

int VELDSEHybrid::intensityTest(const IplImage* mask) {
  const int width = mask->width;
  const int height = mask->height;
  double borderSum = 0.0, interiorSum = 0.0;
  int borderCount = 0, interiorCount = 0;
  for (int y = 1; y < height - 1; ++y) {
    const unsigned char* m = imageRow(mask, y);
    const unsigned char* c = imageRow(m_cropSrc, y);
    for (int x = 1; x < width - 1; ++x) {
      if (m[x] != 255) continue;
      for (int dy = -1; dy <= 1; ++dy) {
        const unsigned char* mn = imageRow(mask, y + dy);
        const unsigned char* cn = imageRow(m_cropSrc, y + dy);
        for (int dx = -1; dx <= 1; ++dx) {
          if (dx == 0 && dy == 0) continue;
          double squares = 0.0;
          for (int ch = 0; ch < 3; ++ch) {
            const double diff = static_cast<double>(c[3 * x + ch]) - cn[3 * (x + dx) + ch];
            squares += diff * diff;
          }
          const float d = sqrtf(static_cast<float>(squares));
          if (mn[x + dx] < 255) {
            borderSum += d;
            ++borderCount;
          } else {
            interiorSum += d;
            ++interiorCount;
          }
        }
      }
    }
  }
  // An empty interior or border gives NaN, which does not pass.
  const double difference = borderSum / borderCount - interiorSum / interiorCount;
  return difference >= 0.0 ? 1 : 2;
}

bool VELDSEHybrid::boundaryTest(const IplImage* mask, float fraction) {
  const int width = mask->width;
  const int height = mask->height;
  int xmin = 2147483647, ymin = 2147483647, xmax = -1, ymax = -1;
  for (int y = 0; y < height; ++y) {
    const unsigned char* m = imageRow(mask, y);
    for (int x = 0; x < width; ++x) {
      if (m[x] != 255) continue;
      if (x < xmin) xmin = x;
      if (x > xmax) xmax = x;
      if (y < ymin) ymin = y;
      if (y > ymax) ymax = y;
    }
  }
  const int marginY = static_cast<int>(static_cast<float>(height) * fraction);
  const int marginX = static_cast<int>(static_cast<float>(width) * fraction);
  return (height - ymax) < marginY && ymin < marginY && (width - xmax) < marginX && xmin < marginX;
}

int VELDSEHybrid::homogenousLamda(int iter) {
  const bool criterion = iter == 0 && m_bgModel.colorModelCriteria() != 0;
  const bool homogeneous = criterion || VELDSEMarker::m_isHomogenous;
  m_fgModel.setInverseCovariance();
  if (!homogeneous) {
    m_bgModel.setInverseCovariance();
    VELDSEMarker::m_isHomogenous = false;
    return 1;
  }
  // Object and background look alike: a background model this close to
  // singular would make every pixel background, so its covariances are
  // regularised much more strongly, and the default weight is kept.
  VELDSEMarker::m_noiseLevel = 10.0;
  m_bgModel.setInverseCovariance();
  VELDSEMarker::m_noiseLevel = 0.1;
  m_lambda = 50.0;
  VELDSEMarker::m_isHomogenous = true;
  return 0;
}
