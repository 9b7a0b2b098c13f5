// Tests of the host tools: scoring and statistics of the evaluator, the marks
// that editing requests hand to the library, and segment_photo run as a
// process (argument errors, outputs, a replayed session).
#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <sys/wait.h>
#include <unistd.h>

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
  for (int y = 0; y < m.rows; ++y) {
    for (int x = 0; x < m.cols; ++x) m.at<unsigned char>(y, x) = static_cast<unsigned char>(rows[y][x]);
  }
  return m;
}

int gridAt(const EditRequest& r, int width, int x, int y) { return r.markers[y * width + x]; }

// ---- Scoring ------------------------------------------------------------------

TEST(ScoringTest, HandMadeCaseGivesTheCountedAnswer) {
  // 128 pixels are left out; (0,1), (0,3) and (2,0) are wrong among the 10
  // scored; object in both: 3, in either: 6; the box x 1..2, y 0..1 scores 3
  // pixels of which (0,1) is wrong.
  const cv::Mat truth = fromRows({{0, 0, 255, 255}, {0, 128, 255, 255}, {0, 0, 0, 128}});
  const cv::Mat predicted = fromRows({{0, 255, 255, 0}, {0, 255, 255, 255}, {255, 0, 0, 0}});
  const MaskScore s = segtools::scoreMask(predicted, truth, cv::Rect(1, 0, 2, 2));
  EXPECT_EQ(s.scored, 10);
  EXPECT_EQ(s.wrong, 3);
  EXPECT_EQ(s.intersection, 3);
  EXPECT_EQ(s.unionCount, 6);
  EXPECT_EQ(s.scoredInRect, 3);
  EXPECT_EQ(s.wrongInRect, 1);
  EXPECT_DOUBLE_EQ(s.error(), 0.3);
  EXPECT_DOUBLE_EQ(s.iou(), 0.5);
  EXPECT_DOUBLE_EQ(s.rectError(), 1.0 / 3.0);
}

TEST(ScoringTest, EdgeCases) {
  struct Case {
    const char* name;
    std::vector<std::vector<int>> truth, predicted;
    cv::Rect rect;
    double error, rectError, iou;
  };
  const Case cases[] = {
      // Every pixel unknown: nothing to get wrong.
      {"all unknown", {{128, 128}}, {{255, 0}}, cv::Rect(0, 0, 2, 1), 0.0, 0.0, 1.0},
      // Prediction: any non-zero is object; truth: above 128 object.
      {"other values", {{200, 50}, {129, 127}}, {{1, 0}, {0, 7}}, cv::Rect(0, 0, 2, 2), 0.5, 0.5,
       1.0 / 3.0},
      // The box is clipped to the image: only column 1 lies inside.
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

TEST(StatisticsTest, QuantilesInterpolateBetweenOrderStatistics) {
  const std::vector<double> v = {4.0, 1.0, 3.0, 2.0};
  EXPECT_DOUBLE_EQ(segtools::medianOf(v), 2.5);
  EXPECT_DOUBLE_EQ(segtools::quantileOf(v, 0.9), 3.7);
  EXPECT_DOUBLE_EQ(segtools::quantileOf(v, 0.0), 1.0);
  EXPECT_DOUBLE_EQ(segtools::quantileOf(v, 1.0), 4.0);
  EXPECT_DOUBLE_EQ(segtools::medianOf({5.0, 1.0, 9.0}), 5.0);
  EXPECT_DOUBLE_EQ(segtools::meanOf(v), 2.5);
  EXPECT_TRUE(std::isnan(segtools::medianOf({})));
  EXPECT_TRUE(std::isnan(segtools::meanOf({})));
}

// ---- Marks handed to the library --------------------------------------------------

TEST(EditRequestsTest, LoopFillsProbableObjectInsideAndKeepsItsPoints) {
  const int w = 7, h = 6;
  const std::vector<cv::Point> square = {{1, 1}, {4, 1}, {4, 3}, {1, 3}};
  EditRequest r;
  std::string error;
  ASSERT_TRUE(segtools::makeLoop(w, h, square, &r, &error)) << error;
  EXPECT_EQ(r.kind, segtools::RequestKind::kMarks);
  EXPECT_EQ(r.mode, 0);
  EXPECT_EQ(r.points, square);
  ASSERT_EQ(r.markers.size(), static_cast<size_t>(w * h));
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      SCOPED_TRACE(std::to_string(x) + "," + std::to_string(y));
      const bool inside = x >= 1 && x <= 4 && y >= 1 && y <= 3;
      EXPECT_EQ(gridAt(r, w, x, y), inside ? 4 : 0);
    }
  }
}

