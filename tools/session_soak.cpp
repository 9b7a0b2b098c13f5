// session_soak: a long session through the exported functions, for leak
// checkers and memory measurements. On one photo it runs a given number of
// mixed requests (loop and stroke cuts, stroke edits, undo and redo past both
// ends, outline fetches, resets now and then), then starts and ends a given
// number of contexts in a row (alternately a rectangle on a fresh context
// and a start-cut-teardown). Everything is released at the end, so that a
// leak checker sees only what the library lost.
//
// It prints the resident memory after the photo is set up, the peak above it
// during the first request and during the whole session, and the resident
// memory after the first and the last request (growth between them is what
// a leak per request looks like).
//
// usage: session_soak [--photo FILE] [--megapixels MP] [--requests N] [--contexts N]
//   --photo       photo file (default: samples/coffee.png of the source tree)
//   --megapixels  resize the photo to about this many megapixels first
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "interface/segmentation_core.h"
#include "tools/library_session.h"

namespace {

// Resident set now (from /proc) and at its peak (getrusage), in MiB.
double residentMiB() {
  long pages = 0, resident = 0;
  FILE* f = std::fopen("/proc/self/statm", "r");
  if (f != nullptr) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return resident * 4096.0 / (1024.0 * 1024.0);
}

double peakMiB() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss / 1024.0;
}

struct Session {
  int w, h;
  std::vector<unsigned int> photo;
  std::vector<unsigned int> blended;
  std::vector<unsigned char> mask;
  int failures = 0;
  int cuts = 0, delivered = 0;  // cut requests, and those that delivered a mask

  // The object's box: the coffee cup of the sample (65,50)-(485,392) on its
  // 600 x 400, scaled to whatever photo is used.
  int bx1() const { return w * 65 / 600; }
  int by1() const { return h * 50 / 400; }
  int bx2() const { return w * 485 / 600; }
  int by2() const { return h * 392 / 400; }

  void start() {
    setSourceImage(w, h, photo.data());
    initSegmentationEngine(0);
  }

  void expect(int result, const char* what) {
    if (result != 0) {
      std::fprintf(stderr, "session_soak: %s returned %d\n", what, result);
      ++failures;
    }
  }

  void prepare() {
    blended = photo;
    std::fill(mask.begin(), mask.end(), 77);
  }

  void loop() {
    std::vector<int> points = {bx1(), by1(), bx2(), by1(), bx2(), by2(), bx1(), by2()};
    std::vector<int> markers(photo.size(), 0);
    for (int y = by1(); y <= by2(); ++y)
      std::fill_n(markers.begin() + static_cast<size_t>(y) * w + bx1(), bx2() - bx1() + 1, 4);
    setCurrentMarkerVector(static_cast<int>(points.size()), points.data());
    setMarkerImage(w, h, markers.data(), 0);
    prepare();
    expect(processSegment(0, 0, 0, blended.data(), mask.data()), "processSegment (loop)");
    count();
  }

  // An untouched mask buffer: the cut was abandoned (time-out), which under a
  // slow checker would leave most of the session untested.
  void count() {
    ++cuts;
    if (mask[0] != 77) ++delivered;
  }

  // A horizontal stroke at height fy (fraction of the photo), code 1 or 2,
  // its ends running off the photo; cut or edit.
  void stroke(double fy, int code, bool cut) {
    const int y = std::min(h - 1, static_cast<int>(fy * h));
    std::vector<int> points = {-40, y, w / 2, y, w + 40, y};
    std::vector<int> markers(photo.size(), 0);
    const int half = std::max(1, h / 100);
    for (int yy = std::max(0, y - half); yy <= std::min(h - 1, y + half); ++yy)
      std::fill_n(markers.begin() + static_cast<size_t>(yy) * w + w / 4, w / 2, code);
    setCurrentMarkerVector(static_cast<int>(points.size()), points.data());
    setMarkerImage(w, h, markers.data(), code == 2 ? 2 : 3);
    prepare();
    if (cut) {
      expect(processSegment(0, 0, 0, blended.data(), mask.data()), "processSegment (stroke)");
      count();
    } else {
      expect(cutOutImage(0, 0, 0, blended.data(), mask.data()), "cutOutImage");
    }
  }

  void fetch() {
    int* array = nullptr;
    int count = 0;
    fetch_path_array(&array, &count);
    delete[] array;
  }

  void rectangle() {
    prepare();
    expect(doSegmentationBB(w, h, photo.data(), bx1(), by1(), bx2(), by2(), mask.data()),
           "doSegmentationBB");
    count();
  }
};

}  // namespace

