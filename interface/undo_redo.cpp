#include "interface/undo_redo.h"

#include <android/log.h>

#include <algorithm>

#include "interface/veldse_marker.h"

unsigned int** VELDSEManageUndoRedo::m_bitPlane = nullptr;
int VELDSEManageUndoRedo::m_maxSize = 0;
int VELDSEManageUndoRedo::m_current = 0;
int VELDSEManageUndoRedo::m_top = 0;
int VELDSEManageUndoRedo::m_bottom = 0;
int VELDSEManageUndoRedo::width = 0;
int VELDSEManageUndoRedo::height = 0;

void VELDSEManageUndoRedo::allocate() {
  width = VELDSEMarker::m_originalWidth;
  height = VELDSEMarker::m_originalHeight;
  // Words are left uninitialised: only bits of written slots are ever read.
  m_bitPlane = new unsigned int*[width > 0 ? width : 0];
  for (int x = 0; x < width; ++x) m_bitPlane[x] = new unsigned int[height > 0 ? height : 0];
  m_top = m_bottom = m_current = 0;
  m_maxSize = 32;
}

void VELDSEManageUndoRedo::deallocate() {
  if (m_bitPlane != nullptr) {
    for (int x = 0; x < width; ++x) delete[] m_bitPlane[x];
    delete[] m_bitPlane;
    m_bitPlane = nullptr;
  }
  m_top = m_bottom = m_current = 0;
  height = width = 0;
}

void VELDSEManageUndoRedo::reset() { m_top = m_bottom = m_current = 0; }

namespace {

// The planes hold one word per pixel, column by column (m_bitPlane[x][y]),
// while images are stored row by row. Both directions are walked in bands of
// kBandRows rows: for each column, the band's words are one cache line of the
// column and the band's image rows stay in cache while the columns go by, so
// neither side is read or written a pixel per cache line.
const int kBandRows = 16;

unsigned char* maskRow(const IplImage* mask, int y) {
  return reinterpret_cast<unsigned char*>(mask->imageData + static_cast<long>(y) * mask->widthStep);
}

void readSlot(int k, int w, int h, IplImage* mask) {
  unsigned char* rows[kBandRows];
  for (int y0 = 0; y0 < h; y0 += kBandRows) {
    const int n = std::min(kBandRows, h - y0);
    for (int r = 0; r < n; ++r) rows[r] = maskRow(mask, y0 + r);
    for (int x = 0; x < w; ++x) {
      const unsigned int* column = VELDSEManageUndoRedo::m_bitPlane[x] + y0;
      for (int r = 0; r < n; ++r) rows[r][x] = ((column[r] >> k) & 1u) ? 255 : 0;
    }
  }
}

void writeSlot(int k, const IplImage* mask) {
  const unsigned int bit = 1u << k;
  const int w = VELDSEManageUndoRedo::width;
  const int h = VELDSEManageUndoRedo::height;
  const unsigned char* rows[kBandRows];
  for (int y0 = 0; y0 < h; y0 += kBandRows) {
    const int n = std::min(kBandRows, h - y0);
    for (int r = 0; r < n; ++r) rows[r] = maskRow(mask, y0 + r);
    for (int x = 0; x < w; ++x) {
      unsigned int* column = VELDSEManageUndoRedo::m_bitPlane[x] + y0;
      for (int r = 0; r < n; ++r) {
        if (rows[r][x] != 0) column[r] |= bit; else column[r] &= ~bit;
      }
    }
  }
}

}  // namespace

IplImage* VELDSEManageUndoRedo::getMask(int k) {
  if (k < 0) return nullptr;
  const int w = VELDSEMarker::m_originalWidth;
  const int h = VELDSEMarker::m_originalHeight;
  if (w < 1 || h < 1) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "MEMORY_CRASH : %s %d", "getMask", 92);
  }
  IplImage* mask = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
  if (k >= 32) {
    cvSetZero(mask);
    return mask;
  }
  readSlot(k, w, h, mask);
  return mask;
}

void VELDSEManageUndoRedo::setMask(int k, IplImage* mask) { writeSlot(k, mask); }

void VELDSEManageUndoRedo::updateBitPlane(IplImage* mask) {
  writeSlot(m_current, mask);
  m_current = next(m_current);
  m_top = m_current;
  if (m_bottom == m_current) m_bottom = next(m_current);
}

IplImage* VELDSEManageUndoRedo::prevMask() {
  if (m_current == m_bottom) return nullptr;
  return getMask(previous(m_current));
}

IplImage* VELDSEManageUndoRedo::undo() {
  if (m_current == m_bottom) return nullptr;
  m_current = previous(m_current);
  if (m_current == m_bottom) return nullptr;
  return getMask(previous(m_current));
}

IplImage* VELDSEManageUndoRedo::redo() {
  if (m_current != m_top) m_current = next(m_current);
  return getMask(previous(m_current));
}

bool VELDSEManageUndoRedo::canUndo() {
  if (m_current == m_bottom) return false;
  return previous(m_current) != m_bottom;
}

bool VELDSEManageUndoRedo::canRedo() { return m_current != m_top; }
