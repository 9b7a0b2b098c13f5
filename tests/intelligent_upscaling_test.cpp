// Full-resolution re-cut of the boundary band: the trimap, the band's box and
// its log lines, the fallback enlargement, and the band graph's links.
#include <climits>

#include "engine/veldse_hybrid.h"
#include "graph/veldse_graph.h"
#include "interface/veldse_marker.h"
#include "tests/test_support.h"

namespace {

using testsupport::M;

const int kScale = 4;
// Photo colours (B, G, R); the colour models separate them clearly.
const cv::Scalar kObject(30, 60, 200), kBackground(200, 60, 30);

// Trimap code of a working pixel from its Chebyshev neighbourhood, written
// without morphology: within k dilations = an object pixel within distance k;
// within k erosions = every image pixel within distance k is object.
int referenceTrimap(const cv::Mat& mask, int x, int y) {
  auto count = [&](int k, bool all) {
    const cv::Mat w =
        mask(cv::Rect(x - k, y - k, 2 * k + 1, 2 * k + 1) & cv::Rect(0, 0, mask.cols, mask.rows));
    return all ? cv::countNonZero(w) == static_cast<int>(w.total()) : cv::countNonZero(w) > 0;
  };
  const int recode[5] = {7, 1, 0, 2, 7};
  return recode[count(3, false) + count(1, false) + count(1, true) + count(3, true)];
}

struct Scene {
  const char* name;
  cv::Size size;                  // working image
  std::vector<cv::Rect> objects;  // object areas of the working mask
  // Working label codes: those of the mask (4 object, 3 background) with
  // these exceptions (x, y, code).
  std::vector<int> labelOverrides;
  cv::Rect photo;      // photo object rectangle at full resolution
  int scale = kScale;  // photo size / working size
};

class IntelligentUpscaling : public ::testing::Test {
 protected:
  void SetUp() override {
    hybrid_.m_lambda = 1.0;
    hybrid_.m_beta = 0.0005;
    hybrid_.m_fgModel = testsupport::singleComponent(kObject[0], kObject[1], kObject[2], 400);
    hybrid_.m_bgModel = testsupport::singleComponent(kBackground[0], kBackground[1], kBackground[2], 400);
  }
  void TearDown() override {
    for (IplImage** im : {&VELDSEMarker::m_originalImage, &VELDSEMarker::m_labelImage}) cvReleaseImage(im);
    delete hybrid_.m_trimapGraph;
    hybrid_.m_trimapGraph = nullptr;
  }

  // Builds the context for a scene and returns the working mask (0/1).
  cv::Mat setUpScene(const Scene& s) {
    VELDSEMarker::m_originalWidth = s.size.width * s.scale;
    VELDSEMarker::m_originalHeight = s.size.height * s.scale;
    VELDSEMarker::m_originalImage = testsupport::newImage(s.size.width * s.scale, s.size.height * s.scale, 3);
    M(VELDSEMarker::m_originalImage).setTo(kBackground);
    M(VELDSEMarker::m_originalImage)(s.photo).setTo(kObject);
    cv::Mat mask(s.size, CV_8U, cv::Scalar(0));
    for (const cv::Rect& r : s.objects) mask(r).setTo(1);
    VELDSEMarker::m_labelImage = testsupport::newImage(s.size.width, s.size.height, 1, LABEL_PR_BG);
    cv::Mat labels = M(VELDSEMarker::m_labelImage);
    labels.setTo(LABEL_PR_FG, mask);
    for (size_t i = 0; i + 2 < s.labelOverrides.size(); i += 3)
      labels.at<unsigned char>(s.labelOverrides[i + 1], s.labelOverrides[i]) =
          static_cast<unsigned char>(s.labelOverrides[i + 2]);
    return mask;
  }

