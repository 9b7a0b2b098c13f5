// Contrast-sensitive weights of the 8-neighbourhood of the working image,
// computed once per photo and read by every graph built on it.
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "engine/veldse_hybrid.h"
#include "interface/veldse_marker.h"
#include "support/image_rows.h"
#include "support/owned.h"
#include "support/veld_memory.h"

namespace {

// Diagonal links are longer: they are scaled by this factor (1/sqrt(2), the
// digits kept as they always were).
const double kDiagonalFactor = 0.7071067932881648;

inline int squaredDistance(const unsigned char* p, const unsigned char* q) {
  const int d0 = p[0] - q[0];
  const int d1 = p[1] - q[1];
  const int d2 = p[2] - q[2];
  return d0 * d0 + d1 * d1 + d2 * d2;
}

// exp(-beta * squared distance) as a product of three per-channel table values,
// in single precision.
inline float axisWeight(const float* table, const unsigned char* p, const unsigned char* q) {
  return table[std::abs(p[0] - q[0])] * table[std::abs(p[1] - q[1])] *
         table[std::abs(p[2] - q[2])];
}

// The same for a diagonal pair, multiplied left to right in double precision.
inline float diagonalWeight(const float* table, const unsigned char* p, const unsigned char* q) {
  return static_cast<float>(static_cast<double>(table[std::abs(p[0] - q[0])]) * kDiagonalFactor *
                            static_cast<double>(table[std::abs(p[1] - q[1])]) *
                            static_cast<double>(table[std::abs(p[2] - q[2])]));
}

// The contrast parameter beta of the working image src (width x height, 8U
// C3): the number of neighbour pairs over twice the sum of their squared
// colour distances, each pair once (left, up-left, up, up-right); 0.0 when
// the sum is not positive. The sum is 32 bits and wraps on very
// high-contrast images; the wrap is part of the behaviour, so it is done in
// unsigned arithmetic and read back as signed. O(pixels).
double contrastBeta(const IplImage* src, int width, int height) {
  uint32_t wrappedSum = 0;
  for (int y = 0; y < height; ++y) {
    const unsigned char* row = imageRow(src, y);
    const unsigned char* above = y > 0 ? imageRow(src, y - 1) : nullptr;
    for (int x = 0; x < width; ++x) {
      const unsigned char* p = row + 3 * x;
      if (x > 0) wrappedSum += static_cast<uint32_t>(squaredDistance(p, p - 3));
      if (above == nullptr) continue;
      const unsigned char* q = above + 3 * x;
      wrappedSum += static_cast<uint32_t>(squaredDistance(p, q));
      if (x > 0) wrappedSum += static_cast<uint32_t>(squaredDistance(p, q - 3));
      if (x + 1 < width) wrappedSum += static_cast<uint32_t>(squaredDistance(p, q + 3));
    }
  }
  const int32_t sum = static_cast<int32_t>(wrappedSum);
  const long long pairs =
      (4LL * height - 3) * width - 3LL * height + 2;  // exactly the pairs summed above
  return (height >= 1 && sum > 0) ? static_cast<double>(pairs) / (2.0 * static_cast<double>(sum)) : 0.0;
}

// The four link weights of every working pixel: left, up-left, up, up-right.
class LinkWriter {
 public:
  LinkWriter(const IplImage* src, const float* table, float* links, int width, int height)
      : src_(src), table_(table), links_(links), width_(width), height_(height) {}

  void writeAll() const {
    writeRowEnds();
    writeFirstRow();
    writeInnerRows();
  }

 private:
  float* record(int x, int y) const { return links_ + 4 * (y * width_ + x); }

  // First and last pixel of every row.
  void writeRowEnds() const {
    for (int y = 0; y < height_; ++y) {
      const unsigned char* row = imageRow(src_, y);
      const unsigned char* above = y > 0 ? imageRow(src_, y - 1) : nullptr;
      float* first = record(0, y);
      first[0] = 0.0f;
      first[1] = 0.0f;
      first[2] = above != nullptr ? axisWeight(table_, row, above) : 0.0f;
      first[3] = (above != nullptr && width_ >= 2) ? diagonalWeight(table_, row, above + 3) : 0.0f;
      // A one-pixel-wide image has no left neighbours at all: its only pixel
      // keeps the values just written.
      if (width_ < 2) continue;
      const int x = width_ - 1;
      const unsigned char* p = row + 3 * x;
      float* lastRec = record(x, y);
      lastRec[0] = axisWeight(table_, p, p - 3);
      lastRec[1] = above != nullptr ? diagonalWeight(table_, p, above + 3 * (x - 1)) : 0.0f;
      lastRec[2] = above != nullptr ? axisWeight(table_, p, above + 3 * x) : 0.0f;
      lastRec[3] = 0.0f;
    }
  }

  // Row 0 has only left links. Slot 3 of its inner pixels is left unwritten
  // and must never be read.
  void writeFirstRow() const {
    const unsigned char* row = imageRow(src_, 0);
    float* first = record(0, 0);
    first[0] = first[1] = first[2] = 0.0f;
    for (int x = 1; x < width_; ++x) {
      float* rec = record(x, 0);
      rec[0] = axisWeight(table_, row + 3 * x, row + 3 * (x - 1));
      rec[1] = 0.0f;
      rec[2] = 0.0f;
    }
  }

  // Inner pixels of the other rows have all four neighbours.
  void writeInnerRows() const {
    for (int y = 1; y < height_; ++y) {
      const unsigned char* row = imageRow(src_, y);
      const unsigned char* above = imageRow(src_, y - 1);
      float* rec = record(1, y);
      for (int x = 1; x < width_ - 1; ++x, rec += 4) {
        const unsigned char* p = row + 3 * x;
        const unsigned char* q = above + 3 * x;
        rec[0] = axisWeight(table_, p, p - 3);
        rec[1] = diagonalWeight(table_, p, q - 3);
        rec[2] = axisWeight(table_, p, q);
        rec[3] = diagonalWeight(table_, p, q + 3);
      }
    }
  }

  const IplImage* src_;
  const float* table_;
  float* links_;
  int width_;
  int height_;
};

}  // namespace

void VELDSEHybrid::computeNlinks() {
  const int width = m_imgWidth;
  const int height = m_imgHeight;
  const IplImage* src = VELDSEMarker::m_srcImage;
  m_beta = contrastBeta(src, width, height);

  // Weights of an earlier photo go first (the engine keeps one set).
  if (m_nlinks != nullptr) {
    VELD_Free_Msg(m_nlinks, "computeNlinks", 503);
    m_nlinks = nullptr;
  }
  // Every graph of the photo reads these weights, and nothing can stand in
  // for them or for the table: without memory the call fails, and m_nlinks
  // is left null.
  const unsigned int bytes = static_cast<unsigned int>(width) * static_cast<unsigned int>(height) * 16u;
  owned::Tracked<float> nlinks(static_cast<float*>(VELD_Malloc_Msg(bytes, "computeNlinks", 503)));
  if (bytes != 0) needMemory(nlinks.get());
  owned::Tracked<float> tableOwner(
      needMemory(static_cast<float*>(VELD_Malloc_Msg(1024, "computeNlinks", 509))));
  m_nlinks = nlinks.release();
  float* const table = tableOwner.get();
  for (int d = 0; d < 256; ++d) table[d] = expf(-static_cast<float>(d * d * m_beta));

  if (width >= 1 && height >= 1 && m_nlinks != nullptr) {
    LinkWriter(src, table, m_nlinks, width, height).writeAll();
  }
  VELD_Free_Msg(tableOwner.release(), "computeNlinks", 651);
}
