// VELDSEHybrid: the graph-cut segmentation engine.
//
// One instance exists per context (the interface's pHybrid). The photo, the
// working image, the label image and the per-photo flags live in VELDSEMarker;
// the engine keeps what belongs to the cut: the neighbour weights of the whole
// working image (computed once per photo by intializer), the two colour models,
// the smoothness weight, and - only for the duration of one segment() call -
// the images cropped to the working box and the graph.
//
// A request runs as a list of stages:
//   setLabelImage      marks -> label image with an unknown band; previous mask
//   segment            box, pre-processing, crops, five cuts (three trial cuts
//                      choose the smoothness weight; they are made side by
//                      side, engine/working_cuts.h), then getObjMask
//   getObjMask         labels back to the working label image, full-resolution
//                      re-cut of the boundary band, post-processing, history
//
// Failures. Memory running out at any allocation of a stage raises
// std::bad_alloc (a tracked or malloc'ed array that came back null, after the
// tracked allocator's own log line) or OpenCV's out-of-memory cv::Exception;
// the exported functions catch it (interface/boundary.h). On the way out every
// stage releases what it made: after a throw from segment() the per-request
// members (crops, trial labels, m_graph, m_trimapGraph, g_cancelTimer) are
// released and null, exactly as after a normal return, and a throw from
// intializer() leaves the working and texture images null. Worker threads
// never let an exception escape: it is rethrown on the calling thread after
// every worker has been joined. The one stated fall-back stays: when the
// full-resolution band graph cannot get its arrays, the enlarged working mask
// is the result ("Failed: intelligentUpscaling (status_flag = 1)").
//
// Label codes are those of interface/veldse_marker.h (LABEL_*). Graph nodes are
// box pixels in row-major order; the source side is the object and
// getTreeofNode() == 1 means background.
#ifndef SEGCORE_ENGINE_VELDSE_HYBRID_H
#define SEGCORE_ENGINE_VELDSE_HYBRID_H

#include <opencv2/core/core_c.h>

#include "colormodel/veldse_color_model.h"
#include "graph/veldse_graph.h"

class VELDSEHybrid {
 public:
  VELDSEHybrid();
  // Frees m_nlinks; m_graph is deliberately only forgotten, not deleted (it
  // never outlives a segment() call).
  ~VELDSEHybrid();
  VELDSEHybrid(const VELDSEHybrid&) = delete;
  VELDSEHybrid& operator=(const VELDSEHybrid&) = delete;

  // --- Per-photo initialisation ------------------------------------------
  // Working image (area about 320 x 240), grey-scale test, texture images of
  // grey photos, neighbour weights. Reads VELDSEMarker::m_originalImage.
  // A reduced side is truncated but kept at 1 pixel or more (a photo of
  // 100000 x 1 works on 87635 x 1); only a photo side of 0 gives a working
  // side of 0, logged as "MEMORY_CRASH : intializer 103".
  void intializer();
  bool greyScaleTest(IplImage* image);
  void computeTexture();
  // Contrast weights of the 8-neighbourhood of the working image: four floats
  // per pixel (left, up-left, up, up-right), and m_beta.
  void computeNlinks();

  // --- Per-request memory ------------------------------------------------
  // Releases the crops, the trial labels and the graph, destroys g_cancelTimer.
  void clearMemory();
  VELDSEGraph* graphSpaceAllocator();
  void graphSpaceDellocator();

  // --- Label image and working box -----------------------------------------
  void setLabelImage(IplImage* marker);
  void addUnknownRegion();
  void computeBoundingBox();
  // New image of the box's size with image's channel count; caller releases.
  IplImage* cropImage(IplImage* image);

  // --- Pre-processing: black and flat border strips become background -------
  void removeBlackRegion();
  void preProcess();

  // --- The driver ------------------------------------------------------------
  // Full-resolution object mask (0/255), or null when cancelled or timed out.
  // Threads: the trial cuts and the per-pixel passes of the working box run
  // on up to four threads at once (the calling thread included), all joined
  // before it returns; on one core everything stays on the calling thread,
  // with the same result.
  IplImage* segment();
  // Writes m_graph's cut into m_cropLabel (see workingcuts::writeCut);
  // returns the count of object-side pixels not coded 1 or 2. O(box).
  int updateLabelImage();
  void chooseIter();
  bool cancelSegmentation();

  // --- Graph of one cut ------------------------------------------------------
  void constructGraphVELD_Whole_Image();
  void constructGraphVELD();

  // --- Smoothness weight selection ---------------------------------------------
  int parallelLamdaSwtich(int iter);
  int optimalLamda(IplImage** labels, float* unused);
  int intensityTest(const IplImage* mask);
  bool boundaryTest(const IplImage* mask, float fraction);
  int homogenousLamda(int iter);

  // --- From labels to the caller's mask ------------------------------------------
  IplImage* getObjMask();
  IplImage* intelligentUpscaling(IplImage* mask);
  IplImage* cropImageTrimap(IplImage* src, int w, int h, int y0, int x0);
  int constructGraphTrimapVELD(IplImage* img, IplImage* extraTex, IplImage* trimap,
                               IplImage* texHor, IplImage* texVer);
  // Clean-up of the full-size 0/255 mask, in place, by the stroke type of
  // VELDSEMarker::currentStroke, then the merge with m_prevResult inside the
  // working region. All connectivity is 4-connected components of the whole
  // mask (engine/mask_components.h), exact at any width.
  //   postProcessForLoop: object components under a tenth of the largest one
  //     become background, then background components of 1 to 4 pixels
  //     become object. O(pixels) plus O(runs) memory.
  //   postProcessForStroke (needs m_prevResult): only the changed pixels
  //     (mask against m_prevResult in the stroke's direction) 4-connected to
  //     a stroke point stay changed. One photo-sized byte image plus O(runs).
  void postProcess(IplImage* mask);
  void postProcessForLoop(IplImage* mask);
  void postProcessForStroke(IplImage* mask);

  // Fields, in this order.
  int m_imgWidth;           // working image size
  int m_imgHeight;
  int m_boundHeight;        // working box size
  int m_boundWidth;
  int m_boundWidthTrimap;   // full-resolution refinement box size
  int m_boundHeightTrimap;
  IplImage* m_cropSrc;        // working image cropped to the box, 8U C3
  IplImage* m_cropLabel;      // labels cropped to the box, updated after each cut
  IplImage* m_cropLabelInit;  // m_cropLabel before the first cut
  IplImage* m_iterLabel[3];   // labels after cuts 0, 1 and 2
  double m_lambda;            // smoothness weight, 50.0 by default
  double m_beta;              // contrast parameter of the neighbour weights
  int m_areaTenth;            // a tenth of the marked region's tight box area
  VELDSEGraph* m_graph;       // graph of the running request
  VELDSEGraph* m_trimapGraph; // graph of the full-resolution re-cut
  float* m_nlinks;            // 4 floats per working pixel, tracked allocation
  VELDSEColorModel m_fgModel;
  VELDSEColorModel m_bgModel;
};

#endif
