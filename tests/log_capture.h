// Test hook on the Android log: records every log call the library makes so a
// test can assert the exact priority, tag and text it wrote.
//
// Linking tests/log_capture.cpp into a test program replaces liblog's
// __android_log_print, __android_log_vprint and __android_log_write for the
// whole process (see there why); each call is recorded while a capture runs
// and handed on to liblog for its stderr line unless SEGCORE_LOG_QUIET is set.
// tests/test_support.h compares the records as lines.
#ifndef SEGCORE_TESTS_LOG_CAPTURE_H
#define SEGCORE_TESTS_LOG_CAPTURE_H

#include <string>
#include <vector>

namespace hostlog {

struct Record {
  int priority;
  std::string tag;
  std::string text;
};

// Starts recording (dropping anything recorded before).
void startCapture();
// Stops recording and returns what was logged since startCapture().
std::vector<Record> stopCapture();

}  // namespace hostlog

#endif
