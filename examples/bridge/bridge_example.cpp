// What an app's native bridge does with SegmentationCore, in one program.
//
// A bridge sits between the app's Java/Kotlin side and the library: it takes
// the photo as ARGB ints (Bitmap.getPixels), turns the user's gestures into
// marks, runs every request on one worker thread, and hands the mask, the
// preview and the outline back. This program does the same on a made-up photo
// whose object is known, and checks what comes back at every step:
//
//    1. the photo in, a rectangle through doSegmentationBB, its preview
//    2. a loop round a second object            (processSegment, mode 0)
//    3. a background stroke that removes it     (mode 3)
//    4. an object stroke that brings it back    (mode 2)
//    5. an edit without a cut                   (cutOutImage)
//    6. the outline                             (fetch_path_array)
//    7. undo and redo
//    8. a cut cancelled by the user, the history kept
//    9. teardown; a request after it is refused
//   10. leaving the photo while a cut runs      (cancel and exit), the next photo
//
// Exit status 0 when every check holds, 1 otherwise (each failed check is
// printed). Built against the installed package:
//   find_package(SegmentationCore) + SegmentationCore::SegmentationCore,
// or pkg-config SegmentationCore.
#include <segmentation_core.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

// The library exports its context's static functions beside the plain ones.
// The public header keeps to the plain functions; a bridge that needs
// resetMarkers (to clear a cancel, see step 8) declares the class itself,
// with just that member. It links by the mangled name.
class VELDSEMarker {
 public:
  static void resetMarkers();
};

namespace {

// --- the made-up photo ---------------------------------------------------------

constexpr int kWidth = 480;  // 172,800 pixels: the library works on a reduced
constexpr int kHeight = 360; // copy and re-cuts the boundary at full size

struct Point {
  int x, y;
};

// The object: a red-brown disc; a second object of the same colour, a square.
constexpr int kDiscX = 190, kDiscY = 190, kDiscR = 95;
constexpr int kSquareX1 = 360, kSquareY1 = 50, kSquareX2 = 419, kSquareY2 = 109;  // inclusive

bool inDisc(int x, int y) {
  const int dx = x - kDiscX, dy = y - kDiscY;
  return dx * dx + dy * dy <= kDiscR * kDiscR;
}
bool inSquare(int x, int y) {
  return x >= kSquareX1 && x <= kSquareX2 && y >= kSquareY1 && y <= kSquareY2;
}

// A small deterministic noise so that the colour models have some spread.
unsigned int noise(unsigned int& state) {
  state = state * 1664525u + 1013904223u;
  return state >> 24;  // 0..255
}

// 0xAARRGGBB, as Bitmap.getPixels hands it over. The alpha byte varies on
// purpose: the library ignores it and writes 0xFF into everything it returns.
std::vector<unsigned int> makePhoto() {
  std::vector<unsigned int> argb(static_cast<size_t>(kWidth) * kHeight);
  unsigned int state = 12345;
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      const int n = static_cast<int>(noise(state) % 51) - 25;
      int r, g, b;
      if (inDisc(x, y) || inSquare(x, y)) {
        r = 175 + n, g = 70 + n, b = 45 + n;
      } else if ((x + y) / 24 % 2 == 0) {  // diagonal stripes, blue and green
        r = 50 + n, g = 90 + n, b = 160 + n;
      } else {
        r = 70 + n, g = 150 + n, b = 80 + n;
      }
      const unsigned int alpha = (x + y) % 3 == 0 ? 0x00u : 0xFFu;
      argb[static_cast<size_t>(y) * kWidth + x] =
          alpha << 24 | static_cast<unsigned int>(r) << 16 | static_cast<unsigned int>(g) << 8 |
          static_cast<unsigned int>(b);
    }
  }
  return argb;
}

// --- marks, as the bridge draws them --------------------------------------------

// Marker codes of the grid (one int per photo pixel) and marking modes.
enum Code { kUnknown = 0, kBackground = 1, kObject = 2, kProbableObject = 4 };
enum Mode { kObjectLoop = 0, kObjectStroke = 2, kBackgroundStroke = 3 };

