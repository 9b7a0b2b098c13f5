// Start, reset, cancel and end of a context.
//
// Cancel protocol: another caller thread may call cancelSegmentation() and then
// exitSegmentation() while a request runs. The engine polls m_exitApp and stops
// the running cut; at its end the request tears the context down when both
// m_exitApp and g_exitStatus are set. exitSegmentation() only arms the exit
// when a cancel came first.
#include <android/log.h>
#include <opencv2/core/core_c.h>

#include "engine/veldse_hybrid.h"
#include "interface/segmentation_core.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"

namespace {

void releaseImage(IplImage*& image) {
  if (image != nullptr) cvReleaseImage(&image);
}

// The outline lives in `storage`: once the storage is gone, an outline that
// was not fetched yet must not be handed out any more.
void releaseOutline() {
  if (storage != nullptr) cvReleaseMemStorage(&storage);
  storage = nullptr;
  contours = nullptr;
  g_contoursReady = 0;
}

}  // namespace

// Needs the photo (setSourceImage) first: the engine builds its working image
// from it; without one the call is refused (logged, -1, nothing created). An
// engine that already exists is not released here.
int initSegmentationEngine(int /*unused*/) {
  if (VELDSEMarker::m_originalImage == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "%s: no photo (setSourceImage first)",
                        "initSegmentationEngine");
    return -1;
  }
  g_imageResizeFactor = 1.0f;
  pHybrid = new VELDSEHybrid;
  VELDSEMarker::initializer();
  pHybrid->intializer();
  return 0;
}

int deinitSegmentation() {
  releaseOutline();
  VELDSEMarker::dellocator();
  VELDSEManageUndoRedo::deallocate();
  if (pHybrid != nullptr) {
    delete pHybrid;
    pHybrid = nullptr;
  }
  return 0;
}

// Forgets the marks and the history; the photo, the working images and the
// engine (with its neighbour weights) stay.
int resetSegmentationInterface() {
  VELDSEMarker::resetMarkers();
  VELDSEManageUndoRedo::reset();
  releaseOutline();
  return 0;
}

int cancelSegmentation() {
  VELDSEMarker::m_exitApp.store(true);
  return 1;
}

int exitSegmentation() {
  const int status = VELDSEMarker::m_exitApp.load() ? 1 : 0;
  g_exitStatus.store(status);
  return status;
}

void freeLocalBuffers() {
  releaseImage(g_resultMask);
  releaseImage(g_markerImage);
}
