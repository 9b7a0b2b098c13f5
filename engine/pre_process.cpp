// Tightening of the working box before the first cut: black borders and flat,
// featureless border strips are cut off and become definite background, so
// the graph only covers the part of the box that has content.
#include <opencv2/core.hpp>
#include <opencv2/core/core_c.h>
#include <opencv2/imgproc.hpp>
#include <opencv2/imgproc/imgproc_c.h>

#include <cmath>
#include <cstdlib>

#include "engine/veldse_hybrid.h"
#include "interface/veldse_marker.h"
#include "support/image_rows.h"
#include "support/owned.h"
#include "support/size_check.h"

namespace {

// A line of the Sobel magnitude is flat when its mean neighbour difference is
// at most this.
const float kFlatness = 5.0f;
// Pass 2 takes back outer lines whose mean difference to the retained edge
// lies in this range: identical lines and strong edges both stop it.
const float kSimilarMin = 0.5f;
const float kSimilarMax = 40.0f;
// ... and then up to kMeanSteps more lines while neighbouring line means stay
// within kMeanStep grey levels.
const int kMeanSteps = 5;
const float kMeanStep = 10.0f;

// Marks every pixel of the box (x0, y0, width, height) as definite background
// except the inside of the retained rectangle (its own border ring included
// in the background on purpose). The order of the writes does not matter, so
// the box is walked row by row.
void markOutside(int x0, int y0, int width, int height, const cv::Rect& keep) {
  IplImage* labels = VELDSEMarker::m_labelImage;
  for (int r = 0; r < height; ++r) {
    unsigned char* row = imageRow(labels, y0 + r) + x0;
    const bool rowInside = keep.y < r && r < keep.y + keep.height - 1;
    for (int c = 0; c < width; ++c) {
      const bool inside = rowInside && keep.x < c && c < keep.x + keep.width - 1;
      if (!inside) row[c] = LABEL_BG;
    }
  }
}

bool validIn(const cv::Rect& r, int cols, int rows) {
  return r.x >= 0 && r.y >= 0 && r.x < cols && r.y < rows && r.width >= 1 && r.height >= 1 &&
         r.x + r.width <= cols && r.y + r.height <= rows;
}

// One flatness pass over the part of the magnitude M under R: the flat rows
// and columns at R's edges are cut off. Returns the new rectangle (possibly
// invalid).
cv::Rect trimFlatLines(const cv::Mat& magnitude, const cv::Rect& rect) {
  const cv::Mat s = magnitude(rect).clone();
  const int w = s.cols;
  const int h = s.rows;
  const float invW = 1.0f / static_cast<float>(w);
  const float invH = 1.0f / static_cast<float>(h);

  auto rowFlat = [&](int r) {
    if (w < 2) return true;
    const float* p = s.ptr<float>(r);
    float sum = 0.0f;
    for (int c = 0; c + 1 < w; ++c) sum += std::fabs(p[c] - p[c + 1]);
    return sum * invW <= kFlatness;
  };
  int top = 0;
  while (top < h && rowFlat(top)) ++top;
  int bottom = h - 1;
  while (bottom >= 0 && rowFlat(bottom)) --bottom;

  // Column sums, each accumulated from the top row down as a column-wise scan
  // would, but walked row by row.
  cv::Mat columnSum(1, w, CV_32F, cv::Scalar(0.0f));
  float* sums = columnSum.ptr<float>(0);
  for (int r = 0; r + 1 < h; ++r) {
    const float* p = s.ptr<float>(r);
    const float* q = s.ptr<float>(r + 1);
    for (int c = 0; c < w; ++c) sums[c] += std::fabs(p[c] - q[c]);
  }
  auto columnFlat = [&](int c) { return h < 2 || sums[c] * invH <= kFlatness; };
  int left = 0;
  while (left < w && columnFlat(left)) ++left;
  int right = w - 1;
  while (right >= 0 && columnFlat(right)) --right;

  return cv::Rect(rect.x + left, rect.y + top, right - left + 1, bottom - top + 1);
}

// The first half of growBack: outer lines similar to the retained edge. x, y,
// w, h: the rectangle, grown in place.
void growOverSimilarLines(const cv::Mat& grey, int& x, int& y, int& w, int& h) {
  const int cols = grey.cols;
  const int rows = grey.rows;

  // Mean absolute difference of two columns over R's rows / two rows over R's
  // columns.
  auto columnDiff = [&](int a, int b) {
    int sum = 0;
    for (int r = y; r < y + h; ++r) {
      const unsigned char* p = grey.ptr<unsigned char>(r);
      sum += std::abs(p[a] - p[b]);
    }
    return static_cast<float>(sum) / static_cast<float>(h);
  };
  auto rowDiff = [&](int a, int b) {
    const unsigned char* p = grey.ptr<unsigned char>(a);
    const unsigned char* q = grey.ptr<unsigned char>(b);
    int sum = 0;
    for (int c = x; c < x + w; ++c) sum += std::abs(p[c] - q[c]);
    return static_cast<float>(sum) / static_cast<float>(w);
  };
  auto similar = [](float d) { return d >= kSimilarMin && d <= kSimilarMax; };

  while (x > 0 && similar(columnDiff(x, x - 1))) {
    --x;
    ++w;
  }
  while (x + w - 1 < cols - 1 && similar(columnDiff(x + w - 1, x + w))) ++w;
  while (y > 0 && similar(rowDiff(y, y - 1))) {
    --y;
    ++h;
  }
  while (y + h - 1 < rows - 1 && similar(rowDiff(y + h - 1, y + h))) ++h;
}

// The second half of growBack: up to kMeanSteps more lines on each side (left,
// right, top, bottom) while neighbouring line means stay within kMeanStep.
void growOverSimilarMeans(const cv::Mat& grey, int& x, int& y, int& w, int& h) {
  const int cols = grey.cols;
  const int rows = grey.rows;

  auto columnMean = [&](int c) {
    int sum = 0;
    for (int r = y; r < y + h; ++r) sum += grey.ptr<unsigned char>(r)[c];
    return static_cast<float>(sum) / static_cast<float>(h);
  };
  auto rowMean = [&](int r) {
    const unsigned char* p = grey.ptr<unsigned char>(r);
    int sum = 0;
    for (int c = x; c < x + w; ++c) sum += p[c];
    return static_cast<float>(sum) / static_cast<float>(w);
  };
  // Number of steps outward (at most kMeanSteps) before two neighbouring line
  // means differ by more than kMeanStep; `inner(k)` and `outer(k)` are the
  // means of the k-th pair.
  auto meanSteps = [](auto inner, auto outer) {
    int k = 0;
    while (k < kMeanSteps && std::fabs(inner(k) - outer(k)) <= kMeanStep) ++k;
    return k;
  };

  if (x > kMeanSteps) {
    const int k = meanSteps([&](int i) { return columnMean(x - i); },
                            [&](int i) { return columnMean(x - i - 1); });
    x -= k;
    w += k;
  }
  if (x + w <= cols - kMeanSteps - 1) {
    const int edge = x + w - 1;
    w += meanSteps([&](int i) { return columnMean(edge + i); },
                   [&](int i) { return columnMean(edge + i + 1); });
  }
  if (y > kMeanSteps) {
    const int k = meanSteps([&](int i) { return rowMean(y - i); },
                            [&](int i) { return rowMean(y - i - 1); });
    y -= k;
    h += k;
  }
  if (y + h <= rows - kMeanSteps - 1) {
    const int edge = y + h - 1;
    h += meanSteps([&](int i) { return rowMean(edge + i); },
                   [&](int i) { return rowMean(edge + i + 1); });
  }
}

// Pass 2 grows the trimmed rectangle back outward on the grey box, side by
// side (left, right, top, bottom), first over similar lines, then over lines
// of similar mean level.
void growBack(const cv::Mat& grey, cv::Rect& rect) {
  growOverSimilarLines(grey, rect.x, rect.y, rect.width, rect.height);
  growOverSimilarMeans(grey, rect.x, rect.y, rect.width, rect.height);
}

}  // namespace

