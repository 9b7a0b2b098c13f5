// From the final box labels to the mask handed back to the caller.
#include <utility>

#include "engine/veldse_hybrid.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"
#include "support/image_rows.h"
#include "support/owned.h"
#include "support/size_check.h"
#include "support/stage_marks.h"

IplImage* VELDSEHybrid::getObjMask() {
  stagemarks::reached(stagemarks::kRecut);
  checkImageSize(m_imgWidth, m_imgHeight, "getObjMask", 1410);
  owned::Image workingOwner = owned::Image::create(cvSize(m_imgWidth, m_imgHeight), IPL_DEPTH_8U, 1);
  IplImage* const working = workingOwner.get();
  cvSetZero(working);

  // A reduced photo is re-cut at full resolution, which wants the working
  // mask as 0/1; otherwise the working mask is already the final 0/255 one.
  const bool reduced = g_imageResizeFactor > 1.0f;
  const unsigned char objectValue = reduced ? 1 : 255;
  const int x0 = VELDSEMarker::m_xMinBBox;
  const int y0 = VELDSEMarker::m_yMinBBox;
  for (int r = 0; r < m_boundHeight; ++r) {
    const unsigned char* crop = imageRow(m_cropLabel, r);
    unsigned char* label = imageRow(VELDSEMarker::m_labelImage, y0 + r) + x0;
    unsigned char* out = imageRow(working, y0 + r) + x0;
    for (int c = 0; c < m_boundWidth; ++c) {
      label[c] = crop[c];
      if (crop[c] == LABEL_FG || crop[c] == LABEL_PR_FG) out[c] = objectValue;
    }
  }

  // The mask stays owned here until it is handed back, so that a failure in
  // the re-cut, the post-processing or the history leaves nothing behind.
  owned::Image result;
  if (reduced) {
    result.reset(intelligentUpscaling(working));
    workingOwner.reset();
  } else {
    result = std::move(workingOwner);
  }
  stagemarks::reached(stagemarks::kPostProcess);
  postProcess(result.get());
  stagemarks::reached(stagemarks::kHistory);
  VELDSEManageUndoRedo::updateBitPlane(result.get());
  return result.release();
}