// A loop (or a rectangle, which is a loop of four sides): the points of its
// border as the stroke, and 4 (probable object) on every pixel inside.
void drawLoop(const std::vector<Point>& loop, std::vector<int>* points, std::vector<int>* grid) {
  points->clear();
  for (const Point& p : loop) points->insert(points->end(), {p.x, p.y});
  grid->assign(static_cast<size_t>(kWidth) * kHeight, kUnknown);
  // Even-odd rule at pixel centres.
  const size_t n = loop.size();
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      bool inside = false;
      for (size_t i = 0, j = n - 1; i < n; j = i++) {
        const Point a = loop[i], b = loop[j];
        if ((a.y > y) != (b.y > y) &&
            x < (b.x - a.x) * static_cast<double>(y - a.y) / (b.y - a.y) + a.x) {
          inside = !inside;
        }
      }
      if (inside) (*grid)[static_cast<size_t>(y) * kWidth + x] = kProbableObject;
    }
  }
}

// A finger stroke: its points as the stroke, and the code on every pixel
// within half the brush width of the polyline.
void drawStroke(const std::vector<Point>& path, int width, Code code, std::vector<int>* points,
                std::vector<int>* grid) {
  points->clear();
  for (const Point& p : path) points->insert(points->end(), {p.x, p.y});
  grid->assign(static_cast<size_t>(kWidth) * kHeight, kUnknown);
  const double half = width / 2.0;
  for (size_t i = 0; i + 1 < path.size() || i == 0; ++i) {
    const Point a = path[i], b = path[i + 1 < path.size() ? i + 1 : i];
    const int x0 = std::max(0, static_cast<int>(std::min(a.x, b.x) - half) - 1);
    const int x1 = std::min(kWidth - 1, static_cast<int>(std::max(a.x, b.x) + half) + 1);
    const int y0 = std::max(0, static_cast<int>(std::min(a.y, b.y) - half) - 1);
    const int y1 = std::min(kHeight - 1, static_cast<int>(std::max(a.y, b.y) + half) + 1);
    const double dx = b.x - a.x, dy = b.y - a.y, length2 = dx * dx + dy * dy;
    for (int y = y0; y <= y1; ++y) {
      for (int x = x0; x <= x1; ++x) {
        double t = length2 > 0 ? ((x - a.x) * dx + (y - a.y) * dy) / length2 : 0.0;
        t = std::min(1.0, std::max(0.0, t));
        const double ex = a.x + t * dx - x, ey = a.y + t * dy - y;
        if (ex * ex + ey * ey <= half * half) (*grid)[static_cast<size_t>(y) * kWidth + x] = code;
      }
    }
  }
}

// --- the bridge's session ----------------------------------------------------------

// The buffers a bridge keeps for one photo. The library never holds on to any
// of them; it writes `mask` and `preview` during a call and is done.
struct Session {
  std::vector<unsigned int> photo;    // ARGB in
  std::vector<unsigned int> preview;  // ARGB out: the photo with the outline
  std::vector<unsigned char> mask;    // out: 0 = object, 255 = background
  std::vector<int> points;            // the stroke's points, x0, y0, x1, y1, ...
  std::vector<int> grid;              // marker codes, one int per pixel

  // Every request: the preview must hold the plain photo before the call,
  // because the library only paints the outline into it. Without this the
  // outlines of earlier results would pile up.
  void freshPreview() { copySourceImage(preview.data()); }

  // One cut from the marks in `points` and `grid`.
  int cut(int mode) {
    freshPreview();
    setCurrentMarkerVector(static_cast<int>(points.size()), points.data());
    setMarkerImage(kWidth, kHeight, grid.data(), mode);
    return processSegment(0, 0, 0, preview.data(), mask.data());
  }
};

// --- checks ---------------------------------------------------------------------

int g_failures = 0;

// Never written by the library into a mask buffer (0 and 255 only).
constexpr unsigned char kNotWritten = 1;

void check(bool ok, const char* step, const char* what) {
  if (!ok) {
    std::printf("FAILED  %s: %s\n", step, what);
    ++g_failures;
  }
}

// How much of a region (true pixels of `in`) is object in the mask, and how
// much of the object lies outside it.
struct Overlap {
  double covered;  // share of the region that is object
  double spill;    // object pixels outside the region, as a share of the region
};
template <class Region>
Overlap overlap(const std::vector<unsigned char>& mask, Region in) {
  long region = 0, covered = 0, outside = 0;
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      const bool object = mask[static_cast<size_t>(y) * kWidth + x] == 0;
      if (in(x, y)) {
        ++region;
        covered += object;
      } else {
        outside += object;
      }
    }
  }
  return {static_cast<double>(covered) / region, static_cast<double>(outside) / region};
}

bool isObject(const std::vector<unsigned char>& mask, int x, int y) {
  return x >= 0 && y >= 0 && x < kWidth && y < kHeight && mask[static_cast<size_t>(y) * kWidth + x] == 0;
}

