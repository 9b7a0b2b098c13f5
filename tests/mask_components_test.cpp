// 4-connected component labelling of a mask (engine/mask_components.h): the
// same components, numbered in the same order and of the same sizes as a
// plain flood fill per component finds them, on random masks of every shape -
// also wider than 65,535 pixels, where OpenCV's own flood fill mixes up
// columns 65,536 apart. Painting by size and by choice is checked against the
// flood's labels.
#include "engine/mask_components.h"
#include "tests/flood_reference.h"
#include "tests/test_support.h"

namespace {

using testsupport::M;

// Blocks of random value and random single-pixel noise, so that runs of every
// length, components touching only diagonally, and components round holes
// all occur. Values 0, 127 and 255.
cv::Mat randomMask(std::mt19937* rng, int w, int h) {
  auto uni = [rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(*rng); };
  static const unsigned char kValues[3] = {0, 127, 255};
  cv::Mat m(h, w, CV_8UC1, cv::Scalar(kValues[uni(0, 2)]));
  for (int b = uni(0, 12); b > 0; --b)
    m(cv::Rect(uni(0, w - 1), uni(0, h - 1), 1, 1) | cv::Rect(uni(0, w - 1), uni(0, h - 1), 1, 1))
        .setTo(kValues[uni(0, 2)]);
  const long pixels = static_cast<long>(w) * h;
  const int density = uni(0, 60);  // percent of pixels set at random
  for (long p = pixels * density / 100; p > 0; --p)
    m.at<unsigned char>(uni(0, h - 1), uni(0, w - 1)) = kValues[uni(0, 2)];
  return m;
}

// Every query of MaskComponents against the flood's labels.
void expectSameAsFlood(const cv::Mat& m, unsigned char value, std::mt19937* rng) {
  IplImage image = cvIplImage(m);
  const MaskComponents components(&image, value);
  const flood_reference::Labels ref = flood_reference::flood(m, value);
  ASSERT_EQ(components.count(), static_cast<int>(ref.size.size()));
  int largest = 0;
  for (int c = 0; c < components.count(); ++c) {
    ASSERT_EQ(components.size(c), ref.size[c]) << "component " << c;
    largest = std::max(largest, ref.size[c]);
  }
  EXPECT_EQ(components.largest(), largest);
  for (int y = 0; y < m.rows; ++y)
    for (int x = 0; x < m.cols; ++x)
      ASSERT_EQ(components.componentAt(x, y), ref.label[static_cast<size_t>(y) * m.cols + x])
          << "at " << x << "," << y;
  for (const cv::Point p : {cv::Point(-1, 0), cv::Point(0, -1), cv::Point(m.cols, 0), cv::Point(0, m.rows)})
    EXPECT_EQ(components.componentAt(p.x, p.y), -1) << p;

  // Painting: by size against a limit around the sizes present, and by a
  // random choice; each against the same painting done pixel by pixel.
  std::vector<bool> chosen(ref.size.size());
  for (size_t c = 0; c < chosen.size(); ++c) chosen[c] = (*rng)() % 2 == 0;
  const int limit =
      ref.size.empty() ? 1 : ref.size[(*rng)() % ref.size.size()] + static_cast<int>((*rng)() % 2);
  const unsigned char paint = static_cast<unsigned char>(value + 1);
  cv::Mat bySize = m.clone(), byChoice = m.clone();
  cv::Mat expectSize = m.clone(), expectChoice = m.clone();
  IplImage sizeImage = cvIplImage(bySize), choiceImage = cvIplImage(byChoice);
  components.paintSmaller(&sizeImage, limit, paint);
  components.paint(&choiceImage, chosen, paint);
  for (int y = 0; y < m.rows; ++y)
    for (int x = 0; x < m.cols; ++x) {
      const int c = ref.label[static_cast<size_t>(y) * m.cols + x];
      if (c < 0) continue;
      if (ref.size[c] < limit) expectSize.at<unsigned char>(y, x) = paint;
      if (chosen[c]) expectChoice.at<unsigned char>(y, x) = paint;
    }
  EXPECT_EQ(cv::countNonZero(bySize != expectSize), 0) << "painted by size below " << limit;
  EXPECT_EQ(cv::countNonZero(byChoice != expectChoice), 0) << "painted by choice";
}

TEST(MaskComponents, WorkedExample) {
  // ##.#
  // .#..      diagonal contact joins nothing; components in order of
  // #..#      their first pixel, row by row.
  cv::Mat m = (cv::Mat_<unsigned char>(3, 4) << 255, 255, 0, 255, 0, 255, 0, 0, 255, 0, 0, 255);
  IplImage image = cvIplImage(m);
  const MaskComponents objects(&image, 255);
  ASSERT_EQ(objects.count(), 4);
  const int expected[3][4] = {{0, 0, -1, 1}, {-1, 0, -1, -1}, {2, -1, -1, 3}};
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 4; ++x) EXPECT_EQ(objects.componentAt(x, y), expected[y][x]) << x << "," << y;
  EXPECT_EQ(objects.size(0), 3);
  EXPECT_EQ(objects.size(3), 1);
  EXPECT_EQ(objects.largest(), 3);
  // The background: (2,0), (2,1), (3,1), (2,2), (1,2) hang together; (0,1)
  // has only object pixels round it.
  const MaskComponents background(&image, 0);
  ASSERT_EQ(background.count(), 2);
  EXPECT_EQ(background.componentAt(2, 0), 0);
  EXPECT_EQ(background.componentAt(0, 1), 1);
  EXPECT_EQ(background.size(0), 5);
  EXPECT_EQ(background.size(1), 1);
}

