// A cv::Mat allocator that leaves nothing behind when memory runs out.
//
// OpenCV's standard allocator gets a matrix's pixels first and its
// bookkeeping record (UMatData) second; when the second allocation fails the
// pixels are lost. OpenCV functions the engine calls (Sobel, magnitude, the
// structuring element behind erode and dilate, k-means) create matrices
// inside, where no owner of ours can reach them. So for the duration of every
// exported call the library makes this allocator OpenCV's default: it takes
// the record first and the pixels second, and gives the record back when the
// pixels cannot be had. Matrices it made are freed through it whenever they
// go (each records its allocator), also after the call.
//
// Cost: the same two allocations as OpenCV's own, in the other order.
#ifndef SEGCORE_SUPPORT_MAT_ALLOCATOR_H
#define SEGCORE_SUPPORT_MAT_ALLOCATOR_H

#include <opencv2/core.hpp>

namespace matalloc {

// The allocator (one per process, never destroyed).
cv::MatAllocator* leakFreeAllocator();

// Makes leakFreeAllocator() OpenCV's default allocator while it lives, and
// puts the previous default back afterwards. Scopes nest. Set and reset on
// the calling thread, before the call starts threads of its own and after it
// has joined them.
class DefaultScope {
 public:
  DefaultScope();
  ~DefaultScope();
  DefaultScope(const DefaultScope&) = delete;
  DefaultScope& operator=(const DefaultScope&) = delete;

 private:
  cv::MatAllocator* previous_;
};

}  // namespace matalloc

#endif
