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
// per byte: they go side by side from parallelItems() items of work on.
//
// Never more than four threads work at once (the calling thread included),
// and none is left running when a call returns.
#ifndef SEGCORE_SUPPORT_SLICES_H
#define SEGCORE_SUPPORT_SLICES_H

#include <algorithm>
#include <atomic>
#include <exception>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

namespace slices {

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
  return std::max(1, std::min({4, count, cores()}));
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
// the calling thread and the others on threads of their own, and returns when
// all are done. When no thread can be had (none can be started, or memory for
// one runs out), the slices left run on the calling thread (as one range):
// the result is the same either way. When run throws on any thread, every
// thread is still joined first and then the first exception is rethrown on
// the calling thread, so a failure never leaves a thread running or
// terminates the process.
template <class Run>
void runSlices(const std::vector<int>& bounds, const Run& run) {
  const int parts = static_cast<int>(bounds.size()) - 1;
  if (parts < 1) return;
  // One slot per worker, reserved up front: starting a worker then needs no
  // memory beyond the thread's own.
  std::vector<std::exception_ptr> errors;
  std::vector<std::thread> workers;
  try {
    errors.resize(static_cast<size_t>(parts));
    workers.reserve(static_cast<size_t>(parts));
  } catch (const std::bad_alloc&) {
    if (bounds[0] < bounds[parts]) run(bounds[0], bounds[parts]);
    return;
  }
  int started = 1;
  for (; started < parts; ++started) {
    if (bounds[started] >= bounds[started + 1]) continue;
    try {
      std::exception_ptr* error = &errors[static_cast<size_t>(started)];
      const int b0 = bounds[started], b1 = bounds[started + 1];
      workers.emplace_back([&run, error, b0, b1] {
        try {
          run(b0, b1);
        } catch (...) {
          *error = std::current_exception();
        }
      });
    } catch (const std::system_error&) {
      break;
    } catch (const std::bad_alloc&) {
      break;
    }
  }
  try {
    if (bounds[0] < bounds[1]) run(bounds[0], bounds[1]);
    if (started < parts && bounds[started] < bounds[parts]) run(bounds[started], bounds[parts]);
  } catch (...) {
    errors[0] = std::current_exception();
  }
  for (std::thread& w : workers) w.join();
  for (const std::exception_ptr& e : errors) {
    if (e) std::rethrow_exception(e);
  }
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
