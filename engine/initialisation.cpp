// Per-photo initialisation of the engine: working image, grey-scale decision,
// texture images of grey photos, neighbour weights.
#include <opencv2/imgproc/imgproc_c.h>

#include <cmath>
#include <cstdlib>

#include "engine/veldse_hybrid.h"
#include "interface/veldse_marker.h"
#include "support/image_rows.h"
#include "support/owned.h"
#include "support/size_check.h"

namespace {

// 1/76800 as a float: the working image targets about 320 x 240 pixels.
const float kInverseWorkingArea = 1.30208336e-05f;

// Releases the images intializer publishes when it fails part-way: the
// handles are left null rather than holding a half-made working image.
class PhotoImagesOnFailure {
 public:
  PhotoImagesOnFailure() = default;
  ~PhotoImagesOnFailure() {
    if (done_) return;
    releaseImage(VELDSEMarker::m_srcImage);
    releaseImage(VELDSEMarker::m_texHor);
    releaseImage(VELDSEMarker::m_texVer);
  }
  PhotoImagesOnFailure(const PhotoImagesOnFailure&) = delete;
  PhotoImagesOnFailure& operator=(const PhotoImagesOnFailure&) = delete;
  void done() { done_ = true; }

 private:
  bool done_ = false;
};

// A side of the photo reduced by s, truncated - but never below one pixel
// while the photo has one. The reduction keeps the area near 320 x 240, so a
// photo much longer than wide (a few pixels by a hundred thousand) would
// otherwise get a working side of 0 and no working image at all; with one
// row (or column) it is segmented like any other photo, the short side
// simply not reduced any further. An empty side stays empty.
int workingSide(int originalSide, float s) {
  const int side = static_cast<int>(static_cast<float>(originalSide) / s);
  return side < 1 && originalSide >= 1 ? 1 : side;
}

}  // namespace

void VELDSEHybrid::intializer() {
  const int originalWidth = VELDSEMarker::m_originalWidth;
  const int originalHeight = VELDSEMarker::m_originalHeight;

  float s = std::sqrt(static_cast<float>(originalWidth * originalHeight) * kInverseWorkingArea);
  if (s > 1.0f) {
    g_imageResizeFactor = s;
  } else {
    // Small photos inherit whatever factor is current; the interface resets
    // it to 1.0 whenever it creates an engine.
    s = g_imageResizeFactor;
  }

  // A working image left from an earlier photo would otherwise leak; the
  // interface always tears down first, so this only matters for direct calls.
  releaseImage(VELDSEMarker::m_srcImage);
  releaseImage(VELDSEMarker::m_texHor);
  releaseImage(VELDSEMarker::m_texVer);
  PhotoImagesOnFailure onFailure;

  if (s == 1.0f) {
    VELDSEMarker::m_height = originalHeight;
    VELDSEMarker::m_width = originalWidth;
    if (originalWidth < 1 || originalHeight < 1) logMemoryCrash("intializer", 92);
    VELDSEMarker::m_srcImage =
        createImage(cvSize(originalWidth, originalHeight), IPL_DEPTH_8U, 3);
    cvCopy(VELDSEMarker::m_originalImage, VELDSEMarker::m_srcImage, nullptr);
  } else {
    VELDSEMarker::m_height = workingSide(originalHeight, s);
    VELDSEMarker::m_width = workingSide(originalWidth, s);
    if (VELDSEMarker::m_width < 1 || VELDSEMarker::m_height < 1) logMemoryCrash("intializer", 103);
    VELDSEMarker::m_srcImage = createImage(
        cvSize(VELDSEMarker::m_width, VELDSEMarker::m_height), IPL_DEPTH_8U, 3);
    cvResize(VELDSEMarker::m_originalImage, VELDSEMarker::m_srcImage, CV_INTER_LINEAR);
  }

  if (greyScaleTest(VELDSEMarker::m_srcImage)) {
    VELDSEMarker::m_isGreyScale = true;
    computeTexture();
  } else {
    VELDSEMarker::m_isGreyScale = false;
  }

  m_imgWidth = VELDSEMarker::m_srcImage->width;
  m_imgHeight = VELDSEMarker::m_srcImage->height;
  computeNlinks();
  onFailure.done();
  for (IplImage*& label : m_iterLabel) label = nullptr;
}

