// Rectangle requests on real photos of the GrabCut benchmark, scored against
// its ground truth (the band of mixed pixels, value 128, is not scored).
// The photos are research data kept outside the repository; without them the
// tests are skipped.
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include <opencv2/imgcodecs.hpp>

#include "interface/segmentation_core.h"
#include "tests/test_support.h"

namespace {

const std::string kRoot = SEGCORE_DATASET_DIR "/grabcut";

// Error rate over the whole photo: misclassified scored pixels / scored pixels.
double rectangleRequestError(const std::string& name, const cv::Vec4i& r, double upscale) {
  const std::string jpg = kRoot + "/images/" + name + ".jpg";
  cv::Mat photo = cv::imread(std::ifstream(jpg).good() ? jpg : kRoot + "/images/" + name + ".bmp");
  cv::Mat truth = cv::imread(kRoot + "/gt/" + name + ".bmp", cv::IMREAD_GRAYSCALE);
  if (photo.empty() || truth.empty()) return -1.0;
  if (upscale != 1.0) {
    cv::resize(photo, photo, cv::Size(), upscale, upscale, cv::INTER_LINEAR);
    cv::resize(truth, truth, photo.size(), 0, 0, cv::INTER_NEAREST);
  }
  cv::Mat argb;  // opaque BGRA bytes are ARGB words on a little-endian host
  cv::cvtColor(photo, argb, cv::COLOR_BGR2BGRA);
  cv::Mat mask(photo.size(), CV_8U, cv::Scalar(77));
  const auto s = [&](int i) { return static_cast<int>(r[i] * upscale); };
  doSegmentationBB(photo.cols, photo.rows, reinterpret_cast<unsigned int*>(argb.data), s(0), s(1), s(2), s(3),
                   mask.data);
  deinitSegmentation();
  const cv::Mat scored = truth != 128;
  return static_cast<double>(cv::countNonZero(((mask == 0) != (truth > 128)) & scored)) /
         cv::countNonZero(scored);
}

class GrabCutDataset : public ::testing::Test {
 protected:
  void SetUp() override {
    // Emulated runs are too slow for whole photos: cuts hit the time limit.
    if (std::getenv("SEGCORE_EMULATED") != nullptr) GTEST_SKIP() << "photos skipped under emulation";
    std::ifstream in(kRoot + "/rects.tsv");  // name x1 y1 x2 y2
    for (std::string line, name; std::getline(in, line);) {
      cv::Vec4i r;
      if (std::istringstream(line) >> name >> r[0] >> r[1] >> r[2] >> r[3]) rects[name] = r;
    }
    if (rects.empty()) GTEST_SKIP() << "GrabCut photos not found under " << kRoot;
  }
  std::map<std::string, cv::Vec4i> rects;
};

// Limits are about twice the error measured at native size (0.05 % to 1.8 %
// on these photos; 0.8 % on average): a regression in any stage of the
// pipeline pushes at least one photo over. At three times the size in each
// direction the working image is reduced about 12-fold in area and the
// boundary is re-cut at full resolution (measured 0.06 %, 0.2 %, 0.6 %, 1.0 %).
TEST_F(GrabCutDataset, RectangleRequestsMatchGroundTruth) {
  const struct {
    const char* name;
    double upscale, maxError;
  } cases[] = {
      {"banana2", 1, 0.012}, {"book", 1, 0.035},  {"flower", 1, 0.003},  {"llama", 1, 0.025},
      {"memorial", 1, 0.02}, {"sheep", 1, 0.005}, {"teddy", 1, 0.012},   {"flower", 3, 0.002},
      {"sheep", 3, 0.005},   {"teddy", 3, 0.012}, {"memorial", 3, 0.02},
  };
  double nativeSum = 0.0;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.name << " x" << c.upscale);
    ASSERT_TRUE(rects.count(c.name));
    const double error = rectangleRequestError(c.name, rects[c.name], c.upscale);
    ASSERT_GE(error, 0.0) << "photo or ground truth unreadable";
    EXPECT_LT(error, c.maxError);
    if (c.upscale == 1) nativeSum += error;
  }
  EXPECT_LT(nativeSum / 7, 0.012);
}

}  // namespace
