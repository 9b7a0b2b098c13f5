#include "tools/edit_requests.h"

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace segtools {

namespace {

// Label codes of the marker grid.
constexpr int kMarkBackground = 1;
constexpr int kMarkObject = 2;
constexpr int kMarkProbableObject = 4;

std::string sizeText(int width, int height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

std::vector<int> gridFrom(const cv::Mat& codes) {
  std::vector<int> grid(static_cast<size_t>(codes.cols) * codes.rows);
  for (int y = 0; y < codes.rows; ++y) {
    const unsigned char* row = codes.ptr<unsigned char>(y);
    int* dst = &grid[static_cast<size_t>(y) * codes.cols];
    for (int x = 0; x < codes.cols; ++x) dst[x] = row[x];
  }
  return grid;
}

bool readText(const std::string& path, std::string* text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream s;
  s << in.rdbuf();
  *text = s.str();
  return !in.bad();
}

std::string joinPath(const std::string& dir, const std::string& path) {
  if (dir.empty() || path.empty() || path[0] == '/') return path;
  return dir + "/" + path;
}

std::string folderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

bool parseInt(const std::string& token, int* value) {
  if (token.empty()) return false;
  errno = 0;
  char* end = nullptr;
  const long v = std::strtol(token.c_str(), &end, 10);
  if (*end != '\0' || errno != 0 || v < INT_MIN || v > INT_MAX) return false;
  *value = static_cast<int>(v);
  return true;
}

// Splits on white space and commas.
std::vector<std::string> tokens(const std::string& text) {
  std::vector<std::string> out;
  std::string cur;
  for (char ch : text) {
    if (ch == ' ' || ch == '\t' || ch == ',' || ch == '\n' || ch == '\r') {
      if (!cur.empty()) out.push_back(cur);
      cur.clear();
    } else {
      cur += ch;
    }
  }
  if (!cur.empty()) out.push_back(cur);
  return out;
}

std::string stripComment(const std::string& line) {
  const size_t hash = line.find('#');
  return hash == std::string::npos ? line : line.substr(0, hash);
}

// Numbers inline, or a single path to a points file.
bool pointsArgument(const std::vector<std::string>& args, const std::string& baseDir,
                    std::vector<cv::Point>* points, std::string* error) {
  int probe = 0;
  if (args.size() == 1 && !parseInt(args[0], &probe)) {
    return readPointsFile(joinPath(baseDir, args[0]), points, error);
  }
  std::string joined;
  for (const std::string& a : args) joined += a + " ";
  return parsePoints(joined, points, error);
}

// imread on a missing file also prints a warning of its own; check first.
cv::Mat readImage(const std::string& path, int flags, std::string* error) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec)) {
    *error = "no image at " + path;
    return cv::Mat();
  }
  cv::Mat img = cv::imread(path, flags);
  if (img.empty()) *error = "cannot read " + path + " as an image";
  return img;
}

}  // namespace

int defaultStrokeWidth(int width, int height) {
  const double side = std::sqrt(static_cast<double>(width) * height);
  return std::max(3, static_cast<int>(std::lround(side * 0.03)));
}

bool makeRectangle(int width, int height, int x1, int y1, int x2, int y2, EditRequest* out,
                   std::string* error) {
  const std::string text = std::to_string(x1) + "," + std::to_string(y1) + "-" +
                           std::to_string(x2) + "," + std::to_string(y2);
  if (x1 > x2 || y1 > y2) {
    *error = "rectangle " + text + " has its corners the wrong way round (want X1<=X2, Y1<=Y2)";
    return false;
  }
  if (x1 < 0 || y1 < 0 || x2 >= width || y2 >= height) {
    *error = "rectangle " + text + " lies outside the " + sizeText(width, height) + " photo";
    return false;
  }
  *out = EditRequest();
  out->kind = RequestKind::kRectangle;
  out->label = "rect " + text;
  out->x1 = x1;
  out->y1 = y1;
  out->x2 = x2;
  out->y2 = y2;
  return true;
}

