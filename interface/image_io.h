// Conversions between the context's images and the caller's buffers, shared by
// the input functions, the requests and the history.
#ifndef SEGCORE_INTERFACE_IMAGE_IO_H
#define SEGCORE_INTERFACE_IMAGE_IO_H

// Writes the stored photo as opaque 0xFFRRGGBB pixels (photo width x height
// entries). Does nothing when no photo is stored.
void writePlainPhoto(unsigned int* out);

#endif