  // The re-cut of `mask` (which it may rewrite), and the lines it logged.
  cv::Mat upscale(cv::Mat& mask) {
    IplImage header = cvIplImage(mask);
    IplImage* result = nullptr;
    log_ = testsupport::logged([&] { result = hybrid_.intelligentUpscaling(&header); });
    const cv::Mat copy = M(result).clone();
    cvReleaseImage(&result);
    return copy;
  }

  VELDSEHybrid hybrid_;
  testsupport::Lines log_;
};

TEST_F(IntelligentUpscaling, BandFollowsThePhotoAndTheRestTheLabels) {
  const Scene scenes[] = {
      {"square, photo edges inside the band", {16, 10}, {{3, 2, 6, 6}}, {}, {13, 10, 22, 20}},
      {"large object: labels decide the deep interior and far background",
       {20, 18},
       {{3, 2, 10, 10}},
       {7, 6, LABEL_PR_BG, 8, 7, LABEL_BG, 18, 16, LABEL_PR_FG, 0, 17, LABEL_FG, 4, 3, LABEL_PR_BG},
       {11, 9, 40, 38}},
      {"one-pixel-wide object line", {16, 12}, {{2, 5, 12, 1}}, {5, 5, LABEL_PR_BG}, {10, 21, 46, 2}},
      {"object against three borders", {16, 12}, {{0, 0, 8, 12}}, {}, {0, 0, 30, 48}},
      // 150,000 band pixels: their likelihoods are worked out on several threads.
      {"large band", {30, 24}, {{8, 7, 14, 10}}, {}, {300, 300, 600, 360}, 40},
  };
  for (const Scene& s : scenes) {
    SCOPED_TRACE(s.name);
    SetUp();
    cv::Mat mask = setUpScene(s);
    const cv::Mat labels = M(VELDSEMarker::m_labelImage), photo = M(VELDSEMarker::m_originalImage);
    // Reference: band pixels follow the photo, all others the labels.
    int xmin = INT_MAX, xmax = -1, ymin = INT_MAX, ymax = -1;
    cv::Mat codes(s.size, CV_8U), expected(s.size * s.scale, CV_8U);
    for (int y = 0; y < codes.rows; ++y)
      for (int x = 0; x < codes.cols; ++x)
        codes.at<unsigned char>(y, x) = static_cast<unsigned char>(referenceTrimap(mask, x, y));
    for (int y = 0; y < expected.rows; ++y)
      for (int x = 0; x < expected.cols; ++x) {
        const int code = codes.at<unsigned char>(y / s.scale, x / s.scale);
        if (code != 7) {
          xmin = std::min(xmin, x);
          xmax = std::max(xmax, x);
          ymin = std::min(ymin, y);
          ymax = std::max(ymax, y);
        }
        const int label = labels.at<unsigned char>(y / s.scale, x / s.scale);
        const bool object = code == 0 ? photo.at<cv::Vec3b>(y, x)[0] == kObject[0]
                                      : (label == LABEL_FG || label == LABEL_PR_FG);
        expected.at<unsigned char>(y, x) = object ? 255 : 0;
      }
    const cv::Mat result = upscale(mask);
    ASSERT_EQ(result.size(), expected.size());
    EXPECT_EQ(cv::countNonZero(result != expected), 0);
    const std::string box = "xmin:" + std::to_string(xmin) + ", xmax:" + std::to_string(xmax) +
                            ", ymin:" + std::to_string(ymin) + ", ymax:" + std::to_string(ymax);
    EXPECT_EQ(log_, (testsupport::Lines{"I/Info: Passed: " + box,
                                        "I/Info: m_boundWidthTrimap:" + std::to_string(xmax - xmin + 1) +
                                            ", m_boundHeightTrimap:" + std::to_string(ymax - ymin + 1)}));
    EXPECT_EQ(hybrid_.m_trimapGraph, nullptr);
    EXPECT_EQ(cv::countNonZero(mask > 1), 0);  // the working mask is left as it was (0/1) on this path
    TearDown();
  }
}

TEST_F(IntelligentUpscaling, UniformMasksFallBackToPlainEnlargement) {
  for (const bool object : {false, true}) {
    SCOPED_TRACE(object ? "all object" : "no object");
    SetUp();
    cv::Mat mask = setUpScene({"uniform", {9, 6}, {object ? cv::Rect(0, 0, 9, 6) : cv::Rect()}, {}, {}});
    const cv::Mat result = upscale(mask);
    ASSERT_EQ(result.size(), cv::Size(36, 24));
    EXPECT_EQ(cv::countNonZero(result != (object ? 255 : 0)), 0);
    EXPECT_EQ(cv::countNonZero(mask != (object ? 255 : 0)),
              0);  // the object value is rewritten to 255 in place
    EXPECT_EQ(log_,
              testsupport::Lines{"E/Error: Failed: xmin:2147483647, xmax:-1, ymin:2147483647, ymax:-1"});
    EXPECT_EQ(hybrid_.m_trimapGraph, nullptr);
    TearDown();
  }
}

// The re-cut graph of a box without fixed pixels, against the link formulas
// evaluated in double: horizontal links carry the plain weight, vertical ones
// the weight times the per-channel contrast factors exp(-beta d^2), diagonal
// ones that times 1/sqrt(2).
TEST_F(IntelligentUpscaling, ReCutLinksFollowTheContrastFormulas) {
  const int w = 5, h = 4;
  const unsigned char codes[h][w] = {{1, 1, 0, 0, 2}, {1, 0, 0, 2, 2}, {0, 0, 2, 2, 2}, {1, 0, 0, 0, 2}};
  cv::Mat trimap(h, w, CV_8U, const_cast<unsigned char*>(&codes[0][0])), photo(h, w, CV_8UC3);
  for (int y = 0; y < h; ++y)  // neighbouring colours differ by at most 18 per channel
    for (int x = 0; x < w; ++x)
      photo.at<cv::Vec3b>(y, x) =
          cv::Vec3b(100 + (7 * x + 3 * y) % 13, 110 + (5 * x + 11 * y) % 17, 120 + (3 * x + 13 * y) % 19);
  hybrid_.m_lambda = 50.0;
  hybrid_.m_beta = 0.003;
  hybrid_.m_boundWidthTrimap = w;
  hybrid_.m_boundHeightTrimap = h;
  VELDSEMarker::m_isGreyScale = false;
  IplImage img = cvIplImage(photo), tri = cvIplImage(trimap);
  ASSERT_EQ(hybrid_.constructGraphTrimapVELD(&img, nullptr, &tri, nullptr, nullptr), 0);
  const VELDSEGraph* g = hybrid_.m_trimapGraph;
  auto contrast = [&](int x, int y, int dx, int dy) {
    const cv::Vec3d d = cv::Vec3d(photo.at<cv::Vec3b>(y, x)) - cv::Vec3d(photo.at<cv::Vec3b>(y + dy, x + dx));
    return std::exp(-0.003 * d.dot(d));
  };
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      SCOPED_TRACE(testing::Message() << "pixel " << x << "," << y);
      const int i = x + y * w;
      // Pairs towards left, upper-left, up, upper-right; -1: absent.
      const double want[4] = {x > 0 ? 50.0 : -1.0,
                              y > 0 && x > 0 ? 50.0 / std::sqrt(2.0) * contrast(x, y, -1, -1) : -1.0,
                              y > 0 ? 50.0 * contrast(x, y, 0, -1) : -1.0,
                              y > 0 && x + 1 < w ? 50.0 / std::sqrt(2.0) * contrast(x, y, 1, -1) : -1.0};
      for (int e = 0; e < 4; ++e)
        for (int s : {2 * e, 2 * e + 1}) {
          if (want[e] < 0)
            EXPECT_EQ(g->m_caps[8 * i + s], VELDSEGraph::ABSENT_EDGE) << "slot " << s;
          else
            EXPECT_NEAR(g->m_caps[8 * i + s], want[e], 2e-6 * want[e]) << "slot " << s;
        }
    }
}

}  // namespace
