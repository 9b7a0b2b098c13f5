// Work over the rows (or columns) of a large image split into slices that run
// side by side.
//
// Used for full-size passes whose items are independent: converting the photo
// and the marker grid, writing and reading the history. On a large photo such
// a pass is mostly the first touch of fresh pages or plain memory traffic, and
// several cores get through it faster than one. Small images run on the
// calling thread alone.
#ifndef SEGCORE_SUPPORT_SLICES_H
#define SEGCORE_SUPPORT_SLICES_H

#include <algorithm>
#include <system_error>
#include <thread>
#include <vector>

namespace slices {

// Below this many pixels a pass is not worth a thread.
constexpr long kParallelPixels = 1L << 20;

// Calls run(begin, end) on non-empty slices that together cover 0 .. count-1
// exactly once, on up to four threads (the calling thread among them) when
// `pixels` reaches kParallelPixels, else once on the calling thread. Returns
// when every slice is done. When no thread can be had, the rest runs on the
// calling thread.
template <class Run>
void forSlices(int count, long pixels, const Run& run) {
  if (count < 1) return;
  int parts = 1;
  if (pixels >= kParallelPixels) {
    parts = std::max(1, std::min({4, count, static_cast<int>(std::thread::hardware_concurrency())}));
  }
  const auto bound = [&](int k) { return static_cast<int>(static_cast<long>(count) * k / parts); };
  std::vector<std::thread> workers;
  int started = 1;  // slice 0 runs here, after the others have started
  for (; started < parts; ++started) {
    try {
      workers.emplace_back(run, bound(started), bound(started + 1));
    } catch (const std::system_error&) {
      break;
    }
  }
  run(0, bound(1));
  if (bound(started) < count) run(bound(started), count);
  for (std::thread& w : workers) w.join();
}

}  // namespace slices

#endif
