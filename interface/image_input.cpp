// The photo, the marker grid and the stroke cross the library boundary here.
#include <android/log.h>
#include <opencv2/core/core_c.h>

#include <algorithm>
#include <system_error>
#include <thread>
#include <vector>

#include "interface/segmentation_core.h"
#include "interface/image_io.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"

namespace {
void logSizeError(const char* function, int line) {
  __android_log_print(ANDROID_LOG_ERROR, "Error", "MEMORY_CRASH : %s %d", function, line);
}

// Photos of at least this many pixels are converted on several threads (at
// most four): the copy is the first touch of its pages, and the kernel's page
// clearing then runs on every core instead of one.
const long kParallelPixels = 1L << 20;

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

void convertPhoto(const unsigned int* pixels, int width, int height, IplImage* image) {
  int slices = 1;
  if (static_cast<long>(width) * height >= kParallelPixels) {
    slices = std::max(1, std::min({4, height, static_cast<int>(std::thread::hardware_concurrency())}));
  }
  std::vector<std::thread> workers;
  int started = 1;  // slice 0 runs here, after the others have started
  for (; started < slices; ++started) {
    try {
      workers.emplace_back(convertRows, pixels, width, image, static_cast<int>(static_cast<long>(height) * started / slices),
                           static_cast<int>(static_cast<long>(height) * (started + 1) / slices));
    } catch (const std::system_error&) {
      break;  // no more threads: the rest runs here
    }
  }
  convertRows(pixels, width, image, 0, static_cast<int>(static_cast<long>(height) / slices));
  convertRows(pixels, width, image, static_cast<int>(static_cast<long>(height) * started / slices), height);
  for (std::thread& w : workers) w.join();
}
}  // namespace

int setSourceImage(int width, int height, unsigned int* pixels) {
  if (width < 1 || height < 1) logSizeError("setSourceImage", 115);
  IplImage* image = cvCreateImage(cvSize(width, height), IPL_DEPTH_8U, 3);
  if (width >= 1 && height >= 1) convertPhoto(pixels, width, height, image);
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
  cvConvertScale(header, g_markerImage, 1.0, 0.0);
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