// A mask holds 0 and 255 only; the preview is the photo (alpha made opaque)
// except for yellow outline pixels, each within two pixels of the object's
// edge.
void checkResult(const Session& s, const char* step) {
  bool twoValued = true, photoElsewhere = true, yellowOnEdge = true;
  long yellow = 0;
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      const size_t i = static_cast<size_t>(y) * kWidth + x;
      twoValued &= s.mask[i] == 0 || s.mask[i] == 255;
      if (s.preview[i] != 0xFFFFFF00u) {
        photoElsewhere &= s.preview[i] == (s.photo[i] | 0xFF000000u);
        continue;
      }
      ++yellow;
      bool edge = false;
      for (int dy = -2; dy <= 2 && !edge; ++dy) {
        for (int dx = -2; dx <= 2 && !edge; ++dx) {
          edge = isObject(s.mask, x + dx, y + dy) != isObject(s.mask, x, y) ||
                 (isObject(s.mask, x, y) && (x + dx < 0 || y + dy < 0 || x + dx >= kWidth || y + dy >= kHeight));
        }
      }
      yellowOnEdge &= edge;
    }
  }
  check(twoValued, step, "the mask holds 0 and 255 only");
  check(photoElsewhere, step, "the preview is the opaque photo apart from the outline");
  check(yellow > 0, step, "the preview shows an outline");
  check(yellowOnEdge, step, "every outline pixel lies on the object's edge");
}

// The outline array: [C, then per contour: m, x0, y0, ..., x(m-1), y(m-1), -1],
// 2 * (C + total points) + 1 entries. Every point is an object pixel on the
// object's edge, painted in the preview.
void checkOutline(const int* outline, int count, const Session& s, const char* step) {
  check(count >= 1 && outline[0] >= 1, step, "the outline has at least one contour");
  int k = 1, points = 0;
  bool onEdge = true, painted = true, terminated = true;
  for (int c = 0; c < outline[0] && k < count; ++c) {
    const int m = outline[k++];
    for (int i = 0; i < m && k + 1 < count; ++i, k += 2) {
      const int x = outline[k], y = outline[k + 1];
      bool edge = x == 0 || y == 0 || x == kWidth - 1 || y == kHeight - 1;
      for (int dy = -1; dy <= 1; ++dy) {
        for (int dx = -1; dx <= 1; ++dx) edge |= !isObject(s.mask, x + dx, y + dy);
      }
      onEdge &= isObject(s.mask, x, y) && edge;
      painted &= s.preview[static_cast<size_t>(y) * kWidth + x] == 0xFFFFFF00u;
    }
    points += m;
    terminated &= k < count && outline[k++] == -1;
  }
  check(terminated && k == count, step, "each contour ends in -1 and the array has no more");
  check(count == 2 * (outline[0] + points) + 1, step, "count = 2 * (contours + points) + 1");
  check(onEdge, step, "every outline point is an object pixel on the edge");
  check(painted, step, "every outline point is yellow in the preview");
}

}  // namespace

