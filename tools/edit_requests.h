// Editing requests as a user makes them (rectangle, loop, object and background
// strokes, undo, redo, reset), turned into the marks the library takes, and the
// small script language that replays a whole editing session.
//
// Marks follow the app's bridge: a loop hands over its points and a marker grid
// with 4 (probable object) inside the filled loop, mode 0; a stroke hands over
// its points and a grid where the stroke, drawn with some thickness, carries 2
// (object, mode 2) or 1 (background, mode 3); a rectangle goes through
// doSegmentationBB.
//
// Script: one request per line, '#' starts a comment, numbers may be separated
// by spaces or commas, relative paths are taken from the script's folder.
//   rect X1 Y1 X2 Y2          inclusive corners, inside the photo
//   loop X Y X Y ...          a loop given by its points (at least 3)
//   loop FILE                 ... or by a points file
//   loop-mask FILE            a loop given as a mask image (inside = value >= 128,
//                             e.g. a lasso trimap); points along its outline
//   object X Y ... | FILE     an object stroke (a polyline, at least 1 point)
//   background X Y ... | FILE a background stroke
//   scribbles FILE            every stroke of a scribble image, object strokes
//                             first (colours: see ScribbleColours)
//   undo | redo | reset
// A points file holds x y pairs in the same free form.
#ifndef SEGCORE_TOOLS_EDIT_REQUESTS_H
#define SEGCORE_TOOLS_EDIT_REQUESTS_H

#include <opencv2/core.hpp>

#include <string>
#include <vector>

#include "tools/library_session.h"

namespace segtools {

enum class RequestKind { kRectangle, kMarks, kUndo, kRedo, kReset };

struct EditRequest {
  RequestKind kind = RequestKind::kMarks;
  std::string label;  // short description for messages and the timing table
  int x1 = 0, y1 = 0, x2 = 0, y2 = 0;  // kRectangle
  std::vector<cv::Point> points;       // kMarks: the stroke's points
  std::vector<int> markers;            // kMarks: width*height label codes
  int mode = 0;                        // kMarks: marking mode
};

// Stroke colours of a scribble image, BGR. The defaults are those of the
// GrabCut scribble set: pale yellow object strokes, red background strokes.
struct ScribbleColours {
  cv::Vec3b object{207, 255, 255};
  cv::Vec3b background{0, 0, 219};
  int tolerance = 40;  // largest per-channel difference that still matches
};

// A stroke's thickness in the marker grid when none is given: a fingertip on a
// phone screen showing the whole photo, 3 % of the photo's geometric mean side.
int defaultStrokeWidth(int width, int height);

// Builders; each returns false and sets *error on input it cannot use.
bool makeRectangle(int width, int height, int x1, int y1, int x2, int y2, EditRequest* out,
                   std::string* error);
bool makeLoop(int width, int height, const std::vector<cv::Point>& polygon, EditRequest* out,
              std::string* error);
bool makeLoopFromMask(const cv::Mat& maskImage, int width, int height, EditRequest* out,
                      std::string* error);
bool makeStroke(int width, int height, const std::vector<cv::Point>& polyline, bool object,
                int thickness, EditRequest* out, std::string* error);
// Orders a stroke's pixels into a polyline along it: one sample per step x step
// cell, then a greedy walk to the nearest unvisited sample, starting from the
// sample farthest from the stroke's centre (one of its ends).
std::vector<cv::Point> strokeCentreline(const std::vector<cv::Point>& pixels, int step);
// One stroke request per connected scribble of each colour, object strokes
// first; scribbles under 3 pixels are dropped. A scribble is handed over as the
// finger stroke that would have drawn it: its centre line as the points, drawn
// `thickness` wide into the grid together with the scribble's own pixels. (The
// engine makes a band along the points undecided, so a hair-thin stroke alone
// would fix nothing.)
bool makeScribbleStrokes(const cv::Mat& scribbleImage, int width, int height,
                         const ScribbleColours& colours, int thickness,
                         std::vector<EditRequest>* out, std::string* error);

// Points in free form: x y pairs separated by spaces, commas or new lines.
bool parsePoints(const std::string& text, std::vector<cv::Point>* points, std::string* error);
bool readPointsFile(const std::string& path, std::vector<cv::Point>* points,
                    std::string* error);

struct ScriptContext {
  int width = 0;
  int height = 0;
  int strokeWidth = 0;
  ScribbleColours colours;
  std::string baseDir;  // relative paths are taken from here ("" = working directory)
};

// One request: the command word of a script line and its arguments (a points
// or image file is taken from ctx.baseDir when relative).
bool parseRequest(const std::string& command, const std::vector<std::string>& args,
                  const ScriptContext& ctx, std::vector<EditRequest>* out, std::string* error);
// Parses script text (name is used in messages as "name:line: ..."; an empty
// name gives the bare message).
bool parseScript(const std::string& text, const std::string& name, const ScriptContext& ctx,
                 std::vector<EditRequest>* out, std::string* error);
bool parseScriptFile(const std::string& path, const ScriptContext& ctx,
                     std::vector<EditRequest>* out, std::string* error);

RequestOutcome runRequest(LibrarySession& session, const EditRequest& request);

}  // namespace segtools

#endif
