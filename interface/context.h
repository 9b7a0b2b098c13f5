// The throwing form of the engine's start, for calls that chain it
// (doSegmentationBB); the exported initSegmentationEngine guards it.
#ifndef SEGCORE_INTERFACE_CONTEXT_H
#define SEGCORE_INTERFACE_CONTEXT_H

// Creates the engine for the stored photo and stores it in pHybrid (an engine
// already there is not released). Refuses (boundary::Refused) without a photo
// or with an empty one. When memory runs out it throws, and the context -
// working image, texture images, flags, and any engine already there - is as
// it was. O(photo pixels) for the working image, then O(working pixels).
void startEngine();

#endif
