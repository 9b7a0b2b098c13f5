// Clean-up of a new full-resolution mask and its merge with the previous one.
//
// A loop selection drops small object islands and fills pin-holes; an object
// or background stroke keeps only the changes connected to the stroke; then
// the new mask is merged into the previous result inside the working region
// so that an add-type request can only add object and a remove-type request
// can only remove it.
#include <algorithm>
#include <vector>

#include <opencv2/core/core.hpp>
#include <opencv2/imgproc/imgproc.hpp>
#include <opencv2/imgproc/imgproc_c.h>

#include "engine/engine_util.h"
#include "engine/veldse_hybrid.h"
#include "interface/veldse_marker.h"

namespace {

const unsigned char kObject = 255;
const unsigned char kBackground = 0;
// Components already measured are repainted with this value in the working
// copy, so each component is flooded exactly once and the 8-bit copy never
// needs more than one label (a running label per component would saturate
// after 253 components).
const unsigned char kVisited = 1;
// Background components of fewer pixels than this are holes.
const int kHoleLimit = 5;
// Stroke-connected change markers.
const unsigned char kChanged = 127;
const unsigned char kReached = 255;

struct Component {
  cv::Point seed;
  int size;
};

// Floods every 4-connected component of `value` in `work` (row-major scan,
// each from its first pixel) and returns seed and size of each.
std::vector<Component> findComponents(cv::Mat& work, unsigned char value) {
  std::vector<Component> found;
  for (int y = 0; y < work.rows; ++y) {
    const unsigned char* row = work.ptr<unsigned char>(y);
    for (int x = 0; x < work.cols; ++x) {
      if (row[x] != value) continue;
      const int size = cv::floodFill(work, cv::Point(x, y), cv::Scalar(kVisited), nullptr,
                                     cv::Scalar(0), cv::Scalar(0), 4);
      found.push_back({cv::Point(x, y), size});
    }
  }
  return found;
}

void fillComponent(cv::Mat& mask, cv::Point seed, unsigned char value) {
  cv::floodFill(mask, seed, cv::Scalar(value), nullptr, cv::Scalar(0), cv::Scalar(0), 4);
}

}  // namespace

void VELDSEHybrid::postProcess(IplImage* mask) {
  const int type = VELDSEMarker::currentStroke.strokeType;
  if (type == 0) {
    postProcessForLoop(mask);
  } else if (type == 2 || type == 3) {
    postProcessForStroke(mask);
  }
  if (VELDSEMarker::m_prevResult == nullptr) return;

  IplImage* merged = cvCloneImage(VELDSEMarker::m_prevResult);
  const unsigned char v = (type == 0 || type == 2) ? kObject : kBackground;
  const float scale = g_imageResizeFactor;
  const int y0 = static_cast<int>(scale * VELDSEMarker::m_yMinBBox);
  const int x0 = static_cast<int>(scale * VELDSEMarker::m_xMinBBox);
  const int rows = static_cast<int>(scale * m_imgHeight);
  const int cols = static_cast<int>(scale * m_imgWidth);
  if (rows >= 1 && cols >= 1) {
    // The region is the working image's size scaled up but anchored at the
    // box corner, so it usually runs past the mask's right and bottom edges.
    // Only the part inside the mask can be merged; clipping keeps every
    // in-range pixel exactly as the unclipped region would and never writes
    // outside the images.
    const int yEnd = std::min(y0 + rows, std::min(mask->height, merged->height));
    const int xEnd = std::min(x0 + cols, std::min(mask->width, merged->width));
    for (int y = std::max(y0, 0); y < yEnd; ++y) {
      const unsigned char* in = imageRow(mask, y);
      unsigned char* out = imageRow(merged, y);
      for (int x = std::max(x0, 0); x < xEnd; ++x) {
        if (in[x] == v) out[x] = v;
      }
    }
  }
  // Outside the region, and where the new mask did not reach v, the previous
  // result wins; without a valid region the mask simply reverts to it.
  cvCopy(merged, mask);
  cvReleaseImage(&merged);
}

void VELDSEHybrid::postProcessForLoop(IplImage* mask) {
  cv::Mat target = cv::cvarrToMat(mask);

  // Islands: object components smaller than a tenth of the largest one go.
  IplImage* islandCopy = cvCloneImage(mask);
  cv::Mat islands = cv::cvarrToMat(islandCopy);
  const std::vector<Component> objects = findComponents(islands, kObject);
  int largest = 0;
  for (const Component& c : objects) largest = std::max(largest, c.size);
  const int threshold = static_cast<int>(static_cast<double>(largest) * 0.1);
  // Removing one island never joins or splits another, so re-flooding the
  // mask from the seed touches exactly that island.
  for (const Component& c : objects) {
    if (c.size < threshold) fillComponent(target, c.seed, kBackground);
  }
  cvReleaseImage(&islandCopy);

  // Holes: background components of 1 to 4 pixels are filled, wherever they
  // lie, the image border included.
  IplImage* holeCopy = cvCloneImage(mask);
  cv::Mat holes = cv::cvarrToMat(holeCopy);
  const std::vector<Component> backgrounds = findComponents(holes, kBackground);
  for (const Component& c : backgrounds) {
    if (c.size < kHoleLimit) fillComponent(target, c.seed, kObject);
  }
  cvReleaseImage(&holeCopy);
}

void VELDSEHybrid::postProcessForStroke(IplImage* mask) {
  const IplImage* prev = VELDSEMarker::m_prevResult;
  if (prev == nullptr) return;
  if (mask->width < 1 || mask->height < 1) logMemoryCrash("postProcessForStroke", 1694);

  IplImage* changed = cvCreateImage(cvGetSize(mask), IPL_DEPTH_8U, 1);
  cvSetZero(changed);
  const int type = VELDSEMarker::currentStroke.strokeType;
  const unsigned char v = type == 3 ? kBackground : kObject;
  const unsigned char u = type == 3 ? kObject : kBackground;
  const std::vector<int> points = VELDSEMarker::currentStroke.points;

  // Pixels that changed in the requested direction.
  for (int y = 0; y < mask->height; ++y) {
    const unsigned char* m = imageRow(mask, y);
    const unsigned char* p = imageRow(prev, y);
    unsigned char* c = imageRow(changed, y);
    for (int x = 0; x < mask->width; ++x) c[x] = (m[x] == v && p[x] == u) ? kChanged : 0;
  }

  // Keep the changed areas the stroke passes through.
  const int count = static_cast<int>(points.size());
  for (int i = 0; i + 1 < count; i += 2) {
    const int x = points.at(i);
    const int y = points.at(i + 1);
    // Stroke points are clamped to the photo on input; a stray one is skipped.
    if (x < 0 || y < 0 || x >= changed->width || y >= changed->height) continue;
    if (imageRow(changed, y)[x] != kChanged) continue;
    cvFloodFill(changed, cvPoint(x, y), cvScalar(kReached, 0, 0, 0), cvScalarAll(0), cvScalarAll(0),
                nullptr, 4, nullptr);
  }

  // Everything else reverts to the previous result.
  for (int y = 0; y < mask->height; ++y) {
    unsigned char* m = imageRow(mask, y);
    const unsigned char* p = imageRow(prev, y);
    const unsigned char* c = imageRow(changed, y);
    for (int x = 0; x < mask->width; ++x) m[x] = c[x] == kReached ? v : p[x];
  }
  cvReleaseImage(&changed);
}
