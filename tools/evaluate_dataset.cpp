// evaluate_dataset: runs the library over a GrabCut-style dataset and scores it.
//
//   evaluate_dataset --grabcut DIR [--scribbles DIR] [-o OUT] [options]
//
// Modes, each on a fresh context per image:
//   rect     the dataset's rectangle (doSegmentationBB)
//   loop     the lasso trimap as a loop (inside = trimap >= 128), mode 0
//   stroke   the rectangle, then every scribble stroke as a correction (object
//            strokes first), as a user touches up a selection
//   grabcut  OpenCV's cv::grabCut, 5 iterations, on the same rectangle (peer)
// Each result is scored over the pixels whose ground truth is not 128: error,
// error inside the rectangle, IoU. Prints Markdown (per image, then a summary)
// and writes OUT/results.md, OUT/results.csv, OUT/masks/ and the contact sheet
// OUT/worst.png (photo, ground truth, our mask, grabCut's mask).
//
// Every image runs in a child process, so that a crash or a hang on one image
// is reported for that image and the run goes on.
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tools/edit_requests.h"
#include "tools/library_session.h"
#include "tools/scoring.h"

namespace {

using segtools::MaskScore;

enum Mode { kRect = 0, kLoop, kStroke, kPeer, kModeCount };
const char* const kModeNames[kModeCount] = {"rect", "loop", "stroke", "grabcut"};
const char* const kModeTitles[kModeCount] = {"ours, rectangle", "ours, loop",
                                             "ours, rectangle + strokes", "cv::grabCut, rectangle"};

struct ModeResult {
  bool ran = false;  // reported by the worker
  bool ok = false;   // scored
  std::string status = "not run";
  MaskScore score;
  double millis = 0.0;
  int requests = 0;
};

struct Item {
  std::string name;
  std::string photo;
  std::string truth;
  std::string lasso;
  int width = 0;
  int height = 0;
  cv::Rect rect;  // inclusive corners converted to x, y, w, h
  // From the scribble set (empty when absent).
  std::string scribbles;
  std::string scribbleTruth;
  ModeResult modes[kModeCount];
};

struct Options {
  std::string grabcut;
  std::string scribbles;
  std::string out = "eval_out";
  bool modes[kModeCount] = {true, true, true, true};
  std::vector<std::string> only;
  int limit = 0;
  int worst = 8;
  int scribbleSet = 1;
  int timeoutSeconds = 600;
  bool isolate = true;
};

const char kUsage[] =
    "usage: evaluate_dataset --grabcut DIR [--scribbles DIR] [-o OUT] [options]\n"
    "  --grabcut DIR       dataset with images/, gt/, trimaps/lasso/, manifest.tsv, rects.tsv\n"
    "  --scribbles DIR     scribble set (default: DIR/../grabcut-scribbles when present)\n"
    "  -o, --out OUT       output folder (default: eval_out)\n"
    "  --modes LIST        any of rect,loop,stroke,grabcut (default: all)\n"
    "  --only NAMES        comma-separated image names\n"
    "  --limit N           first N images only\n"
    "  --scribble-set 1|2  which stroke set (default 1)\n"
    "  --worst K           rows of the contact sheet (default 8)\n"
    "  --timeout S         seconds per image before it counts as hung (default 600)\n"
    "  --no-isolate        run images in this process (for debugging)\n";

std::vector<std::string> split(const std::string& s, char sep) {
  std::vector<std::string> out;
  std::string cur;
  std::istringstream in(s);
  while (std::getline(in, cur, sep)) out.push_back(cur);
  return out;
}

std::vector<std::vector<std::string>> readTsv(const std::string& path) {
  std::vector<std::vector<std::string>> rows;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) rows.push_back(split(line, '\t'));
  }
  return rows;
}

