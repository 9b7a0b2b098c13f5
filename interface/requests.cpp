// Requests of the app and the delivery of their results: a cut from the
// current marks, a rectangle selection on a fresh context, a stroke edit of
// the last mask without a cut, the outline, and the history steps.
//
// Every request ends with the exit check: when the app asked to cancel and
// then to exit while the request ran (from another thread), the context is
// torn down before the call returns.
//
// A request runs in three stages: checks (refusals change nothing but the
// consumed marks), the work (which may run out of memory: the history and
// flags it changed are rolled back, its images released), and the delivery
// into the caller's buffers, which starts only once everything it needs has
// been allocated, so a failed request leaves the caller's buffers as well as
// the context as they were.
#include <android/log.h>
#include <opencv2/core/core_c.h>
#include <opencv2/imgproc/imgproc_c.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <cstdint>
#include <vector>

#include "engine/veldse_hybrid.h"
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
#include "support/stage_marks.h"

namespace {

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
// the bridge can send a request into nothing. Such a request is refused. Like
// every request it still consumes the marker image handed over for it (the
// request's RequestImages, declared before these checks, releases it): the
// bridge sends a fresh one with the next request.
void requireContext(bool needsEngine) {
  if (VELDSEMarker::m_originalImage == nullptr || VELDSEManageUndoRedo::m_bitPlane == nullptr ||
      (needsEngine && pHybrid == nullptr)) {
    boundary::refuse("no segmentation context");
  }
  if (VELDSEMarker::m_originalWidth < 1 || VELDSEMarker::m_originalHeight < 1) {
    boundary::refuse("empty photo (%d x %d)", VELDSEMarker::m_originalWidth, VELDSEMarker::m_originalHeight);
  }
  if (needsEngine && !context::engineFitsPhoto()) {
    boundary::refuse("the engine was built for another photo (initSegmentationEngine first)");
  }
}

// The marks must cover the photo pixel for pixel.
void requireMarkerGridOfThePhoto() {
  if (g_markerImage == nullptr) return;
  if (g_markerImage->width != VELDSEMarker::m_originalWidth ||
      g_markerImage->height != VELDSEMarker::m_originalHeight) {
    boundary::refuse("marker grid %d x %d does not match the photo %d x %d", g_markerImage->width,
                     g_markerImage->height, VELDSEMarker::m_originalWidth, VELDSEMarker::m_originalHeight);
  }
}

void requireBuffer(const void* buffer, const char* what) {
  if (buffer == nullptr) boundary::refuse("null %s buffer", what);
}

bool exitRequested() {
  return g_exitStatus.load() != 0 && VELDSEMarker::m_exitApp.load();
}

// Whatever way a request ends, its marks and its result image are gone
// afterwards: both live for one request only.
struct RequestImages {
  RequestImages() = default;
  RequestImages(const RequestImages&) = delete;
  RequestImages& operator=(const RequestImages&) = delete;
  ~RequestImages() {
    releaseImage(g_resultMask);
    releaseImage(g_markerImage);
  }
};

// The history and the one sticky flag a cut may set, put back when a request
// fails part-way (see HistoryRollback).
class RequestRollback {
 public:
  void commit() {
    history_.commit();
    committed_ = true;
  }
  ~RequestRollback() {
    if (!committed_) VELDSEMarker::m_isHomogenous = homogenous_;
  }