void VELDSEHybrid::removeBlackRegion() {
  const owned::Image crop(cropImage(VELDSEMarker::m_srcImage));
  const cv::Mat box = cv::cvarrToMat(crop.get());
  const int width = box.cols;
  const int height = box.rows;

  // Black: the first channel sums to nothing over the whole line.
  auto columnBlack = [&](int c) { return cv::sum(box.col(c))[0] <= 0.0; };
  auto rowBlack = [&](int r) { return cv::sum(box.row(r))[0] <= 0.0; };
  int left = 0;
  while (left < width && columnBlack(left)) ++left;
  int right = width - 1;
  while (right >= 0 && columnBlack(right)) --right;
  int top = 0;
  while (top < height && rowBlack(top)) ++top;
  int bottom = height - 1;
  while (bottom >= 0 && rowBlack(bottom)) --bottom;

  const bool found = left < width && top < height;
  const bool framed = left != 0 || top != 0 || right != width - 1 || bottom != height - 1;
  if (found && framed) {
    // The black lines and the first non-black ring inside them become
    // background; the box keeps the ring.
    markOutside(VELDSEMarker::m_xMinBBox, VELDSEMarker::m_yMinBBox, width, height,
                cv::Rect(left, top, right - left + 1, bottom - top + 1));
    VELDSEMarker::m_xMinBBox += left;
    VELDSEMarker::m_yMinBBox += top;
    m_boundHeight = bottom - top + 1;
    m_boundWidth = right - left + 1;
  }
}

