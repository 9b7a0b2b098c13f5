// Owners for the library's raw resources: legacy images, contour storages,
// tracked and malloc'ed arrays.
//
// The engine and the interface keep the design's raw types where they are
// seen from outside (class members, globals, exported signatures); inside a
// function, whatever it creates is held by one of these owners until it is
// handed over with release(). Then a failure part-way - memory running out at
// any allocation raises std::bad_alloc or OpenCV's out-of-memory
// cv::Exception - unwinds through the owners and leaves nothing behind.
//
// Costs: each owner is one pointer; construction and destruction are the
// underlying create and release calls, nothing more.
#ifndef SEGCORE_SUPPORT_OWNED_H
#define SEGCORE_SUPPORT_OWNED_H

#include <opencv2/core/core_c.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "support/veld_memory.h"

// Releases an image if there is one and leaves the handle null (the design's
// "release behind a null test").
inline void releaseImage(IplImage*& image) {
  if (image != nullptr) cvReleaseImage(&image);
  image = nullptr;
}

// cvCreateImage, but leak-free when memory runs out: OpenCV's own keeps the
// header it made when the pixels cannot be had. Raises cv::Exception
// (out of memory) then, with nothing left behind.
inline IplImage* createImage(CvSize size, int depth, int channels) {
  // The header as cvCreateImageHeader makes it (rows aligned to 4 bytes),
  // but kept hold of when its initialisation refuses the size.
  constexpr int kRowAlign = 4;
  IplImage* image = static_cast<IplImage*>(cvAlloc(sizeof(IplImage)));
  try {
    cvInitImageHeader(image, size, depth, channels, IPL_ORIGIN_TL, kRowAlign);
    cvCreateData(image);
  } catch (...) {
    cvReleaseImageHeader(&image);
    throw;
  }
  return image;
}

// cvCloneImage of an image without a region of interest, leak-free in the
// same way: a header of the same geometry, then the bytes copied.
inline IplImage* cloneImage(const IplImage* source) {
  if (source->roi != nullptr) return cvCloneImage(source);
  IplImage* image = createImage(cvSize(source->width, source->height), source->depth, source->nChannels);
  if (image->imageSize == source->imageSize && image->widthStep == source->widthStep) {
    std::memcpy(image->imageData, source->imageData, static_cast<size_t>(source->imageSize));
  } else {
    cvCopy(source, image, nullptr);
  }
  return image;
}

// Throws std::bad_alloc when an allocation that has no fall-back came back
// null: the exported call that made it fails cleanly instead of writing
// through a null pointer.
template <typename T>
inline T* needMemory(T* p) {
  if (p == nullptr) throw std::bad_alloc();
  return p;
}

namespace owned {

// One IplImage, released with cvReleaseImage when the owner goes.
class Image {
 public:
  Image() = default;
  explicit Image(IplImage* image) : image_(image) {}
  ~Image() { releaseImage(image_); }
  Image(Image&& other) noexcept : image_(other.release()) {}
  Image& operator=(Image&& other) noexcept {
    reset(other.release());
    return *this;
  }
  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;

  // createImage / cloneImage: both raise cv::Exception when memory runs
  // out, so a returned owner always holds an image.
  static Image create(CvSize size, int depth, int channels) {
    return Image(createImage(size, depth, channels));
  }
  static Image clone(const IplImage* image) { return Image(cloneImage(image)); }

  IplImage* get() const { return image_; }
  IplImage* operator->() const { return image_; }
  explicit operator bool() const { return image_ != nullptr; }
  // Hands the image over; the owner is empty afterwards.
  IplImage* release() {
    IplImage* image = image_;
    image_ = nullptr;
    return image;
  }
  // Releases the image held and takes `image`.
  void reset(IplImage* image = nullptr) {
    releaseImage(image_);
    image_ = image;
  }

 private:
  IplImage* image_ = nullptr;
};

// One CvMemStorage (and every sequence in it).
class Storage {
 public:
  Storage() = default;
  explicit Storage(CvMemStorage* storage) : storage_(storage) {}
  ~Storage() { reset(); }
  Storage(const Storage&) = delete;
  Storage& operator=(const Storage&) = delete;

  // cvCreateMemStorage(block): raises cv::Exception when memory runs out.
  static CvMemStorage* create(int block = 0) { return cvCreateMemStorage(block); }

  CvMemStorage* get() const { return storage_; }
  CvMemStorage* release() {
    CvMemStorage* storage = storage_;
    storage_ = nullptr;
    return storage;
  }
  void reset(CvMemStorage* storage = nullptr) {
    if (storage_ != nullptr) cvReleaseMemStorage(&storage_);
    storage_ = storage;
  }

 private:
  CvMemStorage* storage_ = nullptr;
};

// A raw array from malloc/calloc (Free = std::free) or from the tracked
// allocator (Free = the tracked free, tagged with the owner's call site).
template <typename T, void (*Free)(void*)>
class Array {
 public:
  Array() = default;
  explicit Array(T* data) : data_(data) {}
  ~Array() { reset(); }
  Array(Array&& other) noexcept : data_(other.release()) {}
  Array& operator=(Array&& other) noexcept {
    reset(other.release());
    return *this;
  }
  Array(const Array&) = delete;
  Array& operator=(const Array&) = delete;

  T* get() const { return data_; }
  T& operator[](long i) const { return data_[i]; }
  explicit operator bool() const { return data_ != nullptr; }
  T* release() {
    T* data = data_;
    data_ = nullptr;
    return data;
  }
  void reset(T* data = nullptr) {
    if (data_ != nullptr) Free(data_);
    data_ = data;
  }

 private:
  T* data_ = nullptr;
};

inline void freeTracked(void* p) { VELD_Free_Msg(p, "owned::Tracked", 0); }
inline void freeMalloced(void* p) { std::free(p); }

// An array of the tracked allocator (VELD_Malloc_Msg / VELD_Calloc_Msg).
template <typename T>
using Tracked = Array<T, freeTracked>;
// An array of malloc / calloc.
template <typename T>
using Malloced = Array<T, freeMalloced>;

}  // namespace owned

#endif