int main(int argc, char** argv) {
  std::string photoPath = std::string(SEGCORE_SOURCE_DIR) + "/samples/coffee.png";
  double megapixels = 0.0;
  int requests = 100;
  int contexts = 20;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (i + 1 >= argc) {
      std::fprintf(stderr, "usage: session_soak [--photo FILE] [--megapixels MP] "
                           "[--requests N] [--contexts N]\n");
      return 2;
    }
    const char* v = argv[++i];
    if (a == "--photo") photoPath = v;
    else if (a == "--megapixels") megapixels = std::atof(v);
    else if (a == "--requests") requests = std::atoi(v);
    else if (a == "--contexts") contexts = std::atoi(v);
    else { std::fprintf(stderr, "session_soak: unknown option %s\n", a.c_str()); return 2; }
  }

  cv::Mat bgr = segtools::readPhoto(photoPath);
  if (bgr.empty()) {
    std::fprintf(stderr, "session_soak: cannot read %s\n", photoPath.c_str());
    return 1;
  }
  if (megapixels > 0.0) {
    const double f = std::sqrt(megapixels * 1e6 / (static_cast<double>(bgr.cols) * bgr.rows));
    cv::Mat big;
    cv::resize(bgr, big, cv::Size(static_cast<int>(bgr.cols * f), static_cast<int>(bgr.rows * f)), 0, 0,
               cv::INTER_LINEAR);
    bgr = big;
  }
  Session s{bgr.cols, bgr.rows, segtools::toArgb(bgr), {}, {}, 0};
  s.blended.resize(s.photo.size());
  s.mask.resize(s.photo.size());
  std::printf("photo %d x %d (%.2f MP)\n", s.w, s.h, s.w * static_cast<double>(s.h) / 1e6);

  s.start();
  const double base = residentMiB();
  double firstPeak = 0.0, afterFirst = 0.0;
  const auto t0 = std::chrono::steady_clock::now();
  for (int r = 0; r < requests; ++r) {
    switch (r % 10) {
      case 0: s.loop(); break;
      case 1: s.stroke(0.05, 1, true); break;   // background stroke, cut
      case 2: s.stroke(0.6, 2, false); break;   // object stroke, edit
      case 3: s.expect(undo(s.blended.data(), s.mask.data()), "undo"); break;
      case 4: s.expect(redo(s.blended.data(), s.mask.data()), "redo"); break;
      case 5: s.fetch(); s.stroke(0.5, 2, true); break;  // object stroke, cut
      case 6:  // undo past the bottom of the history
        for (int k = 0; k < 3; ++k) s.expect(undo(s.blended.data(), s.mask.data()), "undo");
        break;
      case 7:  // redo past the top
        for (int k = 0; k < 4; ++k) s.expect(redo(s.blended.data(), s.mask.data()), "redo");
        break;
      case 8: s.stroke(0.95, 1, false); s.fetch(); break;  // background edit
      default:
        canUndo();
        canRedo();
        if (r % 30 == 9) resetSegmentationInterface();
        break;
    }
    if (r == 0) {
      firstPeak = peakMiB() - base;
      afterFirst = residentMiB();
    }
  }
  const double sessionSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  const double afterLast = residentMiB();
  const double sessionPeak = peakMiB() - base;
  deinitSegmentation();
  freeLocalBuffers();

  const auto t1 = std::chrono::steady_clock::now();
  for (int c = 0; c < contexts; ++c) {
    if (c % 2 == 0) {
      s.rectangle();
      s.fetch();
    } else {
      s.start();
      s.loop();
      s.fetch();
    }
    deinitSegmentation();
    freeLocalBuffers();
  }
  const double contextSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - t1).count();

  std::printf("requests %d in %.2f s, contexts %d in %.2f s, failures %d, "
              "cuts delivered %d of %d\n",
              requests, sessionSeconds, contexts, contextSeconds, s.failures, s.delivered, s.cuts);
  std::printf("resident after set-up %.1f MiB; peak above it: first request %.1f MiB, "
              "session %.1f MiB\n",
              base, firstPeak, sessionPeak);
  std::printf("resident after first request %.1f MiB, after last %.1f MiB\n", afterFirst,
              afterLast);
  if (s.delivered * 2 < s.cuts) {
    std::fprintf(stderr, "session_soak: most cuts were abandoned; the run says little\n");
    return 1;
  }
  return s.failures == 0 ? 0 : 1;
}