bool makeLoop(int width, int height, const std::vector<cv::Point>& polygon, EditRequest* out,
              std::string* error) {
  if (polygon.size() < 3) {
    *error = "the loop is empty: it needs at least 3 points, got " +
             std::to_string(polygon.size());
    return false;
  }
  cv::Mat codes = cv::Mat::zeros(height, width, CV_8UC1);
  std::vector<std::vector<cv::Point>> polys{polygon};
  cv::fillPoly(codes, polys, cv::Scalar(kMarkProbableObject), cv::LINE_8);
  if (cv::countNonZero(codes) == 0) {
    *error = "the loop encloses no pixel of the " + sizeText(width, height) + " photo";
    return false;
  }
  *out = EditRequest();
  out->kind = RequestKind::kMarks;
  out->label = "loop of " + std::to_string(polygon.size()) + " points";
  out->points = polygon;
  out->markers = gridFrom(codes);
  out->mode = 0;
  return true;
}

bool makeLoopFromMask(const cv::Mat& maskImage, int width, int height, EditRequest* out,
                      std::string* error) {
  if (maskImage.cols != width || maskImage.rows != height) {
    *error = "the loop mask is " + sizeText(maskImage.cols, maskImage.rows) +
             " but the photo is " + sizeText(width, height);
    return false;
  }
  cv::Mat grey = maskImage;
  if (grey.channels() != 1) cv::cvtColor(maskImage, grey, cv::COLOR_BGR2GRAY);
  cv::Mat inside;
  cv::threshold(grey, inside, 127, 255, cv::THRESH_BINARY);
  std::vector<std::vector<cv::Point>> outlines;
  cv::findContours(inside.clone(), outlines, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE);
  if (outlines.empty()) {
    *error = "the loop mask marks no pixel (inside must be >= 128)";
    return false;
  }
  // The loop is one closed polyline: take the longest outline. The whole
  // inside, all parts of it, carries the loop's code.
  size_t best = 0;
  for (size_t i = 1; i < outlines.size(); ++i) {
    if (cv::arcLength(outlines[i], true) > cv::arcLength(outlines[best], true)) best = i;
  }
  cv::Mat codes = cv::Mat::zeros(height, width, CV_8UC1);
  codes.setTo(cv::Scalar(kMarkProbableObject), inside);
  *out = EditRequest();
  out->kind = RequestKind::kMarks;
  out->label = "loop from mask, " + std::to_string(outlines[best].size()) + " points";
  out->points = outlines[best];
  out->markers = gridFrom(codes);
  out->mode = 0;
  return true;
}

bool makeStroke(int width, int height, const std::vector<cv::Point>& polyline, bool object,
                int thickness, EditRequest* out, std::string* error) {
  if (polyline.empty()) {
    *error = std::string("the ") + (object ? "object" : "background") + " stroke has no point";
    return false;
  }
  if (thickness < 1) {
    *error = "the stroke width must be at least 1";
    return false;
  }
  const int code = object ? kMarkObject : kMarkBackground;
  cv::Mat codes = cv::Mat::zeros(height, width, CV_8UC1);
  if (polyline.size() == 1) {
    cv::circle(codes, polyline[0], std::max(1, thickness / 2), cv::Scalar(code), cv::FILLED);
  } else {
    std::vector<std::vector<cv::Point>> lines{polyline};
    cv::polylines(codes, lines, false, cv::Scalar(code), thickness, cv::LINE_8);
  }
  if (cv::countNonZero(codes) == 0) {
    *error = "the stroke misses the " + sizeText(width, height) + " photo entirely";
    return false;
  }
  *out = EditRequest();
  out->kind = RequestKind::kMarks;
  out->label = std::string(object ? "object" : "background") + " stroke of " +
               std::to_string(polyline.size()) + " points";
  out->points = polyline;
  out->markers = gridFrom(codes);
  out->mode = object ? 2 : 3;
  return true;
}

