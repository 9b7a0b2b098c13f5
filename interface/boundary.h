// The one place where an exported call's failure becomes a log line and a
// status.
//
// Every exported function runs its body inside guardCall(). A body refuses
// unusable arguments or an unusable context by throwing Refused (through
// refuse()), and runs out of memory by letting std::bad_alloc or OpenCV's
// out-of-memory cv::Exception leave it; the owners of support/owned.h and the
// rollbacks it declares release and restore on the way out. guardCall turns
// what arrives into exactly one line under tag "Error" at error priority:
//
//   "<call>: <what was refused>"     refused arguments or order of calls
//   "<call>: memory ran out"         an allocation (or a thread) failed
//   "<call>: failed (<reason>)"      any other exception
//
// and returns SEGCORE_FAILED. Nothing is thrown out of guardCall.
#ifndef SEGCORE_INTERFACE_BOUNDARY_H
#define SEGCORE_INTERFACE_BOUNDARY_H

#include <exception>

#include "interface/segmentation_core.h"
#include "support/mat_allocator.h"

namespace boundary {

// A refusal: the message is formatted into a fixed buffer, so raising one
// needs no memory.
class Refused : public std::exception {
 public:
  explicit Refused(const char* message);
  const char* what() const noexcept override { return message_; }

 private:
  char message_[192];
};

// Throws Refused with a printf-formatted message.
[[noreturn]] void refuse(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Logs the exception in flight (call from a catch block) and returns
// SEGCORE_FAILED.
int failed(const char* call) noexcept;

// Runs body() (which returns the call's int status) and turns any exception
// into the log line above and SEGCORE_FAILED. OpenCV's matrices made during
// the call come from the leak-free allocator (support/mat_allocator.h).
template <class Body>
int guardCall(const char* call, Body&& body) noexcept {
  try {
    matalloc::DefaultScope matrices;
    return body();
  } catch (...) {
    return failed(call);
  }
}

// The same for calls without a status (void functions): failures are logged
// and the call just returns.
template <class Body>
void guardVoidCall(const char* call, Body&& body) noexcept {
  try {
    matalloc::DefaultScope matrices;
    body();
  } catch (...) {
    failed(call);
  }
}

}  // namespace boundary

#endif
