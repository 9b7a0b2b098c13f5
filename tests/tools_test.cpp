// Tests of the host tools: scoring and statistics of the evaluator, and
// segment_photo run as a process (argument errors, outputs, a replayed session).
#include <opencv2/imgcodecs.hpp>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "tests/test_support.h"
#include "tools/scoring.h"

namespace {

TEST(Scoring, HandMadeCaseGivesTheCountedAnswer) {
  // 128 pixels are left out; (0,1), (0,3) and (2,0) are wrong among the 10
  // scored; object in both: 3, in either: 6; the box x 1..2, y 0..1 scores 3
  // pixels of which (0,1) is wrong.
  const cv::Mat truth = (cv::Mat_<uchar>(3, 4) << 0, 0, 255, 255, 0, 128, 255, 255, 0, 0, 0, 128);
  const cv::Mat predicted = (cv::Mat_<uchar>(3, 4) << 0, 255, 255, 0, 0, 255, 255, 255, 255, 0, 0, 0);
  const segtools::MaskScore s = segtools::scoreMask(predicted, truth, cv::Rect(1, 0, 2, 2));
  EXPECT_EQ(
      (std::vector<long>{s.scored, s.wrong, s.intersection, s.unionCount, s.scoredInRect, s.wrongInRect}),
      (std::vector<long>{10, 3, 3, 6, 3, 1}));
  EXPECT_EQ((std::vector<double>{s.error(), s.iou(), s.rectError()}),
            (std::vector<double>{0.3, 0.5, 1.0 / 3.0}));
}

TEST(Statistics, QuantilesInterpolateBetweenOrderStatistics) {
  const std::vector<double> v = {4.0, 1.0, 3.0, 2.0};
  EXPECT_DOUBLE_EQ(segtools::medianOf(v), 2.5);
  EXPECT_DOUBLE_EQ(segtools::quantileOf(v, 0.9), 3.7);
  EXPECT_DOUBLE_EQ(segtools::medianOf({5.0, 1.0, 9.0}), 5.0);
  EXPECT_DOUBLE_EQ(segtools::meanOf(v), 2.5);
  EXPECT_TRUE(std::isnan(segtools::medianOf({})) && std::isnan(segtools::meanOf({})));
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
    dir_ = ::testing::TempDir() + "segment_photo_XXXXXX";
    ASSERT_NE(mkdtemp(&dir_[0]), nullptr);
  }
  void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }
  std::string write(const std::string& name, const std::string& text) {
    std::ofstream(dir_ + "/" + name) << text;
    return dir_ + "/" + name;
  }
  // Runs the tool (in a cross build through the emulator that runs this test);
  // returns its exit status and stores its output.
  int run(const std::string& args) {
    FILE* p = popen((SEGCORE_TOOL_LAUNCHER "'" SEGCORE_SEGMENT_PHOTO "' " + args + " 2>&1").c_str(), "r");
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
      {coffee + "--loop-mask '" + sample("chelsea.png") + "'", 1,
       "the loop mask is 451x300 but the photo is 600x400"},
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
  // The grey photo's rectangle is not checked (its object reaches past it).
  const struct {
    const char* photo;
    const char* rect;
    cv::Rect box;
    int width;
  } cases[] = {{"coffee.png", "120,60,480,340", cv::Rect(120, 60, 361, 281), 600},
               {"camera.png", "100,40,400,480", {}, 512}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.photo);
    const std::string out = dir_ + "/" + c.photo;
    ASSERT_EQ(run("'" + sample(c.photo) + "' --rect " + c.rect + " -o '" + out + "'"), 0) << output_;
    EXPECT_NE(output_.find("mask:     " + out + "/mask.png"), std::string::npos) << output_;
    const cv::Mat mask = cv::imread(out + "/mask.png", cv::IMREAD_UNCHANGED);
    ASSERT_TRUE(mask.type() == CV_8UC1 && mask.size() == cv::imread(sample(c.photo)).size());
    // Binary, object only inside the rectangle (an inverted buffer written as
    // it is would make the outside white), and not the whole rectangle.
    EXPECT_EQ(cv::countNonZero(mask == 0) + cv::countNonZero(mask == 255), static_cast<int>(mask.total()));
    EXPECT_GT(cv::countNonZero(mask), 0);
    if (!c.box.empty()) {
      EXPECT_EQ(cv::countNonZero(mask(c.box)), cv::countNonZero(mask));
      EXPECT_LT(cv::countNonZero(mask(c.box)), c.box.area());
    }
    // The preview is the photo with a yellow outline.
    cv::Mat yellow;
    cv::inRange(cv::imread(out + "/preview.png", cv::IMREAD_COLOR), cv::Scalar(0, 255, 255),
                cv::Scalar(0, 255, 255), yellow);
    EXPECT_GT(cv::countNonZero(yellow), 0);
    const std::string json = slurp(out + "/outline.json");
    EXPECT_TRUE(json.find("\"width\": " + std::to_string(c.width)) != std::string::npos &&
                json.find("[[") != std::string::npos)
        << json;
  }
}

TEST_F(SegmentPhoto, ScriptedSessionReplaysToTheSameMask) {
  write("stroke.txt", "300 200\n330 210\n360 200\n");
  const std::string script =
      write("session.txt",
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
    ASSERT_GT(cv::countNonZero(mask), 0);
    masks[i].assign(mask.datastart, mask.dataend);
    outlines[i] = slurp(out + "/outline.json");
  }
  EXPECT_TRUE(masks[0] == masks[1]) << "the replayed session gave another mask";
  EXPECT_EQ(outlines[0], outlines[1]);
}

#endif  // SEGCORE_SEGMENT_PHOTO

}  // namespace