std::vector<cv::Point> strokeCentreline(const std::vector<cv::Point>& pixels, int step) {
  if (pixels.empty()) return {};
  step = std::max(1, step);
  // One sample per step x step cell, the first stroke pixel met in it.
  std::vector<cv::Point> samples;
  std::vector<std::pair<int, int>> cells;
  for (const cv::Point& p : pixels) {
    const std::pair<int, int> cell(p.x / step, p.y / step);
    if (std::find(cells.begin(), cells.end(), cell) == cells.end()) {
      cells.push_back(cell);
      samples.push_back(p);
    }
  }
  cv::Point2d centre(0, 0);
  for (const cv::Point& p : samples) centre += cv::Point2d(p.x, p.y);
  centre *= 1.0 / static_cast<double>(samples.size());
  auto dist2 = [](const cv::Point& a, const cv::Point& b) {
    const double dx = a.x - b.x, dy = a.y - b.y;
    return dx * dx + dy * dy;
  };
  // Start at an end: the sample farthest from the centre (ties: first).
  size_t current = 0;
  double far = -1.0;
  for (size_t i = 0; i < samples.size(); ++i) {
    const double dx = samples[i].x - centre.x, dy = samples[i].y - centre.y;
    if (dx * dx + dy * dy > far) {
      far = dx * dx + dy * dy;
      current = i;
    }
  }
  std::vector<bool> used(samples.size(), false);
  std::vector<cv::Point> line;
  for (size_t n = 0; n < samples.size(); ++n) {
    used[current] = true;
    line.push_back(samples[current]);
    size_t next = samples.size();
    double best = 0.0;
    for (size_t i = 0; i < samples.size(); ++i) {
      if (used[i]) continue;
      const double d = dist2(samples[current], samples[i]);
      if (next == samples.size() || d < best) {
        best = d;
        next = i;
      }
    }
    if (next == samples.size()) break;
    current = next;
  }
  return line;
}

bool makeScribbleStrokes(const cv::Mat& scribbleImage, int width, int height,
                         const ScribbleColours& colours, int thickness,
                         std::vector<EditRequest>* out, std::string* error) {
  if (scribbleImage.cols != width || scribbleImage.rows != height) {
    *error = "the scribble image is " + sizeText(scribbleImage.cols, scribbleImage.rows) +
             " but the photo is " + sizeText(width, height);
    return false;
  }
  cv::Mat bgr = scribbleImage;
  if (bgr.channels() == 1) cv::cvtColor(scribbleImage, bgr, cv::COLOR_GRAY2BGR);
  CV_Assert(bgr.type() == CV_8UC3);
  const int tol = colours.tolerance;
  const size_t before = out->size();
  for (int pass = 0; pass < 2; ++pass) {
    const bool object = pass == 0;
    const cv::Vec3b c = object ? colours.object : colours.background;
    cv::Mat region;
    cv::inRange(bgr, cv::Scalar(c[0] - tol, c[1] - tol, c[2] - tol),
                cv::Scalar(c[0] + tol, c[1] + tol, c[2] + tol), region);
    cv::Mat labels;
    const int n = cv::connectedComponents(region, labels, 8, CV_32S);
    for (int k = 1; k < n; ++k) {
      const cv::Mat part = labels == k;
      std::vector<cv::Point> pixels;
      cv::findNonZero(part, pixels);
      if (pixels.size() < 3) continue;
      // Drawn as the finger stroke that would have made it: its centre line
      // at the stroke width, together with the scribble's own pixels.
      const std::vector<cv::Point> line = strokeCentreline(pixels, std::max(2, thickness / 2));
      EditRequest r;
      std::string why;
      if (!makeStroke(width, height, line, object, thickness, &r, &why)) continue;
      const int code = object ? kMarkObject : kMarkBackground;
      for (const cv::Point& p : pixels) r.markers[static_cast<size_t>(p.y) * width + p.x] = code;
      r.label = std::string(object ? "object" : "background") + " scribble " + std::to_string(k) +
                " (" + std::to_string(pixels.size()) + " px, " + std::to_string(line.size()) +
                " points)";
      out->push_back(std::move(r));
    }
  }
  if (out->size() == before) {
    *error = "the scribble image holds no stroke in the object or background colour";
    return false;
  }
  return true;
}

bool parsePoints(const std::string& text, std::vector<cv::Point>* points, std::string* error) {
  points->clear();
  std::string clean;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) clean += stripComment(line) + "\n";
  const std::vector<std::string> t = tokens(clean);
  if (t.size() % 2 != 0) {
    *error = "points come in x y pairs, got " + std::to_string(t.size()) + " numbers";
    return false;
  }
  for (size_t i = 0; i < t.size(); i += 2) {
    int x = 0, y = 0;
    if (!parseInt(t[i], &x) || !parseInt(t[i + 1], &y)) {
      *error = "not a point: '" + t[i] + " " + t[i + 1] + "'";
      return false;
    }
    points->emplace_back(x, y);
  }
  return true;
}