TEST(EditRequestsTest, StrokesCarryTheirCodeAndMode) {
  const int w = 8, h = 5;
  for (bool object : {true, false}) {
    SCOPED_TRACE(object ? "object" : "background");
    EditRequest r;
    std::string error;
    ASSERT_TRUE(segtools::makeStroke(w, h, {{1, 2}, {6, 2}}, object, 1, &r, &error)) << error;
    EXPECT_EQ(r.mode, object ? 2 : 3);
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        const bool on = y == 2 && x >= 1 && x <= 6;
        EXPECT_EQ(gridAt(r, w, x, y), on ? (object ? 2 : 1) : 0) << x << "," << y;
      }
    }
  }
}

TEST(EditRequestsTest, LoopFromMaskUsesPixelsFromHalfGreyUp) {
  // A lasso trimap: 255 inside, 128 band, 64 near background, 0 far away.
  cv::Mat trimap(20, 30, CV_8UC1, cv::Scalar(0));
  trimap(cv::Rect(2, 2, 20, 14)).setTo(64);
  trimap(cv::Rect(5, 4, 12, 9)).setTo(128);
  trimap(cv::Rect(7, 6, 8, 5)).setTo(255);
  EditRequest r;
  std::string error;
  ASSERT_TRUE(segtools::makeLoopFromMask(trimap, 30, 20, &r, &error)) << error;
  EXPECT_EQ(r.mode, 0);
  for (int y = 0; y < 20; ++y) {
    for (int x = 0; x < 30; ++x) {
      EXPECT_EQ(gridAt(r, 30, x, y), trimap.at<unsigned char>(y, x) >= 128 ? 4 : 0) << x << "," << y;
    }
  }
  // The loop runs along the outline of the marked region.
  ASSERT_GE(r.points.size(), 4u);
  for (const cv::Point& p : r.points) {
    EXPECT_TRUE(p.x == 5 || p.x == 16 || p.y == 4 || p.y == 12) << p;
    EXPECT_TRUE(cv::Rect(5, 4, 12, 9).contains(p)) << p;
  }
}

TEST(EditRequestsTest, ScribblesBecomeOneRequestPerStrokeObjectFirst) {
  const segtools::ScribbleColours colours;
  cv::Mat img(12, 16, CV_8UC3, cv::Scalar(0, 0, 0));
  img(cv::Rect(1, 1, 3, 3)).setTo(cv::Scalar(0, 0, 219));      // background
  img(cv::Rect(10, 8, 4, 2)).setTo(cv::Scalar(0, 0, 219));     // background
  img(cv::Rect(6, 4, 2, 5)).setTo(cv::Scalar(207, 255, 255));  // object
  img.at<cv::Vec3b>(0, 15) = cv::Vec3b(207, 255, 255);          // a speck, dropped
  std::vector<EditRequest> out;
  std::string error;
  ASSERT_TRUE(segtools::makeScribbleStrokes(img, 16, 12, colours, 1, &out, &error)) << error;
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[0].mode, 2);
  EXPECT_EQ(out[1].mode, 3);
  EXPECT_EQ(out[2].mode, 3);
  EXPECT_EQ(std::count(out[0].markers.begin(), out[0].markers.end(), 2), 10);
  EXPECT_EQ(std::count(out[1].markers.begin(), out[1].markers.end(), 1) +
                std::count(out[2].markers.begin(), out[2].markers.end(), 1),
            9 + 8);
  for (const EditRequest& r : out) {
    for (const cv::Point& p : r.points) EXPECT_NE(r.markers[p.y * 16 + p.x], 0) << p;
  }
}