bool VELDSEHybrid::greyScaleTest(IplImage* image) {
  const int width = image->width;
  const int height = image->height;
  // Accumulated in single precision on purpose: on large images part of the
  // small per-pixel terms is lost, and the decision has to stay as it was.
  float sum = 0.0f;
  for (int y = 0; y < height; ++y) {
    const unsigned char* row = imageRow(image, y);
    for (int x = 0; x < width; ++x) {
      const int c0 = row[3 * x];
      const int diff = std::abs(c0 - row[3 * x + 1]) + std::abs(c0 - row[3 * x + 2]);
      sum += static_cast<float>(diff);
    }
  }
  const float mean = sum / static_cast<float>(width * height);
  // An empty image gives NaN, which counts as grey.
  return !(mean >= 1.0f);
}

void VELDSEHybrid::computeTexture() {
  const IplImage* src = VELDSEMarker::m_srcImage;
  const int width = src->width;
  const int height = src->height;
  const CvSize size = cvSize(width, height);

  if (width < 1 || height < 1) logMemoryCrash("computeTexture", 2817);
  VELDSEMarker::m_texHor = createImage(size, IPL_DEPTH_8U, 1);
  if (width < 1 || height < 1) logMemoryCrash("computeTexture", 2818);
  VELDSEMarker::m_texVer = createImage(size, IPL_DEPTH_8U, 1);
  cvSetZero(VELDSEMarker::m_texHor);
  cvSetZero(VELDSEMarker::m_texVer);
  if (width < 1 || height < 1) return;

  IplImage* texHor = VELDSEMarker::m_texHor;
  IplImage* texVer = VELDSEMarker::m_texVer;
  const int last = width - 1;

  // Only channel 0 matters: the photo is grey.
  for (int y = 1; y < height; ++y) {
    const unsigned char* row = imageRow(src, y);
    const unsigned char* above = imageRow(src, y - 1);
    unsigned char* hor = imageRow(texHor, y);
    unsigned char* ver = imageRow(texVer, y);
    for (int x = 0; x < last; ++x) {
      hor[x] = static_cast<unsigned char>(std::abs(row[3 * (x + 1)] - row[3 * x]));
      ver[x] = static_cast<unsigned char>(std::abs(above[3 * x] - row[3 * x]));
    }
    // The last column looks left. Its vertical value compares the raw bytes at
    // offset width-1 of the interleaved rows (not pixel width-1). That is a
    // quirk, kept on purpose so the texture values stay what they always were.
    // A one-pixel-wide image has no left neighbour and keeps 0 there.
    if (width >= 2) {
      hor[last] = static_cast<unsigned char>(std::abs(row[3 * (last - 1)] - row[3 * last]));
    }
    ver[last] = static_cast<unsigned char>(std::abs(above[last] - row[last]));
  }

  // Row 0 has no row above and compares with the row below instead; a
  // one-row image has neither and keeps 0.
  const unsigned char* row0 = imageRow(src, 0);
  const unsigned char* below = height >= 2 ? imageRow(src, 1) : nullptr;
  unsigned char* hor0 = imageRow(texHor, 0);
  unsigned char* ver0 = imageRow(texVer, 0);
  for (int x = 0; x < last; ++x) {
    hor0[x] = static_cast<unsigned char>(std::abs(row0[3 * (x + 1)] - row0[3 * x]));
    if (below != nullptr) {
      ver0[x] = static_cast<unsigned char>(std::abs(below[3 * x] - row0[3 * x]));
    }
  }
}