TEST(MaskComponents, RandomMasksMatchAFloodPerComponent) {
  std::mt19937 rng(23);
  auto uni = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  for (int round = 0; round < 400; ++round) {
    const int w = uni(1, 70), h = uni(1, 50);
    const cv::Mat m = randomMask(&rng, w, h);
    for (unsigned char value : {0, 127, 255}) {
      SCOPED_TRACE(testing::Message()
                   << "round " << round << ", " << w << "x" << h << ", value " << int(value));
      expectSameAsFlood(m, value, &rng);
      if (HasFatalFailure()) return;
    }
  }
}

// Wider than 16 bits of columns (and one mask as tall): runs above and below
// each other 65,536 columns apart must stay apart, runs across column 65,535
// must stay whole.
TEST(MaskComponents, MasksWiderThan65535MatchAFloodPerComponent) {
  std::mt19937 rng(65536);
  const cv::Size shapes[] = {{65536, 2}, {65537, 3}, {70000, 4}, {131075, 3}, {200001, 1}, {3, 70000}};
  for (const cv::Size& s : shapes) {
    for (int variant = 0; variant < 2; ++variant) {
      cv::Mat m = randomMask(&rng, s.width, s.height);
      const bool wrapPair = variant == 1 && s.width > 65536 + 40 && s.height >= 2;
      if (wrapPair) {
        // Two runs a wrap would join: 10 pixels in row 0 at 65,546 and
        // 10 in row 1 at 10, on a background of another value.
        m.setTo(0);
        m(cv::Rect(65546, 0, 10, 1)).setTo(255);
        m(cv::Rect(10, 1, 10, 1)).setTo(255);
        // And one run across column 65,535 with a run below each end.
        m(cv::Rect(65530, s.height - 1, 12, 1)).setTo(255);
        if (s.height > 2) m(cv::Rect(65530, s.height - 2, 1, 1)).setTo(255);
      }
      for (unsigned char value : {0, 127, 255}) {
        SCOPED_TRACE(testing::Message()
                     << s.width << "x" << s.height << ", variant " << variant << ", value " << int(value));
        expectSameAsFlood(m, value, &rng);
        if (HasFatalFailure()) return;
      }
      if (wrapPair) {
        IplImage image = cvIplImage(m);
        const MaskComponents objects(&image, 255);
        EXPECT_NE(objects.componentAt(65546, 0), objects.componentAt(10, 1));
        EXPECT_EQ(objects.size(objects.componentAt(10, 1)), 10);
      }
    }
  }
}

}  // namespace
