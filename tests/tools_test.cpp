// Tests of the host tools: scoring and statistics of the evaluator, the marks
// that editing requests hand to the library, and segment_photo run as a
// process (argument errors, outputs, a replayed session).
#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tools/edit_requests.h"
#include "tools/scoring.h"

namespace {

using segtools::EditRequest;
using segtools::MaskScore;

cv::Mat fromRows(const std::vector<std::vector<int>>& rows) {
  cv::Mat m(static_cast<int>(rows.size()), static_cast<int>(rows[0].size()), CV_8UC1);
  for (int y = 0; y < m.rows; ++y)
    for (int x = 0; x < m.cols; ++x) m.at<unsigned char>(y, x) = static_cast<unsigned char>(rows[y][x]);
  return m;
}

// Expects the request's grid to hold `code` exactly where `on(x, y)` holds.
template <typename On>
void expectGrid(const EditRequest& r, int w, int h, int code, On on) {
  ASSERT_EQ(r.markers.size(), static_cast<size_t>(w * h));
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) EXPECT_EQ(r.markers[y * w + x], on(x, y) ? code : 0) << x << "," << y;
}

TEST(Scoring, HandMadeCaseGivesTheCountedAnswer) {
  // 128 pixels are left out; (0,1), (0,3) and (2,0) are wrong among the 10
  // scored; object in both: 3, in either: 6; the box x 1..2, y 0..1 scores 3
  // pixels of which (0,1) is wrong.
  const cv::Mat truth = fromRows({{0, 0, 255, 255}, {0, 128, 255, 255}, {0, 0, 0, 128}});
  const cv::Mat predicted = fromRows({{0, 255, 255, 0}, {0, 255, 255, 255}, {255, 0, 0, 0}});
  const MaskScore s = segtools::scoreMask(predicted, truth, cv::Rect(1, 0, 2, 2));
  EXPECT_EQ((std::vector<long>{s.scored, s.wrong, s.intersection, s.unionCount, s.scoredInRect,
                                    s.wrongInRect}),
            (std::vector<long>{10, 3, 3, 6, 3, 1}));
  EXPECT_DOUBLE_EQ(s.error(), 0.3);
  EXPECT_DOUBLE_EQ(s.iou(), 0.5);
  EXPECT_DOUBLE_EQ(s.rectError(), 1.0 / 3.0);
}