TEST(EditRequestsTest, ScribbleIsWidenedToTheStrokeWidth) {
  cv::Mat img(30, 40, CV_8UC3, cv::Scalar(0, 0, 0));
  cv::line(img, cv::Point(5, 15), cv::Point(34, 15), cv::Scalar(207, 255, 255), 1);
  std::vector<EditRequest> out;
  std::string error;
  ASSERT_TRUE(segtools::makeScribbleStrokes(img, 40, 30, segtools::ScribbleColours(), 7, &out,
                                            &error))
      << error;
  ASSERT_EQ(out.size(), 1u);
  // A hair line drawn 7 wide (OpenCV's thick lines come out up to two pixels
  // wider): a solid run of 2 across it, centred on the line, nothing else.
  int first = -1, last = -1;
  for (int y = 0; y < 30; ++y) {
    const int v = gridAt(out[0], 40, 20, y);
    ASSERT_TRUE(v == 0 || v == 2) << y;
    if (v == 2 && first < 0) first = y;
    if (v == 2) last = y;
  }
  EXPECT_EQ(first + last, 30);
  EXPECT_GE(last - first + 1, 7);
  EXPECT_LE(last - first + 1, 9);
  for (int y = first; y <= last; ++y) EXPECT_EQ(gridAt(out[0], 40, 20, y), 2) << y;
}

TEST(EditRequestsTest, CentrelineWalksAStrokeFromOneEndToTheOther) {
  std::vector<cv::Point> pixels;
  for (int x = 0; x <= 20; ++x) pixels.emplace_back((x * 8) % 21, 5);  // shuffled line
  for (int step : {1, 4}) {
    SCOPED_TRACE(step);
    const std::vector<cv::Point> line = segtools::strokeCentreline(pixels, step);
    ASSERT_GE(line.size(), static_cast<size_t>(20 / step));
    const int dir = line[1].x > line[0].x ? 1 : -1;
    EXPECT_TRUE(line.front().x == 0 || line.front().x == 20) << line.front();
    for (size_t i = 1; i < line.size(); ++i) {
      EXPECT_EQ((line[i].x - line[i - 1].x) * dir > 0, true) << i;
      EXPECT_LE(std::abs(line[i].x - line[i - 1].x), 2 * step) << i;
    }
  }
  EXPECT_TRUE(segtools::strokeCentreline({}, 3).empty());
}

