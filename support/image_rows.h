// Row pointers into IplImages.
//
// Hot loops walk images a row at a time through these instead of per-pixel
// accessors (cvGet2D and the like): one multiply per row, then plain pointer
// arithmetic along it.
#ifndef SEGCORE_SUPPORT_IMAGE_ROWS_H
#define SEGCORE_SUPPORT_IMAGE_ROWS_H

#include <opencv2/core/core_c.h>

// Row y of image as a pointer to its element type T (unsigned char by
// default; int for IPL_DEPTH_32S, float for IPL_DEPTH_32F).
// Reads: image's imageData and widthStep only. Writes nothing. No bounds
// check: y must lie in [0, height). The offset is computed in long, so rows
// past 2 GB of a large image are reached where long is 64 bits. O(1).
template <typename T = unsigned char>
inline T* imageRow(IplImage* image, int y) {
  return reinterpret_cast<T*>(image->imageData + static_cast<long>(y) * image->widthStep);
}

template <typename T = unsigned char>
inline const T* imageRow(const IplImage* image, int y) {
  return reinterpret_cast<const T*>(image->imageData + static_cast<long>(y) * image->widthStep);
}

#endif
