// LibrarySession: one photo loaded into the library's process-wide context,
// driven only through the exported functions of interface/segmentation_core.h,
// the way the app's native bridge drives it.
//
// Each request hands over its marks, runs, and leaves the session holding the
// mask on screen (255 = object, converted from the library's inverted buffer),
// the preview (the photo with the library's outline painted in) and the
// outline's points. Only one session may exist at a time (there is one context).
#ifndef SEGCORE_TOOLS_LIBRARY_SESSION_H
#define SEGCORE_TOOLS_LIBRARY_SESSION_H

#include <opencv2/core.hpp>

#include <string>
#include <vector>

namespace segtools {

// Reads a photo with imgcodecs (PNG, JPEG, BMP, ...). Grey and four-channel
// files come back as three-channel BGR. Empty Mat when missing or unreadable.
cv::Mat readPhoto(const std::string& path);

// BGR photo -> 0xFFRRGGBB per pixel, row-major, as the library expects.
std::vector<unsigned int> toArgb(const cv::Mat& bgr);
// 0xAARRGGBB buffer -> BGR image (alpha dropped).
cv::Mat fromArgb(const std::vector<unsigned int>& argb, int width, int height);

// The library's mask buffer (0 = object, 255 = background) -> 255 = object.
cv::Mat objectMaskFromInverted(const std::vector<unsigned char>& inverted, int width,
                               int height);

using Outline = std::vector<std::vector<cv::Point>>;

// Decodes fetch_path_array's array: [C, then per contour m, x0, y0, ..., -1].
// Returns false (and an empty outline) when the array is malformed.
bool decodeOutlineArray(const int* array, int count, Outline* outline);

struct RequestOutcome {
  double millis = 0.0;  // wall-clock time of the library call itself
  bool delivered = false;  // the library delivered a mask (false: abandoned, or nothing to redo)
  std::string note;        // why nothing was delivered
};

class LibrarySession {
 public:
  // Starts a fresh context for the photo (BGR, 8-bit, 3 channels), tearing
  // down any earlier one.
  explicit LibrarySession(const cv::Mat& photoBgr);
  ~LibrarySession();
  LibrarySession(const LibrarySession&) = delete;
  LibrarySession& operator=(const LibrarySession&) = delete;

  int width() const { return width_; }
  int height() const { return height_; }

  // Rectangle selection (inclusive corners) through doSegmentationBB, which
  // restarts the context; the caller must have checked the corners.
  RequestOutcome rectangle(int x1, int y1, int x2, int y2);

  // A request from marks: `points` becomes the current stroke, `markers` (one
  // label code per pixel, width*height, row-major) the marker grid, `mode` the
  // marking mode (0 loop, 1 background loop, 2 object stroke, 3 background
  // stroke); then processSegment.
  RequestOutcome marks(const std::vector<cv::Point>& points, const std::vector<int>& markers,
                       int mode);
  // The same marks applied to the mask on screen without a cut (cutOutImage):
  // marker 2 adds to the object, 1 removes from it. Refused (nothing
  // delivered) while no mask is on screen.
  RequestOutcome cutOut(const std::vector<cv::Point>& points, const std::vector<int>& markers,
                        int mode);

  RequestOutcome undo();
  // Consults canRedo first: redo on an exhausted history would hand back an
  // unwritten slot.
  RequestOutcome redo();
  // Forgets marks and history; the photo stays.
  void reset();

  // After a cut through marks() that stopped without a result (a
  // cancelSegmentation from another thread, or the solver's time-out): the
  // cancel flag stays set and would stop every later cut, so resetMarkers()
  // clears it together with the spent marks; the history is untouched and redo
  // at its top re-delivers the mask on screen. With redo steps ahead, redo
  // then undo comes back to the same step. Nothing is called when the history
  // is empty (redo would hand back an unwritten slot).
  RequestOutcome resumeAfterStop();
  // Records `mask` (8U, photo size, non-zero = object) as a new history step,
  // whatever is on screen: cutOutImage with every pixel marked, 2 for object
  // and 1 for background, so the recorded mask is exactly `mask`.
  RequestOutcome recordMask(const cv::Mat& mask);

  bool hasMask() const { return hasMask_; }
  const cv::Mat& mask() const { return mask_; }        // 8U, 255 = object
  const cv::Mat& preview() const { return preview_; }  // BGR
  const Outline& outline() const { return outline_; }

 private:
  // Prepares the buffers before a call: photo in the preview buffer (the
  // library only paints the outline into it) and a sentinel in the mask buffer
  // so that an untouched buffer shows that no mask was delivered.
  void prepareBuffers();
  // Hands the stroke points and the marker grid over to the library and runs
  // `request` (processSegment or cutOutImage) on the buffers, timed.
  RequestOutcome runWithMarks(const std::vector<cv::Point>& points, const std::vector<int>& markers,
                              int mode, int (*request)(int, int, int, unsigned int*, unsigned char*),
                              const char* abandoned);
  // No mask on screen: the plain photo, no outline.
  void showPlainPhoto();
  // A fresh context on the session's photo (also after a rectangle that
  // failed once its teardown had run).
  void restartContext();
  // Takes over the buffers after a call that may have delivered a mask.
  bool collect();
  // One step through the history (undo or redo) into the session's buffers;
  // a step that delivers nothing shows the plain photo.
  RequestOutcome stepHistory(int (*step)(unsigned int*, unsigned char*));

  int width_;
  int height_;
  std::vector<unsigned int> photo_;
  std::vector<unsigned int> previewBuffer_;
  std::vector<unsigned char> maskBuffer_;
  bool hasMask_ = false;
  cv::Mat mask_;
  cv::Mat preview_;
  Outline outline_;
};

}  // namespace segtools

#endif
