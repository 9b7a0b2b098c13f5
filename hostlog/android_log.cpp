// Writes each log call as one line on stderr in logcat's brief form
// ("E/Error: MEMORY_CRASH : setSourceImage 115") and, while a test has asked
// for it, records the call.
#include <android/log.h>
#include <hostlog/capture.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

namespace {

std::mutex g_mutex;
bool g_capturing = false;
std::vector<hostlog::Record> g_records;
int g_echo = -1;  // -1: not decided yet, read the environment on first use

char priorityLetter(int prio) {
  switch (prio) {
    case ANDROID_LOG_VERBOSE: return 'V';
    case ANDROID_LOG_DEBUG: return 'D';
    case ANDROID_LOG_INFO: return 'I';
    case ANDROID_LOG_WARN: return 'W';
    case ANDROID_LOG_ERROR: return 'E';
    case ANDROID_LOG_FATAL: return 'F';
    case ANDROID_LOG_SILENT: return 'S';
    default: return '?';
  }
}

void emit(int prio, const char* tag, const char* text) {
  if (tag == nullptr) tag = "";
  if (text == nullptr) text = "";
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_echo < 0) g_echo = std::getenv("SEGCORE_LOG_QUIET") == nullptr ? 1 : 0;
  if (g_echo) std::fprintf(stderr, "%c/%s: %s\n", priorityLetter(prio), tag, text);
  if (g_capturing) g_records.push_back(hostlog::Record{prio, tag, text});
}

}  // namespace

extern "C" int __android_log_write(int prio, const char* tag, const char* text) {
  emit(prio, tag, text);
  return 1;
}

extern "C" int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap) {
  va_list copy;
  va_copy(copy, ap);
  int n = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  if (n < 0) return n;
  std::string text(static_cast<size_t>(n), '\0');
  std::vsnprintf(&text[0], text.size() + 1, fmt, ap);
  emit(prio, tag, text.c_str());
  return n;
}

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = __android_log_vprint(prio, tag, fmt, ap);
  va_end(ap);
  return n;
}

namespace hostlog {

void startCapture() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_records.clear();
  g_capturing = true;
}

std::vector<Record> stopCapture() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_capturing = false;
  std::vector<Record> out;
  out.swap(g_records);
  return out;
}

std::vector<Record> captured() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_records;
}

void setEcho(bool on) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_echo = on ? 1 : 0;
}

}  // namespace hostlog
