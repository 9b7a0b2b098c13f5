// Clean-up of a new full-resolution mask and its merge with the previous one.
//
// A loop selection drops small object islands and fills pin-holes; an object
// or background stroke keeps only the changes connected to the stroke; then
// the new mask is merged into the previous result inside the working region
// so that an add-type request can only add object and a remove-type request
// can only remove it.
#include <algorithm>
#include <vector>

#include "engine/mask_components.h"
#include "engine/veldse_hybrid.h"
#include "interface/veldse_marker.h"
#include "support/image_rows.h"
#include "support/owned.h"
#include "support/size_check.h"

namespace {

const unsigned char kObject = 255;
const unsigned char kBackground = 0;
// Background components of fewer pixels than this are holes.
const int kHoleLimit = 5;
// Stroke-connected change markers.
const unsigned char kChanged = 127;
const unsigned char kReached = 255;

}  // namespace

void VELDSEHybrid::postProcess(IplImage* mask) {
  const int type = VELDSEMarker::currentStroke.strokeType;
  if (type == MARK_OBJECT_LOOP) {
    postProcessForLoop(mask);
  } else if (type == MARK_OBJECT_STROKE || type == MARK_BACKGROUND_STROKE) {
    postProcessForStroke(mask);
  }
  if (VELDSEMarker::m_prevResult == nullptr) return;

  const IplImage* prev = VELDSEMarker::m_prevResult;
  const unsigned char v = (type == MARK_OBJECT_LOOP || type == MARK_OBJECT_STROKE) ? kObject : kBackground;
  const float scale = g_imageResizeFactor;
  const int y0 = static_cast<int>(scale * VELDSEMarker::m_yMinBBox);
  const int x0 = static_cast<int>(scale * VELDSEMarker::m_xMinBBox);
  const int rows = static_cast<int>(scale * m_imgHeight);
  const int cols = static_cast<int>(scale * m_imgWidth);
  // The merge: inside the region, where the new mask reached v it keeps v;
  // everywhere else the previous result wins. Without a valid region the mask
  // simply reverts to the previous result. The region is the working image's
  // size scaled up but anchored at the box corner, so it usually runs past the
  // mask's right and bottom edges; only the part inside the mask counts.
  int yBegin = 0, yEnd = 0, xBegin = 0, xEnd = 0;
  if (rows >= 1 && cols >= 1) {
    yBegin = std::max(y0, 0);
    yEnd = std::min(y0 + rows, std::min(mask->height, prev->height));
    xBegin = std::max(x0, 0);
    xEnd = std::min(x0 + cols, std::min(mask->width, prev->width));
  }
  for (int y = 0; y < mask->height; ++y) {
    unsigned char* out = imageRow(mask, y);
    const unsigned char* p = imageRow(prev, y);
    const bool inRows = y >= yBegin && y < yEnd;
    for (int x = 0; x < mask->width; ++x) {
      if (!(inRows && x >= xBegin && x < xEnd && out[x] == v)) out[x] = p[x];
    }
  }
}

void VELDSEHybrid::postProcessForLoop(IplImage* mask) {
  // Islands: object components smaller than a tenth of the largest one go.
  // Removing one island never joins or splits another.
  {
    const MaskComponents objects(mask, kObject);
    const int threshold = static_cast<int>(static_cast<double>(objects.largest()) * 0.1);
    objects.paintSmaller(mask, threshold, kBackground);
  }
  // Holes: background components of 1 to 4 pixels are filled, wherever they
  // lie, the image border included (found on the mask without its islands).
  const MaskComponents holes(mask, kBackground);
  holes.paintSmaller(mask, kHoleLimit, kObject);
}

void VELDSEHybrid::postProcessForStroke(IplImage* mask) {
  const IplImage* prev = VELDSEMarker::m_prevResult;
  if (prev == nullptr) return;
  if (mask->width < 1 || mask->height < 1) logMemoryCrash("postProcessForStroke", 1694);

  const owned::Image changedOwner = owned::Image::create(cvGetSize(mask), IPL_DEPTH_8U, 1);
  IplImage* const changed = changedOwner.get();
  cvSetZero(changed);
  const int type = VELDSEMarker::currentStroke.strokeType;
  const unsigned char v = type == MARK_BACKGROUND_STROKE ? kBackground : kObject;
  const unsigned char u = type == MARK_BACKGROUND_STROKE ? kObject : kBackground;
  const std::vector<int> points = VELDSEMarker::currentStroke.points;

  // Pixels that changed in the requested direction.
  for (int y = 0; y < mask->height; ++y) {
    const unsigned char* m = imageRow(mask, y);
    const unsigned char* p = imageRow(prev, y);
    unsigned char* c = imageRow(changed, y);
    for (int x = 0; x < mask->width; ++x) c[x] = (m[x] == v && p[x] == u) ? kChanged : 0;
  }

  // Keep the changed areas the stroke passes through: every 4-connected
  // component of changed pixels that holds a stroke point. (Stroke points are
  // clamped to the photo on input; a stray one touches nothing.)
  {
    const MaskComponents areas(changed, kChanged);
    std::vector<bool> touched(static_cast<size_t>(areas.count()), false);
    const int count = static_cast<int>(points.size());
    for (int i = 0; i + 1 < count; i += 2) {
      const int c = areas.componentAt(points.at(i), points.at(i + 1));
      if (c >= 0) touched[c] = true;
    }
    areas.paint(changed, touched, kReached);
  }

  // Everything else reverts to the previous result.
  for (int y = 0; y < mask->height; ++y) {
    unsigned char* m = imageRow(mask, y);
    const unsigned char* p = imageRow(prev, y);
    const unsigned char* c = imageRow(changed, y);
    for (int x = 0; x < mask->width; ++x) m[x] = c[x] == kReached ? v : p[x];
  }
}
