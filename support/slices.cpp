#include "support/slices.h"

#include <atomic>
#include <thread>

namespace slices {

namespace {
std::atomic<int> g_cores{0};
std::atomic<long> g_parallelItems{0};
}  // namespace

int cores() {
  const int set = g_cores.load(std::memory_order_relaxed);
  if (set > 0) return set;
  const int machine = static_cast<int>(std::thread::hardware_concurrency());
  return machine > 0 ? machine : 1;
}

void setCores(int cores) { g_cores.store(cores > 0 ? cores : 0, std::memory_order_relaxed); }

long parallelItems() {
  const long set = g_parallelItems.load(std::memory_order_relaxed);
  return set > 0 ? set : kParallelItems;
}

void setParallelItems(long items) { g_parallelItems.store(items > 0 ? items : 0, std::memory_order_relaxed); }

}  // namespace slices
