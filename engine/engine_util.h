// Small helpers shared by the engine's stages.
#ifndef SEGCORE_ENGINE_ENGINE_UTIL_H
#define SEGCORE_ENGINE_ENGINE_UTIL_H

#include <android/log.h>
#include <opencv2/core/core_c.h>

// Row y of an image as a pointer to its element type. Hot loops walk images
// through these instead of per-pixel accessors.
template <typename T = unsigned char>
inline T* imageRow(IplImage* image, int y) {
  return reinterpret_cast<T*>(image->imageData + static_cast<long>(y) * image->widthStep);
}

template <typename T = unsigned char>
inline const T* imageRow(const IplImage* image, int y) {
  return reinterpret_cast<const T*>(image->imageData + static_cast<long>(y) * image->widthStep);
}

// The engine does not stop on a degenerate size: it reports it under a fixed
// tag (function name and a line number) and carries on.
inline void logMemoryCrash(const char* function, int line) {
  __android_log_print(ANDROID_LOG_ERROR, "Error", "MEMORY_CRASH : %s %d", function, line);
}

// Logs the size problem first when width or height is below 1.
inline void checkImageSize(int width, int height, const char* function, int line) {
  if (width < 1 || height < 1) logMemoryCrash(function, line);
}

#endif