std::string baseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool loadItems(const Options& opt, std::vector<Item>* items, std::string* error) {
  const auto manifest = readTsv(opt.grabcut + "/manifest.tsv");
  const auto rects = readTsv(opt.grabcut + "/rects.tsv");
  if (manifest.empty() || rects.empty()) {
    *error = "no manifest.tsv or rects.tsv under " + opt.grabcut;
    return false;
  }
  std::map<std::string, cv::Rect> rectOf;
  for (const auto& r : rects) {
    if (r.size() < 5) continue;
    const int x1 = std::atoi(r[1].c_str()), y1 = std::atoi(r[2].c_str());
    const int x2 = std::atoi(r[3].c_str()), y2 = std::atoi(r[4].c_str());
    rectOf[r[0]] = cv::Rect(x1, y1, x2 - x1 + 1, y2 - y1 + 1);
  }
  // The scribble set names one photo differently; match by the photo's file.
  std::map<std::string, std::vector<std::string>> scribbleOf;
  if (!opt.scribbles.empty()) {
    for (const auto& r : readTsv(opt.scribbles + "/manifest.tsv")) {
      if (r.size() >= 5) scribbleOf[baseName(r[1])] = r;
    }
  }
  for (const auto& m : manifest) {
    if (m.size() < 5 || !rectOf.count(m[0])) continue;
    if (!opt.only.empty() && std::find(opt.only.begin(), opt.only.end(), m[0]) == opt.only.end()) {
      continue;
    }
    Item it;
    it.name = m[0];
    it.photo = opt.grabcut + "/" + m[1];
    it.truth = opt.grabcut + "/" + m[2];
    it.lasso = opt.grabcut + "/trimaps/lasso/" + m[0] + ".bmp";
    it.width = std::atoi(m[3].c_str());
    it.height = std::atoi(m[4].c_str());
    it.rect = rectOf[m[0]];
    auto s = scribbleOf.find(baseName(m[1]));
    if (s != scribbleOf.end()) {
      it.scribbles = opt.scribbles + "/" + s->second[opt.scribbleSet == 2 ? 4 : 3];
      it.scribbleTruth = opt.scribbles + "/" + s->second[2];
    }
    items->push_back(it);
    if (opt.limit > 0 && static_cast<int>(items->size()) >= opt.limit) break;
  }
  if (items->empty()) {
    *error = "no image selected from " + opt.grabcut;
    return false;
  }
  return true;
}

std::string maskPath(const Options& opt, const Item& it, int mode) {
  return opt.out + "/masks/" + it.name + "." + kModeNames[mode] + ".png";
}

// ---- The worker: runs the modes of one image --------------------------------

// One line per finished mode, so that a crash later on keeps what was done.
void report(FILE* out, int mode, const ModeResult& r) {
  std::string status = r.status;
  std::replace(status.begin(), status.end(), '\t', ' ');
  std::replace(status.begin(), status.end(), '\n', ' ');
  const MaskScore& s = r.score;
  std::fprintf(out, "%d\t%d\t%ld\t%ld\t%ld\t%ld\t%ld\t%ld\t%.3f\t%d\t%s\n", mode, r.ok ? 1 : 0,
               s.scored, s.wrong, s.scoredInRect, s.wrongInRect, s.intersection, s.unionCount,
               r.millis, r.requests, status.c_str());
  std::fflush(out);
}

bool parseReport(const std::string& line, Item* it) {
  const auto f = split(line, '\t');
  if (f.size() < 11) return false;
  const int mode = std::atoi(f[0].c_str());
  if (mode < 0 || mode >= kModeCount) return false;
  ModeResult& r = it->modes[mode];
  r.ran = true;
  r.ok = f[1] == "1";
  r.score.scored = std::atol(f[2].c_str());
  r.score.wrong = std::atol(f[3].c_str());
  r.score.scoredInRect = std::atol(f[4].c_str());
  r.score.wrongInRect = std::atol(f[5].c_str());
  r.score.intersection = std::atol(f[6].c_str());
  r.score.unionCount = std::atol(f[7].c_str());
  r.millis = std::atof(f[8].c_str());
  r.requests = std::atoi(f[9].c_str());
  r.status = f[10];
  return true;
}

