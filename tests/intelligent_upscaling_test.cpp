// Full-resolution re-cut of the boundary band: the trimap, the band's box and
// its log lines, the trimap graph, and the fallback enlargement.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include <android/log.h>
#include <gtest/gtest.h>
#include <hostlog/capture.h>
#include <opencv2/core/core.hpp>
#include <opencv2/core/core_c.h>

#include "engine/veldse_hybrid.h"
#include "graph/veldse_graph.h"
#include "interface/veldse_marker.h"

namespace {

const int kScale = 4;
// Photo colours (B, G, R); the colour models separate them clearly.
const cv::Scalar kObject(30, 60, 200), kBackground(200, 60, 30);

cv::Mat M(const IplImage* im) { return cv::cvarrToMat(im); }

VELDSEColorModel singleComponent(double b, double g, double r, double var) {
  VELDSEColorModel m;
  m.weight[0] = m.normFactor[0] = 1.0;
  m.mean[0][0] = b, m.mean[0][1] = g, m.mean[0][2] = r;
  for (int i : {0, 4, 8}) m.covariance[0][i] = var, m.inverseCovariance[0][i] = 1.0 / var;
  m.determinant[0] = var * var * var;
  return m;
}

// Trimap code of a working pixel from its Chebyshev neighbourhood, written
// without morphology: within k dilations = an object pixel within distance k;
// within k erosions = every image pixel within distance k is object.
int referenceTrimap(const cv::Mat& mask, int x, int y) {
  auto count = [&](int k, bool all) {
    const cv::Mat w = mask(cv::Rect(x - k, y - k, 2 * k + 1, 2 * k + 1) & cv::Rect(0, 0, mask.cols, mask.rows));
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
  int photo[4];  // photo object rectangle at full resolution: x0, y0, x1, y1 inclusive
  bool grey;
};

class IntelligentUpscaling : public ::testing::Test {
 protected:
  void SetUp() override {
    hostlog::setEcho(false);
    hybrid_.m_lambda = 1.0, hybrid_.m_beta = 0.0005;
    hybrid_.m_fgModel = singleComponent(kObject[0], kObject[1], kObject[2], 400);
    hybrid_.m_bgModel = singleComponent(kBackground[0], kBackground[1], kBackground[2], 400);
  }
  void TearDown() override {
    for (IplImage** im : {&VELDSEMarker::m_originalImage, &VELDSEMarker::m_labelImage, &VELDSEMarker::m_texHor,
                          &VELDSEMarker::m_texVer})
      cvReleaseImage(im);
    VELDSEMarker::m_isGreyScale = false;
    delete hybrid_.m_trimapGraph;
    hybrid_.m_trimapGraph = nullptr;
  }

  // Builds the context for a scene and returns the working mask (0/1).
  cv::Mat setUpScene(const Scene& s) {
    const CvSize full = cvSize(s.size.width * kScale, s.size.height * kScale), work = cvSize(s.size.width, s.size.height);
    VELDSEMarker::m_originalWidth = full.width, VELDSEMarker::m_originalHeight = full.height;
    VELDSEMarker::m_originalImage = cvCreateImage(full, IPL_DEPTH_8U, 3);
    M(VELDSEMarker::m_originalImage).setTo(kBackground);
    M(VELDSEMarker::m_originalImage)(cv::Rect(cv::Point(s.photo[0], s.photo[1]), cv::Point(s.photo[2] + 1, s.photo[3] + 1)) &
                                        cv::Rect(0, 0, full.width, full.height))
        .setTo(kObject);
    cv::Mat mask(s.size, CV_8U, cv::Scalar(0));
    for (const cv::Rect& r : s.objects) mask(r).setTo(1);
    VELDSEMarker::m_labelImage = cvCreateImage(work, IPL_DEPTH_8U, 1);
    cv::Mat labels = M(VELDSEMarker::m_labelImage);
    labels.setTo(LABEL_PR_BG);
    labels.setTo(LABEL_PR_FG, mask);
    for (size_t i = 0; i + 2 < s.labelOverrides.size(); i += 3)
      labels.at<unsigned char>(s.labelOverrides[i + 1], s.labelOverrides[i]) = static_cast<unsigned char>(s.labelOverrides[i + 2]);
    VELDSEMarker::m_isGreyScale = s.grey;
    if (s.grey) {  // texture planes of zero: the models then only see channel 0
      for (IplImage** t : {&VELDSEMarker::m_texHor, &VELDSEMarker::m_texVer}) cvSetZero(*t = cvCreateImage(work, IPL_DEPTH_8U, 1));
      hybrid_.m_fgModel = singleComponent(kObject[0], 0, 0, 400);
      hybrid_.m_bgModel = singleComponent(kBackground[0], 0, 0, 400);
    }
    return mask;
  }

  // The re-cut of `mask` (which it may rewrite), and the lines it logged.
  cv::Mat upscale(cv::Mat& mask) {
    IplImage header = cvIplImage(mask);
    hostlog::startCapture();
    IplImage* result = hybrid_.intelligentUpscaling(&header);
    logs_ = hostlog::stopCapture();
    const cv::Mat copy = M(result).clone();
    cvReleaseImage(&result);
    return copy;
  }

  VELDSEHybrid hybrid_;
  std::vector<hostlog::Record> logs_;
};

TEST_F(IntelligentUpscaling, BandFollowsThePhotoAndTheRestTheLabels) {
  const Scene scenes[] = {
      {"square, photo edges inside the band", {16, 10}, {{3, 2, 6, 6}}, {}, {13, 10, 34, 29}, false},
      {"large object: labels decide the deep interior and far background", {20, 18}, {{3, 2, 10, 10}},
       {7, 6, LABEL_PR_BG, 8, 7, LABEL_BG, 18, 16, LABEL_PR_FG, 0, 17, LABEL_FG, 4, 3, LABEL_PR_BG}, {11, 9, 50, 46},
       false},
      {"one-pixel-wide object line", {16, 12}, {{2, 5, 12, 1}}, {5, 5, LABEL_PR_BG}, {10, 21, 55, 22}, false},
      {"object against three borders", {16, 12}, {{0, 0, 8, 12}}, {}, {0, 0, 29, 47}, false},
      {"grey photo uses channel 0 and the textures", {16, 10}, {{3, 2, 6, 6}}, {}, {14, 9, 33, 30}, true},
  };
  for (const Scene& s : scenes) {
    SCOPED_TRACE(s.name);
    SetUp();
    cv::Mat mask = setUpScene(s);
    const cv::Mat labels = M(VELDSEMarker::m_labelImage), photo = M(VELDSEMarker::m_originalImage);
    // Reference: band pixels follow the photo, all others the labels.
    int xmin = INT_MAX, xmax = -1, ymin = INT_MAX, ymax = -1;
    bool innerRing = false;
    cv::Mat expected(s.size * kScale, CV_8U);
    for (int y = 0; y < expected.rows; ++y) {
      for (int x = 0; x < expected.cols; ++x) {
        const int code = referenceTrimap(mask, x / kScale, y / kScale);
        innerRing = innerRing || code == 2;
        if (code != 7) xmin = std::min(xmin, x), xmax = std::max(xmax, x), ymin = std::min(ymin, y), ymax = std::max(ymax, y);
        const int label = labels.at<unsigned char>(y / kScale, x / kScale);
        const bool object = code == 0 ? photo.at<cv::Vec3b>(y, x)[0] == kObject[0] : (label == LABEL_FG || label == LABEL_PR_FG);
        expected.at<unsigned char>(y, x) = object ? 255 : 0;
      }
    }
    EXPECT_TRUE(!innerRing || std::string(s.name).find("line") == std::string::npos);

    const cv::Mat result = upscale(mask);
    ASSERT_EQ(result.size(), expected.size());
    EXPECT_EQ(cv::countNonZero(result != expected), 0);
    char passed[128], size[128];
    std::snprintf(passed, sizeof passed, "Passed: xmin:%d, xmax:%d, ymin:%d, ymax:%d", xmin, xmax, ymin, ymax);
    std::snprintf(size, sizeof size, "m_boundWidthTrimap:%d, m_boundHeightTrimap:%d", xmax - xmin + 1, ymax - ymin + 1);
    ASSERT_EQ(logs_.size(), 2u);
    EXPECT_EQ(logs_[0].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(logs_[0].tag, "Info");
    EXPECT_EQ(logs_[0].text, passed);
    EXPECT_EQ(logs_[1].tag, "Info");
    EXPECT_EQ(logs_[1].text, size);
    EXPECT_EQ(hybrid_.m_trimapGraph, nullptr);
    EXPECT_EQ(cv::countNonZero(mask > 1), 0);  // the working mask is left as it was (0/1) on this path
    TearDown();
  }
}

TEST_F(IntelligentUpscaling, BoxReachingThePhotoBordersIsTheWholePhoto) {
  // A cross: the band spans the photo from edge to edge in both directions;
  // the logged size is the photo's.
  cv::Mat mask = setUpScene({"cross", {10, 8}, {{4, 0, 2, 8}, {0, 3, 10, 2}}, {}, {16, 0, 23, 39}, false});
  upscale(mask);
  ASSERT_EQ(logs_.size(), 2u);
  EXPECT_EQ(logs_[0].text, "Passed: xmin:0, xmax:39, ymin:0, ymax:31");
  EXPECT_EQ(logs_[1].text, "m_boundWidthTrimap:40, m_boundHeightTrimap:32");
  EXPECT_EQ(hybrid_.m_boundWidthTrimap, 40);
  EXPECT_EQ(hybrid_.m_boundHeightTrimap, 32);
}

TEST_F(IntelligentUpscaling, UniformMasksFallBackToPlainEnlargement) {
  for (const bool object : {false, true}) {
    SCOPED_TRACE(object ? "all object" : "no object");
    SetUp();
    cv::Mat mask = setUpScene({"uniform", {9, 6}, {object ? cv::Rect(0, 0, 9, 6) : cv::Rect()}, {}, {0, 0, -1, -1}, false});
    const cv::Mat result = upscale(mask);
    const int value = object ? 255 : 0;
    ASSERT_EQ(result.size(), cv::Size(36, 24));
    EXPECT_EQ(cv::countNonZero(result != value), 0);
    EXPECT_EQ(cv::countNonZero(mask != value), 0);  // the object value is rewritten to 255 in place
    ASSERT_EQ(logs_.size(), 1u);
    EXPECT_EQ(logs_[0].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(logs_[0].tag, "Error");
    EXPECT_EQ(logs_[0].text, "Failed: xmin:2147483647, xmax:-1, ymin:2147483647, ymax:-1");
    EXPECT_EQ(hybrid_.m_trimapGraph, nullptr);
    TearDown();
  }
}

TEST_F(IntelligentUpscaling, CropCopiesTheBoxOfEveryChannel) {
  cv::Mat src(8, 10, CV_8UC3);
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 10; ++x) src.at<cv::Vec3b>(y, x) = cv::Vec3b(10 * y + x, 100 + 10 * y + x, 200 + 10 * y + x);
  IplImage header = cvIplImage(src);
  hybrid_.m_boundWidthTrimap = 4, hybrid_.m_boundHeightTrimap = 3;
  IplImage* crop = hybrid_.cropImageTrimap(&header, 4, 3, 2, 5);
  ASSERT_EQ(crop->nChannels, 3);
  EXPECT_EQ(cv::norm(M(crop), src(cv::Rect(5, 2, 4, 3)), cv::NORM_INF), 0);
  cvReleaseImage(&crop);
}

double unaryLink(const VELDSEHybrid& h, pixelVal v) {
  return -static_cast<float>(std::log(h.m_bgModel.GMMProb(v))) + static_cast<float>(std::log(h.m_fgModel.GMMProb(v)));
}

TEST_F(IntelligentUpscaling, TrimapGraphLinksFollowCodesAndContrast) {
  // Trimap (rows) and colours of a 4 x 3 box.
  const int codes[3][4] = {{0, 0, 7, 1}, {2, 0, 0, 0}, {7, 0, 0, 3}};
  cv::Mat img(3, 4, CV_8UC3), trimap(3, 4, CV_8U);
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 4; ++x) {
      trimap.at<unsigned char>(y, x) = static_cast<unsigned char>(codes[y][x]);
      img.at<cv::Vec3b>(y, x) = cv::Vec3b(20 + 37 * x + 11 * y, 200 - 23 * x * y, 90 + 41 * y - 7 * x);
    }
  IplImage imgIpl = cvIplImage(img), trimapIpl = cvIplImage(trimap);
  hybrid_.m_lambda = 3.0, hybrid_.m_beta = 0.00037;
  hybrid_.m_boundWidthTrimap = 4, hybrid_.m_boundHeightTrimap = 3;
  ASSERT_EQ(hybrid_.constructGraphTrimapVELD(&imgIpl, nullptr, &trimapIpl, nullptr, nullptr), 0);
  const VELDSEGraph& g = *hybrid_.m_trimapGraph;
  EXPECT_EQ(g.m_nodeCount, 12);
  EXPECT_EQ(g.m_capCount, 96);

  float t[256];
  for (int d = 0; d < 256; ++d) t[d] = std::exp(-static_cast<float>(d * d * 0.00037));
  const int dx[4] = {-1, -1, 0, 1}, dy[4] = {0, -1, -1, -1};
  for (int y = 0; y < 3; ++y) {
    for (int x = 0; x < 4; ++x) {
      SCOPED_TRACE(testing::Message() << "node (" << x << ", " << y << ")");
      const int node = x + 4 * y;
      const cv::Vec3b p = img.at<cv::Vec3b>(y, x);
      for (int s = 0; s < 4; ++s) {
        const int qx = x + dx[s], qy = y + dy[s];
        const float* pair = g.m_caps + 8 * node + 2 * s;
        if (qx < 0 || qx >= 4 || qy < 0 || codes[y][x] == 7 || codes[qy][qx] == 7) {
          EXPECT_EQ(pair[0], VELDSEGraph::ABSENT_EDGE) << "slot " << s;
          EXPECT_EQ(pair[1], VELDSEGraph::ABSENT_EDGE) << "slot " << s;
          continue;
        }
        const cv::Vec3b q = img.at<cv::Vec3b>(qy, qx);
        float c[3];
        for (int k = 0; k < 3; ++k) c[k] = t[std::abs(p[k] - q[k])];
        const float expected = s == 0   ? 3.0f  // colour-blind horizontal link
                               : s == 2 ? static_cast<float>(3.0 * c[0] * c[1] * c[2])
                                        : c[0] * static_cast<float>(3.0 * 0.7071067932881648) * c[1] * c[2];
        EXPECT_FLOAT_EQ(pair[0], expected) << "slot " << s;
        EXPECT_EQ(pair[1], pair[0]);
        if (s != 0) {
          EXPECT_LT(pair[0], 3.0f);  // the colours differ: contrast lowers the weight
        }
      }
      const int code = codes[y][x];
      const float want = code == 1   ? -1000.0f
                         : code == 2 ? 1000.0f
                         : code == 7 ? 0.0f
                                     : static_cast<float>(unaryLink(hybrid_, {{double(p[0]), double(p[1]), double(p[2])}}));
      EXPECT_FLOAT_EQ(g.m_nodes[node].trCap, want);
    }
  }
}

TEST_F(IntelligentUpscaling, TrimapGraphOfGreyPhotoSamplesTheTextures) {
  cv::Mat img(1, 2, CV_8UC3), trimap(1, 2, CV_8U, cv::Scalar(0)), hor(1, 2, CV_8U), ver(1, 2, CV_8U);
  img.at<cv::Vec3b>(0, 0) = {40, 250, 250};
  img.at<cv::Vec3b>(0, 1) = {180, 0, 0};
  hor.at<unsigned char>(0, 0) = 10, hor.at<unsigned char>(0, 1) = 11;
  ver.at<unsigned char>(0, 0) = 20, ver.at<unsigned char>(0, 1) = 21;
  IplImage i = cvIplImage(img), tr = cvIplImage(trimap), h = cvIplImage(hor), v = cvIplImage(ver);
  VELDSEMarker::m_isGreyScale = true;
  hybrid_.m_fgModel = singleComponent(50, 10, 20, 300);
  hybrid_.m_bgModel = singleComponent(170, 10, 20, 300);
  hybrid_.m_boundWidthTrimap = 2, hybrid_.m_boundHeightTrimap = 1;
  ASSERT_EQ(hybrid_.constructGraphTrimapVELD(&i, &h, &tr, &h, &v), 0);
  for (int x = 0; x < 2; ++x) {
    SCOPED_TRACE(x);
    EXPECT_FLOAT_EQ(hybrid_.m_trimapGraph->m_nodes[x].trCap,
                    static_cast<float>(unaryLink(hybrid_, {{double(img.at<cv::Vec3b>(0, x)[0]), 10.0 + x, 20.0 + x}})));
  }
}

}  // namespace
