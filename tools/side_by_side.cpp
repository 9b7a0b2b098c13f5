// side_by_side: puts pictures next to each other in one PNG, each scaled to
// the height of the first and named in a strip above it. The demo uses it to
// show a photo, its mask and its preview at a glance.
//
//   side_by_side OUT.png PICTURE[=NAME]...
//
// Exit status: 0 written, 1 a picture could not be read or OUT not written,
// 2 bad command line.
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr int kGap = 8;        // white between pictures and round the sheet
constexpr int kLabelStrip = 30;

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: side_by_side OUT.png PICTURE[=NAME]...\n");
    return 2;
  }
  std::vector<cv::Mat> pictures;
  std::vector<std::string> names;
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    const size_t eq = arg.find('=');
    const std::string path = arg.substr(0, eq);
    cv::Mat picture = cv::imread(path, cv::IMREAD_COLOR);  // grey masks become three channels
    if (picture.empty()) {
      std::fprintf(stderr, "side_by_side: cannot read %s\n", path.c_str());
      return 1;
    }
    if (!pictures.empty() && picture.rows != pictures[0].rows) {
      const double scale = static_cast<double>(pictures[0].rows) / picture.rows;
      cv::resize(picture, picture, cv::Size(), scale, scale, cv::INTER_AREA);
    }
    pictures.push_back(picture);
    names.push_back(eq == std::string::npos ? std::string() : arg.substr(eq + 1));
  }
  int width = kGap;
  for (const cv::Mat& p : pictures) width += p.cols + kGap;
  const int height = kGap + kLabelStrip + pictures[0].rows + kGap;
  cv::Mat sheet(height, width, CV_8UC3, cv::Scalar::all(255));
  int x = kGap;
  for (size_t i = 0; i < pictures.size(); ++i) {
    pictures[i].copyTo(sheet(cv::Rect(x, kGap + kLabelStrip, pictures[i].cols, pictures[i].rows)));
    cv::putText(sheet, names[i], cv::Point(x, kGap + kLabelStrip - 9), cv::FONT_HERSHEY_SIMPLEX, 0.7,
                cv::Scalar::all(0), 2, cv::LINE_AA);
    x += pictures[i].cols + kGap;
  }
  if (!cv::imwrite(argv[1], sheet)) {
    std::fprintf(stderr, "side_by_side: cannot write %s\n", argv[1]);
    return 1;
  }
  return 0;
}