 private:
  HistoryRollback history_;
  bool homogenous_ = VELDSEMarker::m_isHomogenous;
  bool committed_ = false;
};

// --- Result delivery ----------------------------------------------------------

// The outline of a result mask, found and drawn but not yet handed over.
struct Outline {
  owned::Storage storage;
  CvSeq* contours = nullptr;
  owned::Image drawn;
  CvRect box = cvRect(0, 0, 0, 0);
};

// Finds the outline of `result` and draws it (everything that needs memory).
void findOutline(const IplImage* result, Outline& outline) {
  const int width = result->width;
  const int height = result->height;
  checkImageSize(width, height, "loadBlendedImageInfo", 493);
  outline.storage.reset(owned::Storage::create(0));
  // The contour search writes into its image, so it runs on a copy of the
  // mask; the same buffer, cleared, then takes the drawn outline.
  outline.drawn = owned::Image::clone(result);
  cvFindContours(outline.drawn.get(), outline.storage.get(), &outline.contours, sizeof(CvContour),
                 CV_RETR_LIST, CV_CHAIN_APPROX_SIMPLE, cvPoint(0, 0));
  // Every object pixel lies within the box round the outline's points, so the
  // searched copy is zero outside it already, and the drawn line stays within
  // the margin: only the box needs clearing and painting.
  outline.box = outlineBox(outline.contours, width, height);
  if (outline.box.width > 0) {
    cvSetImageROI(outline.drawn.get(), outline.box);
    cvSetZero(outline.drawn.get());
    cvResetImageROI(outline.drawn.get());
  }
  cvDrawContours(outline.drawn.get(), outline.contours, cvScalarAll(255), cvScalarAll(255), 255, 2, CV_AA,
                 cvPoint(0, 0));
}

// Paints the outline into the caller's preview and makes it the one that
// fetch_path_array hands over. Allocates nothing.
void deliverOutline(Outline& outline, unsigned int* blended) {
  const int width = outline.drawn->width;
  const CvRect box = outline.box;
  const IplImage* drawn = outline.drawn.get();
  // Only the solid core of the anti-aliased line is painted; its fringe would
  // blend yellow into the photo.
  slices::forSlices(box.height, static_cast<long>(box.width) * box.height, [&](int r0, int r1) {
    for (int y = box.y + r0; y < box.y + r1; ++y) {
      const unsigned char* o = imageRow(drawn, y);
      unsigned int* out = blended + static_cast<size_t>(y) * width;
      for (int x = box.x; x < box.x + box.width; ++x) {
        if (o[x] == 255) out[x] = 0xFFFFFF00u;
      }
    }
  });
  if (storage != nullptr) cvReleaseMemStorage(&storage);
  storage = outline.storage.release();
  contours = outline.contours;
  if (contours != nullptr) g_contoursReady = 1;
}

// The caller's inverted mask. Allocates nothing.
void deliverMask(const IplImage* result, unsigned char* mask) {
  const int width = result->width;
  const int height = result->height;
  // Each pixel on its own, so row slices may run side by side.
  slices::forSlices(height, static_cast<long>(width) * height, [&](int y0, int y1) {
    for (int y = y0; y < y1; ++y) {
      const unsigned char* in = imageRow(result, y);
      unsigned char* out = mask + static_cast<size_t>(y) * width;
      for (int x = 0; x < width; ++x) out[x] = in[x] == 255 ? 0 : 255;
    }
  });
}

// Mask first, then the preview with its outline, as a result always goes out;
// either buffer may be null. The outline is found before anything is written.
void deliverResult(const IplImage* result, unsigned int* blended, unsigned char* mask) {
  Outline outline;
  if (blended != nullptr) findOutline(result, outline);
  if (mask != nullptr) deliverMask(result, mask);
  if (blended != nullptr) deliverOutline(outline, blended);
}

// --- Requests ---------------------------------------------------------------------

// The end of every request: when a cancel and an exit arrived while it ran,
// the context is torn down.
int exitCheck(bool keepExitStatus) {
  if (exitRequested()) {
    deinitSegmentation();
    // processSegment leaves the exit status set so that the app's bridge can tell.
    if (keepExitStatus) return -1;
  }
  g_exitStatus = 0;
  return 0;
}

// The end shared by a cut and a history step: the result delivered or, with
// none (an abandoned cut, a step back to the photo), the plain photo without
// an outline and the mask buffer as it was; then the request's changes are
// kept, its images released and the exit check made.
int finishRequest(RequestRollback& rollback, unsigned int* blended, unsigned char* mask,
                  bool keepExitStatus) {
  stagemarks::reached(stagemarks::kOutput);
  if (g_resultMask != nullptr) {
    deliverResult(g_resultMask, blended, mask);
  } else {
    writePlainPhoto(blended);
  }
  rollback.commit();
  releaseImage(g_resultMask);
  releaseImage(g_markerImage);
  return exitCheck(keepExitStatus);
}

int runSegment(unsigned int* blended, unsigned char* mask) {
  RequestImages images;
  requireContext(true);
  requireBuffer(blended, "blended");
  requireBuffer(mask, "mask");
  requireMarkerGridOfThePhoto();

  RequestRollback rollback;
  if (g_markerImage != nullptr) {
    stagemarks::reached(stagemarks::kLabelsBox);
    pHybrid->setLabelImage(g_markerImage);
    g_resultMask = pHybrid->segment();
  }
  return finishRequest(rollback, blended, mask, true);
}

// The rectangle's border, clockwise from the top-left corner, as the points of
// a loop: (x1, y1) .. (x2-1, y1), (x2, y1) .. (x2, y2-1), (x2, y2) ..
// (x1+1, y2), (x1, y2) .. (x1, y1+1). The points are clamped to the photo when
// they are stored; a rectangle reaching far outside the photo would give a
// list of mostly repeated points, so beyond kMaxListedInts ints the walk is
// clamped here and a point equal to the one before it is left out (the loop
// drawn through the points and their box are the same).
std::vector<int> rectangleBorder(int width, int height, int x1, int y1, int x2, int y2) {
  constexpr long long kMaxListedInts = 1LL << 24;
  const long long across = x2 > x1 ? static_cast<long long>(x2) - x1 : 0;
  const long long down = y2 > y1 ? static_cast<long long>(y2) - y1 : 0;
  const long long ints = 4 * (across + down);
  const bool clamp = ints > kMaxListedInts;
  std::vector<int> points;
  points.reserve(static_cast<size_t>(clamp ? 4 * (static_cast<long long>(width) + height) + 8 : ints));
  auto add = [&](long long x, long long y) {
    if (clamp) {
      x = x < 0 ? 0 : x >= width ? width - 1 : x;
      y = y < 0 ? 0 : y >= height ? height - 1 : y;
      const size_t n = points.size();
      if (n >= 2 && points[n - 2] == x && points[n - 1] == y) return;
    }
    points.push_back(static_cast<int>(x));
    points.push_back(static_cast<int>(y));
  };
  // Along an edge far outside the photo every clamped point repeats: such a
  // run is walked only over the part that lies in the photo (and one step).
  auto walk = [&](long long from, long long to, long long step, long long lo, long long hi, auto point) {
    if (clamp && step > 0) {
      if (from < lo) from = lo;
      if (to > hi + 1) to = hi + 1;
    } else if (clamp) {
      if (from > hi) from = hi;
      if (to < lo - 1) to = lo - 1;
    }
    for (long long v = from; step > 0 ? v < to : v > to; v += step) point(v);
  };
  walk(x1, x2, 1, -1, width, [&](long long x) { add(x, y1); });
  walk(y1, y2, 1, -1, height, [&](long long y) { add(x2, y); });
  walk(x2, x1, -1, -1, width, [&](long long x) { add(x, y2); });
  walk(y2, y1, -1, -1, height, [&](long long y) { add(x1, y); });
  return points;
}

int runRectangle(int width, int height, unsigned int* pixels, int x1, int y1, int x2, int y2,
                 unsigned char* mask) {
  if (width < 1 || height < 1) boundary::refuse("photo size %d x %d", width, height);
  if (pixels == nullptr) boundary::refuse("null pixel buffer");
  if (mask == nullptr) boundary::refuse("null mask buffer");
  if (!fitsAnImage(width, height, 3)) boundary::refuse("photo of %d x %d pixels is too large", width, height);
  const size_t pixelCount = static_cast<size_t>(width) * static_cast<size_t>(height);

  // The outline is painted into a private copy of the photo; only the mask
  // goes back to the caller.
  owned::Malloced<unsigned int> blended(
      needMemory(static_cast<unsigned int*>(malloc(pixelCount * sizeof(unsigned int)))));
  memcpy(blended.get(), pixels, pixelCount * sizeof(unsigned int));
  std::vector<int> points = rectangleBorder(width, height, x1, y1, x2, y2);
  owned::Malloced<int> markers(needMemory(static_cast<int*>(calloc(pixelCount, sizeof(int)))));
  if (x2 >= x1 && y2 >= y1) {
    const int xEnd = x2 < width ? x2 : width - 1;
    const int yEnd = y2 < height ? y2 : height - 1;
    for (int y = y1 > 0 ? y1 : 0; y <= yEnd; ++y) {
      for (int x = x1 > 0 ? x1 : 0; x <= xEnd; ++x) {
        markers[static_cast<long>(y) * width + x] = LABEL_PR_FG;
      }
    }
  }

  // A rectangle always starts a new context on the given photo. From here on
  // a failure leaves no context rather than part of one.
  deinitSegmentation();
  VELDSEMarker::resetMarkers();
  VELDSEManageUndoRedo::reset();
  if (storage != nullptr) cvReleaseMemStorage(&storage);
  try {
    storeSourceImage(width, height, pixels);
    startEngine();
    storeMarkerVector(static_cast<int>(points.size()), points.data());
    storeMarkerImage(width, height, markers.get(), 0);
    runSegment(blended.get(), mask);
  } catch (...) {
    deinitSegmentation();
    releaseImage(g_markerImage);
    throw;
  }
  return 0;
}

int runCutOut(unsigned int* blended, unsigned char* mask) {
  RequestImages images;
  requireContext(false);
  if (g_markerImage == nullptr) boundary::refuse("no marker grid (setMarkerImage first)");
  requireMarkerGridOfThePhoto();

  const int width = VELDSEMarker::m_originalWidth;
  const int height = VELDSEMarker::m_originalHeight;
  RequestRollback rollback;
  g_resultMask = createImage(cvSize(width, height), IPL_DEPTH_8U, 1);
  // Without a previous mask the image is deliberately left as created: the app
  // only offers editing once there is a result.
  owned::Image previous(VELDSEManageUndoRedo::prevMask());
  if (previous) {
    for (int y = 0; y < height; ++y) memcpy(imageRow(g_resultMask, y), imageRow(previous.get(), y), width);
    previous.reset();
  }
  for (int y = 0; y < height; ++y) {
    const unsigned char* marker = imageRow(g_markerImage, y);
    unsigned char* out = imageRow(g_resultMask, y);
    for (int x = 0; x < width; ++x) {
      if (marker[x] == LABEL_FG) {
        out[x] = 255;
      } else if (marker[x] == LABEL_BG) {
        out[x] = 0;
      }
    }
  }
  VELDSEManageUndoRedo::updateBitPlane(g_resultMask);
  deliverResult(g_resultMask, blended, mask);
  rollback.commit();
  releaseImage(g_resultMask);
  releaseImage(g_markerImage);
  exitCheck(false);
  return 0;
}

// Shared by undo and redo: deliver the history's answer, or the plain photo.
template <class Step>
int runHistoryStep(unsigned int* blended, unsigned char* mask, Step step) {
  RequestImages images;
  requireContext(false);
  requireBuffer(blended, "blended");
  requireBuffer(mask, "mask");
  RequestRollback rollback;
  g_resultMask = step();
  return finishRequest(rollback, blended, mask, false);
}

int runFetchPath(int** array, int* count) {
  if (array == nullptr) boundary::refuse("null array pointer");
  if (count == nullptr) boundary::refuse("null count pointer");
  if (g_contoursReady == 1 && contours != nullptr) {
    long long contourCount = 0;
    long long pointTotal = 0;
    for (CvSeq* c = contours; c != nullptr; c = c->h_next) {
      ++contourCount;
      pointTotal += c->total;
    }
    const long long n = 2 * (contourCount + pointTotal) + 1;
    if (n > INT_MAX) throw std::bad_alloc();
    // Had before anything changes: when it cannot be, the outline stays for
    // a later fetch.
    int* out = new int[static_cast<size_t>(n)];
    int k = 0;
    out[k++] = static_cast<int>(contourCount);
    for (CvSeq* c = contours; c != nullptr; c = c->h_next) {
      out[k++] = c->total;
      CvSeqReader reader;
      cvStartReadSeq(c, &reader, 0);
      for (int i = 0; i < c->total; ++i) {
        CvPoint p;
        CV_READ_SEQ_ELEM(p, reader);
        out[k++] = p.x;
        out[k++] = p.y;
      }
      out[k++] = -1;
    }
    *count = static_cast<int>(n);
    *array = out;
  } else {
    int* out = new int[1];
    out[0] = 0;
    *count = 1;
    *array = out;
  }
  // Delivered once; the storage is released by the next outline or teardown.
  contours = nullptr;
  g_contoursReady = 0;
  return 0;
}

}  // namespace