double millisSince(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

ModeResult finish(const Options& opt, const Item& it, int mode, const cv::Mat& mask,
                  const cv::Mat& truth) {
  ModeResult r;
  r.ran = true;
  if (mask.size() != truth.size()) {
    r.status = "ground truth size differs from the photo";
    return r;
  }
  r.score = segtools::scoreMask(mask, truth, it.rect);
  r.ok = true;
  r.status = "ok";
  cv::imwrite(maskPath(opt, it, mode), mask);
  return r;
}

void runImage(const Options& opt, const Item& it, FILE* out) {
  const cv::Mat photo = segtools::readPhoto(it.photo);
  const cv::Mat truth = cv::imread(it.truth, cv::IMREAD_GRAYSCALE);
  const bool wholePhoto = it.rect.x == 0 && it.rect.y == 0 && it.rect.width >= photo.cols &&
                          it.rect.height >= photo.rows;
  for (int mode = 0; mode < kModeCount; ++mode) {
    if (!opt.modes[mode]) continue;
    ModeResult r;
    r.ran = true;
    if (photo.empty() || truth.empty()) {
      r.status = "cannot read the photo or its ground truth";
      report(out, mode, r);
      continue;
    }
    if (wholePhoto && mode != kLoop) {
      // Nothing lies outside the rectangle: no background to learn from.
      r.status = "skipped: the rectangle is the whole photo";
      report(out, mode, r);
      continue;
    }
    const int x2 = it.rect.x + it.rect.width - 1, y2 = it.rect.y + it.rect.height - 1;
    if (mode == kRect) {
      segtools::LibrarySession session(photo);
      const segtools::RequestOutcome o = session.rectangle(it.rect.x, it.rect.y, x2, y2);
      r = finish(opt, it, mode, session.mask(), truth);
      r.millis = o.millis;
      r.requests = 1;
      if (!o.delivered) r.status = "no mask: " + o.note;
    } else if (mode == kLoop) {
      std::string error;
      segtools::EditRequest loop;
      const cv::Mat lasso = cv::imread(it.lasso, cv::IMREAD_GRAYSCALE);
      if (lasso.empty() || !segtools::makeLoopFromMask(lasso, photo.cols, photo.rows, &loop, &error)) {
        r.status = lasso.empty() ? "cannot read " + it.lasso : error;
      } else {
        segtools::LibrarySession session(photo);
        const segtools::RequestOutcome o = segtools::runRequest(session, loop);
        r = finish(opt, it, mode, session.mask(), truth);
        r.millis = o.millis;
        r.requests = 1;
        if (!o.delivered) r.status = "no mask: " + o.note;
      }
    } else if (mode == kStroke) {
      std::vector<segtools::EditRequest> strokes;
      std::string error;
      const cv::Mat scribbles =
          it.scribbles.empty() ? cv::Mat() : cv::imread(it.scribbles, cv::IMREAD_COLOR);
      const cv::Mat strokeTruth = it.scribbleTruth.empty()
                                      ? cv::Mat()
                                      : cv::imread(it.scribbleTruth, cv::IMREAD_GRAYSCALE);
      if (scribbles.empty() || strokeTruth.empty()) {
        r.status = "no scribbles for this image";
      } else if (!segtools::makeScribbleStrokes(scribbles, photo.cols, photo.rows,
                                                segtools::ScribbleColours(),
                                                segtools::defaultStrokeWidth(photo.cols, photo.rows),
                                                &strokes, &error)) {
        r.status = error;
      } else {
        segtools::LibrarySession session(photo);
        double total = session.rectangle(it.rect.x, it.rect.y, x2, y2).millis;
        int delivered = 0;
        for (const auto& s : strokes) {
          const segtools::RequestOutcome o = segtools::runRequest(session, s);
          total += o.millis;
          delivered += o.delivered;
        }
        r = finish(opt, it, mode, session.mask(), strokeTruth);
        r.millis = total;
        r.requests = 1 + static_cast<int>(strokes.size());
        if (delivered < static_cast<int>(strokes.size())) {
          r.status = "ok, " + std::to_string(strokes.size() - delivered) + " strokes gave no mask";
        }
      }
    } else {
      cv::Mat labels, bgModel, fgModel;
      try {
        const auto t0 = std::chrono::steady_clock::now();
        cv::grabCut(photo, labels, it.rect, bgModel, fgModel, 5, cv::GC_INIT_WITH_RECT);
        const double ms = millisSince(t0);
        // GC_FGD (1) and GC_PR_FGD (3) are the object.
        cv::Mat mask = (labels & 1) * 255;
        r = finish(opt, it, mode, mask, truth);
        r.millis = ms;
        r.requests = 1;
      } catch (const cv::Exception& e) {
        r.status = std::string("cv::grabCut failed: ") + e.what();
      }
    }
    report(out, mode, r);
  }
}

// Runs one image in a child process and collects its reports.
void runIsolated(const Options& opt, Item* it) {
  int fds[2];
  if (pipe(fds) != 0) {
    for (auto& m : it->modes) m.status = "pipe failed";
    return;
  }
  std::fflush(stdout);
  std::fflush(stderr);
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    alarm(static_cast<unsigned>(opt.timeoutSeconds));
    FILE* out = fdopen(fds[1], "w");
    runImage(opt, *it, out);
    std::fclose(out);
    _exit(0);
  }
  close(fds[1]);
  std::string data;
  char buf[4096];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0) data.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  if (pid > 0) waitpid(pid, &status, 0);
  for (const std::string& line : split(data, '\n')) parseReport(line, it);
  std::string why;
  if (pid < 0) {
    why = "fork failed";
  } else if (WIFSIGNALED(status)) {
    why = WTERMSIG(status) == SIGALRM ? "timed out" : std::string("crashed: ") + strsignal(WTERMSIG(status));
  } else if (WEXITSTATUS(status) != 0) {
    why = "worker exited with " + std::to_string(WEXITSTATUS(status));
  }
  if (!why.empty()) {
    for (int m = 0; m < kModeCount; ++m) {
      if (opt.modes[m] && !it->modes[m].ran) {
        it->modes[m].ran = true;
        it->modes[m].status = why;
      }
    }
  }
}

