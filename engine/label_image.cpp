// From the caller's marks to the working label image, and the working box the
// graph will cover.
#include <opencv2/imgproc/imgproc_c.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <initializer_list>
#include <vector>

#include "engine/veldse_hybrid.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"
#include "support/image_rows.h"
#include "support/owned.h"
#include "support/size_check.h"

namespace {

// Working pixels of margin round the marks on every side of the box.
const int kBoxMargin = 10;

struct Extremes {
  int xMin = INT_MAX, xMax = INT_MIN, yMin = INT_MAX, yMax = INT_MIN;
  void add(int x, int y) {
    if (x < xMin) xMin = x;
    if (x > xMax) xMax = x;
    if (y < yMin) yMin = y;
    if (y > yMax) yMax = y;
  }
  bool found() const { return xMin <= xMax; }
};

// Extremes of the working pixels whose label is one of `codes`. Only minima
// and maxima are taken, so the scan may run row by row.
Extremes labelExtremes(const IplImage* labels, int width, int height,
                       std::initializer_list<unsigned char> codes) {
  Extremes e;
  for (int y = 0; y < height; ++y) {
    const unsigned char* row = imageRow(labels, y);
    for (int x = 0; x < width; ++x) {
      for (unsigned char code : codes) {
        if (row[x] == code) {
          e.add(x, y);
          break;
        }
      }
    }
  }
  return e;
}

// The labels of the marks `marks` (any size): a copy of the marks in which
// unmarked pixels become background on a first cut, or keep the previous
// decision (`previous`, 0 or 255, of the same size) as a hard constraint on a
// later one, where pixels a stroke crosses also keep the side they had.
void applyLabelRule(const IplImage* marks, const IplImage* previous, int strokeType, IplImage* labels) {
  const int width = marks->width;
  const int height = marks->height;
  for (int y = 0; y < height; ++y) {
    std::memcpy(imageRow(labels, y), imageRow(marks, y), static_cast<size_t>(width));
  }
  if (previous == nullptr) {
    for (int y = 0; y < height; ++y) {
      const unsigned char* in = imageRow(marks, y);
      unsigned char* out = imageRow(labels, y);
      for (int x = 0; x < width; ++x) {
        if (in[x] == 0) out[x] = LABEL_BG;
      }
    }
    return;
  }
  const bool objectMarks =
      strokeType == VELDSEHybrid::MARK_OBJECT_LOOP || strokeType == VELDSEHybrid::MARK_OBJECT_STROKE;
  const bool backgroundMarks =
      strokeType == VELDSEHybrid::MARK_BACKGROUND_LOOP || strokeType == VELDSEHybrid::MARK_BACKGROUND_STROKE;
  for (int y = 0; y < height; ++y) {
    const unsigned char* in = imageRow(marks, y);
    const unsigned char* prev = imageRow(previous, y);
    unsigned char* out = imageRow(labels, y);
    for (int x = 0; x < width; ++x) {
      if (in[x] == 0) {
        if (prev[x] == 0) {
          out[x] = LABEL_BG;
        } else if (prev[x] == 255) {
          out[x] = LABEL_FG;
        }
      } else if (objectMarks && prev[x] == 255) {
        out[x] = LABEL_FG;
      } else if (backgroundMarks && prev[x] == 0) {
        out[x] = LABEL_BG;
      }
    }
  }
}

}  // namespace

void VELDSEHybrid::setLabelImage(IplImage* marker) {
  releaseImage(VELDSEMarker::m_labelImage);
  releaseImage(VELDSEMarker::m_prevResult);

  const int width = marker->width;
  const int height = marker->height;
  const int strokeType = VELDSEMarker::currentStroke.strokeType;

  if (strokeType == MARK_OBJECT_STROKE || strokeType == MARK_BACKGROUND_STROKE) {
    // A finger stroke grows a ring of "probable" pixels round itself: object
    // for an object stroke, background for a background stroke.
    const owned::Image strokeOwner = owned::Image::clone(marker);
    IplImage* const stroke = strokeOwner.get();
    const int iterations =
        static_cast<int>(std::sqrt(static_cast<double>(width) * static_cast<double>(height)) * 0.05);
    cvDilate(stroke, marker, nullptr, iterations);
    const bool object = strokeType == MARK_OBJECT_STROKE;
    const unsigned char hard = object ? LABEL_FG : LABEL_BG;
    const unsigned char probable = object ? LABEL_PR_FG : LABEL_PR_BG;
    for (int y = 0; y < height; ++y) {
      unsigned char* out = imageRow(marker, y);
      const unsigned char* before = imageRow(stroke, y);
      for (int x = 0; x < width; ++x) {
        if (out[x] == hard && before[x] == 0) out[x] = probable;
      }
    }
  }

  VELDSEMarker::m_prevResult = VELDSEManageUndoRedo::prevMask();
  const IplImage* previous = VELDSEMarker::m_prevResult;

  if (g_imageResizeFactor != 1.0f) {
    // Each label follows from its own pixel's mark and previous decision
    // alone, and the nearest-neighbour reduction picks the same pixels of
    // every image of a size. So the marks (and the previous mask) are reduced
    // first and the labels worked out on the working grid: the same labels
    // without a photo-sized image of them.
    const CvSize size = cvGetSize(VELDSEMarker::m_srcImage);
    if (size.width < 1 || size.height < 1) logMemoryCrash("setLabelImage", 223);
    // The label image is only published once it is complete: a failure on
    // the way leaves the handle null (released above), not half-written.
    owned::Image labels = owned::Image::create(size, IPL_DEPTH_8U, 1);
    const owned::Image marks = owned::Image::create(size, IPL_DEPTH_8U, 1);
    cvResize(marker, marks.get(), CV_INTER_NN);
    owned::Image before;
    if (previous != nullptr) {
      before = owned::Image::create(size, IPL_DEPTH_8U, 1);
      cvResize(previous, before.get(), CV_INTER_NN);
    }
    applyLabelRule(marks.get(), before.get(), strokeType, labels.get());
    VELDSEMarker::m_labelImage = labels.release();
  } else {
    VELDSEMarker::m_labelImage = createImage(cvGetSize(marker), IPL_DEPTH_8U, 1);
    applyLabelRule(marker, previous, strokeType, VELDSEMarker::m_labelImage);
  }
  addUnknownRegion();
}

