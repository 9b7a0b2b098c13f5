#include "interface/boundary.h"

#include <android/log.h>
#include <opencv2/core.hpp>

#include <cstdarg>
#include <cstdio>
#include <new>
#include <system_error>

namespace boundary {

Refused::Refused(const char* message) {
  std::snprintf(message_, sizeof(message_), "%s", message);
}

void refuse(const char* format, ...) {
  char message[192];
  va_list args;
  va_start(args, format);
  std::vsnprintf(message, sizeof(message), format, args);
  va_end(args);
  throw Refused(message);
}

namespace {
void logError(const char* call, const char* text) {
  __android_log_print(ANDROID_LOG_ERROR, "Error", "%s: %s", call, text);
}
}  // namespace

int failed(const char* call) noexcept {
  // Rethrown here so that each kind is told apart by its type; nothing
  // leaves this function.
  try {
    throw;
  } catch (const Refused& r) {
    logError(call, r.what());
  } catch (const std::bad_alloc&) {
    logError(call, "memory ran out");
  } catch (const cv::Exception& e) {
    if (e.code == cv::Error::StsNoMem) {
      logError(call, "memory ran out");
    } else {
      __android_log_print(ANDROID_LOG_ERROR, "Error", "%s: failed (%s)", call, e.err.c_str());
    }
  } catch (const std::system_error& e) {
    // A thread that could not be started is memory the system refused.
    if (e.code() == std::errc::resource_unavailable_try_again ||
        e.code() == std::errc::not_enough_memory) {
      logError(call, "memory ran out");
    } else {
      __android_log_print(ANDROID_LOG_ERROR, "Error", "%s: failed (%s)", call, e.what());
    }
  } catch (const std::exception& e) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "%s: failed (%s)", call, e.what());
  } catch (...) {
    logError(call, "failed");
  }
  return SEGCORE_FAILED;
}

}  // namespace boundary
