#include "tests/static_log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace staticlog {
namespace {
Line g_lines[kMaxLines];
std::atomic<int> g_count{0};
std::atomic<bool> g_recording{true};

void record(int priority, const char* tag, const char* text) {
  if (!g_recording.load()) return;
  const int k = g_count.fetch_add(1);
  if (k >= kMaxLines) return;
  g_lines[k].priority = priority;
  std::snprintf(g_lines[k].tag, sizeof(g_lines[k].tag), "%s", tag != nullptr ? tag : "");
  std::snprintf(g_lines[k].text, sizeof(g_lines[k].text), "%s", text != nullptr ? text : "");
}
}  // namespace

void start() {
  g_count = 0;
  g_recording = true;
}

void stop() { g_recording = false; }

int count() { return g_count.load(); }

const Line& line(int i) { return g_lines[i]; }

}  // namespace staticlog

extern "C" int __android_log_write(int prio, const char* tag, const char* text) {
  staticlog::record(prio, tag, text);
  return 1;
}

extern "C" int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap) {
  char text[512];
  const int n = std::vsnprintf(text, sizeof(text), fmt, ap);
  staticlog::record(prio, tag, text);
  return n;
}

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  const int n = __android_log_vprint(prio, tag, fmt, ap);
  va_end(ap);
  return n;
}