TEST(Scoring, EdgeCases) {
  struct Case {
    const char* name;
    std::vector<std::vector<int>> truth, predicted;
    cv::Rect rect;
    double error, rectError, iou;
  } cases[] = {
      {"all unknown", {{128, 128}}, {{255, 0}}, cv::Rect(0, 0, 2, 1), 0.0, 0.0, 1.0},
      // Prediction: any non-zero is object; truth: above 128 object.
      {"other values", {{200, 50}, {129, 127}}, {{1, 0}, {0, 7}}, cv::Rect(0, 0, 2, 2), 0.5, 0.5, 1.0 / 3.0},
      {"box past the border", {{0, 255}}, {{255, 255}}, cv::Rect(1, -5, 50, 50), 0.5, 0.0, 0.5},
      {"empty box", {{0, 255}}, {{0, 0}}, cv::Rect(0, 0, 0, 0), 0.5, 0.0, 0.0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const MaskScore s = segtools::scoreMask(fromRows(c.predicted), fromRows(c.truth), c.rect);
    EXPECT_DOUBLE_EQ(s.error(), c.error);
    EXPECT_DOUBLE_EQ(s.rectError(), c.rectError);
    EXPECT_DOUBLE_EQ(s.iou(), c.iou);
  }
}

TEST(Statistics, QuantilesInterpolateBetweenOrderStatistics) {
  const std::vector<double> v = {4.0, 1.0, 3.0, 2.0};
  EXPECT_DOUBLE_EQ(segtools::medianOf(v), 2.5);
  EXPECT_DOUBLE_EQ(segtools::quantileOf(v, 0.9), 3.7);
  EXPECT_DOUBLE_EQ(segtools::quantileOf(v, 0.0), 1.0);
  EXPECT_DOUBLE_EQ(segtools::quantileOf(v, 1.0), 4.0);
  EXPECT_DOUBLE_EQ(segtools::medianOf({5.0, 1.0, 9.0}), 5.0);
  EXPECT_DOUBLE_EQ(segtools::meanOf(v), 2.5);
  EXPECT_TRUE(std::isnan(segtools::medianOf({})) && std::isnan(segtools::meanOf({})));
}

TEST(EditRequests, LoopsAndStrokesCarryTheirCodeAndMode) {
  const std::vector<cv::Point> square = {{1, 1}, {4, 1}, {4, 3}, {1, 3}};
  EditRequest r;
  std::string error;
  ASSERT_TRUE(segtools::makeLoop(7, 6, square, &r, &error)) << error;
  EXPECT_EQ(r.kind, segtools::RequestKind::kMarks);
  EXPECT_EQ(r.mode, 0);
  EXPECT_EQ(r.points, square);
  expectGrid(r, 7, 6, 4, [](int x, int y) { return x >= 1 && x <= 4 && y >= 1 && y <= 3; });
  for (bool object : {true, false}) {
    SCOPED_TRACE(object ? "object" : "background");
    ASSERT_TRUE(segtools::makeStroke(8, 5, {{1, 2}, {6, 2}}, object, 1, &r, &error)) << error;
    EXPECT_EQ(r.mode, object ? 2 : 3);
    expectGrid(r, 8, 5, object ? 2 : 1, [](int x, int y) { return y == 2 && x >= 1 && x <= 6; });
  }
}

TEST(EditRequests, LoopFromMaskUsesPixelsFromHalfGreyUp) {
  // A lasso trimap: 255 inside, 128 band, 64 near background, 0 far away.
  cv::Mat trimap(20, 30, CV_8UC1, cv::Scalar(0));
  trimap(cv::Rect(2, 2, 20, 14)).setTo(64);
  trimap(cv::Rect(5, 4, 12, 9)).setTo(128);
  trimap(cv::Rect(7, 6, 8, 5)).setTo(255);
  EditRequest r;
  std::string error;
  ASSERT_TRUE(segtools::makeLoopFromMask(trimap, 30, 20, &r, &error)) << error;
  EXPECT_EQ(r.mode, 0);
  expectGrid(r, 30, 20, 4, [&](int x, int y) { return trimap.at<unsigned char>(y, x) >= 128; });
  // The loop runs along the outline of the marked region.
  ASSERT_GE(r.points.size(), 4u);
  for (const cv::Point& p : r.points)
    EXPECT_TRUE(cv::Rect(5, 4, 12, 9).contains(p) && (p.x == 5 || p.x == 16 || p.y == 4 || p.y == 12)) << p;
}

TEST(EditRequests, ScribblesBecomeOneRequestPerStrokeObjectFirst) {
  cv::Mat img(12, 16, CV_8UC3, cv::Scalar(0, 0, 0));
  img(cv::Rect(1, 1, 3, 3)).setTo(cv::Scalar(0, 0, 219));      // background
  img(cv::Rect(10, 8, 4, 2)).setTo(cv::Scalar(0, 0, 219));     // background
  img(cv::Rect(6, 4, 2, 5)).setTo(cv::Scalar(207, 255, 255));  // object
  img.at<cv::Vec3b>(0, 15) = cv::Vec3b(207, 255, 255);          // a speck, dropped
  std::vector<EditRequest> out;
  std::string error;
  ASSERT_TRUE(segtools::makeScribbleStrokes(img, 16, 12, segtools::ScribbleColours(), 1, &out, &error)) << error;
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ((std::vector<int>{out[0].mode, out[1].mode, out[2].mode}), (std::vector<int>{2, 3, 3}));
  auto count = [&](int i, int code) { return std::count(out[i].markers.begin(), out[i].markers.end(), code); };
  EXPECT_EQ(count(0, 2), 10);
  EXPECT_EQ(count(1, 1) + count(2, 1), 9 + 8);
  for (const EditRequest& r : out)
    for (const cv::Point& p : r.points) EXPECT_NE(r.markers[p.y * 16 + p.x], 0) << p;
  // A hair line drawn 7 wide (OpenCV's thick lines come out up to two pixels
  // wider): a solid run of 2 across it, centred on the line, nothing else.
  cv::Mat line(30, 40, CV_8UC3, cv::Scalar(0, 0, 0));
  cv::line(line, cv::Point(5, 15), cv::Point(34, 15), cv::Scalar(207, 255, 255), 1);
  out.clear();
  ASSERT_TRUE(segtools::makeScribbleStrokes(line, 40, 30, segtools::ScribbleColours(), 7, &out, &error)) << error;
  ASSERT_EQ(out.size(), 1u);
  int first = -1, last = -1;
  for (int y = 0; y < 30; ++y) {
    const int v = out[0].markers[y * 40 + 20];
    ASSERT_TRUE(v == 0 || v == 2) << y;
    if (v == 2) last = y, first = first < 0 ? y : first;
  }
  EXPECT_EQ(first + last, 30);
  EXPECT_TRUE(last - first + 1 >= 7 && last - first + 1 <= 9) << first << ".." << last;
  for (int y = first; y <= last; ++y) EXPECT_EQ(out[0].markers[y * 40 + 20], 2) << y;
}

TEST(EditRequests, CentrelineWalksAStrokeFromOneEndToTheOther) {
  std::vector<cv::Point> pixels;
  for (int x = 0; x <= 20; ++x) pixels.emplace_back((x * 8) % 21, 5);  // shuffled line
  for (int step : {1, 4}) {
    SCOPED_TRACE(step);
    const std::vector<cv::Point> line = segtools::strokeCentreline(pixels, step);
    ASSERT_GE(line.size(), static_cast<size_t>(20 / step));
    const int dir = line[1].x > line[0].x ? 1 : -1;
    EXPECT_TRUE(line.front().x == 0 || line.front().x == 20) << line.front();
    for (size_t i = 1; i < line.size(); ++i) {
      EXPECT_GT((line[i].x - line[i - 1].x) * dir, 0) << i;
      EXPECT_LE(std::abs(line[i].x - line[i - 1].x), 2 * step) << i;
    }
  }
  EXPECT_TRUE(segtools::strokeCentreline({}, 3).empty());
}

TEST(EditRequests, ScriptsParseAndUnusableInputIsRefusedWithAMessage) {
  const std::pair<const char*, const char*> cases[] = {
      {"rect 0 0 40 20", "s:1: rectangle 0,0-40,20 lies outside the 40x30 photo"},
      {"\n# comment\nrect 10 10 5 20", "s:3: rectangle 10,10-5,20 has its corners the wrong way"},
      {"rect 1 2 3", "rect wants four integers"},
      {"loop 1 1 5 5", "the loop is empty: it needs at least 3 points, got 2"},
      {"loop 1 1 5", "points come in x y pairs"},
      {"loop 100 100 120 100 120 120", "encloses no pixel"},
      {"object", "object wants points or a points file"},
      {"loop-mask /nonexistent/m.png", "no image at /nonexistent/m.png"},
      {"undo 3", "undo takes no argument"},
      {"cut 1 2", "unknown request 'cut'"},
  };
  segtools::ScriptContext ctx;
  ctx.width = 40;
  ctx.height = 30;
  ctx.strokeWidth = 3;
  std::vector<EditRequest> out;
  std::string error;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    EXPECT_FALSE(segtools::parseScript(c.first, "s", ctx, &out, &error));
    EXPECT_NE(error.find(c.second), std::string::npos) << error;
  }
  out.clear();
  ASSERT_TRUE(segtools::parseScript("rect 0,0,39,29\nobject 1 1 # a dot\nundo\nredo\nreset", "s", ctx, &out, &error))
      << error;
  ASSERT_EQ(out.size(), 5u);
  using K = segtools::RequestKind;
  EXPECT_EQ((std::vector<K>{out[0].kind, out[2].kind, out[3].kind, out[4].kind}),
            (std::vector<K>{K::kRectangle, K::kUndo, K::kRedo, K::kReset}));
  EXPECT_EQ(out[0].x2, 39);
  EXPECT_EQ(out[1].mode, 2);
}