void VELDSEHybrid::preProcess() {
  removeBlackRegion();

  owned::Image crop(cropImage(VELDSEMarker::m_srcImage));
  if (crop->width < 1 || crop->height < 1) {
    logMemoryCrash("preProcess", 2871);
    // Nothing to measure: an empty rectangle is invalid, so the box stays.
    return;
  }
  owned::Image greyImage = owned::Image::create(cvGetSize(crop.get()), IPL_DEPTH_8U, 1);
  cvCvtColor(crop.get(), greyImage.get(), CV_BGR2GRAY);
  const cv::Mat grey = cv::cvarrToMat(greyImage.get()).clone();
  crop.reset();
  greyImage.reset();

  cv::Mat gx, gy, magnitude;
  cv::Sobel(grey, gx, CV_32F, 1, 0, 3, 1.0, 0.0, cv::BORDER_DEFAULT);
  cv::Sobel(grey, gy, CV_32F, 0, 1, 3, 1.0, 0.0, cv::BORDER_DEFAULT);
  cv::magnitude(gx, gy, magnitude);
  const int cols = magnitude.cols;
  const int rows = magnitude.rows;

  cv::Rect rect(0, 0, cols, rows);
  for (int pass = 0; pass < 3; ++pass) {
    rect = trimFlatLines(magnitude, rect);
    if (!validIn(rect, cols, rows)) return;
    if (pass == 2) {
      growBack(grey, rect);
      if (!validIn(rect, cols, rows)) return;
    }
  }

  // Only three edges are looked at: a rectangle still touching the left, top
  // and right of the box keeps the box as it is, whatever its bottom.
  if (rect.x == 0 && rect.y == 0 && rect.x + rect.width == cols) return;

  markOutside(VELDSEMarker::m_xMinBBox, VELDSEMarker::m_yMinBBox, m_boundWidth, m_boundHeight,
              rect);
  VELDSEMarker::m_xMinBBox += rect.x;
  VELDSEMarker::m_yMinBBox += rect.y;
  m_boundHeight = rect.height;
  m_boundWidth = rect.width;
}
