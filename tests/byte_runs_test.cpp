// Skipping runs of one byte value: checked against a byte-by-byte scan for
// runs that start and end at every offset of a word, at every alignment.
#include "support/byte_runs.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// The plain definition: the first x' >= x below width whose byte differs.
int referenceSkip(const unsigned char* row, int x, int width, unsigned char value) {
  while (x < width && row[x] == value) ++x;
  return x;
}

TEST(ByteRuns, RunsEndingAtEveryOffsetOfAWord) {
  const unsigned char values[] = {7, 0, 255, 0x80};
  const int kMaxWidth = 26;  // three words and a part
  for (const unsigned char value : values) {
    const unsigned char other = static_cast<unsigned char>(value ^ 1);
    for (int align = 0; align < 8; ++align) {
      for (int width = 0; width <= kMaxWidth; ++width) {
        for (int start = 0; start <= width; ++start) {
          for (int end = start; end <= width; ++end) {
            SCOPED_TRACE(::testing::Message()
                         << "value " << int(value) << ", alignment " << align << ", width " << width
                         << ", run [" << start << ", " << end << ")");
            // Bytes past width hold the run's value: the skip must stop at
            // width, not run on into them.
            std::vector<unsigned char> buffer(static_cast<size_t>(align + kMaxWidth + 8), value);
            unsigned char* row = buffer.data() + align;
            for (int x = 0; x < start; ++x) row[x] = other;
            if (end < width) row[end] = other;
            const int skipped = skipByteRun(row, start, width, value);
            ASSERT_EQ(skipped, end);
            ASSERT_EQ(skipped, referenceSkip(row, start, width, value));
          }
        }
      }
    }
  }
}

TEST(ByteRuns, DifferentByteInsideAWordStopsTheSkip) {
  // A long run broken by one byte at each offset of the third word.
  const int width = 40;
  for (int broken = 16; broken < 24; ++broken) {
    SCOPED_TRACE(::testing::Message() << "broken at " << broken);
    std::vector<unsigned char> row(width, 7);
    row[broken] = 1;
    EXPECT_EQ(skipByteRun(row.data(), 0, width, 7), broken);
    EXPECT_EQ(skipByteRun(row.data(), broken + 1, width, 7), width);
  }
}

TEST(ByteRuns, StartAtOrPastWidthReturnsStart) {
  const std::vector<unsigned char> row(16, 7);
  const struct {
    int x;
    int width;
  } cases[] = {{0, 0}, {8, 8}, {9, 8}, {16, 16}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << "x " << c.x << ", width " << c.width);
    EXPECT_EQ(skipByteRun(row.data(), c.x, c.width, 7), c.x);
  }
}

}  // namespace
