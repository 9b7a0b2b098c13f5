// Timers: running timers grow, stopped timers freeze, null timers answer -1 us.
#include <cstdlib>
#include <thread>

#include "support/cpu_timer.h"
#include "tests/test_support.h"

namespace {

TEST(Timer, NullTimerAnswersMinusOneMicrosecondInEachUnit) {
  EXPECT_EQ(get_elapsed_time_in_microsec(nullptr), -1.0);
  EXPECT_EQ(get_elapsed_time_in_millisec(nullptr), -0.001);
  EXPECT_EQ(get_elapsed_time_in_sec(nullptr), -1e-6);
  start_cpu_timer(nullptr);  // must not crash
  stop_cpu_timer(nullptr);
  destroy_timer(nullptr);
}

TEST(Timer, RunningTimerGrowsAndStoppedTimerFreezes) {
  CpuTimer* t = create_timer();
  start_cpu_timer(t);
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  const double first = get_elapsed_time_in_microsec(t);
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  EXPECT_GT(first, 0.0);
  EXPECT_GT(get_elapsed_time_in_microsec(t), first);
  t->start.tv_sec -= 11;  // a start in the past shows in the queries
  stop_cpu_timer(t);
  const double frozen = get_elapsed_time_in_millisec(t);
  EXPECT_TRUE(frozen > 11000.0 && frozen < 12000.0) << frozen;
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  EXPECT_EQ(get_elapsed_time_in_millisec(t), frozen);
  EXPECT_DOUBLE_EQ(get_elapsed_time_in_sec(t), frozen * 0.001);
  destroy_timer(t);
}

TEST(Timer, ScopedTimerLogsOneLine) {
  const testsupport::Lines log = testsupport::logged([] { CGElapsedTime scope("stage"); });
  ASSERT_EQ(log.size(), 1u);
  // "%s =%f": the name, " =", then a non-negative number with six decimals.
  ASSERT_EQ(log[0].rfind("I/GTime: stage =", 0), 0u) << log[0];
  const std::string number = log[0].substr(16);
  char* end = nullptr;
  EXPECT_GE(std::strtod(number.c_str(), &end), 0.0);
  EXPECT_EQ(*end, '\0') << log[0];
  ASSERT_GE(number.size(), 7u);
  EXPECT_EQ(number[number.size() - 7], '.') << log[0];
}

}  // namespace
