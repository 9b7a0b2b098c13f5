// Requests of the app and the delivery of their results: a cut from the
// current marks, a rectangle selection on a fresh context, a stroke edit of
// the last mask without a cut, the outline, and the history steps.
//
// Every request ends with the exit check: when the app asked to cancel and
// then to exit while the request ran (from another thread), the context is
// torn down before the call returns.
#include <android/log.h>
#include <opencv2/core/core_c.h>
#include <opencv2/imgproc/imgproc_c.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "engine/veldse_hybrid.h"
#include "interface/image_io.h"
#include "interface/segmentation_core.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"
#include "support/slices.h"

namespace {

inline unsigned char* row8(IplImage* image, int y) {
  return reinterpret_cast<unsigned char*>(image->imageData + y * image->widthStep);
}

void releaseImage(IplImage*& image) {
  if (image != nullptr) cvReleaseImage(&image);
}

// The box round every point of the outline, grown by a margin that holds the
// drawn line (2 pixels wide, anti-aliased) and clipped to the image; empty
// without an outline.
CvRect outlineBox(CvSeq* first, int width, int height) {
  constexpr int kMargin = 4;
  int x0 = INT_MAX, y0 = INT_MAX, x1 = INT_MIN, y1 = INT_MIN;
  for (CvSeq* c = first; c != nullptr; c = c->h_next) {
    CvSeqReader reader;
    cvStartReadSeq(c, &reader, 0);
    for (int k = 0; k < c->total; ++k) {
      CvPoint p;
      CV_READ_SEQ_ELEM(p, reader);
      x0 = std::min(x0, p.x);
      y0 = std::min(y0, p.y);
      x1 = std::max(x1, p.x);
      y1 = std::max(y1, p.y);
    }
  }
  if (x0 > x1) return cvRect(0, 0, 0, 0);
  x0 = std::max(0, x0 - kMargin);
  y0 = std::max(0, y0 - kMargin);
  x1 = std::min(width - 1, x1 + kMargin);
  y1 = std::min(height - 1, y1 + kMargin);
  return cvRect(x0, y0, x1 - x0 + 1, y1 - y0 + 1);
}

// A request needs a context: the photo and its mask history, and for a cut
// the engine. After a cancel-and-exit the context is torn down at the end of
// the running request - cutOutImage, undo and redo still return 0 then - so
// the bridge can send a request into nothing. Such a request is refused:
// logged, -1, buffers left alone. Like every request it still consumes the
// marker image handed over for it: the bridge sends a fresh one with the next
// request, and setMarkerImage takes the global without looking at it.
bool refusedWithoutContext(const char* function, bool needsEngine) {
  if (VELDSEMarker::m_originalImage != nullptr && VELDSEManageUndoRedo::m_bitPlane != nullptr &&
      (!needsEngine || pHybrid != nullptr)) {
    return false;
  }
  __android_log_print(ANDROID_LOG_ERROR, "Error", "%s: no segmentation context", function);
  releaseImage(g_markerImage);
  return true;
}

bool exitRequested() {
  return g_exitStatus.load() != 0 && VELDSEMarker::m_exitApp.load();
}

// Shared by undo and redo: deliver the history's answer, or the plain photo.
int deliverHistoryStep(IplImage* step, unsigned int* blended, unsigned char* mask) {
  g_resultMask = step;
  if (g_resultMask != nullptr) {
    loadMaskImageInfo(mask);
    loadBlendedImageInfo(blended);
    releaseImage(g_resultMask);
  } else {
    writePlainPhoto(blended);
  }
  releaseImage(g_markerImage);
  if (exitRequested()) deinitSegmentation();
  g_exitStatus = 0;
  return 0;
}

}  // namespace

int processSegment(int, int, int, unsigned int* blended, unsigned char* mask) {
  if (refusedWithoutContext("processSegment", true)) return -1;
  if (g_markerImage != nullptr) {
    pHybrid->setLabelImage(g_markerImage);
    g_resultMask = pHybrid->segment();
    if (g_resultMask != nullptr) loadMaskImageInfo(mask);
  }
  if (g_resultMask != nullptr) {
    loadBlendedImageInfo(blended);
    releaseImage(g_resultMask);
  } else {
    // Abandoned cut: the photo without an outline; the mask stays as it was.
    writePlainPhoto(blended);
  }
  releaseImage(g_markerImage);
  if (exitRequested()) {
    // The exit status stays set so that the app's bridge can tell.
    deinitSegmentation();
    return -1;
  }
  g_exitStatus = 0;
  return 0;
}

