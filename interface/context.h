// The throwing form of the engine's start, for calls that chain it
// (doSegmentationBB); the exported initSegmentationEngine guards it.
#ifndef SEGCORE_INTERFACE_CONTEXT_H
#define SEGCORE_INTERFACE_CONTEXT_H

// Creates the engine for the stored photo and stores it in pHybrid (an engine
// already there is replaced and released). Refuses (boundary::Refused) without a photo
// or with an empty one. When memory runs out it throws, and the context -
// working image, texture images, flags, and any engine already there - is as
// it was. O(photo pixels) for the working image, then O(working pixels).
void startEngine();

// Which photo the engine was built for. Every stored photo gets a new
// number; startEngine() records the one it built from. A photo stored after
// the engine (setSourceImage without initSegmentationEngine) leaves the
// engine's working image, size and scale those of the old photo: cutting
// with it would read past its images, so a cut then is refused.
namespace context {
extern unsigned long photoGeneration;
extern unsigned long engineGeneration;
inline bool engineFitsPhoto() { return photoGeneration == engineGeneration; }
}  // namespace context

#endif
