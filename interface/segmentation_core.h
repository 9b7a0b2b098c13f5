// The library's exported interface, as the app's native bridge calls it.
//
// One photo at a time is held in one process-wide context. Call order:
//
//   setSourceImage(w, h, argb)          store the photo, size the mask history
//   initSegmentationEngine(0)           working image, grey test, edge weights
//   for each request:
//     setCurrentMarkerVector(n, xy)     the stroke's points (clamped in place)
//     setMarkerImage(w, h, codes, mode) the marker grid and the marking mode
//     processSegment(0, 0, 0, preview, mask)   cut; or cutOutImage(...) to edit
//     fetch_path_array(&outline, &n)    the outline, once per result
//   undo / redo / canUndo / canRedo     step through up to 32 masks
//   resetSegmentationInterface()        forget marks and history, keep photo
//   deinitSegmentation()                end the context
//
// doSegmentationBB(...) runs a rectangle selection on a fresh context in one call.
// cancelSegmentation() then exitSegmentation() may be called from another
// thread while a request runs: the request stops and tears the context down.
//
// A photo stored over another without deinitSegmentation replaces it and its
// history, and initSegmentationEngine on a context that has an engine
// replaces the engine (what is replaced is released).
//
// Buffers: photos are 0xAARRGGBB per pixel, row-major; markers are label codes
// (0 unknown, 1 background, 2 object, 3 probable background, 4 probable object);
// masks come back inverted (0 = object, 255 = background). The library never
// keeps a pointer to a caller's buffer; it trusts the caller for their sizes.
// Every function returns 0 on success unless stated otherwise.
//
// Failures. No call throws, and no argument value crashes one. A call that
// cannot be carried out logs exactly one line under tag "Error" at error
// priority, "<call>: <problem>" (for memory: "<call>: memory ran out"), and
// returns SEGCORE_FAILED (void calls just return). Size problems that the
// library has always logged as "MEMORY_CRASH : <function> <line>" are still
// logged that way first. What a failed or refused call leaves:
//   - the photo, the engine, the mask history (canUndo, canRedo, undo, redo)
//     and an outline not yet fetched are as they were before the call;
//   - a request consumes its marks whether it succeeds or fails (a cut works
//     on the marker grid in place): to repeat it, send the marks again;
//   - nothing it allocated is kept.
// doSegmentationBB tears the old context down before it builds the new one:
// if it fails after that point it leaves no context (as after
// deinitSegmentation), never a half-built one.
//
// Refused, per call (memory running out can make any call that allocates
// fail, with the rules above):
//   setSourceImage     width or height below 0 (after the MEMORY_CRASH line),
//                      a photo of more than 2^31 bytes at 3 bytes per pixel,
//                      or whose row alone would be (also with no rows),
//                      null pixels for a non-empty photo. A width or height
//                      of 0 is logged (MEMORY_CRASH) and stored as it always
//                      was: an empty photo, on which every later call that
//                      needs pixels is refused ("empty photo")
//   copySourceImage    null out (nothing is written when no photo is held)
//   setMarkerImage     width or height below 0 (after the MEMORY_CRASH
//                      lines; 0 is logged and stored, and the request then
//                      refuses a grid of another size than the photo), a grid
//                      of more than 2^31 bytes at 4 bytes per entry, null
//                      markers for a non-empty grid, a marking mode outside
//                      0-3.
//                      Marker codes outside 0-4 are saturated to 0..255 and
//                      act as unknown.
//   setCurrentMarkerVector  null coords with count > 0, an odd count
//                      (count < 1 empties the stroke, as always)
//   initSegmentationEngine  no photo, an empty photo
//   processSegment     no context (the marks are then dropped), null blended
//                      or mask, a marker grid of another size than the photo,
//                      an engine built for an earlier photo (a photo stored
//                      without initSegmentationEngine after it)
//   doSegmentationBB   width or height below 1, too large a photo, null
//                      pixels or mask
//   cutOutImage        no context (marks dropped), no marker grid, a marker
//                      grid of another size than the photo
//   loadMaskImageInfo, loadBlendedImageInfo   null buffer, no result held
//   fetch_path_array   null array or count
//   undo, redo         no context, null blended or mask
// What a bridge should do with SEGCORE_FAILED: show the logged message, keep
// showing the previous result (the history is unchanged), and retry later or
// offer a smaller photo.
#ifndef SEGCORE_INTERFACE_SEGMENTATION_CORE_H
#define SEGCORE_INTERFACE_SEGMENTATION_CORE_H

// Status of a call that was refused (unusable arguments, or no context for
// it) or that failed (memory ran out). Distinct from 0 (done) and from -1
// (processSegment: a cancel-and-exit tore the context down).
#define SEGCORE_FAILED (-2)

// Photo and marker input.
int setSourceImage(int width, int height, unsigned int* pixels);
void copySourceImage(unsigned int* out);
// strokeType: 0 object loop or rectangle, 1 background loop, 2 object stroke,
// 3 background stroke.
int setMarkerImage(int width, int height, int* markers, int strokeType);
// count is the number of ints (two per point); out-of-photo points are clamped
// and the clamped values are written back into coords.
int setCurrentMarkerVector(int count, int* coords);

// Context lifecycle.
int initSegmentationEngine(int unused);
int deinitSegmentation();
int resetSegmentationInterface();
int cancelSegmentation();  // returns 1
int exitSegmentation();    // returns 1 when a cancel was requested before
void freeLocalBuffers();

// Requests and result output. The three leading ints are ignored.
// processSegment returns -1 when a cancel-and-exit tore the context down.
int processSegment(int, int, int, unsigned int* blended, unsigned char* mask);
int doSegmentationBB(int width, int height, unsigned int* pixels, int x1, int y1, int x2, int y2,
                     unsigned char* mask);
int cutOutImage(int, int, int, unsigned int* blended, unsigned char* mask);
void loadMaskImageInfo(unsigned char* mask);
void loadBlendedImageInfo(unsigned int* blended);
// *array = [C, then per contour: m, x0, y0, ..., -1]; the caller delete[]s it.
int fetch_path_array(int** array, int* count);

// Mask history.
int undo(unsigned int* blended, unsigned char* mask);
int redo(unsigned int* blended, unsigned char* mask);
int canUndo();
int canRedo();

#endif