int doSegmentationBB(int width, int height, unsigned int* pixels, int x1, int y1, int x2, int y2,
                     unsigned char* mask) {
  // The outline is painted into a private copy of the photo; only the mask
  // goes back to the caller.
  const size_t pixelCount = static_cast<size_t>(width > 0 ? width : 0) * (height > 0 ? height : 0);
  unsigned int* blended = static_cast<unsigned int*>(malloc(pixelCount * 4));
  if (pixelCount > 0) memcpy(blended, pixels, pixelCount * 4);

  // The rectangle's border, clockwise from the top-left corner, as a loop.
  const int across = x2 > x1 ? x2 - x1 : 0;
  const int down = y2 > y1 ? y2 - y1 : 0;
  const int pointCount = 2 * (across + down);
  int* points = static_cast<int*>(malloc(static_cast<size_t>(2 * pointCount) * sizeof(int)));
  int n = 0;
  for (int x = x1; x < x2; ++x) { points[n++] = x;  points[n++] = y1; }
  for (int y = y1; y < y2; ++y) { points[n++] = x2; points[n++] = y; }
  for (int x = x2; x > x1; --x) { points[n++] = x;  points[n++] = y2; }
  for (int y = y2; y > y1; --y) { points[n++] = x1; points[n++] = y; }

  int* markers = static_cast<int*>(calloc(pixelCount, sizeof(int)));
  if (x2 >= x1 && y2 >= y1) {
    const int xEnd = x2 < width ? x2 : width - 1;
    const int yEnd = y2 < height ? y2 : height - 1;
    for (int y = y1 > 0 ? y1 : 0; y <= yEnd; ++y) {
      for (int x = x1 > 0 ? x1 : 0; x <= xEnd; ++x) {
        markers[static_cast<size_t>(y) * width + x] = LABEL_PR_FG;
      }
    }
  }

  // A rectangle always starts a new context on the given photo.
  deinitSegmentation();
  VELDSEMarker::resetMarkers();
  VELDSEManageUndoRedo::reset();
  if (storage != nullptr) cvReleaseMemStorage(&storage);

  setSourceImage(width, height, pixels);
  g_imageResizeFactor = 1.0f;
  pHybrid = new VELDSEHybrid;
  VELDSEMarker::initializer();
  pHybrid->intializer();

  setCurrentMarkerVector(n, points);
  setMarkerImage(width, height, markers, 0);
  processSegment(0, 0, 0, blended, mask);

  free(markers);
  free(points);
  free(blended);
  return 0;
}

int cutOutImage(int, int, int, unsigned int* blended, unsigned char* mask) {
  if (refusedWithoutContext("cutOutImage", false)) return -1;
  const int width = VELDSEMarker::m_originalWidth;
  const int height = VELDSEMarker::m_originalHeight;
  if (width < 1 || height < 1) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "MEMORY_CRASH : %s %d", "cutOutImage", 197);
  }
  g_resultMask = cvCreateImage(cvSize(width, height), IPL_DEPTH_8U, 1);
  // Without a previous mask the image is deliberately left as created: the app
  // only offers editing once there is a result.
  IplImage* previous = VELDSEManageUndoRedo::prevMask();
  if (previous != nullptr) {
    for (int y = 0; y < height; ++y) memcpy(row8(g_resultMask, y), row8(previous, y), width);
    cvReleaseImage(&previous);
  }
  if (g_markerImage != nullptr) {
    for (int y = 0; y < height; ++y) {
      const unsigned char* marker = row8(g_markerImage, y);
      unsigned char* out = row8(g_resultMask, y);
      for (int x = 0; x < width; ++x) {
        if (marker[x] == LABEL_FG) {
          out[x] = 255;
        } else if (marker[x] == LABEL_BG) {
          out[x] = 0;
        }
      }
    }
  }
  VELDSEManageUndoRedo::updateBitPlane(g_resultMask);
  if (mask != nullptr) loadMaskImageInfo(mask);
  if (blended != nullptr) loadBlendedImageInfo(blended);
  releaseImage(g_resultMask);
  releaseImage(g_markerImage);
  if (exitRequested()) deinitSegmentation();
  g_exitStatus = 0;
  return 0;
}

