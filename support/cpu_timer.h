// Wall-clock timers on gettimeofday.
//
// A CpuTimer measures from start_cpu_timer to stop_cpu_timer; queried while
// running it reports the time so far. The segmentation driver abandons a cut
// that has run more than 10 s on g_cancelTimer. CGElapsedTime logs the time
// spent in a scope (tag "GTime").
//
// Null timers are accepted everywhere: start/stop/destroy do nothing and the
// queries return -1 microsecond in their unit.
#ifndef SEGCORE_SUPPORT_CPU_TIMER_H
#define SEGCORE_SUPPORT_CPU_TIMER_H

#include <sys/time.h>

// A request's cuts are abandoned once g_cancelTimer shows more than this many
// milliseconds: the driver checks after each cut, the solver after each node
// visit (and then raises the cancel flag itself). The one definition of the
// limit.
constexpr double kCancelTimeLimitMs = 10000.0;

struct CpuTimer {
  struct timeval start;
  struct timeval stop;
  double startMicros;
  double stopMicros;
  int stopped;
};

extern "C" {
CpuTimer* create_timer();
void destroy_timer(CpuTimer* t);
void start_cpu_timer(CpuTimer* t);
void stop_cpu_timer(CpuTimer* t);
double get_elapsed_time_in_microsec(CpuTimer* t);
double get_elapsed_time_in_millisec(CpuTimer* t);
double get_elapsed_time_in_sec(CpuTimer* t);
}

// Milliseconds from t's start to now, read without stopping t (so any thread
// may ask while the timer runs). t must not be null.
inline double elapsedMsSoFar(const CpuTimer* t) {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return (static_cast<double>(now.tv_sec - t->start.tv_sec) * 1e6 +
          static_cast<double>(now.tv_usec - t->start.tv_usec)) * 0.001;
}

// g_timer's own create and destroy.
void init_timer();
void exit_timer();

extern CpuTimer* g_timer;
extern CpuTimer* g_totalTimer;
extern CpuTimer* g_cancelTimer;

// Stage times for profiling builds; nothing in the library writes them.
extern double g_t_TotalTime;
extern double g_t_colEst;
extern double g_t_tAndNLinks;
extern double g_t_maxflow;
extern double g_t_nLinksComputation;
extern double g_t_colUpd;
extern double g_t_preProcess;
extern double g_t_postProcess;

// Logs "<name> =<milliseconds>" at info priority when it goes out of scope.
// The name is not copied.
class CGElapsedTime {
 public:
  explicit CGElapsedTime(const char* name);
  ~CGElapsedTime();
  CGElapsedTime(const CGElapsedTime&) = delete;
  CGElapsedTime& operator=(const CGElapsedTime&) = delete;

 private:
  struct timeval start;
  const char* name;
};

#endif
