// One segmentation request: box, crops, five graph cuts, full-size mask.
//
// The first three cuts are trials that choose the smoothness weight (see
// lambda_selection.cpp); they share their models and initial labels and are
// made side by side (trial_cuts.cpp). The fourth cuts with the chosen weight
// after a model update from that trial's labels, the fifth after one more
// update. A scene whose background model is nearly single-coloured skips the
// trials and cuts five times at the default weight, and may then fall back to
// its first cut.
#include <android/log.h>

#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/imgproc/imgproc_c.h>

#include "colormodel/kmeans_init.h"
#include "colormodel/training.h"
#include "engine/veldse_hybrid.h"
#include "engine/working_cuts.h"
#include "interface/veldse_marker.h"
#include "support/cpu_timer.h"
#include "support/image_rows.h"
#include "support/owned.h"
#include "support/stage_marks.h"

namespace {

const int kCuts = 5;

// How well the inner boundary of the object in `label` follows image edges:
// (strong-edge pixels - weak-edge pixels) / boundary pixels.
double boundaryScore(const IplImage* label, const cv::Mat& magnitude) {
  const int width = label->width;
  const int height = label->height;
  const owned::Image boundaryImage = owned::Image::create(cvSize(width, height), IPL_DEPTH_8U, 1);
  IplImage* boundary = boundaryImage.get();
  for (int y = 0; y < height; ++y) {
    const unsigned char* in = imageRow(label, y);
    unsigned char* out = imageRow(boundary, y);
    for (int x = 0; x < width; ++x) {
      out[x] = (in[x] == LABEL_FG || in[x] == LABEL_PR_FG) ? 255 : 0;
    }
  }
  if (width >= 3 && height >= 3) {
    const owned::Image eroded = owned::Image::create(cvSize(width, height), IPL_DEPTH_8U, 1);
    cvErode(boundary, eroded.get(), nullptr, 1);
    cvSub(boundary, eroded.get(), boundary);
  }
  int n = 0, strong = 0, weak = 0;
  for (int y = 0; y < height; ++y) {
    const unsigned char* b = imageRow(boundary, y);
    const float* m = magnitude.ptr<float>(y);
    for (int x = 0; x < width; ++x) {
      if (b[x] <= 254) continue;
      ++n;
      if (m[x] > 70.0f) ++strong;
      if (m[x] < 30.0f) ++weak;
    }
  }
  return n == 0 ? 0.0 : static_cast<double>(strong - weak) / n;
}

// Runs clearMemory() when segment() is left by an exception (the normal
// paths call now() themselves, at the point where they always did). The
// full-resolution graph is intelligentUpscaling's own to drop.
class RequestCleanup {
 public:
  explicit RequestCleanup(VELDSEHybrid* engine) : engine_(engine) {}
  ~RequestCleanup() {
    if (engine_ != nullptr) engine_->clearMemory();
  }
  RequestCleanup(const RequestCleanup&) = delete;
  RequestCleanup& operator=(const RequestCleanup&) = delete;

  void now() {
    VELDSEHybrid* engine = engine_;
    engine_ = nullptr;
    engine->clearMemory();
  }

 private:
  VELDSEHybrid* engine_;
};

// What the cuts are built and the colour models fitted from, kept from cut
// to cut: the box's palette, the sample sets (their room reused), and the
// components the last terminal weights recorded for the box's pixels, with
// each sample's share of them.
struct Training {
  std::vector<pixelVal> objectSamples;
  std::vector<pixelVal> backgroundSamples;
  std::vector<signed char> objectKnown;
  std::vector<signed char> backgroundKnown;
  RecordedClusters recorded;
  workingcuts::BoxPalette palette;
};

// The colour models before cut i, as the model action asks: refitted from
// the labels so far, or fitted afresh (k-means seeded), after which the
// models are only refitted. A fresh fit also decides whether trial weights
// are asked for any more: a homogeneous scene gains nothing from them. A
// refit takes the components the last cut's weights recorded under the very
// same models instead of assigning those samples again.
void fitModels(VELDSEHybrid& h, int i, int* modelAction, bool* lambdaRequest, Training& t) {
  if (*modelAction == VELDSEHybrid::MODELS_UPDATE) {
    extractTrainingData(h.m_cropSrc, h.m_cropLabel, t.objectSamples, t.backgroundSamples, t.recorded, h.m_fgModel,
                        h.m_bgModel, t.objectKnown, t.backgroundKnown);
    updateModels(t.objectSamples, t.backgroundSamples, h.m_fgModel, h.m_bgModel, t.objectKnown, t.backgroundKnown);
    h.homogenousLamda(i);
  } else if (*modelAction == VELDSEHybrid::MODELS_TRAIN) {
    extractTrainingData(h.m_cropSrc, h.m_cropLabel, t.objectSamples, t.backgroundSamples);
    initModel(t.backgroundSamples, h.m_bgModel, 10);
    initModel(t.objectSamples, h.m_fgModel, 10);
    *lambdaRequest = h.homogenousLamda(i) != 0;
    *modelAction = VELDSEHybrid::MODELS_UPDATE;
  }
}

}  // namespace

