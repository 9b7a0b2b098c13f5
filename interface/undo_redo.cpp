#include "interface/undo_redo.h"

#include <android/log.h>

#include <algorithm>
#include <new>

#include "interface/veldse_marker.h"
#include "support/image_rows.h"
#include "support/owned.h"
#include "support/size_check.h"
#include "support/slices.h"

unsigned int** VELDSEManageUndoRedo::m_bitPlane = nullptr;
int VELDSEManageUndoRedo::m_maxSize = 0;
int VELDSEManageUndoRedo::m_current = 0;
int VELDSEManageUndoRedo::m_top = 0;
int VELDSEManageUndoRedo::m_bottom = 0;
int VELDSEManageUndoRedo::width = 0;
int VELDSEManageUndoRedo::height = 0;

namespace {

// The first mask recorded after allocate() would otherwise take the first
// touch of every page of the planes, 4 bytes per photo pixel: on a large
// photo the kernel's page clearing is a good part of that request. So
// allocate() touches fresh planes itself, in column slices side by side,
// and is done with them when it returns. Their words are undefined until a
// slot is written, so writing zeros there changes nothing.
constexpr long kTouchPixels = 1L << 20;
constexpr int kWordsPerPage = 4096 / sizeof(unsigned int);

void touchPlanes(unsigned int** columns, int w, int h) {
  if (w < 1 || h < 1 || static_cast<long>(w) * h < kTouchPixels) return;
  slices::forSlices(w, static_cast<long>(w) * h, [&](int xa, int xb) {
    for (int x = xa; x < xb; ++x) {
      // One word a page, and the last word for the page the column ends in.
      unsigned int* column = columns[x];
      for (int y = 0; y < h; y += kWordsPerPage) column[y] = 0;
      column[h - 1] = 0;
    }
  });
}

}  // namespace

void VELDSEManageUndoRedo::allocate() {
  const int w = VELDSEMarker::m_originalWidth;
  const int h = VELDSEMarker::m_originalHeight;
  // All or nothing: the planes are built aside, and when memory runs out
  // part-way what was built is freed and the history is left as it was.
  // Words are left uninitialised: only bits of written slots are ever read.
  unsigned int** planes = new unsigned int*[w > 0 ? w : 0]();
  try {
    for (int x = 0; x < w; ++x) planes[x] = new unsigned int[h > 0 ? h : 0];
  } catch (...) {
    for (int x = 0; x < w; ++x) delete[] planes[x];
    delete[] planes;
    throw;
  }
  HistoryRollback::drop();
  width = w;
  height = h;
  m_bitPlane = planes;
  m_top = m_bottom = m_current = 0;
  m_maxSize = 32;
  touchPlanes(m_bitPlane, width, height);
}

void releaseHistoryPlanes(unsigned int** planes, int width) {
  if (planes == nullptr || planes == VELDSEManageUndoRedo::m_bitPlane) return;
  for (int x = 0; x < width; ++x) delete[] planes[x];
  delete[] planes;
}

void VELDSEManageUndoRedo::deallocate() {
  HistoryRollback::drop();
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

// Columns xa .. xb-1 of slot k into the mask's rows.
void readColumns(int k, int xa, int xb, int h, IplImage* mask) {
  unsigned char* rows[kBandRows];
  for (int y0 = 0; y0 < h; y0 += kBandRows) {
    const int n = std::min(kBandRows, h - y0);
    for (int r = 0; r < n; ++r) rows[r] = imageRow(mask, y0 + r);
    for (int x = xa; x < xb; ++x) {
      const unsigned int* column = VELDSEManageUndoRedo::m_bitPlane[x] + y0;
      for (int r = 0; r < n; ++r) rows[r][x] = ((column[r] >> k) & 1u) ? 255 : 0;
    }
  }
}

// Slot k of columns xa .. xb-1 from the mask's rows.
void writeColumns(int k, int xa, int xb, int h, const IplImage* mask) {
  const unsigned int bit = 1u << k;
  const unsigned char* rows[kBandRows];
  for (int y0 = 0; y0 < h; y0 += kBandRows) {
    const int n = std::min(kBandRows, h - y0);
    for (int r = 0; r < n; ++r) rows[r] = imageRow(mask, y0 + r);
    for (int x = xa; x < xb; ++x) {
      unsigned int* column = VELDSEManageUndoRedo::m_bitPlane[x] + y0;
      for (int r = 0; r < n; ++r) {
        if (rows[r][x] != 0) column[r] |= bit; else column[r] &= ~bit;
      }
    }
  }
}

// Both run in column slices side by side on a large photo: every column is
// its own words, and the mask's bytes of a column range are the range's own.
void readSlot(int k, int w, int h, IplImage* mask) {
  slices::forSlices(w, static_cast<long>(w) * h, [&](int xa, int xb) { readColumns(k, xa, xb, h, mask); });
}

void writeSlot(int k, const IplImage* mask) {
  HistoryRollback::beforeOverwrite(k);
  const int w = VELDSEManageUndoRedo::width;
  const int h = VELDSEManageUndoRedo::height;
  slices::forSlices(w, static_cast<long>(w) * h, [&](int xa, int xb) { writeColumns(k, xa, xb, h, mask); });
}

}  // namespace

