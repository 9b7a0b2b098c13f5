#include "tools/library_session.h"

#include <android/log.h>

#include <opencv2/imgcodecs.hpp>

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "interface/segmentation_core.h"
#include "interface/veldse_marker.h"

namespace segtools {

namespace {

// A request answered SEGCORE_FAILED: the library logged why.
const char* const kFailedNote =
    "the library could not carry the request out (memory ran out or it was refused; see its log)";

// Never a value of the library's mask buffer (which holds 0 and 255 only).
constexpr unsigned char kUntouched = 1;

double millisSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

}  // namespace

cv::Mat readPhoto(const std::string& path) {
  // IMREAD_COLOR expands grey files to three equal channels, drops alpha and
  // scales 16-bit files to 8 bits.
  return cv::imread(path, cv::IMREAD_COLOR);
}

std::vector<unsigned int> toArgb(const cv::Mat& bgr) {
  CV_Assert(bgr.type() == CV_8UC3);
  std::vector<unsigned int> out(static_cast<size_t>(bgr.cols) * bgr.rows);
  for (int y = 0; y < bgr.rows; ++y) {
    const unsigned char* row = bgr.ptr<unsigned char>(y);
    unsigned int* dst = &out[static_cast<size_t>(y) * bgr.cols];
    for (int x = 0; x < bgr.cols; ++x) {
      dst[x] = 0xFF000000u | row[3 * x] | (static_cast<unsigned int>(row[3 * x + 1]) << 8) |
               (static_cast<unsigned int>(row[3 * x + 2]) << 16);
    }
  }
  return out;
}

cv::Mat fromArgb(const std::vector<unsigned int>& argb, int width, int height) {
  cv::Mat out(height, width, CV_8UC3);
  for (int y = 0; y < height; ++y) {
    unsigned char* row = out.ptr<unsigned char>(y);
    const unsigned int* src = &argb[static_cast<size_t>(y) * width];
    for (int x = 0; x < width; ++x) {
      row[3 * x] = src[x] & 0xFF;
      row[3 * x + 1] = (src[x] >> 8) & 0xFF;
      row[3 * x + 2] = (src[x] >> 16) & 0xFF;
    }
  }
  return out;
}

cv::Mat objectMaskFromInverted(const std::vector<unsigned char>& inverted, int width,
                               int height) {
  cv::Mat out(height, width, CV_8UC1);
  for (int y = 0; y < height; ++y) {
    unsigned char* row = out.ptr<unsigned char>(y);
    const unsigned char* src = &inverted[static_cast<size_t>(y) * width];
    for (int x = 0; x < width; ++x) row[x] = src[x] == 0 ? 255 : 0;
  }
  return out;
}

bool decodeOutlineArray(const int* array, int count, Outline* outline) {
  outline->clear();
  if (array == nullptr || count < 1 || array[0] < 0) return false;
  int pos = 1;
  for (int c = 0; c < array[0]; ++c) {
    if (pos >= count) return false;
    const int m = array[pos++];
    if (m < 0 || pos + 2 * m >= count) return false;
    std::vector<cv::Point> contour;
    contour.reserve(m);
    for (int i = 0; i < m; ++i, pos += 2) contour.emplace_back(array[pos], array[pos + 1]);
    if (array[pos++] != -1) return false;
    outline->push_back(std::move(contour));
  }
  return pos == count;
}

LibrarySession::LibrarySession(const cv::Mat& photoBgr)
    : width_(photoBgr.cols), height_(photoBgr.rows), photo_(toArgb(photoBgr)) {
  // liblog writes every line the library logs to stderr on a host; the tools
  // ask for quiet through SEGCORE_LOG_QUIET (segment_photo unless --log).
  if (std::getenv("SEGCORE_LOG_QUIET") != nullptr) __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
  const size_t n = photo_.size();
  previewBuffer_.resize(n);
  maskBuffer_.resize(n);
  restartContext();
  mask_ = cv::Mat::zeros(height_, width_, CV_8UC1);
  preview_ = photoBgr.clone();
}

LibrarySession::~LibrarySession() { deinitSegmentation(); }

void LibrarySession::restartContext() {
  deinitSegmentation();
  resetSegmentationInterface();
  setSourceImage(width_, height_, photo_.data());
  initSegmentationEngine(0);
}

void LibrarySession::prepareBuffers() {
  copySourceImage(previewBuffer_.data());
  std::fill(maskBuffer_.begin(), maskBuffer_.end(), kUntouched);
}

bool LibrarySession::collect() {
  // The outline is handed over once per result; fetch it every time so that a
  // stale one can never be read after a later call.
  int* array = nullptr;
  int count = 0;
  fetch_path_array(&array, &count);
  Outline outline;
  decodeOutlineArray(array, count, &outline);
  delete[] array;
  if (maskBuffer_[0] == kUntouched) return false;
  hasMask_ = true;
  mask_ = objectMaskFromInverted(maskBuffer_, width_, height_);
  preview_ = fromArgb(previewBuffer_, width_, height_);
  outline_ = std::move(outline);
  return true;
}

RequestOutcome LibrarySession::rectangle(int x1, int y1, int x2, int y2) {
  RequestOutcome out;
  std::vector<unsigned int> pixels = photo_;
  std::fill(maskBuffer_.begin(), maskBuffer_.end(), kUntouched);
  const auto start = std::chrono::steady_clock::now();
  const int status = doSegmentationBB(width_, height_, pixels.data(), x1, y1, x2, y2, maskBuffer_.data());
  out.millis = millisSince(start);
  if (status == SEGCORE_FAILED) {
    // Failed after its teardown: there is no context left; start a new one
    // on this photo so that the session goes on.
    restartContext();
    showPlainPhoto();
    out.note = kFailedNote;
    return out;
  }
  if (maskBuffer_[0] == kUntouched) {
    // The fresh context has no history: the mask on screen is the photo.
    int* array = nullptr;
    int count = 0;
    fetch_path_array(&array, &count);
    delete[] array;
    showPlainPhoto();
    out.note = "cut abandoned";
    return out;
  }
  // doSegmentationBB paints its outline into a private copy of the photo; redo
  // at the top of the history re-delivers the mask on screen with the preview
  // and a fresh outline, without changing the history.
  prepareBuffers();
  ::redo(previewBuffer_.data(), maskBuffer_.data());
  out.delivered = collect();
  if (!out.delivered) out.note = "no mask on screen after the rectangle";
  return out;
}

RequestOutcome LibrarySession::runWithMarks(const std::vector<cv::Point>& points,
                                            const std::vector<int>& markers, int mode,
                                            int (*request)(int, int, int, unsigned int*, unsigned char*),
                                            const char* abandoned) {
  RequestOutcome out;
  std::vector<int> coords;
  coords.reserve(points.size() * 2);
  for (const cv::Point& p : points) {
    coords.push_back(p.x);
    coords.push_back(p.y);
  }
  std::vector<int> grid = markers;  // the library may not write it, but owns no const
  prepareBuffers();
  const auto start = std::chrono::steady_clock::now();
  setCurrentMarkerVector(static_cast<int>(coords.size()), coords.data());
  setMarkerImage(width_, height_, grid.data(), mode);
  const int status = request(0, 0, 0, previewBuffer_.data(), maskBuffer_.data());
  out.millis = millisSince(start);
  out.delivered = status != SEGCORE_FAILED && collect();
  if (!out.delivered) out.note = status == SEGCORE_FAILED ? kFailedNote : abandoned;
  return out;
}

RequestOutcome LibrarySession::marks(const std::vector<cv::Point>& points,
                                     const std::vector<int>& markers, int mode) {
  return runWithMarks(points, markers, mode, processSegment, "cut abandoned; the previous mask stays");
}

RequestOutcome LibrarySession::cutOut(const std::vector<cv::Point>& points,
                                      const std::vector<int>& markers, int mode) {
  if (!hasMask_) {
    // The library would edit an uninitialised mask.
    RequestOutcome out;
    out.note = "no mask to edit";
    return out;
  }
  return runWithMarks(points, markers, mode, cutOutImage, "edit abandoned; the previous mask stays");
}

RequestOutcome LibrarySession::stepHistory(int (*step)(unsigned int*, unsigned char*)) {
  RequestOutcome out;
  prepareBuffers();
  const auto start = std::chrono::steady_clock::now();
  if (step(previewBuffer_.data(), maskBuffer_.data()) == SEGCORE_FAILED) {
    out.note = kFailedNote;
    return out;
  }
  out.millis = millisSince(start);
  out.delivered = collect();
  if (!out.delivered) {
    // Back at the plain photo.
    showPlainPhoto();
    out.note = "back at the plain photo";
  }
  return out;
}

RequestOutcome LibrarySession::undo() { return stepHistory(::undo); }

RequestOutcome LibrarySession::redo() {
  if (!canRedo()) {
    RequestOutcome out;
    out.note = "nothing to redo";
    return out;
  }
  return stepHistory(::redo);
}

void LibrarySession::reset() {
  resetSegmentationInterface();
  showPlainPhoto();
}

RequestOutcome LibrarySession::resumeAfterStop() {
  VELDSEMarker::resetMarkers();
  RequestOutcome out;
  const bool stepsAhead = canRedo() != 0;
  if (!hasMask_ && !stepsAhead) {
    // Empty history, or nothing recorded below the plain photo on screen.
    showPlainPhoto();
    out.note = "the plain photo stays";
    return out;
  }
  prepareBuffers();
  const auto start = std::chrono::steady_clock::now();
  if (::redo(previewBuffer_.data(), maskBuffer_.data()) == SEGCORE_FAILED) {
    out.note = kFailedNote;
    return out;
  }
  if (stepsAhead) {
    // redo stepped forward; undo steps back and delivers the step we were on.
    int* array = nullptr;
    int count = 0;
    fetch_path_array(&array, &count);  // the outline of the step we leave
    delete[] array;
    prepareBuffers();
    if (::undo(previewBuffer_.data(), maskBuffer_.data()) == SEGCORE_FAILED) {
      out.note = kFailedNote;
      return out;
    }
  }
  out.millis = millisSince(start);
  out.delivered = collect();
  if (!out.delivered) {
    showPlainPhoto();
    out.note = "back at the plain photo";
  }
  return out;
}

RequestOutcome LibrarySession::recordMask(const cv::Mat& mask) {
  CV_Assert(mask.type() == CV_8UC1 && mask.cols == width_ && mask.rows == height_);
  std::vector<int> grid(static_cast<size_t>(width_) * height_);
  for (int y = 0; y < height_; ++y) {
    const unsigned char* row = mask.ptr<unsigned char>(y);
    int* dst = &grid[static_cast<size_t>(y) * width_];
    for (int x = 0; x < width_; ++x) dst[x] = row[x] != 0 ? 2 : 1;
  }
  // Every pixel is marked, so the uncleared mask that cutOutImage starts from
  // on an empty history is overwritten everywhere.
  return runWithMarks({}, grid, 2, cutOutImage, "the mask could not be recorded");
}

void LibrarySession::showPlainPhoto() {
  hasMask_ = false;
  mask_ = cv::Mat::zeros(height_, width_, CV_8UC1);
  preview_ = fromArgb(photo_, width_, height_);
  outline_.clear();
}

}  // namespace segtools