TEST(EditRequestsTest, UnusableInputIsRefusedWithAMessage) {
  struct Case {
    const char* script;
    const char* message;
  };
  const Case cases[] = {
      {"rect 0 0 40 20", "s:1: rectangle 0,0-40,20 lies outside the 40x30 photo"},
      {"rect -1 0 10 10", "outside the 40x30 photo"},
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
  for (const Case& c : cases) {
    SCOPED_TRACE(c.script);
    std::vector<EditRequest> out;
    std::string error;
    EXPECT_FALSE(segtools::parseScript(c.script, "s", ctx, &out, &error));
    EXPECT_NE(error.find(c.message), std::string::npos) << error;
  }
  std::vector<EditRequest> out;
  std::string error;
  ASSERT_TRUE(segtools::parseScript("rect 0,0,39,29\nobject 1 1 # a dot\nundo\nredo\nreset", "s",
                                    ctx, &out, &error))
      << error;
  ASSERT_EQ(out.size(), 5u);
  EXPECT_EQ(out[0].kind, segtools::RequestKind::kRectangle);
  EXPECT_EQ(out[0].x2, 39);
  EXPECT_EQ(out[1].mode, 2);
  EXPECT_EQ(out[2].kind, segtools::RequestKind::kUndo);
  EXPECT_EQ(out[3].kind, segtools::RequestKind::kRedo);
  EXPECT_EQ(out[4].kind, segtools::RequestKind::kReset);
}

// ---- segment_photo as a process ---------------------------------------------------

#ifdef SEGCORE_SEGMENT_PHOTO

struct ToolRun {
  int status;
  std::string output;
};

ToolRun runTool(const std::string& args) {
  const std::string cmd = std::string("'") + SEGCORE_SEGMENT_PHOTO + "' " + args + " 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  ToolRun r{-1, ""};
  if (p == nullptr) return r;
  char buf[512];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.output.append(buf, n);
  const int st = pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  return r;
}

std::string sample(const char* name) { return std::string(SEGCORE_SOURCE_DIR) + "/samples/" + name; }

class SegmentPhotoTest : public ::testing::Test {
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
  std::string dir_;
};

TEST_F(SegmentPhotoTest, BadInputExitsWithAMessage) {
  const std::string coffee = sample("coffee.png");
  const std::string twoPoints = write("two.txt", "10 10\n20 20\n");
  const std::string notImage = write("photo.png", "not a picture");
  struct Case {
    std::string args;
    int status;
    std::string message;
  };
  const Case cases[] = {
      {"", 2, "no photo given"},
      {"'" + coffee + "'", 2, "no request given"},
      {"'" + coffee + "' --rect", 2, "--rect needs a value"},
      {"'" + coffee + "' --frobnicate", 2, "unknown option --frobnicate"},
      {"'" + coffee + "' --stroke-width 0 --rect 1,1,5,5", 2, "--stroke-width wants"},
      {"a.png b.png --rect 1,1,5,5", 2, "more than one photo"},
      {"/no/such/photo.png --rect 1,1,5,5", 1, "no photo at '/no/such/photo.png'"},
      {"'" + notImage + "' --rect 1,1,5,5", 1, "cannot read '" + notImage + "' as an image"},
      {"'" + coffee + "' --rect 10,10,600,100", 1, "lies outside the 600x400 photo"},
      {"'" + coffee + "' --rect 10,10,5,100", 1, "corners the wrong way round"},
      {"'" + coffee + "' --loop '" + twoPoints + "'", 1, "the loop is empty"},
      {"'" + coffee + "' --loop /no/points.txt", 1, "cannot read the points file /no/points.txt"},
      {"'" + coffee + "' --loop-mask '" + sample("chelsea.png") + "'", 1,
       "the loop mask is 451x300 but the photo is 600x400"},
      {"'" + coffee + "' --scribbles '" + sample("camera.png") + "'", 1,
       "the scribble image is 512x512 but the photo is 600x400"},
      {"'" + coffee + "' --script /no/script.txt", 1, "cannot read the script /no/script.txt"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args);
    const ToolRun r = runTool("-o '" + dir_ + "/out' " + c.args);
    EXPECT_EQ(r.status, c.status) << r.output;
    EXPECT_NE(r.output.find("segment_photo: error: " ), std::string::npos) << r.output;
    EXPECT_NE(r.output.find(c.message), std::string::npos) << r.output;
  }
}

TEST_F(SegmentPhotoTest, RectangleGivesWhiteObjectInsideTheRectangleAndOutputs) {
  const ToolRun r = runTool("'" + sample("coffee.png") + "' --rect 120,60,480,340 -o '" + dir_ + "'");
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_NE(r.output.find("mask:     " + dir_ + "/mask.png"), std::string::npos) << r.output;
  const cv::Mat mask = cv::imread(dir_ + "/mask.png", cv::IMREAD_UNCHANGED);
  ASSERT_EQ(mask.type(), CV_8UC1);
  ASSERT_EQ(mask.size(), cv::Size(600, 400));
  // Outside the rectangle nothing can be object: if the library's inverted
  // buffer were written as it is, the outside would be white.
  const cv::Rect rect(120, 60, 361, 281);
  int object = 0;
  for (int y = 0; y < mask.rows; ++y) {
    for (int x = 0; x < mask.cols; ++x) {
      const unsigned char v = mask.at<unsigned char>(y, x);
      ASSERT_TRUE(v == 0 || v == 255);
      if (v == 255) {
        ++object;
        ASSERT_TRUE(rect.contains(cv::Point(x, y))) << x << "," << y;
      }
    }
  }
  EXPECT_GT(object, 0);
  EXPECT_LT(object, rect.area());
  // The preview is the photo with a yellow outline.
  const cv::Mat preview = cv::imread(dir_ + "/preview.png", cv::IMREAD_COLOR);
  const cv::Mat photo = cv::imread(sample("coffee.png"), cv::IMREAD_COLOR);
  cv::Mat differs;
  cv::compare(preview.reshape(1), photo.reshape(1), differs, cv::CMP_NE);
  EXPECT_GT(cv::countNonZero(differs), 0);
  cv::Mat yellow;
  cv::inRange(preview, cv::Scalar(0, 255, 255), cv::Scalar(0, 255, 255), yellow);
  EXPECT_GT(cv::countNonZero(yellow), 0);
  std::ifstream outline(dir_ + "/outline.json");
  std::stringstream json;
  json << outline.rdbuf();
  EXPECT_NE(json.str().find("\"width\": 600"), std::string::npos);
  EXPECT_NE(json.str().find("[["), std::string::npos) << "no contour point";
}

TEST_F(SegmentPhotoTest, GreyPhotoIsSegmented) {
  const ToolRun r = runTool("'" + sample("camera.png") + "' --rect 100,40,400,480 -o '" + dir_ + "'");
  ASSERT_EQ(r.status, 0) << r.output;
  const cv::Mat mask = cv::imread(dir_ + "/mask.png", cv::IMREAD_UNCHANGED);
  ASSERT_EQ(mask.size(), cv::Size(512, 512));
  EXPECT_GT(cv::countNonZero(mask), 0);
}

TEST_F(SegmentPhotoTest, ScriptedSessionReplaysToTheSameMask) {
  write("stroke.txt", "300 200\n330 210\n360 200\n");
  const std::string script = write("session.txt",
                                   "# a short editing session\n"
                                   "rect 120 60 480 340\n"
                                   "background 150,80 200,90\n"
                                   "object stroke.txt\n"
                                   "undo\n"
                                   "redo\n"
                                   "loop 100 50 500 50 500 360 100 360\n");
  std::string masks[2], outlines[2];
  for (int run = 0; run < 2; ++run) {
    SCOPED_TRACE(run);
    const std::string out = dir_ + "/run" + std::to_string(run);
    const ToolRun r = runTool("'" + sample("coffee.png") + "' --script '" + script + "' -o '" + out + "'");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("[6/6] loop of 4 points"), std::string::npos) << r.output;
    std::ifstream in(out + "/requests.tsv");
    int lines = 0;
    for (std::string l; std::getline(in, l);) ++lines;
    EXPECT_EQ(lines, 7);  // header and six requests
    const cv::Mat mask = cv::imread(out + "/mask.png", cv::IMREAD_GRAYSCALE);
    ASSERT_FALSE(mask.empty());
    EXPECT_GT(cv::countNonZero(mask), 0);
    masks[run].assign(mask.datastart, mask.dataend);
    std::ifstream o(out + "/outline.json");
    std::stringstream s;
    s << o.rdbuf();
    outlines[run] = s.str();
  }
  EXPECT_TRUE(masks[0] == masks[1]) << "the replayed session gave another mask";
  EXPECT_EQ(outlines[0], outlines[1]);
}

#endif  // SEGCORE_SEGMENT_PHOTO

}  // namespace
