// Start, reset, cancel and end of a context.
//
// Cancel protocol: another caller thread may call cancelSegmentation() and then
// exitSegmentation() while a request runs. The engine polls m_exitApp and stops
// the running cut; at its end the request tears the context down when both
// m_exitApp and g_exitStatus are set. exitSegmentation() only arms the exit
// when a cancel came first.
#include <android/log.h>
#include <opencv2/core/core_c.h>

#include <memory>

#include "engine/veldse_hybrid.h"
#include "interface/boundary.h"
#include "interface/context.h"
#include "interface/segmentation_core.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"
#include "support/owned.h"

namespace {

// The outline lives in `storage`: once the storage is gone, an outline that
// was not fetched yet must not be handed out any more.
void releaseOutline() {
  if (storage != nullptr) cvReleaseMemStorage(&storage);
  storage = nullptr;
  contours = nullptr;
  g_contoursReady = 0;
}

// What an engine's initialisation changes in the context, kept aside while a
// new engine is built: put back if the build fails, so that the context (and
// an engine already there) goes on as before; released once the new engine
// stands, as its initialisation would have released it.
struct WorkingState {
  float resizeFactor = g_imageResizeFactor;
  IplImage* srcImage = VELDSEMarker::m_srcImage;
  IplImage* texHor = VELDSEMarker::m_texHor;
  IplImage* texVer = VELDSEMarker::m_texVer;
  IplImage* labelImage = VELDSEMarker::m_labelImage;
  int width = VELDSEMarker::m_width;
  int height = VELDSEMarker::m_height;
  bool greyScale = VELDSEMarker::m_isGreyScale;
  bool homogenous = VELDSEMarker::m_isHomogenous;
  bool exitApp = VELDSEMarker::m_exitApp.load();
  double noiseLevel = VELDSEMarker::m_noiseLevel;

  // The handles go with this record, so the new engine makes its own.
  void detach() { VELDSEMarker::m_srcImage = VELDSEMarker::m_texHor = VELDSEMarker::m_texVer = nullptr; }
  void restore() {
    releaseImage(VELDSEMarker::m_srcImage);
    releaseImage(VELDSEMarker::m_texHor);
    releaseImage(VELDSEMarker::m_texVer);
    g_imageResizeFactor = resizeFactor;
    VELDSEMarker::m_srcImage = srcImage;
    VELDSEMarker::m_texHor = texHor;
    VELDSEMarker::m_texVer = texVer;
    VELDSEMarker::m_labelImage = labelImage;
    VELDSEMarker::m_width = width;
    VELDSEMarker::m_height = height;
    VELDSEMarker::m_isGreyScale = greyScale;
    VELDSEMarker::m_isHomogenous = homogenous;
    VELDSEMarker::m_exitApp.store(exitApp);
    VELDSEMarker::m_noiseLevel = noiseLevel;
  }
  void discard() {
    releaseImage(srcImage);
    releaseImage(texHor);
    releaseImage(texVer);
  }
};

}  // namespace

namespace context {
unsigned long photoGeneration = 0;
unsigned long engineGeneration = 0;
}  // namespace context

void startEngine() {
  if (VELDSEMarker::m_originalImage == nullptr) boundary::refuse("no photo (setSourceImage first)");
  if (VELDSEMarker::m_originalWidth < 1 || VELDSEMarker::m_originalHeight < 1) {
    boundary::refuse("empty photo (%d x %d)", VELDSEMarker::m_originalWidth, VELDSEMarker::m_originalHeight);
  }
  std::unique_ptr<VELDSEHybrid> engine(new VELDSEHybrid);
  WorkingState before;
  before.detach();
  try {
    g_imageResizeFactor = 1.0f;
    VELDSEMarker::initializer();
    engine->intializer();
  } catch (...) {
    before.restore();
    throw;
  }
  before.discard();
  // An engine built again on the same context replaces the old one, which
  // nothing else refers to: released rather than lost.
  delete pHybrid;
  pHybrid = engine.release();
  context::engineGeneration = context::photoGeneration;
}

// Needs the photo (setSourceImage) first: the engine builds its working image
// from it; without one the call is refused. An engine that already exists is
// replaced.
int initSegmentationEngine(int /*unused*/) {
  return boundary::guardCall("initSegmentationEngine", [] {
    startEngine();
    return 0;
  });
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
