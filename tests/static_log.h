// The library's log lines recorded into static storage, for programs that
// make allocations fail (tests/alloc_faults.h).
//
// Linking tests/static_log.cpp into a program takes liblog's entry points
// (__android_log_print, __android_log_vprint, __android_log_write) for the
// whole process, as tests/log_capture.cpp does for the other tests. Unlike
// that capture it never allocates: on the phone liblog formats into a stack
// buffer, and a capture that allocated would add allocation points to the
// library's logging that the field does not have - an injected failure could
// land in the test's own recording. Lines past kMaxLines are counted, not
// kept.
#ifndef SEGCORE_TESTS_STATIC_LOG_H
#define SEGCORE_TESTS_STATIC_LOG_H

namespace staticlog {

struct Line {
  int priority;
  char tag[32];
  char text[224];
};

constexpr int kMaxLines = 64;

// Forgets what was recorded and records from now on (recording is on from
// the start of the program).
void start();
// Records nothing more until the next start().
void stop();
// Lines logged since start(), including any beyond kMaxLines that were lost.
int count();
// Line i, for i < min(count(), kMaxLines).
const Line& line(int i);

}  // namespace staticlog

#endif