int main() {
  Session s;
  s.photo = makePhoto();
  s.preview.resize(s.photo.size());
  s.mask.assign(s.photo.size(), kNotWritten);

  // 1. A rectangle round the disc, in one call on a fresh context. It returns
  // the mask only: its preview goes into a private copy. To show one, fill
  // the preview with the photo and let redo deliver the mask on screen again
  // (redo at the newest step re-delivers it, outline included).
  int status = doSegmentationBB(kWidth, kHeight, s.photo.data(), 85, 85, 295, 295, s.mask.data());
  check(status == 0, "rectangle", "doSegmentationBB returns 0");
  const std::vector<unsigned char> rectangleMask = s.mask;
  s.freshPreview();
  redo(s.preview.data(), s.mask.data());
  check(s.mask == rectangleMask, "rectangle", "redo re-delivers doSegmentationBB's mask");
  checkResult(s, "rectangle");
  Overlap disc = overlap(s.mask, inDisc);
  check(disc.covered > 0.97 && disc.spill < 0.03, "rectangle", "the mask is the disc");
  // The first result cannot be undone (undo would go back to the bare photo,
  // which the app shows without the library).
  check(canUndo() == 0 && canRedo() == 0, "rectangle", "first result: canUndo 0, canRedo 0");

  // 2. A loop round the square: its points, 4 inside it, mode 0. The new
  // object joins the mask.
  drawLoop({{340, 30}, {440, 35}, {442, 130}, {342, 128}}, &s.points, &s.grid);
  status = s.cut(kObjectLoop);
  check(status == 0, "loop", "processSegment returns 0");
  checkResult(s, "loop");
  Overlap square = overlap(s.mask, inSquare);
  disc = overlap(s.mask, inDisc);
  check(square.covered > 0.97, "loop", "the square is object");
  check(disc.covered > 0.97, "loop", "the disc is still object");
  check(canUndo() == 1 && canRedo() == 0, "loop", "canUndo 1, canRedo 0");

  // 3. A background stroke across the square, 24 photo pixels wide: code 1
  // under the brush, mode 3. The square leaves the mask. A stroke changes only
  // a ring round itself (the library widens it by 5 % of the photo's mean
  // side), so the brush has to pass within about 30 pixels of every part.
  const std::vector<Point> acrossSquare = {{352, 80}, {390, 79}, {427, 80}};
  drawStroke(acrossSquare, 24, kBackground, &s.points, &s.grid);
  status = s.cut(kBackgroundStroke);
  check(status == 0, "background stroke", "processSegment returns 0");
  checkResult(s, "background stroke");
  square = overlap(s.mask, inSquare);
  disc = overlap(s.mask, inDisc);
  check(square.covered < 0.03, "background stroke", "the square is background again");
  check(disc.covered > 0.97, "background stroke", "the disc is untouched");

  // 4. An object stroke across it brings it back: code 2 under the brush, mode 2.
  drawStroke(acrossSquare, 24, kObject, &s.points, &s.grid);
  status = s.cut(kObjectStroke);
  check(status == 0, "object stroke", "processSegment returns 0");
  checkResult(s, "object stroke");
  square = overlap(s.mask, inSquare);
  check(square.covered > 0.97, "object stroke", "the square is object again");
  const std::vector<unsigned char> afterStroke = s.mask;
  const std::vector<unsigned int> afterStrokePreview = s.preview;

  // 5. An edit without a cut: the brush sets the mask directly, code 1 to
  // background, code 2 to object; nothing else changes. Here a 20-pixel
  // background brush across the disc.
  drawStroke({{150, 190}, {230, 190}}, 20, kBackground, &s.points, &s.grid);
  s.freshPreview();
  setCurrentMarkerVector(static_cast<int>(s.points.size()), s.points.data());
  setMarkerImage(kWidth, kHeight, s.grid.data(), kBackgroundStroke);
  status = cutOutImage(0, 0, 0, s.preview.data(), s.mask.data());
  check(status == 0, "edit", "cutOutImage returns 0");
  checkResult(s, "edit");
  bool exact = true;
  for (size_t i = 0; i < s.mask.size(); ++i) {
    exact &= s.mask[i] == (s.grid[i] == kBackground ? 255 : afterStroke[i]);
  }
  check(exact, "edit", "the mask changed exactly under the brush");
  const std::vector<unsigned char> afterEdit = s.mask;
  const std::vector<unsigned int> afterEditPreview = s.preview;

  // 6. The outline of the latest result, handed over once; the bridge owns
  // the array and delete[]s it.
  int* outline = nullptr;
  int count = 0;
  fetch_path_array(&outline, &count);
  checkOutline(outline, count, s, "outline");
  delete[] outline;
  fetch_path_array(&outline, &count);
  check(count == 1 && outline[0] == 0, "outline", "a second fetch gives [0]");
  delete[] outline;

  // 7. Undo and redo deliver recorded masks exactly as they were; the buttons
  // follow canUndo and canRedo.
  check(canUndo() == 1 && canRedo() == 0, "history", "after the edit: canUndo 1, canRedo 0");
  s.freshPreview();
  undo(s.preview.data(), s.mask.data());
  check(s.mask == afterStroke && s.preview == afterStrokePreview, "history", "undo gives back the stroke's result");
  check(canRedo() == 1, "history", "after undo: canRedo 1");
  s.freshPreview();
  redo(s.preview.data(), s.mask.data());
  check(s.mask == afterEdit && s.preview == afterEditPreview, "history", "redo gives back the edit");
  check(canUndo() == 1 && canRedo() == 0, "history", "after redo: canUndo 1, canRedo 0");

  // 8. The user cancels a cut and stays on the photo. The cut runs on the
  // bridge's worker thread; the Cancel button calls cancelSegmentation from
  // the UI thread. Here the tap lands before the cut's first check, so the
  // outcome does not depend on timing; a tap later in the cut stops it at its
  // next check in the same way.
  // The bridge knows whether a mask is on screen: it is, since the first
  // result, unless undo went back to the bare photo.
  const bool maskOnScreen = true;
  drawStroke({{260, 250}, {300, 280}}, 12, kObject, &s.points, &s.grid);
  // The Cancel button: the bridge notes the tap and tells the library.
  std::atomic<bool> cancelTapped{false};
  cancelTapped = true;   // UI thread
  cancelSegmentation();  // UI thread
  bool stopped = false;
  std::thread worker([&] {
    // A cut that stops (a cancel, or its 10-second limit) returns 0 like one
    // that finishes, but writes nothing into the mask buffer, which holds 0
    // and 255 only once written: a marker value in it tells the two apart.
    s.mask[0] = kNotWritten;
    status = s.cut(kObjectStroke);
    stopped = s.mask[0] == kNotWritten;
    // Clear the stop: it is sticky, every later cut would stop at once. Also
    // when the tap came too late to stop this cut, which then delivered its
    // result as usual.
    if (stopped || cancelTapped.exchange(false)) VELDSEMarker::resetMarkers();
    if (stopped) {
      // Show the mask on screen again. redo re-delivers it when there is
      // nothing to redo; with redo steps (the user had undone some) undo
      // first, so that redo comes back to it. With nothing on screen the
      // preview already holds the photo and there is nothing to show.
      if (maskOnScreen) {
        if (canRedo()) undo(s.preview.data(), s.mask.data());
        s.freshPreview();
        redo(s.preview.data(), s.mask.data());
      }
    }
  });
  worker.join();
  // The stopped cut returned 0; it recorded nothing.
  check(status == 0, "cancel", "the cancelled cut returns 0");
  check(stopped, "cancel", "the cut stopped without a result");
  check(s.mask == afterEdit && s.preview == afterEditPreview, "cancel", "redo shows the edit again");
  check(canUndo() == 1 && canRedo() == 0, "cancel", "canUndo 1, canRedo 0");
  // The next cut runs in full: an object stroke over the brushed-out band
  // brings the disc back.
  drawStroke({{150, 190}, {230, 190}}, 12, kObject, &s.points, &s.grid);
  status = s.cut(kObjectStroke);
  check(status == 0, "cancel", "the next cut returns 0");
  disc = overlap(s.mask, inDisc);
  check(disc.covered > 0.97, "cancel", "the next cut ran: the disc is whole again");
  s.freshPreview();
  undo(s.preview.data(), s.mask.data());
  check(s.mask == afterEdit, "cancel", "one undo leads back to the edit: the cancelled cut left no step");

  // 9. Leaving the photo: the context and everything in it is released.
  deinitSegmentation();
  std::vector<unsigned char> before = s.mask;
  status = undo(s.preview.data(), s.mask.data());
  check(status == SEGCORE_FAILED && s.mask == before, "teardown",
        "a request without a context is refused and writes nothing");
  check(canUndo() == 0 && canRedo() == 0, "teardown", "no history");

  // 10. Leaving the photo while a cut runs: cancel, then exit, from the UI
  // thread. The cut stops, tears the context down and returns -1; the worker
  // then ends the context itself in case the request had finished first
  // (a second teardown is harmless).
  setSourceImage(kWidth, kHeight, s.photo.data());
  initSegmentationEngine(0);
  drawLoop({{80, 80}, {300, 80}, {300, 300}, {80, 300}}, &s.points, &s.grid);
  cancelSegmentation();  // UI thread
  exitSegmentation();    // UI thread
  worker = std::thread([&] {
    status = s.cut(kObjectLoop);
    deinitSegmentation();
  });
  worker.join();
  check(status == -1, "exit", "the cut returns -1: the context was torn down");
  status = undo(s.preview.data(), s.mask.data());
  check(status == SEGCORE_FAILED, "exit", "nothing is left to undo");

  // The next photo. processSegment left the exit armed (so that the bridge
  // could tell); exitSegmentation with no cancel pending disarms it. Without
  // that, a plain cancel of the first cut on the new photo would tear the new
  // context down as well.
  setSourceImage(kWidth, kHeight, s.photo.data());
  initSegmentationEngine(0);
  check(exitSegmentation() == 0, "next photo", "exitSegmentation disarms the exit");
  s.mask.assign(s.photo.size(), kNotWritten);
  cancelSegmentation();  // UI thread: the user cancels the first cut
  status = s.cut(kObjectLoop);
  VELDSEMarker::resetMarkers();
  check(status == 0 && s.mask[0] == kNotWritten, "next photo", "the first cut stopped, returning 0");
  status = s.cut(kObjectLoop);
  check(status == 0 && overlap(s.mask, inDisc).covered > 0.97, "next photo", "the context lives on: the cut again works");
  deinitSegmentation();

  if (g_failures == 0) std::printf("bridge example: every check passed\n");
  return g_failures == 0 ? 0 : 1;
}
