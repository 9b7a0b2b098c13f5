// segment_photo: cuts an object out of a photo with the library, driving it
// only through its exported functions, as the app's bridge does.
//
//   segment_photo PHOTO REQUEST... [-o DIR]
//
// Writes DIR/mask.png (object white), DIR/preview.png (the photo with the
// library's outline), DIR/outline.json and DIR/requests.tsv (time of each
// request). Exit status: 0 done, 1 unusable input, 2 bad command line.
#include <opencv2/imgcodecs.hpp>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "tools/edit_requests.h"
#include "tools/library_session.h"

namespace {

constexpr int kExitInput = 1;
constexpr int kExitUsage = 2;
constexpr int kMinSide = 16;

const char kUsage[] =
    "usage: segment_photo PHOTO REQUEST... [-o DIR] [options]\n"
    "\n"
    "Cuts the object out of PHOTO (PNG, JPEG, BMP; grey photos are expanded to\n"
    "colour). Requests run in the order given, on one editing session:\n"
    "  --rect X1,Y1,X2,Y2     rectangle selection, inclusive corners in pixels\n"
    "  --loop FILE            loop round the object, points file (x y pairs)\n"
    "  --loop-mask FILE       loop given as a mask image (inside = value >= 128)\n"
    "  --object FILE          object stroke, points file (a polyline)\n"
    "  --background FILE      background stroke, points file\n"
    "  --scribbles FILE       every stroke of a scribble image\n"
    "  --script FILE          a whole session, one request per line:\n"
    "                         rect, loop, loop-mask, object, background,\n"
    "                         scribbles, undo, redo, reset\n"
    "  --undo, --redo, --reset\n"
    "Options:\n"
    "  -o, --out DIR          output folder (default: segment_out)\n"
    "  --stroke-width N       thickness of strokes in pixels (default: 3% of\n"
    "                         the photo's mean side, at least 3)\n"
    "  --object-colour R,G,B      scribble colour of object strokes (255,255,207)\n"
    "  --background-colour R,G,B  scribble colour of background strokes (219,0,0)\n"
    "  --log                  show the library's log lines\n"
    "  -h, --help             this text\n"
    "\n"
    "Writes DIR/mask.png (object white), DIR/preview.png, DIR/outline.json and\n"
    "DIR/requests.tsv, and prints the time of each request.\n";

int fail(int code, const std::string& message) {
  std::fprintf(stderr, "segment_photo: error: %s\n", message.c_str());
  if (code == kExitUsage) std::fprintf(stderr, "Try 'segment_photo --help'.\n");
  return code;
}

bool parseColour(const std::string& text, cv::Vec3b* bgr) {
  int r = -1, g = -1, b = -1;
  char tail = 0;
  if (std::sscanf(text.c_str(), "%d,%d,%d%c", &r, &g, &b, &tail) != 3) return false;
  if (r < 0 || r > 255 || g < 0 || g > 255 || b < 0 || b > 255) return false;
  *bgr = cv::Vec3b(static_cast<unsigned char>(b), static_cast<unsigned char>(g),
                   static_cast<unsigned char>(r));
  return true;
}

bool writeOutline(const std::string& path, int width, int height,
                  const segtools::Outline& outline) {
  std::ofstream out(path);
  out << "{\n  \"width\": " << width << ",\n  \"height\": " << height
      << ",\n  \"contours\": [";
  for (size_t c = 0; c < outline.size(); ++c) {
    out << (c ? ",\n    [" : "\n    [");
    for (size_t i = 0; i < outline[c].size(); ++i) {
      out << (i ? ", [" : "[") << outline[c][i].x << ", " << outline[c][i].y << "]";
    }
    out << "]";
  }
  out << (outline.empty() ? "]\n}\n" : "\n  ]\n}\n");
  return static_cast<bool>(out);
}

struct Options {
  std::string photo;
  std::string outDir = "segment_out";
  int strokeWidth = 0;  // 0: from the photo's size
  bool log = false;
  segtools::ScribbleColours colours;
  // Requests as (option, argument), in command-line order.
  std::vector<std::pair<std::string, std::string>> requests;
};

// Returns -1 when parsing succeeded, else the exit status.
int parseArgs(int argc, char** argv, Options* opt) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&](std::string* v) {
      if (i + 1 >= argc) return false;
      *v = argv[++i];
      return true;
    };
    std::string v;
    if (a == "-h" || a == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (a == "--rect" || a == "--loop" || a == "--loop-mask" || a == "--object" ||
               a == "--background" || a == "--scribbles" || a == "--script") {
      if (!value(&v)) return fail(kExitUsage, a + " needs a value");
      opt->requests.emplace_back(a.substr(2), v);
    } else if (a == "--undo" || a == "--redo" || a == "--reset") {
      opt->requests.emplace_back(a.substr(2), "");
    } else if (a == "-o" || a == "--out") {
      if (!value(&opt->outDir) || opt->outDir.empty()) return fail(kExitUsage, a + " needs a folder");
    } else if (a == "--stroke-width") {
      char* end = nullptr;
      if (!value(&v)) return fail(kExitUsage, "--stroke-width needs a number");
      const long n = std::strtol(v.c_str(), &end, 10);
      if (*end != '\0' || n < 1 || n > 1000) {
        return fail(kExitUsage, "--stroke-width wants a whole number from 1 to 1000, got '" + v + "'");
      }
      opt->strokeWidth = static_cast<int>(n);
    } else if (a == "--object-colour" || a == "--background-colour") {
      cv::Vec3b* target = a == "--object-colour" ? &opt->colours.object : &opt->colours.background;
      if (!value(&v) || !parseColour(v, target)) {
        return fail(kExitUsage, a + " wants R,G,B with values 0..255");
      }
    } else if (a == "--log") {
      opt->log = true;
    } else if (!a.empty() && a[0] == '-') {
      return fail(kExitUsage, "unknown option " + a);
    } else if (opt->photo.empty()) {
      opt->photo = a;
    } else {
      return fail(kExitUsage, "more than one photo given ('" + opt->photo + "' and '" + a + "')");
    }
  }
  if (opt->photo.empty()) return fail(kExitUsage, "no photo given");
  if (opt->requests.empty()) {
    return fail(kExitUsage, "no request given (--rect, --loop, --loop-mask, --object, "
                            "--background, --scribbles or --script)");
  }
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  Options opt;
  const int parsed = parseArgs(argc, argv, &opt);
  if (parsed >= 0) return parsed;
  // The library logs every stage; keep the tool's own output readable.
  if (!opt.log) setenv("SEGCORE_LOG_QUIET", "1", 0);

  std::error_code ec;
  if (!std::filesystem::is_regular_file(opt.photo, ec)) {
    return fail(kExitInput, "no photo at '" + opt.photo + "'");
  }
  const cv::Mat photo = segtools::readPhoto(opt.photo);
  if (photo.empty()) {
    return fail(kExitInput, "cannot read '" + opt.photo + "' as an image (PNG, JPEG or BMP)");
  }
  if (photo.cols < kMinSide || photo.rows < kMinSide) {
    return fail(kExitInput, "the photo is " + std::to_string(photo.cols) + "x" +
                                std::to_string(photo.rows) + "; at least " +
                                std::to_string(kMinSide) + "x" + std::to_string(kMinSide) +
                                " is needed");
  }

  // Every request is read and checked before the library sees any of them.
  segtools::ScriptContext ctx;
  ctx.width = photo.cols;
  ctx.height = photo.rows;
  ctx.strokeWidth =
      opt.strokeWidth > 0 ? opt.strokeWidth : segtools::defaultStrokeWidth(photo.cols, photo.rows);
  ctx.colours = opt.colours;
  std::vector<segtools::EditRequest> requests;
  for (const auto& [kind, arg] : opt.requests) {
    std::string error;
    bool ok = false;
    if (kind == "script") {
      ok = segtools::parseScriptFile(arg, ctx, &requests, &error);
    } else {
      std::vector<std::string> args;
      if (kind == "rect") {
        // X1,Y1,X2,Y2 (spaces also accepted).
        std::string cur;
        for (char ch : arg + ",") {
          if (ch == ',' || ch == ' ') {
            if (!cur.empty()) args.push_back(cur);
            cur.clear();
          } else {
            cur += ch;
          }
        }
      } else if (!arg.empty()) {
        args.push_back(arg);  // a file name, taken as it is
      }
      ok = segtools::parseRequest(kind, args, ctx, &requests, &error);
    }
    if (!ok) return fail(kExitInput, (kind == "script" ? "" : "--" + kind + ": ") + error);
  }
  if (requests.empty()) return fail(kExitInput, "the script holds no request");

  std::filesystem::create_directories(opt.outDir, ec);
  if (!std::filesystem::is_directory(opt.outDir, ec)) {
    return fail(kExitInput, "cannot create the output folder '" + opt.outDir + "'");
  }

  std::vector<segtools::RequestOutcome> outcomes;
  {
    segtools::LibrarySession session(photo);
    for (size_t i = 0; i < requests.size(); ++i) {
      const segtools::RequestOutcome r = segtools::runRequest(session, requests[i]);
      std::printf("[%zu/%zu] %s: %.1f ms%s%s\n", i + 1, requests.size(), requests[i].label.c_str(),
                  r.millis, r.note.empty() ? "" : " - ", r.note.c_str());
      outcomes.push_back(r);
    }
    const std::string maskPath = opt.outDir + "/mask.png";
    const std::string previewPath = opt.outDir + "/preview.png";
    const std::string outlinePath = opt.outDir + "/outline.json";
    const std::string timesPath = opt.outDir + "/requests.tsv";
    bool written = cv::imwrite(maskPath, session.mask());
    written = cv::imwrite(previewPath, session.preview()) && written;
    written = writeOutline(outlinePath, photo.cols, photo.rows, session.outline()) && written;
    std::ofstream times(timesPath);
    times << "step\trequest\tmillis\tmask\n";
    for (size_t i = 0; i < requests.size(); ++i) {
      times << i + 1 << '\t' << requests[i].label << '\t' << outcomes[i].millis << '\t'
            << (outcomes[i].delivered ? "delivered" : outcomes[i].note) << '\n';
    }
    written = static_cast<bool>(times) && written;
    if (!written) return fail(kExitInput, "cannot write the results into '" + opt.outDir + "'");
    size_t points = 0;
    for (const auto& c : session.outline()) points += c.size();
    std::printf("object: %d of %d pixels; outline: %zu contours, %zu points\n",
                cv::countNonZero(session.mask()), photo.cols * photo.rows,
                session.outline().size(), points);
    std::printf("mask:     %s\npreview:  %s\noutline:  %s\ntimes:    %s\n", maskPath.c_str(),
                previewPath.c_str(), outlinePath.c_str(), timesPath.c_str());
  }
  return 0;
}
