#include "support/cpu_timer.h"

#include <android/log.h>

#include "support/veld_memory.h"

CpuTimer* g_timer = nullptr;
CpuTimer* g_totalTimer = nullptr;
CpuTimer* g_cancelTimer = nullptr;

double g_t_TotalTime = 0.0;
double g_t_colEst = 0.0;
double g_t_tAndNLinks = 0.0;
double g_t_maxflow = 0.0;
double g_t_nLinksComputation = 0.0;
double g_t_colUpd = 0.0;
double g_t_preProcess = 0.0;
double g_t_postProcess = 0.0;

namespace {

// Refreshes the stop time of a running timer, caches both ends in
// microseconds and returns their difference.
double elapsedMicros(CpuTimer* t) {
  if (t->stopped == 0) gettimeofday(&t->stop, nullptr);
  t->startMicros = static_cast<double>(t->start.tv_sec) * 1e6 + static_cast<double>(t->start.tv_usec);
  t->stopMicros = static_cast<double>(t->stop.tv_sec) * 1e6 + static_cast<double>(t->stop.tv_usec);
  return t->stopMicros - t->startMicros;
}

}  // namespace

extern "C" CpuTimer* create_timer() {
  return static_cast<CpuTimer*>(VELD_Calloc_Msg(1, sizeof(CpuTimer), "create_timer", 27));
}

void init_timer() {
  g_timer = static_cast<CpuTimer*>(VELD_Calloc_Msg(1, sizeof(CpuTimer), "create_timer", 27));
}

extern "C" void destroy_timer(CpuTimer* t) {
  if (t != nullptr) VELD_Free_Msg(t, "destroy_timer", 48);
}

void exit_timer() {
  // g_timer keeps its (now dangling) value, as callers of this pair expect.
  if (g_timer != nullptr) VELD_Free_Msg(g_timer, "destroy_timer", 48);
}

extern "C" void start_cpu_timer(CpuTimer* t) {
  if (t == nullptr) return;
  t->stopped = 0;
  gettimeofday(&t->start, nullptr);
}

extern "C" void stop_cpu_timer(CpuTimer* t) {
  if (t == nullptr) return;
  t->stopped = 1;
  gettimeofday(&t->stop, nullptr);
}

extern "C" double get_elapsed_time_in_microsec(CpuTimer* t) {
  if (t == nullptr) return -1.0;
  return elapsedMicros(t);
}

extern "C" double get_elapsed_time_in_millisec(CpuTimer* t) {
  if (t == nullptr) return -0.001;
  return elapsedMicros(t) * 0.001;
}

extern "C" double get_elapsed_time_in_sec(CpuTimer* t) {
  if (t == nullptr) return -1e-6;
  return elapsedMicros(t) * 1e-6;
}

CGElapsedTime::CGElapsedTime(const char* name) : name(name) { gettimeofday(&start, nullptr); }

CGElapsedTime::~CGElapsedTime() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  long s = now.tv_sec - start.tv_sec;
  long u = now.tv_usec - start.tv_usec;
  if (u < 0) {
    s -= 1;
    u += 1000000;
  }
  float ms = static_cast<float>(s) * 1000.0f + static_cast<float>(u) * 0.001f;
  __android_log_print(ANDROID_LOG_INFO, "GTime", "%s =%f", name, static_cast<double>(ms));
}