void runInProcess(const Options& opt, Item* it) {
  char* data = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&data, &size);
  runImage(opt, *it, out);
  std::fclose(out);
  for (const std::string& line : split(std::string(data, size), '\n')) parseReport(line, it);
  std::free(data);
}

// ---- Reporting --------------------------------------------------------------

std::string pct(double fraction) {
  char b[32];
  std::snprintf(b, sizeof b, "%.2f", 100.0 * fraction);
  return b;
}

std::string fixed(double v, int digits) {
  if (std::isnan(v)) return "-";
  char b[32];
  std::snprintf(b, sizeof b, "%.*f", digits, v);
  return b;
}

// The four columns of one mode: error, error in the box, IoU, time.
std::string cell(const ModeResult& r) {
  if (!r.ran) return "| | | | ";
  if (!r.ok) return "| " + r.status + " | | | ";
  std::string s = "| " + pct(r.score.error()) + " | " + pct(r.score.rectError()) + " | " +
                  fixed(r.score.iou(), 3) + " | " + fixed(r.millis, 0);
  if (r.requests > 1) s += " (" + std::to_string(r.requests) + ")";
  return s + " ";
}

std::string perImageTable(const Options& opt, const std::vector<Item>& items) {
  std::ostringstream md;
  md << "| image | size ";
  std::ostringstream rule;
  rule << "|---|---";
  for (int m = 0; m < kModeCount; ++m) {
    if (!opt.modes[m]) continue;
    const std::string n = kModeNames[m];
    md << "| " << n << " err % | " << n << " box err % | " << n << " IoU | " << n << " ms ";
    rule << "|---:|---:|---:|---:";
  }
  md << "|\n" << rule.str() << "|\n";
  for (const Item& it : items) {
    md << "| " << it.name << " | " << it.width << "x" << it.height << " ";
    for (int m = 0; m < kModeCount; ++m) {
      if (opt.modes[m]) md << cell(it.modes[m]);
    }
    md << "|\n";
  }
  return md.str();
}