bool readPointsFile(const std::string& path, std::vector<cv::Point>* points,
                    std::string* error) {
  std::string text;
  if (!readText(path, &text)) {
    *error = "cannot read the points file " + path;
    return false;
  }
  if (!parsePoints(text, points, error)) {
    *error = path + ": " + *error;
    return false;
  }
  return true;
}

bool parseRequest(const std::string& cmd, const std::vector<std::string>& args,
                  const ScriptContext& ctx, std::vector<EditRequest>* out, std::string* error) {
  const int w = ctx.width, h = ctx.height;
  EditRequest r;
  if (cmd == "rect") {
    int v[4] = {0, 0, 0, 0};
    bool ok = args.size() == 4;
    for (size_t i = 0; ok && i < 4; ++i) ok = parseInt(args[i], &v[i]);
    if (!ok) {
      *error = "rect wants four integers X1 Y1 X2 Y2";
      return false;
    }
    if (!makeRectangle(w, h, v[0], v[1], v[2], v[3], &r, error)) return false;
  } else if (cmd == "loop" || cmd == "object" || cmd == "background") {
    std::vector<cv::Point> pts;
    if (args.empty()) {
      *error = cmd + " wants points or a points file";
      return false;
    }
    if (!pointsArgument(args, ctx.baseDir, &pts, error)) return false;
    const bool ok = cmd == "loop"
                        ? makeLoop(w, h, pts, &r, error)
                        : makeStroke(w, h, pts, cmd == "object", ctx.strokeWidth, &r, error);
    if (!ok) return false;
  } else if (cmd == "loop-mask" || cmd == "scribbles") {
    if (args.size() != 1) {
      *error = cmd + " wants one image file";
      return false;
    }
    const std::string path = joinPath(ctx.baseDir, args[0]);
    if (cmd == "scribbles") {
      cv::Mat s = readImage(path, cv::IMREAD_COLOR, error);
      return !s.empty() && makeScribbleStrokes(s, w, h, ctx.colours, ctx.strokeWidth, out, error);
    }
    cv::Mat m = readImage(path, cv::IMREAD_GRAYSCALE, error);
    if (m.empty() || !makeLoopFromMask(m, w, h, &r, error)) return false;
  } else if (cmd == "undo" || cmd == "redo" || cmd == "reset") {
    if (!args.empty()) {
      *error = cmd + " takes no argument";
      return false;
    }
    r.kind = cmd == "undo"   ? RequestKind::kUndo
             : cmd == "redo" ? RequestKind::kRedo
                             : RequestKind::kReset;
    r.label = cmd;
  } else {
    *error = "unknown request '" + cmd +
             "' (rect, loop, loop-mask, object, background, scribbles, undo, redo, reset)";
    return false;
  }
  out->push_back(std::move(r));
  return true;
}

bool parseScript(const std::string& text, const std::string& name, const ScriptContext& ctx,
                 std::vector<EditRequest>* out, std::string* error) {
  std::istringstream lines(text);
  std::string line;
  int lineNo = 0;
  while (std::getline(lines, line)) {
    ++lineNo;
    const std::vector<std::string> t = tokens(stripComment(line));
    if (t.empty()) continue;
    std::string why;
    if (!parseRequest(t[0], std::vector<std::string>(t.begin() + 1, t.end()), ctx, out, &why)) {
      *error = name.empty() ? why : name + ":" + std::to_string(lineNo) + ": " + why;
      return false;
    }
  }
  return true;
}

bool parseScriptFile(const std::string& path, const ScriptContext& ctx,
                     std::vector<EditRequest>* out, std::string* error) {
  std::string text;
  if (!readText(path, &text)) {
    *error = "cannot read the script " + path;
    return false;
  }
  ScriptContext local = ctx;
  local.baseDir = folderOf(path);
  return parseScript(text, path, local, out, error);
}

RequestOutcome runRequest(LibrarySession& session, const EditRequest& request) {
  switch (request.kind) {
    case RequestKind::kRectangle:
      return session.rectangle(request.x1, request.y1, request.x2, request.y2);
    case RequestKind::kMarks:
      return session.marks(request.points, request.markers, request.mode);
    case RequestKind::kUndo:
      return session.undo();
    case RequestKind::kRedo:
      return session.redo();
    case RequestKind::kReset:
      break;
  }
  session.reset();
  RequestOutcome done;
  done.delivered = false;
  done.note = "marks and history forgotten";
  return done;
}

}  // namespace segtools
