// What most unit tests share: the usual includes, IplImage shorthands, log
// records as comparable lines, one-component colour models, and an engine
// started on a photo with a rectangle's marks.
#ifndef SEGCORE_TESTS_TEST_SUPPORT_H
#define SEGCORE_TESTS_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/core/core_c.h>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "colormodel/veldse_color_model.h"
#include "engine/veldse_hybrid.h"
#include "interface/segmentation_core.h"
#include "interface/veldse_marker.h"
#include "support/cpu_timer.h"
#include "tests/log_capture.h"

namespace testsupport {

using Lines = std::vector<std::string>;

inline cv::Mat M(const IplImage* im) { return cv::cvarrToMat(im); }

// A w x h 8-bit image with every byte `value`.
inline IplImage* newImage(int w, int h, int channels = 1, int value = 0) {
  IplImage* im = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, channels);
  cvSet(im, cvScalarAll(value));
  return im;
}

// Byte `ch` of pixel (x, y).
inline unsigned char& at(const IplImage* im, int x, int y, int ch = 0) {
  return reinterpret_cast<unsigned char*>(im->imageData + y * im->widthStep)[x * im->nChannels + ch];
}

// Records in logcat's short form, "E/Error: text", so that priority, tag and
// text of every line are compared at once.
inline Lines lines(const std::vector<hostlog::Record>& log) {
  Lines out;
  for (const hostlog::Record& r : log) {
    const std::string p = r.priority >= 2 && r.priority <= 7 ? std::string(1, "VDIWEF"[r.priority - 2])
                                                             : std::to_string(r.priority);
    out.push_back(p + "/" + r.tag + ": " + r.text);
  }
  return out;
}

// What `run` logs.
template <typename F>
Lines logged(F&& run) {
  hostlog::startCapture();
  run();
  return lines(hostlog::stopCapture());
}

inline pixelVal px(double a, double b, double c) { return pixelVal{{a, b, c}}; }

inline bool sameBits(const VELDSEColorModel& a, const VELDSEColorModel& b) {
  return std::memcmp(&a, &b, sizeof(VELDSEColorModel)) == 0;
}

// A mixture of one component, weight 1: mean (b, g, r), variance `var` on each
// channel and no correlation, normaliser `norm`.
inline VELDSEColorModel singleComponent(double b, double g, double r, double var, double norm = 1.0) {
  VELDSEColorModel m;
  m.weight[0] = 1.0;
  m.normFactor[0] = norm;
  m.determinant[0] = var * var * var;
  m.mean[0][0] = b;
  m.mean[0][1] = g;
  m.mean[0][2] = r;
  for (int i : {0, 4, 8}) m.covariance[0][i] = var, m.inverseCovariance[0][i] = 1.0 / var;
  return m;
}

// A rectangle as the app sends it: its border as a loop of points from
// (x1, y1) clockwise, every border pixel once.
inline std::vector<int> borderLoop(int x1, int y1, int x2, int y2) {
  std::vector<int> p;
  for (int x = x1; x < x2; ++x) p.insert(p.end(), {x, y1});
  for (int y = y1; y < y2; ++y) p.insert(p.end(), {x2, y});
  for (int x = x2; x > x1; --x) p.insert(p.end(), {x, y2});
  for (int y = y2; y > y1; --y) p.insert(p.end(), {x1, y});
  return p;
}

// A w x h marker grid with `code` in (x1, y1)-(x2, y2) and 0 (unknown) elsewhere.
inline std::vector<int> filledGrid(int w, int h, int x1, int y1, int x2, int y2, int code) {
  std::vector<int> grid(static_cast<size_t>(w) * h, 0);
  cv::Mat(h, w, CV_32S, grid.data())(cv::Rect(cv::Point(x1, y1), cv::Point(x2 + 1, y2 + 1))).setTo(code);
  return grid;
}

// fetch_path_array's status, then the outline array it hands out (released here).
inline std::vector<int> fetchOutline() {
  int* array = nullptr;
  int count = 0;
  std::vector<int> out = {fetch_path_array(&array, &count)};
  if (array != nullptr && count > 0) out.insert(out.end(), array, array + count);
  delete[] array;
  return out;
}

// Nothing of the engine's last request is left: graphs, crops, trial labels
// and the request's timer are released and their handles null again.
inline void expectNoRequestLeft() {
  EXPECT_EQ(pHybrid->m_graph, nullptr);
  EXPECT_EQ(pHybrid->m_trimapGraph, nullptr);
  EXPECT_EQ(pHybrid->m_cropSrc, nullptr);
  EXPECT_EQ(pHybrid->m_cropLabel, nullptr);
  EXPECT_EQ(pHybrid->m_cropLabelInit, nullptr);
  for (IplImage* l : pHybrid->m_iterLabel) EXPECT_EQ(l, nullptr);
  EXPECT_EQ(g_cancelTimer, nullptr);
}

// A context on a w x h photo (0xAARRGGBB; a copy goes, as the library may
// write to it) with its engine made directly at working size 1:1, as the
// engine's own tests start one.
inline void startEngine(int w, int h, const unsigned int* argb) {
  std::vector<unsigned int> photo(argb, argb + static_cast<size_t>(w) * h);
  setSourceImage(w, h, photo.data());
  g_imageResizeFactor = 1.0f;
  pHybrid = new VELDSEHybrid;
  VELDSEMarker::initializer();
  pHybrid->intializer();
}

// A rectangle request's marks handed to that engine: probable object in
// (x1, y1)-(x2, y2), its corners as the stroke.
inline void markRectangle(int w, int h, int x1, int y1, int x2, int y2) {
  std::vector<int> loop = {x1, y1, x2, y1, x2, y2, x1, y2};
  setCurrentMarkerVector(static_cast<int>(loop.size()), loop.data());
  std::vector<int> markers = filledGrid(w, h, x1, y1, x2, y2, LABEL_PR_FG);
  setMarkerImage(w, h, markers.data(), 0);
  pHybrid->setLabelImage(g_markerImage);
  cvReleaseImage(&g_markerImage);
}

}  // namespace testsupport

#endif