std::string summaryTable(const Options& opt, const std::vector<Item>& items) {
  std::ostringstream md;
  md << "| mode | scored | not scored | mean err % | median err % | mean box err % | "
        "mean IoU | median ms | p90 ms |\n"
     << "|---|---:|---:|---:|---:|---:|---:|---:|---:|\n";
  for (int m = 0; m < kModeCount; ++m) {
    if (!opt.modes[m]) continue;
    std::vector<double> err, box, iou, ms;
    int notScored = 0;
    for (const Item& it : items) {
      const ModeResult& r = it.modes[m];
      if (!r.ok) {
        ++notScored;
        continue;
      }
      err.push_back(100.0 * r.score.error());
      box.push_back(100.0 * r.score.rectError());
      iou.push_back(r.score.iou());
      ms.push_back(r.millis);
    }
    md << "| " << kModeTitles[m] << " | " << err.size() << " | " << notScored << " | "
       << fixed(segtools::meanOf(err), 2) << " | " << fixed(segtools::medianOf(err), 2) << " | "
       << fixed(segtools::meanOf(box), 2) << " | " << fixed(segtools::meanOf(iou), 3) << " | "
       << fixed(segtools::medianOf(ms), 0) << " | " << fixed(segtools::quantileOf(ms, 0.9), 0)
       << " |\n";
  }
  return md.str();
}

void writeCsv(const Options& opt, const std::vector<Item>& items, const std::string& path) {
  std::ofstream csv(path);
  csv << "image,width,height,mode,status,scored,wrong,error,scored_in_rect,wrong_in_rect,"
         "rect_error,iou,millis,requests\n";
  for (const Item& it : items) {
    for (int m = 0; m < kModeCount; ++m) {
      if (!opt.modes[m]) continue;
      const ModeResult& r = it.modes[m];
      std::string status = r.status;
      std::replace(status.begin(), status.end(), ',', ';');
      csv << it.name << ',' << it.width << ',' << it.height << ',' << kModeNames[m] << ','
          << status << ',';
      if (r.ok) {
        csv << r.score.scored << ',' << r.score.wrong << ',' << fixed(r.score.error(), 6) << ','
            << r.score.scoredInRect << ',' << r.score.wrongInRect << ','
            << fixed(r.score.rectError(), 6) << ',' << fixed(r.score.iou(), 6) << ','
            << fixed(r.millis, 2) << ',' << r.requests << '\n';
      } else {
        csv << ",,,,,,,,\n";
      }
    }
  }
}

// One contact-sheet cell: the image fitted into w x h, on black.
cv::Mat fitCell(const cv::Mat& img, int w, int h) {
  cv::Mat cellImg(h, w, CV_8UC3, cv::Scalar(0, 0, 0));
  if (img.empty()) {
    cv::putText(cellImg, "n/a", cv::Point(w / 2 - 20, h / 2), cv::FONT_HERSHEY_SIMPLEX, 0.7,
                cv::Scalar(200, 200, 200), 1, cv::LINE_AA);
    return cellImg;
  }
  cv::Mat bgr = img;
  if (img.channels() == 1) cv::cvtColor(img, bgr, cv::COLOR_GRAY2BGR);
  const double s = std::min(static_cast<double>(w) / bgr.cols, static_cast<double>(h) / bgr.rows);
  cv::Mat small;
  cv::resize(bgr, small, cv::Size(std::max(1, static_cast<int>(bgr.cols * s)),
                                  std::max(1, static_cast<int>(bgr.rows * s))),
             0, 0, cv::INTER_AREA);
  small.copyTo(cellImg(cv::Rect((w - small.cols) / 2, (h - small.rows) / 2, small.cols, small.rows)));
  return cellImg;
}

