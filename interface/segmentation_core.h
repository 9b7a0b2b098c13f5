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
// Buffers: photos are 0xAARRGGBB per pixel, row-major; markers are label codes
// (0 unknown, 1 background, 2 object, 3 probable background, 4 probable object);
// masks come back inverted (0 = object, 255 = background). The library never
// keeps a pointer to a caller's buffer; it trusts the caller for their sizes.
// Every function returns 0 on success unless stated otherwise.
#ifndef SEGCORE_INTERFACE_SEGMENTATION_CORE_H
#define SEGCORE_INTERFACE_SEGMENTATION_CORE_H

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
