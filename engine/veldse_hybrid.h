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
  // Marking modes: the values of VELDSEMarker::currentStroke.strokeType, as
  // the caller passes them to setMarkerImage (which refuses any other).
  enum MarkingMode : int {
    MARK_OBJECT_LOOP = 0,       // a loop or rectangle round the object
    MARK_BACKGROUND_LOOP = 1,   // a loop round background
    MARK_OBJECT_STROKE = 2,     // finger strokes over the object
    MARK_BACKGROUND_STROKE = 3, // finger strokes over background
  };
  // Model actions: what parallelLamdaSwtich(i) asks segment() to do with the
  // colour models before cut i.
  enum ModelAction : int {
    MODELS_TRAIN = 0,   // train both from the labels (k-means start), settle homogeneity
    MODELS_UPDATE = 1,  // update both from the current labels
    MODELS_KEEP = 2,    // cut with the models as they are
  };

  // m_lambda 50.0, m_beta 0.0, every pointer null, every size 0; the two
  // colour models default-constructed. Allocates nothing.
  VELDSEHybrid();
  // Frees m_nlinks (tracked, "~VELDSEHybrid" line 66); m_graph is
  // deliberately only forgotten, not deleted (it never outlives a segment()
  // call).
  ~VELDSEHybrid();
  VELDSEHybrid(const VELDSEHybrid&) = delete;
  VELDSEHybrid& operator=(const VELDSEHybrid&) = delete;

  // --- Per-photo initialisation ------------------------------------------
  // intializer()
  //   Reads VELDSEMarker::m_originalImage and its size, g_imageResizeFactor.
  //   Writes g_imageResizeFactor (when the photo is above 76800 pixels),
  //   VELDSEMarker::m_srcImage, m_width, m_height (the working image, area
  //   about 320 x 240, bilinear), m_isGreyScale, m_texHor/m_texVer (grey
  //   photos), m_imgWidth, m_imgHeight, m_nlinks, m_beta; m_iterLabel nulled.
  //   A reduced side is truncated but kept at 1 pixel or more (a photo of
  //   100000 x 1 works on 87635 x 1); only a photo side of 0 gives a working
  //   side of 0, logged as "MEMORY_CRASH : intializer 103".
  //   Releases the working and texture images of an earlier photo first; a
  //   failure leaves them null. Cost: one resize of the photo plus O(working
  //   pixels).
  void intializer();
  // True when the mean of |c0 - c1| + |c0 - c2| over image (8U C3) is below
  // 1.0 or not a number. Reads image only. O(pixels).
  bool greyScaleTest(IplImage* image);
  // Creates VELDSEMarker::m_texHor and m_texVer (8U C1, working size): the
  // absolute horizontal and vertical differences of channel 0 of m_srcImage.
  // Logs "MEMORY_CRASH" (lines 2817, 2818) for an empty working image.
  // O(working pixels).
  void computeTexture();
  // Reads m_srcImage; writes m_beta and m_nlinks (four floats per working
  // pixel: left, up-left, up, up-right; replaced, tracked allocation).
  // Throws std::bad_alloc when there is no memory for them (m_nlinks null).
  // O(working pixels).
  void computeNlinks();

  // --- Per-request memory ------------------------------------------------
  // Releases m_iterLabel[0..2], m_cropSrc, m_cropLabel, m_cropLabelInit
  // (each only when set, handle nulled), deletes m_graph and destroys
  // g_cancelTimer (nulled). Safe to call twice.
  void clearMemory();
  // m_graph = a new grid graph of the box (m_boundWidth x m_boundHeight,
  // 8 pairs per node, no threads); returned. The caller tests its arrays.
  VELDSEGraph* graphSpaceAllocator();
  // Deletes m_graph and nulls it.
  void graphSpaceDellocator();

  // --- Label image and working box -----------------------------------------
  // setLabelImage(marker)
  //   Reads marker (8U C1, photo size, label codes; stroke modes dilate it in
  //   place), currentStroke, the history's latest mask, g_imageResizeFactor.
  //   Writes VELDSEMarker::m_labelImage (working size, replaced),
  //   m_prevResult (the latest mask or null, replaced), then adds the unknown
  //   band along the stroke (addUnknownRegion). O(photo pixels) for the
  //   reduction, O(working pixels) for the labels.
  void setLabelImage(IplImage* marker);
  // Draws the stroke's points (scaled to the working image) as a closed
  // polyline of thickness 3 with LABEL_UNKNOWN into m_labelImage; fewer than
  // two points draw nothing.
  void addUnknownRegion();
  // Writes the working box (VELDSEMarker::m_xMinBBox, m_yMinBBox,
  // m_boundWidth, m_boundHeight): the marks' extremes plus 10 working pixels,
  // clamped; and m_areaTenth. Reads m_labelImage (strokes and point-less
  // requests) or the stroke's points (loops). O(working pixels) at most.
  void computeBoundingBox();
  // A new image of the box's size with image's channel count, filled from the
  // box of image (working size); the caller releases it. Logs "MEMORY_CRASH"
  // (line 850) for an empty box. O(box pixels).
  IplImage* cropImage(IplImage* image);

  // --- Pre-processing: black and flat border strips become background -------
  // Both narrow the box (m_xMinBBox, m_yMinBBox, m_boundWidth, m_boundHeight)
  // and write LABEL_BG into m_labelImage outside the retained rectangle; they
  // leave everything as it is when there is nothing to cut off. O(box pixels).
  void removeBlackRegion();
  // removeBlackRegion(), then three passes over the Sobel magnitude of the
  // grey box that cut off flat border lines. Logs "MEMORY_CRASH" (line 2871)
  // for an empty box.
  void preProcess();

  // --- The driver ------------------------------------------------------------
  // segment()
  //   The whole request after setLabelImage: box, pre-processing, crops,
  //   five cuts (graph, solve, labels) with model training and the choice of
  //   the smoothness weight, then getObjMask(). Reads everything the stages
  //   read; writes m_lambda, the colour models, m_noiseLevel, m_isHomogenous,
  //   m_labelImage and the history (through getObjMask). Creates and ends with
  //   clearMemory() the per-request members and g_cancelTimer. Returns the
  //   full-resolution 0/255 mask (caller releases), or null when m_exitApp was
  //   set or 10000 ms passed (logs "Segmentation canceled due to timeout").
  //   Threads: the trial cuts and the per-pixel passes of the working box run
  //   on up to four threads at once (the calling thread included), all joined
  //   before it returns; on one core everything stays on the calling thread,
  //   with the same result.
  //   Cost: five max-flows over the box plus one over the re-cut band.
  IplImage* segment();
  // Writes m_graph's cut into m_cropLabel (see workingcuts::writeCut): sink
  // side makes LABEL_UNKNOWN and probable codes LABEL_PR_BG, source side
  // makes every non-hard code LABEL_PR_FG. Returns the number of pixels set
  // to LABEL_PR_FG. O(box).
  int updateLabelImage();
  // Homogeneous scenes only: copies m_iterLabel[0] into m_cropLabel when the
  // first cut's boundary already follows the edges (Sobel of m_cropSrc) and
  // the last cut's is not clearly better. O(box pixels).
  void chooseIter();
  // Stops g_cancelTimer; true when it shows more than 10000 ms or m_exitApp
  // is set. O(1).
  bool cancelSegmentation();

  // --- Graph of one cut ------------------------------------------------------
  // Rebuilds m_graph (whose arrays segment() tested when it created it) for
  // the current box: terminal links from m_cropLabel (hard codes 1000.0) and
  // the colour models (m_cropSrc, or grey value and textures), neighbour
  // links m_lambda x m_nlinks. O(box pixels + distinct colours x model
  // components). It lists the box's distinct colours for this build alone; a
  // request's own cuts go through workingcuts::wholeBoxGraph
  // (engine/working_cuts.h) with the request's list, recording each pixel's
  // components for the refit that follows.
  void constructGraphVELD_Whole_Image();
  // The same; the driver's name for it.
  void constructGraphVELD();

  // --- Smoothness weight selection ---------------------------------------------
  // parallelLamdaSwtich(iter)
  //   Before cut iter: iter 0..2 sets m_lambda to trial weight iter (as a
  //   whole number) and restores m_cropLabel from m_cropLabelInit; iter 3
  //   picks the trial (optimalLamda), sets m_lambda and copies that trial's
  //   labels into m_cropLabel (or, with none acceptable, the fall-back weight
  //   and the initial labels); iter 4 changes nothing. Returns the
  //   ModelAction: MODELS_TRAIN for iter 0, MODELS_KEEP for 1, 2 and a
  //   rejected choice, MODELS_UPDATE otherwise. O(box pixels).
  int parallelLamdaSwtich(int iter);
  // The index (0..2) of the trial labels[k] (box size) whose main blobs are
  // the most convincing, or -1 when every acceptable blob is below 100
  // pixels. Reads m_cropSrc; the second argument is not read. O(3 x box).
  int optimalLamda(IplImage** labels, float* unused);
  // 1 when the mean colour distance across the border of the 255-blobs of
  // mask (box size) is at least that inside them, else 2 (also when either is
  // empty). Reads m_cropSrc. O(box pixels).
  int intensityTest(const IplImage* mask);
  // True when the bounding box of mask's 255 pixels comes within
  // fraction x size of all four sides. Reads mask only. O(pixels).
  bool boundaryTest(const IplImage* mask, float fraction);
  // Finishes the models for cut iter (inverse covariances). When the
  // background model is nearly single-coloured at iter 0, or the scene is
  // already known to be homogeneous: regularises the background model with
  // noise 10.0, sets m_lambda to 50.0, m_isHomogenous true and returns 0;
  // otherwise m_isHomogenous false and returns 1. O(1).
  int homogenousLamda(int iter);

  // --- From labels to the caller's mask ------------------------------------------
  // getObjMask()
  //   Writes m_cropLabel back into m_labelImage (inside the box); makes the
  //   working mask, re-cuts it at full resolution when the photo was reduced
  //   (intelligentUpscaling), post-processes it and records it in the history
  //   (VELDSEManageUndoRedo::updateBitPlane). Returns the full-size 0/255
  //   mask; the caller releases it. Logs "MEMORY_CRASH" (line 1410) for an
  //   empty working image.
  IplImage* getObjMask();
  // intelligentUpscaling(mask)
  //   mask: working size, object 1, background 0 (set to 255 in place on the
  //   fall-back). Reads the photo, m_labelImage, the textures, the models,
  //   m_lambda, m_beta. Writes m_boundWidthTrimap, m_boundHeightTrimap;
  //   m_trimapGraph is null again on return. Returns a new full-size 0/255
  //   mask: the enlarged labels with the boundary band re-cut, or the plain
  //   enlargement of mask when there is no band ("Failed: xmin:...") or no
  //   graph ("Failed: intelligentUpscaling (status_flag = 1)"). Cost: the
  //   band's max-flow plus O(photo pixels) writes.
  IplImage* intelligentUpscaling(IplImage* mask);
  // A new w x h image with src's channel count holding the
  // m_boundWidthTrimap x m_boundHeightTrimap rectangle of src at (x0, y0);
  // no bounds check. Logs "MEMORY_CRASH" (line 1762) when w or h is below 1.
  IplImage* cropImageTrimap(IplImage* src, int w, int h, int y0, int x0);
  // Creates m_trimapGraph, a band graph (graph/band_graph.h) of the cut
  // pixels of trimap (box m_boundWidthTrimap x m_boundHeightTrimap, codes 7
  // fixed, 1 outer ring, 0 band, 2 inner ring), with terminal links from the
  // rings and the models (img 8U C3, or its grey value and texHor/texVer) and
  // neighbour links from img's contrast; extraTex is not read. Returns 0, or
  // 1 when the graph's arrays could not be had (the graph is then left in
  // m_trimapGraph for the caller to delete). O(band pixels x components).
  int constructGraphTrimapVELD(IplImage* img, IplImage* extraTex, IplImage* trimap,
                               IplImage* texHor, IplImage* texVer);
  // postProcess(mask)
  //   Clean-up of the full-size 0/255 mask, in place, by the stroke type of
  //   VELDSEMarker::currentStroke, then the merge with m_prevResult inside
  //   the working region. All connectivity is 4-connected components of the
  //   whole mask (engine/mask_components.h), exact at any width.
  //   postProcessForLoop (MARK_OBJECT_LOOP): object components under a tenth
  //     of the largest one become background, then background components of
  //     1 to 4 pixels become object. O(pixels) plus O(runs) memory.
  //   postProcessForStroke (stroke modes, needs m_prevResult): only the
  //     changed pixels (mask against m_prevResult in the stroke's direction)
  //     4-connected to a stroke point stay changed. One photo-sized byte
  //     image plus O(runs).
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