IplImage* VELDSEHybrid::segment() {
  // Whatever the request holds is released again, and its handles left null,
  // when a failure (memory running out) ends it early, as clearMemory() does
  // when it ends normally.
  RequestCleanup cleanup(this);

  // Without its timer a request could not be abandoned after ten seconds.
  g_cancelTimer = needMemory(create_timer());
  start_cpu_timer(g_cancelTimer);

  computeBoundingBox();
  preProcess();

  const int nodeCount = m_boundHeight * m_boundWidth;
  m_graph = new VELDSEGraph(nodeCount, 8 * nodeCount, m_boundWidth, m_boundHeight, 0);
  // The working box has no smaller graph to fall back to: every cut writes
  // through both arrays.
  if (m_graph->m_nodes == nullptr || m_graph->m_caps == nullptr) throw std::bad_alloc();

  m_cropSrc = cropImage(VELDSEMarker::m_srcImage);
  m_cropLabel = cropImage(VELDSEMarker::m_labelImage);
  m_cropLabelInit = cloneImage(m_cropLabel);

  m_lambda = 50.0;
  VELDSEMarker::m_noiseLevel = 0.1;
  bool lambdaRequest = true;
  int modelAction = MODELS_TRAIN;
  Training training;
  workingcuts::makeBoxPalette(*this, m_cropLabel, &training.palette);
  bool cancelled = false;

  for (int i = 0; i < kCuts; ++i) {
    stagemarks::reached(stagemarks::kColourModels);
    if (lambdaRequest) modelAction = parallelLamdaSwtich(i);
    fitModels(*this, i, &modelAction, &lambdaRequest, training);

    if (i == 0 && lambdaRequest) {
      // The three trial cuts at once: they share the models just fitted and
      // the initial labels, so they are made side by side (cuts 0 to 2).
      stagemarks::reached(stagemarks::kTrialCuts);
      workingcuts::trialCuts(*this, &training.recorded, &training.palette);
      i = 2;
    } else {
      stagemarks::reached(stagemarks::kGraphBuild);
      workingcuts::wholeBoxGraph(*this, &training.recorded, &training.palette);
      stagemarks::reached(stagemarks::kMaxFlow);
      m_graph->maxFlow();
      updateLabelImage();
      if (i < 3) m_iterLabel[i] = cloneImage(m_cropLabel);
    }

    stop_cpu_timer(g_cancelTimer);
    if (get_elapsed_time_in_millisec(g_cancelTimer) > kCancelTimeLimitMs ||
        VELDSEMarker::m_exitApp.load(std::memory_order_relaxed)) {
      cancelled = true;
      break;
    }
  }

  if (cancelled) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "Segmentation canceled due to timeout");
    cleanup.now();
    return nullptr;
  }

  if (VELDSEMarker::m_isHomogenous) chooseIter();
  delete m_graph;
  m_graph = nullptr;
  IplImage* mask = getObjMask();
  cleanup.now();
  return mask;
}

int VELDSEHybrid::updateLabelImage() {
  // Every pixel on its own: one pass in row order gives what the four row
  // bands [0, H/4), [H/4, H/2), [H/2, 3(H/4)), [3(H/4), H) give.
  return workingcuts::writeCut(m_graph, m_cropLabel);
}

void VELDSEHybrid::chooseIter() {
  const owned::Image grey = owned::Image::create(cvGetSize(m_cropSrc), IPL_DEPTH_8U, 1);
  cvCvtColor(m_cropSrc, grey.get(), CV_BGR2GRAY);
  const cv::Mat g = cv::cvarrToMat(grey.get());
  cv::Mat gx, gy, magnitude;
  cv::Sobel(g, gx, CV_32F, 1, 0, 3, 1.0, 0.0, cv::BORDER_DEFAULT);
  cv::Sobel(g, gy, CV_32F, 0, 1, 3, 1.0, 0.0, cv::BORDER_DEFAULT);
  cv::magnitude(gx, gy, magnitude);

  const float first = static_cast<float>(boundaryScore(m_iterLabel[0], magnitude));
  const float last = static_cast<float>(boundaryScore(m_cropLabel, magnitude));
  // The later cuts of a homogeneous scene tend to drift off the object; keep
  // the first cut when its boundary already sits on edges and the last one is
  // not clearly better.
  if (first >= 0.75f && !(last > 0.98f) && last - first <= 0.2f) {
    cvCopy(m_iterLabel[0], m_cropLabel);
  }
}

bool VELDSEHybrid::cancelSegmentation() {
  stop_cpu_timer(g_cancelTimer);
  return get_elapsed_time_in_millisec(g_cancelTimer) > kCancelTimeLimitMs ||
         VELDSEMarker::m_exitApp.load(std::memory_order_relaxed);
}
