// Conversions between the context's images and the caller's buffers, shared by
// the input functions, the requests and the history; and the throwing forms of
// the input functions, for calls that chain them (doSegmentationBB).
//
// The store* functions do what the exported call of the same purpose does,
// but report a refusal (boundary::Refused) or memory running out
// (std::bad_alloc, cv::Exception) by throwing, so that the caller's own guard
// logs it under the caller's name. Each leaves the context as it found it
// when it throws.
#ifndef SEGCORE_INTERFACE_IMAGE_IO_H
#define SEGCORE_INTERFACE_IMAGE_IO_H

// Writes the stored photo as opaque 0xFFRRGGBB pixels (photo width x height
// entries). Does nothing when no photo is stored. Allocates nothing.
void writePlainPhoto(unsigned int* out);

// OpenCV keeps an image's row step and byte count in ints: a grid whose rows
// or bytes do not fit cannot be made (also when it has no rows), and a
// product that wraps would make a smaller one than asked for. For sides of 0
// or more.
bool fitsAnImage(int width, int height, int bytesPerPixel);

// setSourceImage: the photo and a history sized for it. O(pixels).
int storeSourceImage(int width, int height, unsigned int* pixels);
// setMarkerImage: the marker grid as bytes, and the marking mode. O(pixels).
int storeMarkerImage(int width, int height, int* markers, int strokeType);
// setCurrentMarkerVector: the stroke's points, clamped in place. O(count).
int storeMarkerVector(int count, int* coords);

#endif