void VELDSEHybrid::addUnknownRegion() {
  const std::vector<int>& coords = VELDSEMarker::currentStroke.points;
  const size_t count = coords.size() / 2;
  if (count < 2) return;

  std::vector<CvPoint> points(count);
  for (size_t i = 0; i < count; ++i) {
    points[i] = cvPoint(static_cast<int>(static_cast<float>(coords[2 * i]) / g_imageResizeFactor),
                        static_cast<int>(static_cast<float>(coords[2 * i + 1]) / g_imageResizeFactor));
  }
  // An undecided band of thickness 3 along the stroke, closed into a loop.
  const CvScalar unknown = cvScalar(0, 0, 0, 0);
  for (size_t i = 0; i + 1 < count; ++i) {
    cvLine(VELDSEMarker::m_labelImage, points[i], points[i + 1], unknown, 3, 8, 0);
  }
  cvLine(VELDSEMarker::m_labelImage, points[0], points[count - 1], unknown, 3, 8, 0);
}

void VELDSEHybrid::computeBoundingBox() {
  const int width = VELDSEMarker::m_width;
  const int height = VELDSEMarker::m_height;
  const strokeInfo& stroke = VELDSEMarker::currentStroke;

  Extremes e;
  if (stroke.points.empty()) {
    e = labelExtremes(VELDSEMarker::m_labelImage, width, height, {LABEL_UNKNOWN, LABEL_PR_FG});
  } else if (stroke.strokeType == MARK_OBJECT_STROKE) {
    e = labelExtremes(VELDSEMarker::m_labelImage, width, height, {LABEL_PR_FG});
  } else if (stroke.strokeType == MARK_BACKGROUND_STROKE) {
    e = labelExtremes(VELDSEMarker::m_labelImage, width, height, {LABEL_PR_BG});
  } else {
    const float scale = 1.0f / g_imageResizeFactor;
    for (size_t i = 0; i + 1 < stroke.points.size(); i += 2) {
      e.add(static_cast<int>(static_cast<float>(stroke.points[i]) * scale),
            static_cast<int>(static_cast<float>(stroke.points[i + 1]) * scale));
    }
  }
  if (!e.found()) e.xMin = e.xMax = e.yMin = e.yMax = 0;

  VELDSEMarker::m_xMinBBox = e.xMin < kBoxMargin ? 0 : e.xMin - kBoxMargin;
  VELDSEMarker::m_yMinBBox = e.yMin < kBoxMargin ? 0 : e.yMin - kBoxMargin;
  const int yEnd = e.yMax + kBoxMargin < height ? e.yMax + kBoxMargin : height - 1;
  const int xEnd = e.xMax + kBoxMargin < width ? e.xMax + kBoxMargin : width - 1;
  m_boundHeight = yEnd - VELDSEMarker::m_yMinBBox + 1;
  m_boundWidth = xEnd - VELDSEMarker::m_xMinBBox + 1;
  m_areaTenth = static_cast<int>(static_cast<double>((e.yMax - e.yMin) * (e.xMax - e.xMin)) * 0.1);
}

IplImage* VELDSEHybrid::cropImage(IplImage* image) {
  if (m_boundWidth < 1 || m_boundHeight < 1) logMemoryCrash("cropImage", 850);
  const int channels = image->nChannels;
  IplImage* crop = createImage(cvSize(m_boundWidth, m_boundHeight), IPL_DEPTH_8U, channels);
  if (m_boundWidth < 1) return crop;
  const size_t rowBytes = static_cast<size_t>(m_boundWidth) * channels;
  for (int r = 0; r < m_boundHeight; ++r) {
    std::memcpy(imageRow(crop, r),
                imageRow(image, VELDSEMarker::m_yMinBBox + r) + VELDSEMarker::m_xMinBBox * channels,
                rowBytes);
  }
  return crop;
}