bool writeContactSheet(const Options& opt, const std::vector<Item>& items, const std::string& path) {
  struct Entry {
    const Item* item;
    int mode;
    double error;
  };
  // One row per image, with the worst of its own modes.
  std::vector<Entry> all;
  for (const Item& it : items) {
    Entry worst{&it, -1, -1.0};
    for (int m = 0; m < kPeer; ++m) {
      if (it.modes[m].ok && it.modes[m].score.error() > worst.error) {
        worst = {&it, m, it.modes[m].score.error()};
      }
    }
    if (worst.mode >= 0) all.push_back(worst);
  }
  std::sort(all.begin(), all.end(), [](const Entry& a, const Entry& b) { return a.error > b.error; });
  if (all.size() > static_cast<size_t>(opt.worst)) all.resize(static_cast<size_t>(opt.worst));
  if (all.empty()) return false;
  const int cw = 240, ch = 180, band = 26;
  cv::Mat sheet(static_cast<int>(all.size()) * (ch + band), 4 * cw, CV_8UC3, cv::Scalar(40, 40, 40));
  const char* heads[4] = {"photo", "ground truth", "ours", "cv::grabCut"};
  for (size_t row = 0; row < all.size(); ++row) {
    const Item& it = *all[row].item;
    const int y0 = static_cast<int>(row) * (ch + band);
    std::string text = it.name + "  " + kModeNames[all[row].mode] + "  err " +
                       pct(all[row].error) + "%";
    if (it.modes[kPeer].ok) text += "  (grabCut " + pct(it.modes[kPeer].score.error()) + "%)";
    cv::putText(sheet, text, cv::Point(6, y0 + 18), cv::FONT_HERSHEY_SIMPLEX, 0.5,
                cv::Scalar(255, 255, 255), 1, cv::LINE_AA);
    const bool strokeTruth = all[row].mode == kStroke && !it.scribbleTruth.empty();
    const cv::Mat cells[4] = {
        cv::imread(it.photo, cv::IMREAD_COLOR),
        cv::imread(strokeTruth ? it.scribbleTruth : it.truth, cv::IMREAD_GRAYSCALE),
        cv::imread(maskPath(opt, it, all[row].mode), cv::IMREAD_GRAYSCALE),
        it.modes[kPeer].ok ? cv::imread(maskPath(opt, it, kPeer), cv::IMREAD_GRAYSCALE) : cv::Mat()};
    for (int c = 0; c < 4; ++c) {
      fitCell(cells[c], cw - 4, ch - 4).copyTo(sheet(cv::Rect(c * cw + 2, y0 + band + 2, cw - 4, ch - 4)));
      if (row == 0) {
        cv::rectangle(sheet, cv::Rect(c * cw + 2, y0 + band + 2, 110, 20), cv::Scalar(0, 0, 0),
                      cv::FILLED);
        cv::putText(sheet, heads[c], cv::Point(c * cw + 8, y0 + band + 16),
                    cv::FONT_HERSHEY_SIMPLEX, 0.45, cv::Scalar(0, 255, 255), 1, cv::LINE_AA);
      }
    }
  }
  return cv::imwrite(path, sheet);
}

