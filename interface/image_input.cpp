// The photo, the marker grid and the stroke cross the library boundary here.
#include <android/log.h>
#include <opencv2/core/core_c.h>

#include <climits>
#include <vector>

#include "interface/boundary.h"
#include "interface/context.h"
#include "interface/image_io.h"
#include "interface/segmentation_core.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"
#include "support/image_rows.h"
#include "support/owned.h"
#include "support/size_check.h"
#include "support/slices.h"

namespace {
void convertRows(const unsigned int* pixels, int width, IplImage* image, int y0, int y1) {
  for (int y = y0; y < y1; ++y) {
    unsigned char* row = imageRow(image, y);
    const unsigned int* in = pixels + static_cast<size_t>(y) * width;
    for (int x = 0; x < width; ++x) {
      const unsigned int v = in[x];
      row[3 * x] = static_cast<unsigned char>(v & 0xFF);
      row[3 * x + 1] = static_cast<unsigned char>((v >> 8) & 0xFF);
      row[3 * x + 2] = static_cast<unsigned char>((v >> 16) & 0xFF);
    }
  }
}
}  // namespace

bool fitsAnImage(int width, int height, int bytesPerPixel) {
  const long long rowBytes = (static_cast<long long>(width) * bytesPerPixel + 3) / 4 * 4;
  return rowBytes <= INT_MAX && rowBytes * height <= INT_MAX;
}

int storeSourceImage(int width, int height, unsigned int* pixels) {
  checkImageSize(width, height, "setSourceImage", 115);
  // An empty photo is stored (nothing to copy) as it always was; a negative
  // size cannot be.
  if (width < 0 || height < 0) boundary::refuse("photo size %d x %d", width, height);
  if (pixels == nullptr && width > 0 && height > 0) boundary::refuse("null pixel buffer");
  if (!fitsAnImage(width, height, 3)) boundary::refuse("photo of %d x %d pixels is too large", width, height);
  owned::Image image = owned::Image::create(cvSize(width, height), IPL_DEPTH_8U, 3);
  if (width >= 1 && height >= 1) {
    // Row slices side by side: the copy is the first touch of its pages.
    IplImage* target = image.get();
    slices::forSlices(height, static_cast<long>(width) * height,
                      [&](int y0, int y1) { convertRows(pixels, width, target, y0, y1); });
  }
  // The history is sized from the stored size; should it not fit, the photo
  // and the history stay as they were.
  const int oldWidth = VELDSEMarker::m_originalWidth;
  const int oldHeight = VELDSEMarker::m_originalHeight;
  unsigned int** const oldPlanes = VELDSEManageUndoRedo::m_bitPlane;
  const int oldPlaneWidth = VELDSEManageUndoRedo::width;
  VELDSEMarker::m_originalWidth = image->width;
  VELDSEMarker::m_originalHeight = image->height;
  try {
    VELDSEManageUndoRedo::allocate();
  } catch (...) {
    VELDSEMarker::m_originalWidth = oldWidth;
    VELDSEMarker::m_originalHeight = oldHeight;
    throw;
  }
  // A photo stored over another (without a teardown in between) replaces it
  // and its history; nothing else refers to them, so they are released
  // rather than lost.
  releaseHistoryPlanes(oldPlanes, oldPlaneWidth);
  releaseImage(VELDSEMarker::m_originalImage);
  VELDSEMarker::m_originalImage = image.release();
  ++context::photoGeneration;
  return 0;
}

int setSourceImage(int width, int height, unsigned int* pixels) {
  return boundary::guardCall("setSourceImage", [&] { return storeSourceImage(width, height, pixels); });
}

void copySourceImage(unsigned int* out) {
  boundary::guardVoidCall("copySourceImage", [&] {
    if (out == nullptr && VELDSEMarker::m_originalImage != nullptr) boundary::refuse("null output buffer");
    writePlainPhoto(out);
  });
}

void writePlainPhoto(unsigned int* out) {
  const IplImage* image = VELDSEMarker::m_originalImage;
  if (image == nullptr || image->width < 1 || image->height < 1) return;
  const int width = image->width;
  for (int y = 0; y < image->height; ++y) {
    const unsigned char* row = imageRow(image, y);
    unsigned int* o = out + static_cast<size_t>(y) * width;
    for (int x = 0; x < width; ++x) {
      o[x] = 0xFF000000u | row[3 * x] | (static_cast<unsigned int>(row[3 * x + 1]) << 8) |
             (static_cast<unsigned int>(row[3 * x + 2]) << 16);
    }
  }
}

int storeMarkerImage(int width, int height, int* markers, int strokeType) {
  checkImageSize(width, height, "setMarkerImage", 164);
  checkImageSize(width, height, "setMarkerImage", 173);
  if (width < 0 || height < 0) boundary::refuse("marker grid size %d x %d", width, height);
  if (markers == nullptr && width > 0 && height > 0) boundary::refuse("null marker buffer");
  if (!fitsAnImage(width, height, 4)) boundary::refuse("marker grid of %d x %d is too large", width, height);
  if (strokeType < 0 || strokeType > 3) boundary::refuse("marking mode %d (0 to 3)", strokeType);
  // A header over the caller's ints: converted to bytes (rounded, saturated)
  // without copying them first.
  CvMat header = cvMat(height, width, CV_32SC1, markers);
  owned::Image converted = owned::Image::create(cvSize(width, height), IPL_DEPTH_8U, 1);
  if (width >= 1 && height >= 1) {
    // Row slices side by side, each through its own rows of both images.
    IplImage* target = converted.get();
    slices::forSlices(height, static_cast<long>(width) * height, [&](int y0, int y1) {
      CvMat in, out;
      cvGetRows(&header, &in, y0, y1);
      cvGetRows(target, &out, y0, y1);
      cvConvertScale(&in, &out, 1.0, 0.0);
    });
  }
  // Grids handed over twice without a request in between: the newer one
  // counts, and the older one is released rather than lost.
  releaseImage(g_markerImage);
  g_markerImage = converted.release();
  VELDSEMarker::currentStroke.strokeType = strokeType;
  return 0;
}

int setMarkerImage(int width, int height, int* markers, int strokeType) {
  return boundary::guardCall("setMarkerImage",
                             [&] { return storeMarkerImage(width, height, markers, strokeType); });
}

int storeMarkerVector(int count, int* coords) {
  if (count > 0 && coords == nullptr) boundary::refuse("null point list");
  if (count > 0 && count % 2 != 0) boundary::refuse("odd count %d (two ints per point)", count);
  std::vector<int>& points = VELDSEMarker::currentStroke.points;
  // Storage for the new points is had before the old ones go.
  if (count > static_cast<int>(points.capacity())) {
    std::vector<int> exact;
    exact.reserve(static_cast<size_t>(count));
    points.swap(exact);
  }
  points.clear();
  if (count < 1) return 0;
  const int maxX = VELDSEMarker::m_originalWidth - 1;
  const int maxY = VELDSEMarker::m_originalHeight - 1;
  for (int i = 0; i < count; i += 2) {
    int x = coords[i];
    int y = coords[i + 1];
    if (x < 0) x = coords[i] = 0;
    if (y < 0) y = coords[i + 1] = 0;
    if (x > maxX) x = coords[i] = maxX;
    if (y > maxY) y = coords[i + 1] = maxY;
    points.push_back(x);
    points.push_back(y);
  }
  return 0;
}

int setCurrentMarkerVector(int count, int* coords) {
  return boundary::guardCall("setCurrentMarkerVector", [&] { return storeMarkerVector(count, coords); });
}
