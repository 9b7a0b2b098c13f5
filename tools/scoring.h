// Scoring a segmentation against ground truth, and the summary statistics of
// the evaluation. Header-only so that tests can use it without the tools.
//
// Ground truth: 0 background, 255 object, 128 the band of mixed pixels along
// the boundary, which is left out of every count (any other value counts as
// object above 128 and background below). Prediction: non-zero = object.
#ifndef SEGCORE_TOOLS_SCORING_H
#define SEGCORE_TOOLS_SCORING_H

#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace segtools {

constexpr unsigned char kTruthUnknown = 128;

struct MaskScore {
  long scored = 0;        // pixels whose ground truth is not 128
  long wrong = 0;         // of them, predicted on the wrong side
  long scoredInRect = 0;  // the same inside the rectangle
  long wrongInRect = 0;
  long intersection = 0;  // scored pixels that are object in both
  long unionCount = 0;    // scored pixels that are object in either

  // Fractions (0..1). An empty denominator gives 0 error and IoU 1: nothing
  // to get wrong.
  double error() const { return scored ? static_cast<double>(wrong) / scored : 0.0; }
  double rectError() const {
    return scoredInRect ? static_cast<double>(wrongInRect) / scoredInRect : 0.0;
  }
  double iou() const {
    return unionCount ? static_cast<double>(intersection) / unionCount : 1.0;
  }
};

// predicted and truth: 8-bit single channel of the same size. rect is clipped
// to the image (use cv::Rect(x1, y1, x2 - x1 + 1, y2 - y1 + 1) for inclusive
// corners).
inline MaskScore scoreMask(const cv::Mat& predicted, const cv::Mat& truth, const cv::Rect& rect) {
  CV_Assert(predicted.type() == CV_8UC1 && truth.type() == CV_8UC1);
  CV_Assert(predicted.size() == truth.size());
  const cv::Rect box = rect & cv::Rect(0, 0, truth.cols, truth.rows);
  MaskScore s;
  for (int y = 0; y < truth.rows; ++y) {
    const unsigned char* p = predicted.ptr<unsigned char>(y);
    const unsigned char* t = truth.ptr<unsigned char>(y);
    const bool rowInBox = y >= box.y && y < box.y + box.height;
    for (int x = 0; x < truth.cols; ++x) {
      if (t[x] == kTruthUnknown) continue;
      const bool isObject = t[x] > kTruthUnknown;
      const bool saysObject = p[x] != 0;
      const bool miss = isObject != saysObject;
      ++s.scored;
      s.wrong += miss;
      s.intersection += isObject && saysObject;
      s.unionCount += isObject || saysObject;
      if (rowInBox && x >= box.x && x < box.x + box.width) {
        ++s.scoredInRect;
        s.wrongInRect += miss;
      }
    }
  }
  return s;
}

inline double meanOf(const std::vector<double>& v) {
  if (v.empty()) return std::numeric_limits<double>::quiet_NaN();
  double sum = 0.0;
  for (double x : v) sum += x;
  return sum / static_cast<double>(v.size());
}

// The q-quantile (0..1) with linear interpolation between the order
// statistics at rank q*(n-1): the median of {1, 2, 3, 4} is 2.5 and its
// 0.9-quantile 3.7. NaN for an empty list.
inline double quantileOf(std::vector<double> v, double q) {
  if (v.empty()) return std::numeric_limits<double>::quiet_NaN();
  std::sort(v.begin(), v.end());
  const double rank = q * static_cast<double>(v.size() - 1);
  const size_t lo = static_cast<size_t>(std::floor(rank));
  const size_t hi = std::min(lo + 1, v.size() - 1);
  return v[lo] + (rank - static_cast<double>(lo)) * (v[hi] - v[lo]);
}

inline double medianOf(const std::vector<double>& v) { return quantileOf(v, 0.5); }

}  // namespace segtools

#endif
