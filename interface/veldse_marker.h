// The one segmentation context of the process.
//
// Everything a context knows - the photo, its working copy, the label image,
// the previous mask, the texture images of grey photos, the user's current
// stroke, the working box and the per-photo flags - lives in the static members
// of VELDSEMarker and in the interface globals below. The exported functions and
// every stage of the engine read and write this state directly; no lock guards
// it. The only cross-thread accesses are cancelSegmentation's byte store to
// m_exitApp and exitSegmentation's word store to g_exitStatus, which a running
// request polls.
#ifndef SEGCORE_INTERFACE_VELDSE_MARKER_H
#define SEGCORE_INTERFACE_VELDSE_MARKER_H

#include <opencv2/core/core_c.h>

#include <atomic>
#include <vector>

// Label codes, one byte per pixel, shared by the caller's marker image, the
// working label image and the cropped labels. Codes 1 and 2 are hard
// constraints that no cut changes; object = 2 and 4.
enum {
  LABEL_UNKNOWN = 0,
  LABEL_BG = 1,
  LABEL_FG = 2,
  LABEL_PR_BG = 3,
  LABEL_PR_FG = 4,
};

// The user's current stroke: x0, y0, x1, y1, ... in full-size photo
// coordinates, and the marking mode: 0 object loop or rectangle, 1 background
// loop, 2 object stroke, 3 background stroke.
struct strokeInfo {
  std::vector<int> points;
  int strokeType = 0;
};

class VELDSEMarker {
 public:
  static IplImage* m_originalImage;  // photo, full size, 8U C3, bytes B, G, R
  static int m_originalWidth;
  static int m_originalHeight;
  static IplImage* m_srcImage;  // working copy, m_width x m_height, 8U C3
  static int m_width;
  static int m_height;
  static IplImage* m_labelImage;  // working size, 8U C1, label codes
  static IplImage* m_prevResult;  // latest history mask at full size, 0/255
  static IplImage* m_texHor;      // texture images of grey photos, working size
  static IplImage* m_texVer;
  static strokeInfo currentStroke;
  static int m_xMinBBox;  // working box, working-image coordinates
  static int m_xMaxBBox;
  static int m_yMinBBox;
  static int m_yMaxBBox;
  static bool m_isGreyScale;
  static bool m_isHomogenous;  // sticky until initializer() or resetMarkers()
  // Cancel flag, stored from another caller thread while a request runs;
  // atomic (one byte, lock-free) so that cross-thread store and polling are
  // well defined. Hot loops read it with memory_order_relaxed.
  static std::atomic<bool> m_exitApp;
  static double m_noiseLevel;      // covariance regulariser, 0.1 by default

  // Does nothing; the state is static.
  static void allocator();
  // Releases the context's images (each only if present) and empties the
  // stroke's points. Flags, m_noiseLevel and the box are kept.
  static void dellocator();
  // Fresh per-context flags. Clears the m_labelImage handle without releasing
  // the image: it runs right after a teardown or on a fresh context.
  static void initializer();
  // Forgets the marks: releases the label image and previous mask, empties the
  // stroke's points (strokeType is kept) and clears the flags.
  static void resetMarkers();
};

class VELDSEHybrid;

// Interface globals.
extern VELDSEHybrid* pHybrid;          // the engine; null when no context exists
extern float g_imageResizeFactor;      // photo size / working size, 1.0 by default
extern std::atomic<int> g_exitStatus;  // non-zero: tear down at the end of the call
extern CvSeq* contours;                // outline of the latest preview
extern CvMemStorage* storage;          // storage holding `contours`
extern IplImage* g_markerImage;        // caller's markers as 8U C1, full size
extern IplImage* g_resultMask;         // mask of the running request, 0/255
extern unsigned char g_contoursReady;  // 1 while `contours` awaits fetch_path_array

#endif
