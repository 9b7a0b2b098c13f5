// Mask history: up to 32 two-valued masks of the photo's size.
//
// Each pixel owns one 32-bit word whose bit k belongs to slot k, so the whole
// history costs 4 bytes per photo pixel. Planes are column-major:
// m_bitPlane[x][y]. Slots form a ring: m_current is the slot the next mask is
// written to (the mask on screen is in previous(m_current)), m_top is the redo
// limit and m_bottom the undo limit (m_current == m_bottom: only the photo is on
// screen). Recording the 32nd mask drops the oldest, so the ring holds at most
// 31 undo steps.
#ifndef SEGCORE_INTERFACE_UNDO_REDO_H
#define SEGCORE_INTERFACE_UNDO_REDO_H

#include <opencv2/core/core_c.h>

class VELDSEManageUndoRedo {
 public:
  static unsigned int** m_bitPlane;
  static int m_maxSize;
  static int m_current;
  static int m_top;
  static int m_bottom;
  static int width;
  static int height;

  // Sizes the planes for the stored photo and empties the history. Does not
  // release an earlier allocation (deallocate() does).
  static void allocate();
  static void deallocate();
  // Empties the history; the planes stay.
  static void reset();

  // New 8U C1 image of the photo's size, 255 where bit k is set; null for k < 0,
  // all zero for k >= 32. The caller releases it.
  static IplImage* getMask(int k);
  // Writes slot k from a mask without moving any index.
  static void setMask(int k, IplImage* mask);
  // Records a new mask (non-zero = object); discards the redo steps.
  static void updateBitPlane(IplImage* mask);
  // The mask on screen, or null when only the photo is.
  static IplImage* prevMask();

  // Step back: null when back at the plain photo (or already there).
  static IplImage* undo();
  // Step forward if possible; always returns the mask then on screen.
  static IplImage* redo();
  // Deliberately false with a single recorded mask although undo() would step
  // back to the photo: the app's buttons follow canUndo.
  static bool canUndo();
  static bool canRedo();

  static int previous(int i) { return ((i <= 1 ? i + m_maxSize : i) - 1) % m_maxSize; }
  static int next(int i) { return (i + 1) % m_maxSize; }
};

#endif