void loadMaskImageInfo(unsigned char* mask) {
  const int width = g_resultMask->width;
  const int height = g_resultMask->height;
  // Each pixel on its own, so row slices may run side by side.
  slices::forSlices(height, static_cast<long>(width) * height, [&](int y0, int y1) {
    for (int y = y0; y < y1; ++y) {
      const unsigned char* in = row8(g_resultMask, y);
      unsigned char* out = mask + static_cast<size_t>(y) * width;
      for (int x = 0; x < width; ++x) out[x] = in[x] == 255 ? 0 : 255;
    }
  });
}

void loadBlendedImageInfo(unsigned int* blended) {
  const int width = g_resultMask->width;
  const int height = g_resultMask->height;
  if (width < 1 || height < 1) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "MEMORY_CRASH : %s %d", "loadBlendedImageInfo",
                        493);
  }
  if (storage != nullptr) cvReleaseMemStorage(&storage);
  storage = cvCreateMemStorage(0);
  contours = nullptr;

  // The contour search writes into its image, so it runs on a copy of the
  // mask; the same buffer, cleared, then takes the drawn outline.
  IplImage* outline = cvCloneImage(g_resultMask);
  cvFindContours(outline, storage, &contours, sizeof(CvContour), CV_RETR_LIST, CV_CHAIN_APPROX_SIMPLE,
                 cvPoint(0, 0));
  // Every object pixel lies within the box round the outline's points, so the
  // searched copy is zero outside it already, and the drawn line stays within
  // the margin: only the box needs clearing and painting.
  const CvRect box = outlineBox(contours, width, height);
  if (box.width > 0) {
    cvSetImageROI(outline, box);
    cvSetZero(outline);
    cvResetImageROI(outline);
  }
  cvDrawContours(outline, contours, cvScalarAll(255), cvScalarAll(255), 255, 2, CV_AA,
                 cvPoint(0, 0));
  if (contours != nullptr) g_contoursReady = 1;

  // Only the solid core of the anti-aliased line is painted; its fringe would
  // blend yellow into the photo.
  slices::forSlices(box.height, static_cast<long>(box.width) * box.height, [&](int r0, int r1) {
    for (int y = box.y + r0; y < box.y + r1; ++y) {
      const unsigned char* o = row8(outline, y);
      unsigned int* out = blended + static_cast<size_t>(y) * width;
      for (int x = box.x; x < box.x + box.width; ++x) {
        if (o[x] == 255) out[x] = 0xFFFFFF00u;
      }
    }
  });
  cvReleaseImage(&outline);
}

int fetch_path_array(int** array, int* count) {
  if (g_contoursReady == 1 && contours != nullptr) {
    int contourCount = 0;
    int pointTotal = 0;
    for (CvSeq* c = contours; c != nullptr; c = c->h_next) {
      ++contourCount;
      pointTotal += c->total;
    }
    *count = 2 * (contourCount + pointTotal) + 1;
    int* out = new int[*count];
    int n = 0;
    out[n++] = contourCount;
    for (CvSeq* c = contours; c != nullptr; c = c->h_next) {
      out[n++] = c->total;
      CvSeqReader reader;
      cvStartReadSeq(c, &reader, 0);
      for (int i = 0; i < c->total; ++i) {
        CvPoint p;
        CV_READ_SEQ_ELEM(p, reader);
        out[n++] = p.x;
        out[n++] = p.y;
      }
      out[n++] = -1;
    }
    *array = out;
  } else {
    *count = 1;
    *array = new int[1];
    (*array)[0] = 0;
  }
  // Delivered once; the storage is released by the next outline or teardown.
  contours = nullptr;
  g_contoursReady = 0;
  return 0;
}

int undo(unsigned int* blended, unsigned char* mask) {
  if (refusedWithoutContext("undo", false)) return -1;
  return deliverHistoryStep(VELDSEManageUndoRedo::undo(), blended, mask);
}

int redo(unsigned int* blended, unsigned char* mask) {
  if (refusedWithoutContext("redo", false)) return -1;
  return deliverHistoryStep(VELDSEManageUndoRedo::redo(), blended, mask);
}

int canUndo() { return VELDSEManageUndoRedo::canUndo() ? 1 : 0; }

int canRedo() { return VELDSEManageUndoRedo::canRedo() ? 1 : 0; }
