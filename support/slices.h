// Work over the rows (or columns) of a large image split into slices that run
// side by side.
//
// Used for full-size passes whose items are independent: converting the photo
// and the marker grid, writing and reading the history, the band's
// likelihoods. On a large photo such a pass is mostly the first touch of fresh
// pages or plain arithmetic per pixel, and several cores get through it
// faster than one. Small images run on the calling thread alone.
//
// The working box's passes (terminal weights, neighbour links, the colour
// models' assignments, the three trial cuts) are costly per item rather than
// per byte: they go side by side from parallelItems() items of work on (the
// terminal weights of a box's distinct colours, ten exp apiece, from an
// eighth of that).
//
// Never more than four threads work at once (the calling thread included),
// and none is left running when a call returns.
#ifndef SEGCORE_SUPPORT_SLICES_H
#define SEGCORE_SUPPORT_SLICES_H

#include <algorithm>
#include <exception>
#include <new>
#include <vector>

#include "support/threads.h"

namespace slices {

// Never more threads than this work at once, the calling thread included.
constexpr int kMaxThreads = 4;

// Below this many pixels a pass is not worth a thread.
constexpr long kParallelPixels = 1L << 20;

// Below this many items of per-pixel model work (likelihoods, assignments)
// a working-box pass is not worth a thread: parallelItems(), 8192 unless set.
constexpr long kParallelItems = 1L << 13;
long parallelItems();

// The cores the slices are cut for: the machine's unless set. Test seams, so
// that the single-core path (setCores(1): everything on the calling thread)
// and the paths of a phone's four or more cores can be compared on any
// machine, also on small images (setParallelItems(1)); the results are the
// same on every path. 0 restores the defaults. Atomic; O(1).
int cores();
void setCores(int cores);
void setParallelItems(long items);

// How many slices `count` items are cut into: one per core (at most four and
// at most `count`) when `parallel`, else one.
inline int partsFor(int count, bool parallel) {
  if (!parallel) return 1;
  return std::max(1, std::min({kMaxThreads, count, cores()}));
}

// Bounds of `parts` slices of equal size over 0 .. count-1 (parts + 1
// entries) into `bounds`; false when memory for them runs out.
inline bool equalBounds(int count, int parts, std::vector<int>* bounds) {
  try {
    bounds->resize(static_cast<size_t>(parts) + 1);
  } catch (const std::bad_alloc&) {
    return false;
  }
  for (int k = 0; k <= parts; ++k) (*bounds)[k] = static_cast<int>(static_cast<long>(count) * k / parts);
  return true;
}

// Calls run(bounds[k], bounds[k + 1]) for every non-empty slice k, slice 0 on
// the calling thread and slices 1 to 3 on threads of their own (at most four
// threads work at once; slices beyond the fourth run on the calling thread,
// as one range after slice 0), and returns when all are done. A slice whose
// thread cannot be had runs on the calling thread, together with every slice
// after it, as one range: the result is the same either way. When run throws
// on any thread, every thread is still joined first and then one exception
// is rethrown on the calling thread (the calling thread's own first, else the
// lowest slice's), so a failure never leaves a thread running or ends the
// process. Takes no memory of its own.
template <class Run>
void runSlices(const std::vector<int>& bounds, const Run& run) {
  const int parts = static_cast<int>(bounds.size()) - 1;
  if (parts < 1) return;
  struct Slice {
    const Run* run;
    int begin;
    int end;
    void operator()() const { (*run)(begin, end); }
  };
  Slice slice[kMaxThreads] = {};
  threads::Thread worker[kMaxThreads];
  const int threaded = std::min(parts, kMaxThreads);
  int started = 1;
  for (; started < threaded; ++started) {
    if (bounds[started] >= bounds[started + 1]) continue;
    slice[started] = Slice{&run, bounds[started], bounds[started + 1]};
    if (!worker[started].start(slice[started])) break;
  }
  std::exception_ptr here;
  try {
    if (bounds[0] < bounds[1]) run(bounds[0], bounds[1]);
    if (started < parts && bounds[started] < bounds[parts]) run(bounds[started], bounds[parts]);
  } catch (...) {
    here = std::current_exception();
  }
  for (threads::Thread& w : worker) w.join();
  if (here) std::rethrow_exception(here);
  for (threads::Thread& w : worker) w.rethrow();
}

// Calls run(begin, end) on non-empty slices of equal size that together cover
// 0 .. count-1 exactly once: side by side (runSlices) when `work` reaches
// `threshold`, else once on the calling thread. The working box's passes use
// parallelItems().
template <class Run>
void forSlicesFrom(int count, long work, long threshold, const Run& run) {
  if (count < 1) return;
  const int parts = partsFor(count, work >= threshold);
  std::vector<int> bounds;
  if (!equalBounds(count, parts, &bounds)) {
    run(0, count);  // no memory to share the pass out: the same pass, serially
    return;
  }
  runSlices(bounds, run);
}

// Calls run(begin, end) on non-empty slices of equal size that together cover
// 0 .. count-1 exactly once: side by side (runSlices) when `pixels` reaches
// kParallelPixels, else once on the calling thread.
template <class Run>
void forSlices(int count, long pixels, const Run& run) {
  forSlicesFrom(count, pixels, kParallelPixels, run);
}

}  // namespace slices

#endif