#ifdef SEGCORE_SEGMENT_PHOTO

std::string sample(const char* name) { return std::string(SEGCORE_SOURCE_DIR) + "/samples/" + name; }
std::string slurp(const std::string& path) {
  std::stringstream s;
  s << std::ifstream(path).rdbuf();
  return s.str();
}

class SegmentPhoto : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string tmpl = ::testing::TempDir() + "segment_photo_XXXXXX";
    ASSERT_NE(mkdtemp(&tmpl[0]), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }
  std::string write(const std::string& name, const std::string& text) {
    std::ofstream(dir_ + "/" + name) << text;
    return dir_ + "/" + name;
  }
  // Runs the tool; returns its exit status and stores its output.
  int run(const std::string& args) {
    FILE* p = popen(("'" SEGCORE_SEGMENT_PHOTO "' " + args + " 2>&1").c_str(), "r");
    output_.clear();
    if (p == nullptr) return -1;
    char buf[512];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) output_.append(buf, n);
    const int st = pclose(p);
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  }
  std::string dir_, output_;
};

TEST_F(SegmentPhoto, BadInputExitsWithAMessage) {
  const std::string coffee = "'" + sample("coffee.png") + "' ";
  const std::string notImage = write("photo.png", "not a picture");
  const struct {
    std::string args;
    int status;
    std::string message;
  } cases[] = {
      {"", 2, "no photo given"},
      {coffee, 2, "no request given"},
      {coffee + "--rect", 2, "--rect needs a value"},
      {coffee + "--frobnicate", 2, "unknown option --frobnicate"},
      {coffee + "--stroke-width 0 --rect 1,1,5,5", 2, "--stroke-width wants"},
      {"a.png b.png --rect 1,1,5,5", 2, "more than one photo"},
      {"/no/such/photo.png --rect 1,1,5,5", 1, "no photo at '/no/such/photo.png'"},
      {"'" + notImage + "' --rect 1,1,5,5", 1, "cannot read '" + notImage + "' as an image"},
      {coffee + "--rect 10,10,600,100", 1, "lies outside the 600x400 photo"},
      {coffee + "--loop '" + write("two.txt", "10 10\n20 20\n") + "'", 1, "the loop is empty"},
      {coffee + "--loop /no/points.txt", 1, "cannot read the points file /no/points.txt"},
      {coffee + "--loop-mask '" + sample("chelsea.png") + "'", 1, "the loop mask is 451x300 but the photo is 600x400"},
      {coffee + "--scribbles '" + sample("camera.png") + "'", 1,
       "the scribble image is 512x512 but the photo is 600x400"},
      {coffee + "--script /no/script.txt", 1, "cannot read the script /no/script.txt"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    EXPECT_EQ(run("-o '" + dir_ + "/out' " + c.args), c.status) << output_;
    EXPECT_NE(output_.find("segment_photo: error: "), std::string::npos) << output_;
    EXPECT_NE(output_.find(c.message), std::string::npos) << output_;
  }
}

TEST_F(SegmentPhoto, RectangleGivesWhiteObjectInsideTheRectangleAndOutputs) {
  const struct {
    const char* photo;
    const char* rect;
    cv::Rect box;
    cv::Size size;
    bool boxChecked;
  } cases[] = {{"coffee.png", "120,60,480,340", cv::Rect(120, 60, 361, 281), cv::Size(600, 400), true},
               {"camera.png", "100,40,400,480", cv::Rect(100, 40, 301, 441), cv::Size(512, 512), false}};  // grey
  for (const auto& c : cases) {
    SCOPED_TRACE(c.photo);
    const std::string out = dir_ + "/" + c.photo;
    ASSERT_EQ(run("'" + sample(c.photo) + "' --rect " + c.rect + " -o '" + out + "'"), 0) << output_;
    EXPECT_NE(output_.find("mask:     " + out + "/mask.png"), std::string::npos) << output_;
    const cv::Mat mask = cv::imread(out + "/mask.png", cv::IMREAD_UNCHANGED);
    ASSERT_EQ(mask.type(), CV_8UC1);
    ASSERT_EQ(mask.size(), c.size);
    // Outside the rectangle nothing can be object: if the library's inverted
    // buffer were written as it is, the outside would be white.
    EXPECT_EQ(cv::countNonZero(mask == 0) + cv::countNonZero(mask == 255), static_cast<int>(mask.total()));
    EXPECT_GT(cv::countNonZero(mask), 0);
    if (c.boxChecked) {
      EXPECT_LT(cv::countNonZero(mask(c.box)), c.box.area());
      EXPECT_EQ(cv::countNonZero(mask(c.box)), cv::countNonZero(mask));
    }
    // The preview is the photo with a yellow outline.
    const cv::Mat preview = cv::imread(out + "/preview.png", cv::IMREAD_COLOR);
    cv::Mat yellow;
    EXPECT_GT(cv::norm(preview, cv::imread(sample(c.photo), cv::IMREAD_COLOR), cv::NORM_INF), 0);
    cv::inRange(preview, cv::Scalar(0, 255, 255), cv::Scalar(0, 255, 255), yellow);
    EXPECT_GT(cv::countNonZero(yellow), 0);
    const std::string json = slurp(out + "/outline.json");
    EXPECT_NE(json.find("\"width\": " + std::to_string(c.size.width)), std::string::npos) << json;
    EXPECT_NE(json.find("[["), std::string::npos) << "no contour point";
  }
}

TEST_F(SegmentPhoto, ScriptedSessionReplaysToTheSameMask) {
  write("stroke.txt", "300 200\n330 210\n360 200\n");
  const std::string script = write("session.txt",
                                   "# a short editing session\nrect 120 60 480 340\nbackground 150,80 200,90\n"
                                   "object stroke.txt\nundo\nredo\nloop 100 50 500 50 500 360 100 360\n");
  std::string masks[2], outlines[2];
  for (int i = 0; i < 2; ++i) {
    SCOPED_TRACE(i);
    const std::string out = dir_ + "/run" + std::to_string(i);
    ASSERT_EQ(run("'" + sample("coffee.png") + "' --script '" + script + "' -o '" + out + "'"), 0) << output_;
    EXPECT_NE(output_.find("[6/6] loop of 4 points"), std::string::npos) << output_;
    const std::string requests = slurp(out + "/requests.tsv");
    EXPECT_EQ(std::count(requests.begin(), requests.end(), '\n'), 7);  // header and six requests
    const cv::Mat mask = cv::imread(out + "/mask.png", cv::IMREAD_GRAYSCALE);
    ASSERT_FALSE(mask.empty());
    EXPECT_GT(cv::countNonZero(mask), 0);
    masks[i].assign(mask.datastart, mask.dataend);
    outlines[i] = slurp(out + "/outline.json");
  }
  EXPECT_TRUE(masks[0] == masks[1]) << "the replayed session gave another mask";
  EXPECT_EQ(outlines[0], outlines[1]);
}

#endif  // SEGCORE_SEGMENT_PHOTO

}  // namespace
