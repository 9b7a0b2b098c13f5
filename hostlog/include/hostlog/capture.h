// Test hook of the host logging library: records every log call so a test can
// assert the exact priority, tag and text the engine wrote.
#ifndef HOSTLOG_CAPTURE_H
#define HOSTLOG_CAPTURE_H

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
// What has been recorded so far, without stopping.
std::vector<Record> captured();
// Turns the stderr echo on or off (it is on unless SEGCORE_LOG_QUIET is set).
void setEcho(bool on);

}  // namespace hostlog

#endif