int usageError(const std::string& message) {
  std::fprintf(stderr, "evaluate_dataset: error: %s\n%s", message.c_str(), kUsage);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  Options opt;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const bool hasValue = i + 1 < argc;
    if (a == "-h" || a == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (a == "--no-isolate") {
      opt.isolate = false;
    } else if (!hasValue) {
      return usageError(a == "--grabcut" || a == "--scribbles" || a == "-o" || a == "--out" ||
                                a == "--modes" || a == "--only" || a == "--limit" ||
                                a == "--worst" || a == "--scribble-set" || a == "--timeout"
                            ? a + " needs a value"
                            : "unknown argument " + a);
    } else if (a == "--grabcut") {
      opt.grabcut = argv[++i];
    } else if (a == "--scribbles") {
      opt.scribbles = argv[++i];
    } else if (a == "-o" || a == "--out") {
      opt.out = argv[++i];
    } else if (a == "--modes") {
      std::fill(std::begin(opt.modes), std::end(opt.modes), false);
      for (const std::string& m : split(argv[++i], ',')) {
        const auto* at = std::find_if(std::begin(kModeNames), std::end(kModeNames),
                                      [&](const char* n) { return m == n; });
        if (at == std::end(kModeNames)) return usageError("unknown mode '" + m + "'");
        opt.modes[at - std::begin(kModeNames)] = true;
      }
    } else if (a == "--only") {
      opt.only = split(argv[++i], ',');
    } else if (a == "--limit" || a == "--worst" || a == "--scribble-set" || a == "--timeout") {
      const int v = std::atoi(argv[++i]);
      if (v < 1 || (a == "--scribble-set" && v > 2)) return usageError("bad value for " + a);
      (a == "--limit" ? opt.limit : a == "--worst" ? opt.worst
                                  : a == "--scribble-set" ? opt.scribbleSet
                                                          : opt.timeoutSeconds) = v;
    } else {
      return usageError("unknown argument " + a);
    }
  }
  if (opt.grabcut.empty()) return usageError("--grabcut DIR is required");
  std::error_code ec;
  if (opt.scribbles.empty()) {
    const std::string guess = opt.grabcut + "/../grabcut-scribbles";
    if (std::filesystem::is_directory(guess, ec)) opt.scribbles = guess;
  }
  if (opt.modes[kStroke] && opt.scribbles.empty()) {
    std::fprintf(stderr, "evaluate_dataset: no scribble set found; stroke mode is skipped\n");
    opt.modes[kStroke] = false;
  }
  setenv("SEGCORE_LOG_QUIET", "1", 0);

  std::vector<Item> items;
  std::string error;
  if (!loadItems(opt, &items, &error)) {
    std::fprintf(stderr, "evaluate_dataset: error: %s\n", error.c_str());
    return 1;
  }
  std::filesystem::create_directories(opt.out + "/masks", ec);
  if (!std::filesystem::is_directory(opt.out + "/masks", ec)) {
    std::fprintf(stderr, "evaluate_dataset: error: cannot create %s/masks\n", opt.out.c_str());
    return 1;
  }

  const auto start = std::chrono::steady_clock::now();
  for (size_t i = 0; i < items.size(); ++i) {
    Item& it = items[i];
    if (opt.isolate) {
      runIsolated(opt, &it);
    } else {
      runInProcess(opt, &it);
    }
    std::fprintf(stderr, "[%zu/%zu %5.0fs] %-9s", i + 1, items.size(), millisSince(start) / 1000.0,
                 it.name.c_str());
    for (int m = 0; m < kModeCount; ++m) {
      if (!opt.modes[m]) continue;
      const ModeResult& r = it.modes[m];
      if (r.ok) {
        std::fprintf(stderr, " %s %5s%% %6.0fms |", kModeNames[m], pct(r.score.error()).c_str(),
                     r.millis);
      } else {
        std::fprintf(stderr, " %s: %s |", kModeNames[m], r.status.c_str());
      }
    }
    std::fprintf(stderr, "\n");
  }

  std::ostringstream md;
  md << "## Per image\n\nError % over the pixels whose ground truth is not 128; box err % "
        "inside the rectangle; ms per request (stroke mode: the whole session, requests in "
        "brackets).\n\n"
     << perImageTable(opt, items) << "\n## Summary\n\n"
     << summaryTable(opt, items);
  const std::string mdPath = opt.out + "/results.md";
  const std::string csvPath = opt.out + "/results.csv";
  const std::string sheetPath = opt.out + "/worst.png";
  std::ofstream(mdPath) << md.str();
  writeCsv(opt, items, csvPath);
  const bool sheet = writeContactSheet(opt, items, sheetPath);
  std::fputs(md.str().c_str(), stdout);
  std::printf("\nresults: %s\ncsv:     %s\n", mdPath.c_str(), csvPath.c_str());
  if (sheet) std::printf("worst:   %s\n", sheetPath.c_str());
  return 0;
}
