// Stage marks: the points where a request passes from one stage to the next.
//
// In the library they compile to nothing. The stage benchmark
// (bench/stages_bench.cpp) links its own build of the engine and the interface
// with SEGCORE_STAGE_MARKS defined, and defines reached() itself, so that
// every stage is timed inside the real pipeline rather than in a copy of it.
// All marks are passed on the request's calling thread; a stage lasts from
// its mark to the next one.
#ifndef SEGCORE_SUPPORT_STAGE_MARKS_H
#define SEGCORE_SUPPORT_STAGE_MARKS_H

namespace stagemarks {

enum Stage {
  kLabelsBox,     // marks -> label image, working box, pre-processing, crops
  kColourModels,  // training samples, a fit (k-means seeded) or a refit of both models
  kTrialCuts,     // the three trial cuts side by side (builds and max-flows)
  kGraphBuild,    // one whole-box graph build
  kMaxFlow,       // one max-flow and the label update
  kRecut,         // the working mask, the full-resolution re-cut of the band
  kPostProcess,   // island and hole clean-up, merge with the previous mask
  kHistory,       // the mask recorded in the history
  kOutput,        // outline, preview and mask into the caller's buffers
  kDone,          // after the request (not timed)
  kStages
};

#ifdef SEGCORE_STAGE_MARKS
void reached(Stage next);
#else
inline void reached(Stage) {}
#endif

}  // namespace stagemarks

#endif