IplImage* VELDSEManageUndoRedo::getMask(int k) {
  if (k < 0) return nullptr;
  const int w = VELDSEMarker::m_originalWidth;
  const int h = VELDSEMarker::m_originalHeight;
  checkImageSize(w, h, "getMask", 92);
  IplImage* mask = createImage(cvSize(w, h), IPL_DEPTH_8U, 1);
  // Planes of another photo, or none (a call straight into the history
  // without a context), have no bits for this one.
  if (k >= 32 || m_bitPlane == nullptr || width != w || height != h) {
    cvSetZero(mask);
    return mask;
  }
  readSlot(k, w, h, mask);
  return mask;
}

namespace {
// A mask can be written only into planes of its own size.
bool writable(const IplImage* mask) {
  return mask != nullptr && VELDSEManageUndoRedo::m_bitPlane != nullptr &&
         mask->width == VELDSEManageUndoRedo::width && mask->height == VELDSEManageUndoRedo::height;
}
}  // namespace

void VELDSEManageUndoRedo::setMask(int k, IplImage* mask) {
  if (k < 0 || k >= 32 || !writable(mask)) return;
  writeSlot(k, mask);
}

void VELDSEManageUndoRedo::updateBitPlane(IplImage* mask) {
  if (!writable(mask)) return;
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

// --- Rollback of a failed call ---------------------------------------------

namespace {
HistoryRollback* g_activeRollback = nullptr;

// Whether slot k holds a step of a history whose steps are the slots from
// `bottom` up to, not including, `top`, round the ring.
bool holdsStep(int k, int bottom, int top) {
  const int size = VELDSEManageUndoRedo::m_maxSize;
  if (size < 1 || k < 0 || k >= size) return false;
  const int steps = ((top - bottom) % size + size) % size;
  return ((k - bottom) % size + size) % size < steps;
}

long bitWords() {
  return (static_cast<long>(VELDSEManageUndoRedo::width) * VELDSEManageUndoRedo::height + 31) / 32;
}
}  // namespace

HistoryRollback::HistoryRollback()
    : planes_(VELDSEManageUndoRedo::m_bitPlane),
      current_(VELDSEManageUndoRedo::m_current),
      top_(VELDSEManageUndoRedo::m_top),
      bottom_(VELDSEManageUndoRedo::m_bottom) {
  g_activeRollback = this;
}

HistoryRollback::~HistoryRollback() {
  if (active_ && g_activeRollback == this) restore();
  for (int i = 0; i < savedCount_; ++i) delete[] saved_[i].bits;
  if (g_activeRollback == this) g_activeRollback = nullptr;
}

void HistoryRollback::commit() {
  active_ = false;
  if (g_activeRollback == this) g_activeRollback = nullptr;
}

void HistoryRollback::drop() {
  if (g_activeRollback != nullptr) g_activeRollback->active_ = false;
  g_activeRollback = nullptr;
}

void HistoryRollback::beforeOverwrite(int k) {
  HistoryRollback* r = g_activeRollback;
  if (r == nullptr || VELDSEManageUndoRedo::m_bitPlane != r->planes_) return;
  // Judged by the history as the call found it: a second recording of the
  // same call may write a slot that the first one already cut off from the
  // steps.
  if (!holdsStep(k, r->bottom_, r->top_)) return;
  for (int i = 0; i < r->savedCount_; ++i) {
    if (r->saved_[i].slot == k) return;
  }
  if (r->savedCount_ == kMaxSaved) throw std::bad_alloc();
  unsigned int* bits = new unsigned int[bitWords()]();
  const int w = VELDSEManageUndoRedo::width;
  const int h = VELDSEManageUndoRedo::height;
  long i = 0;
  for (int x = 0; x < w; ++x) {
    const unsigned int* column = VELDSEManageUndoRedo::m_bitPlane[x];
    for (int y = 0; y < h; ++y, ++i) bits[i >> 5] |= ((column[y] >> k) & 1u) << (i & 31);
  }
  r->saved_[r->savedCount_++] = SavedSlot{k, bits};
}

void HistoryRollback::restore() {
  if (VELDSEManageUndoRedo::m_bitPlane != planes_ || planes_ == nullptr) return;
  const int w = VELDSEManageUndoRedo::width;
  const int h = VELDSEManageUndoRedo::height;
  for (int s = 0; s < savedCount_; ++s) {
    const unsigned int bit = 1u << saved_[s].slot;
    const unsigned int* bits = saved_[s].bits;
    long i = 0;
    for (int x = 0; x < w; ++x) {
      unsigned int* column = VELDSEManageUndoRedo::m_bitPlane[x];
      for (int y = 0; y < h; ++y, ++i) {
        if ((bits[i >> 5] >> (i & 31)) & 1u) column[y] |= bit; else column[y] &= ~bit;
      }
    }
  }
  VELDSEManageUndoRedo::m_current = current_;
  VELDSEManageUndoRedo::m_top = top_;
  VELDSEManageUndoRedo::m_bottom = bottom_;
}
