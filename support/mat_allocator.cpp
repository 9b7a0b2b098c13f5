#include "support/mat_allocator.h"

#include <memory>

namespace matalloc {

namespace {

#if CV_VERSION_MAJOR >= 4
using AccessFlags = cv::AccessFlag;
#else
using AccessFlags = int;
#endif

class LeakFreeAllocator : public cv::MatAllocator {
 public:
  cv::UMatData* allocate(int dims, const int* sizes, int type, void* data, size_t* step, AccessFlags,
                         cv::UMatUsageFlags) const override {
    // Row steps as OpenCV lays them out: densely packed, last dimension
    // first, unless the caller's own data comes with its steps.
    size_t total = CV_ELEM_SIZE(type);
    for (int i = dims - 1; i >= 0; --i) {
      if (step != nullptr) {
        if (data != nullptr && step[i] != cv::Mat::AUTO_STEP) {
          total = step[i];
        } else {
          step[i] = total;
        }
      }
      total *= static_cast<size_t>(sizes[i]);
    }
    std::unique_ptr<cv::UMatData> u(new cv::UMatData(this));
    unsigned char* pixels = data != nullptr ? static_cast<unsigned char*>(data)
                                            : static_cast<unsigned char*>(cv::fastMalloc(total));
    u->data = u->origdata = pixels;
    u->size = total;
    if (data != nullptr) u->flags |= cv::UMatData::USER_ALLOCATED;
    return u.release();
  }

  bool allocate(cv::UMatData* u, AccessFlags, cv::UMatUsageFlags) const override { return u != nullptr; }

  void deallocate(cv::UMatData* u) const override {
    if (u == nullptr) return;
    if (!(u->flags & cv::UMatData::USER_ALLOCATED)) {
      cv::fastFree(u->origdata);
      u->origdata = nullptr;
    }
    delete u;
  }
};

}  // namespace

cv::MatAllocator* leakFreeAllocator() {
  // Never destroyed: matrices made by it may outlive any scope.
  static LeakFreeAllocator* allocator = new LeakFreeAllocator;
  return allocator;
}

DefaultScope::DefaultScope() : previous_(cv::Mat::getDefaultAllocator()) {
  cv::Mat::setDefaultAllocator(leakFreeAllocator());
}

DefaultScope::~DefaultScope() { cv::Mat::setDefaultAllocator(previous_); }

}  // namespace matalloc
