// Full-size passes in slices: every index exactly once, on one thread below
// the size limit.
#include "support/slices.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <new>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace {

TEST(Slices, EveryIndexOnceInNonEmptySlices) {
  const struct {
    int count;
    long pixels;
  } cases[] = {{1, 1},
               {3, 100},
               {1, slices::kParallelPixels},
               {2, slices::kParallelPixels},
               {3, slices::kParallelPixels},
               {7, slices::kParallelPixels},
               {1021, slices::kParallelPixels * 4},
               {1021, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.count << " items, " << c.pixels << " pixels");
    std::vector<std::atomic<int>> seen(c.count);
    std::atomic<int> emptySlices{0};
    slices::forSlices(c.count, c.pixels, [&](int begin, int end) {
      if (begin >= end) ++emptySlices;
      for (int i = begin; i < end; ++i) ++seen[i];
    });
    EXPECT_EQ(emptySlices.load(), 0);
    for (int i = 0; i < c.count; ++i) ASSERT_EQ(seen[i].load(), 1) << "item " << i;
  }
}

TEST(Slices, SmallWorkStaysOnTheCallingThreadLargeWorkSpreads) {
  const std::thread::id caller = std::this_thread::get_id();
  std::atomic<int> smallCalls{0}, smallElsewhere{0}, largeCalls{0}, largeElsewhere{0};
  slices::forSlices(1000, slices::kParallelPixels - 1, [&](int, int) {
    ++smallCalls;
    if (std::this_thread::get_id() != caller) ++smallElsewhere;
  });
  EXPECT_EQ(smallCalls.load(), 1);
  EXPECT_EQ(smallElsewhere.load(), 0);
  slices::forSlices(1000, slices::kParallelPixels, [&](int, int) {
    ++largeCalls;
    if (std::this_thread::get_id() != caller) ++largeElsewhere;
  });
  const unsigned cores = std::thread::hardware_concurrency();
  const int parts = static_cast<int>(std::min(4u, cores < 1 ? 1u : cores));
  EXPECT_EQ(largeCalls.load(), parts);
  EXPECT_EQ(largeElsewhere.load(), parts - 1);
}

// At most four threads work at once: given more slices, the fifth onwards
// run on the calling thread as one range after slice 0.
TEST(Slices, SlicesBeyondTheFourthRunOnTheCallingThreadAsOneRange) {
  const std::thread::id caller = std::this_thread::get_id();
  std::mutex lock;
  std::map<std::pair<int, int>, bool> ranges;  // range -> ran on the caller
  slices::runSlices({0, 1, 2, 3, 4, 5, 6, 7}, [&](int begin, int end) {
    const std::lock_guard<std::mutex> hold(lock);
    ranges[{begin, end}] = std::this_thread::get_id() == caller;
  });
  const std::map<std::pair<int, int>, bool> expected = {
      {{0, 1}, true}, {{1, 2}, false}, {{2, 3}, false}, {{3, 4}, false}, {{4, 7}, true}};
  EXPECT_EQ(ranges, expected);
}

TEST(Slices, NothingToDoCallsNothing) {
  int calls = 0;
  slices::forSlices(0, slices::kParallelPixels, [&](int, int) { ++calls; });
  slices::forSlices(-3, 1, [&](int, int) { ++calls; });
  EXPECT_EQ(calls, 0);
}

// A slice that throws, on a worker or on the calling thread, reaches the
// caller only once every slice has finished: nothing runs on afterwards, and
// no thread is left joinable (which would end the process).
TEST(Slices, ExceptionInAnySliceIsRethrownAfterEverySliceFinished) {
  const unsigned cores = std::thread::hardware_concurrency();
  const int parts = static_cast<int>(std::min(4u, cores < 1 ? 1u : cores));
  for (int thrower = 0; thrower < parts; ++thrower) {
    SCOPED_TRACE(::testing::Message() << "slice " << thrower << " of " << parts << " throws");
    std::atomic<int> finished{0};
    int firstOfThrower = -1;
    bool caught = false;
    try {
      slices::forSlices(parts * 10, slices::kParallelPixels, [&](int begin, int end) {
        if (begin == thrower * 10) {
          firstOfThrower = begin;
          ++finished;
          throw std::bad_alloc();
        }
        // The others take a while, so a premature rethrow would be seen.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        (void)end;
        ++finished;
      });
    } catch (const std::bad_alloc&) {
      caught = true;
    }
    EXPECT_TRUE(caught);
    EXPECT_EQ(firstOfThrower, thrower * 10);
    EXPECT_EQ(finished.load(), parts);
  }
}

}  // namespace
