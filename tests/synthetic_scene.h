// Synthetic photos for the request-level tests: a warm disc (and optionally a
// square) of noisy colour on noisy cool diagonal stripes, with its truth mask.
// Grey scenes have a bright object on dark stripes.
#ifndef SEGCORE_TESTS_SYNTHETIC_SCENE_H
#define SEGCORE_TESTS_SYNTHETIC_SCENE_H

#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace synthetic {

using Pixels = std::vector<unsigned int>;
using Bytes = std::vector<unsigned char>;

struct Scene {
  int w, h;
  Pixels argb;    // 0xAARRGGBB, row-major
  cv::Mat truth;  // 255 = object
};

// The disc has radius h / 4 and its centre at (w * centreTenths / 10, h / 2).
inline Scene makeScene(int w, int h, bool grey = false, bool withSquare = false, int centreTenths = 4) {
  Scene s{w, h, Pixels(static_cast<size_t>(w) * h), cv::Mat::zeros(h, w, CV_8U)};
  cv::circle(s.truth, cv::Point(w * centreTenths / 10, h / 2), h / 4, cv::Scalar(255), cv::FILLED);
  if (withSquare) {
    cv::rectangle(s.truth, cv::Rect(w * 3 / 4, h / 3, w / 8, w / 8), cv::Scalar(255), cv::FILLED);
  }
  std::mt19937 rng(5);
  std::uniform_int_distribution<int> noise(-12, 12);
  auto clip = [](int v) { return static_cast<unsigned int>(v < 0 ? 0 : v > 255 ? 255 : v); };
  const int period = w / 20 > 4 ? w / 20 : 4;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const bool object = s.truth.at<unsigned char>(y, x) != 0;
      const bool stripe = ((x + y) / period) % 2 == 0;
      int r, g, b;
      if (grey) {
        r = g = b = object ? 190 : (stripe ? 50 : 85);
      } else if (object) {
        r = 205;
        g = 70;
        b = 45;
      } else {
        r = stripe ? 40 : 75;
        g = stripe ? 125 : 150;
        b = stripe ? 70 : 100;
      }
      const int n = noise(rng);
      const unsigned int rr = clip(r + n), gg = clip(g + (grey ? n : noise(rng))),
                         bb = clip(b + (grey ? n : noise(rng)));
      s.argb[static_cast<size_t>(y) * w + x] = 0xFF000000u | rr << 16 | gg << 8 | bb;
    }
  return s;
}

// IoU of the caller's mask buffer (0 = object) against the truth.
inline double iou(const Bytes& mask, const cv::Mat& truth) {
  int inter = 0, uni = 0;
  for (int y = 0; y < truth.rows; ++y)
    for (int x = 0; x < truth.cols; ++x) {
      const bool t = truth.at<unsigned char>(y, x) != 0;
      const bool m = mask[static_cast<size_t>(y) * truth.cols + x] == 0;
      inter += t && m;
      uni += t || m;
    }
  return uni == 0 ? 1.0 : static_cast<double>(inter) / uni;
}

// Set when the tests run under an emulator, where full-resolution cuts are slow.
inline bool emulated() {
  const char* v = std::getenv("SEGCORE_EMULATED");
  return v != nullptr && std::strcmp(v, "1") == 0;
}

}  // namespace synthetic

#endif
