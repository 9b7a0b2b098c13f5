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
  // release an earlier allocation (deallocate() does). All or nothing: when
  // memory runs out it raises std::bad_alloc and the history is untouched.
  // On a photo of a megapixel or more it also touches every page of the
  // fresh planes (column slices on up to four threads, all joined before it
  // returns), so that the first recorded mask does not pay the kernel's page
  // clearing: about 1 ms per megapixel on two cores.
  static void allocate();
  static void deallocate();
  // Empties the history; the planes stay.
  static void reset();

  // New 8U C1 image of the photo's size, 255 where bit k is set; null for k < 0,
  // all zero for k >= 32 (and when no planes of the photo's size exist). The
  // caller releases it. Raises cv::Exception when memory runs out.
  static IplImage* getMask(int k);
  // Writes slot k (0..31) from a mask of the planes' size without moving any
  // index; anything else is ignored.
  static void setMask(int k, IplImage* mask);
  // Records a new mask (non-zero = object); discards the redo steps. A mask
  // of another size than the planes (or no planes) is ignored. Within a call
  // that holds a HistoryRollback it may raise std::bad_alloc, before anything
  // changed.
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

// Frees planes that allocate() replaced (`width` columns); null does nothing.
void releaseHistoryPlanes(unsigned int** planes, int width);

// What a failed call did to the history, undone.
//
// An exported call that may record or step through the history declares one
// of these first. Unless commit() is reached, its destructor puts back the
// three indices and the bits of every slot the call overwrote while that slot
// still held a step (a redo step discarded by a new recording): canUndo,
// canRedo, undo and redo then answer exactly as before the call. Slots
// outside the steps need no saving: no step reads them.
//
// Cost: nothing unless a step is overwritten (a recording after an undo);
// then, before the slot is written, its bits are copied aside: one bit per
// photo pixel, allocated up front (if that fails, the write fails before
// anything changed). Restoring allocates nothing. One rollback is active at a
// time (the library runs one call at a time); the planes must not be
// reallocated while it is active (deallocate() drops it).
class HistoryRollback {
 public:
  HistoryRollback();
  ~HistoryRollback();
  HistoryRollback(const HistoryRollback&) = delete;
  HistoryRollback& operator=(const HistoryRollback&) = delete;
  // The call succeeded: keep what it did.
  void commit();

  // Called by the history before slot k is overwritten; saves the slot when
  // it holds a step. Throws std::bad_alloc when its copy cannot be had.
  static void beforeOverwrite(int k);
  // Forgets the active rollback (the planes it refers to are going away).
  static void drop();

 private:
  struct SavedSlot {
    int slot;
    unsigned int* bits;  // one bit per pixel, column by column
  };
  static constexpr int kMaxSaved = 32;

  void restore();

  unsigned int** planes_;
  int current_, top_, bottom_;
  SavedSlot saved_[kMaxSaved];
  int savedCount_ = 0;
  bool active_ = true;
};

#endif
