// Log capture for the tests, by interposition.
//
// The test program defines __android_log_print, __android_log_vprint and
// __android_log_write itself. The dynamic linker binds the library's calls to
// the first definition in the global search order, which is the executable's,
// so every log call of the library lands here with its priority, tag and
// formatted text exactly as the library passed them. The alternative, parsing
// liblog's stderr lines ("TAG P MM-DD hh:mm:ss pid tid message") back into
// records, would tie the tests to one liblog version's output format, need the
// process's stderr redirected around every capture, and could not tell a tag
// containing a space, or a message containing a line break, from the framing.
//
// Calls are handed on to liblog's own __android_log_write (found with
// dlsym(RTLD_NEXT)), so a test run still shows liblog's genuine lines, unless
// SEGCORE_LOG_QUIET is set.
#include "tests/log_capture.h"

#include <dlfcn.h>

#include <android/log.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

namespace {

using WriteFn = int (*)(int, const char*, const char*);

std::mutex g_mutex;
bool g_capturing = false;
std::vector<hostlog::Record> g_records;

int emit(int prio, const char* tag, const char* text) {
  static const bool echo = std::getenv("SEGCORE_LOG_QUIET") == nullptr;
  static const WriteFn realWrite = reinterpret_cast<WriteFn>(dlsym(RTLD_NEXT, "__android_log_write"));
  if (tag == nullptr) tag = "";
  if (text == nullptr) text = "";
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_capturing) g_records.push_back(hostlog::Record{prio, tag, text});
  }
  return echo && realWrite != nullptr ? realWrite(prio, tag, text) : 1;
}

}  // namespace

extern "C" int __android_log_write(int prio, const char* tag, const char* text) {
  return emit(prio, tag, text);
}

extern "C" int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap) {
  va_list copy;
  va_copy(copy, ap);
  const int n = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  if (n < 0) return n;
  std::string text(static_cast<size_t>(n), '\0');
  std::vsnprintf(&text[0], text.size() + 1, fmt, ap);
  return emit(prio, tag, text.c_str());
}

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  const int n = __android_log_vprint(prio, tag, fmt, ap);
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

}  // namespace hostlog
