// The library's size problem report.
//
// The library does not stop on a degenerate size: it reports it under a fixed
// tag - the function's name and a line number that the log's readers know it
// by - and carries on, creating the image anyway. Every such report goes
// through here, so that the line is written one way.
#ifndef SEGCORE_SUPPORT_SIZE_CHECK_H
#define SEGCORE_SUPPORT_SIZE_CHECK_H

#include <android/log.h>

// Logs "MEMORY_CRASH : <function> <line>" at error priority, tag "Error".
// Reads and writes nothing else. O(1) besides the log call.
inline void logMemoryCrash(const char* function, int line) {
  __android_log_print(ANDROID_LOG_ERROR, "Error", "MEMORY_CRASH : %s %d", function, line);
}

// logMemoryCrash(function, line) when width or height is below 1; nothing
// otherwise. O(1).
inline void checkImageSize(int width, int height, const char* function, int line) {
  if (width < 1 || height < 1) logMemoryCrash(function, line);
}

#endif