int processSegment(int, int, int, unsigned int* blended, unsigned char* mask) {
  return boundary::guardCall("processSegment", [&] { return runSegment(blended, mask); });
}

int doSegmentationBB(int width, int height, unsigned int* pixels, int x1, int y1, int x2, int y2,
                     unsigned char* mask) {
  return boundary::guardCall("doSegmentationBB",
                             [&] { return runRectangle(width, height, pixels, x1, y1, x2, y2, mask); });
}

int cutOutImage(int, int, int, unsigned int* blended, unsigned char* mask) {
  return boundary::guardCall("cutOutImage", [&] { return runCutOut(blended, mask); });
}

void loadMaskImageInfo(unsigned char* mask) {
  boundary::guardVoidCall("loadMaskImageInfo", [&] {
    if (mask == nullptr) boundary::refuse("null mask buffer");
    if (g_resultMask == nullptr) boundary::refuse("no result held");
    deliverMask(g_resultMask, mask);
  });
}

void loadBlendedImageInfo(unsigned int* blended) {
  boundary::guardVoidCall("loadBlendedImageInfo", [&] {
    if (blended == nullptr) boundary::refuse("null blended buffer");
    if (g_resultMask == nullptr) boundary::refuse("no result held");
    Outline outline;
    findOutline(g_resultMask, outline);
    deliverOutline(outline, blended);
  });
}

int fetch_path_array(int** array, int* count) {
  return boundary::guardCall("fetch_path_array", [&] { return runFetchPath(array, count); });
}

int undo(unsigned int* blended, unsigned char* mask) {
  return boundary::guardCall("undo", [&] {
    return runHistoryStep(blended, mask, [] { return VELDSEManageUndoRedo::undo(); });
  });
}

int redo(unsigned int* blended, unsigned char* mask) {
  return boundary::guardCall("redo", [&] {
    return runHistoryStep(blended, mask, [] { return VELDSEManageUndoRedo::redo(); });
  });
}

int canUndo() { return VELDSEManageUndoRedo::canUndo() ? 1 : 0; }

int canRedo() { return VELDSEManageUndoRedo::canRedo() ? 1 : 0; }
