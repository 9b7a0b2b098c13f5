// The photo, the marker grid and the stroke cross the library boundary here.
#include <android/log.h>
#include <opencv2/core/core_c.h>

#include "interface/segmentation_core.h"
#include "interface/image_io.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"
#include "support/slices.h"

namespace {
void logSizeError(const char* function, int line) {
  __android_log_print(ANDROID_LOG_ERROR, "Error", "MEMORY_CRASH : %s %d", function, line);
}

void convertRows(const unsigned int* pixels, int width, IplImage* image, int y0, int y1) {
  for (int y = y0; y < y1; ++y) {
    unsigned char* row = reinterpret_cast<unsigned char*>(image->imageData + static_cast<size_t>(y) * image->widthStep);
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

int setSourceImage(int width, int height, unsigned int* pixels) {
  if (width < 1 || height < 1) logSizeError("setSourceImage", 115);
  IplImage* image = cvCreateImage(cvSize(width, height), IPL_DEPTH_8U, 3);
  if (width >= 1 && height >= 1) {
    // Row slices side by side: the copy is the first touch of its pages.
    slices::forSlices(height, static_cast<long>(width) * height,
                      [&](int y0, int y1) { convertRows(pixels, width, image, y0, y1); });
  }
  VELDSEMarker::m_originalWidth = image->width;
  VELDSEMarker::m_originalHeight = image->height;
  VELDSEMarker::m_originalImage = image;
  VELDSEManageUndoRedo::allocate();
  return 0;
}

void copySourceImage(unsigned int* out) {
  writePlainPhoto(out);
}

void writePlainPhoto(unsigned int* out) {
  const IplImage* image = VELDSEMarker::m_originalImage;
  if (image == nullptr || image->width < 1 || image->height < 1) return;
  const int width = image->width;
  for (int y = 0; y < image->height; ++y) {
    const unsigned char* row =
        reinterpret_cast<const unsigned char*>(image->imageData + y * image->widthStep);
    unsigned int* o = out + static_cast<size_t>(y) * width;
    for (int x = 0; x < width; ++x) {
      o[x] = 0xFF000000u | row[3 * x] | (static_cast<unsigned int>(row[3 * x + 1]) << 8) |
             (static_cast<unsigned int>(row[3 * x + 2]) << 16);
    }
  }
}

int setMarkerImage(int width, int height, int* markers, int strokeType) {
  if (width < 1 || height < 1) logSizeError("setMarkerImage", 164);
  // A header over the caller's ints: converted to bytes (rounded, saturated)
  // without copying them first.
  IplImage* header = cvCreateImageHeader(cvSize(width, height), IPL_DEPTH_32S, 1);
  cvSetData(header, markers, width * static_cast<int>(sizeof(int)));
  if (width < 1 || height < 1) logSizeError("setMarkerImage", 173);
  g_markerImage = cvCreateImage(cvSize(width, height), IPL_DEPTH_8U, 1);
  if (width >= 1 && height >= 1) {
    // Row slices side by side, each through its own rows of both images.
    slices::forSlices(height, static_cast<long>(width) * height, [&](int y0, int y1) {
      CvMat in, out;
      cvGetRows(header, &in, y0, y1);
      cvGetRows(g_markerImage, &out, y0, y1);
      cvConvertScale(&in, &out, 1.0, 0.0);
    });
  } else {
    cvConvertScale(header, g_markerImage, 1.0, 0.0);
  }
  cvReleaseImageHeader(&header);
  VELDSEMarker::currentStroke.strokeType = strokeType;
  return 0;
}

int setCurrentMarkerVector(int count, int* coords) {
  std::vector<int>& points = VELDSEMarker::currentStroke.points;
  points.clear();
  if (count > static_cast<int>(points.capacity())) {
    std::vector<int> exact;
    exact.reserve(static_cast<size_t>(count));
    points.swap(exact);
  }
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
