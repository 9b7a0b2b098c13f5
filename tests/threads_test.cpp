// The library's one way of starting a thread: the body runs elsewhere, what
// it throws reaches the joining thread, and nothing is left running.
#include "support/threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

namespace {

TEST(Thread, BodyRunsOnAnotherThread) {
  const std::thread::id caller = std::this_thread::get_id();
  std::thread::id ran;
  auto body = [&] { ran = std::this_thread::get_id(); };
  threads::Thread t;
  ASSERT_TRUE(threads::startOrRun(t, body));
  t.join();
  EXPECT_NE(ran, caller);
  EXPECT_NE(ran, std::thread::id());
}

TEST(Thread, BodyExceptionIsRethrownAfterJoinOnce) {
  auto body = [] { throw std::runtime_error("body failed"); };
  threads::Thread t;
  ASSERT_TRUE(t.start(body));
  t.join();
  EXPECT_THROW(t.rethrow(), std::runtime_error);
  EXPECT_NO_THROW(t.rethrow());
}

// A body still running when its Thread goes out of scope is waited for, so
// nothing the body uses is released under it.
TEST(Thread, DestructorWaitsForTheBody) {
  std::atomic<bool> done{false};
  auto body = [&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    done = true;
  };
  {
    threads::Thread t;
    ASSERT_TRUE(t.start(body));
    EXPECT_TRUE(t.running());
  }
  EXPECT_TRUE(done.load());
}

// Starting again joins the earlier run first; a failure of the earlier run
// is dropped with it (only the latest body's is kept).
TEST(Thread, RestartJoinsTheEarlierRun) {
  std::atomic<int> runs{0};
  auto slow = [&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ++runs;
    throw std::runtime_error("first");
  };
  auto fast = [&] { ++runs; };
  threads::Thread t;
  ASSERT_TRUE(t.start(slow));
  ASSERT_TRUE(t.start(fast));
  t.join();
  EXPECT_EQ(runs.load(), 2);
  EXPECT_NO_THROW(t.rethrow());
}

void* setFlag(void* arg) {
  static_cast<std::atomic<bool>*>(arg)->store(true);
  return nullptr;
}

TEST(Thread, EntryPointRunsUntilJoined) {
  std::atomic<bool> flag{false};
  threads::Thread t;
  ASSERT_TRUE(t.startEntry(&setFlag, &flag));
  t.join();
  EXPECT_TRUE(flag.load());
  EXPECT_FALSE(t.running());
}

}  // namespace
