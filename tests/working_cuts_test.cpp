// The working box's cuts side by side: the graph built in row slices, the
// three trial cuts solved at once, the models' assignments in slices. Each
// is checked against the one-at-a-time order written out here from the
// rules (node by node, cut after cut), on small random scenes, with the
// slices forced onto one core and onto the two, three and four of a phone.
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>
#include <random>
#include <utility>

#include "colormodel/kmeans_init.h"
#include "colormodel/training.h"
#include "engine/veldse_hybrid.h"
#include "engine/working_cuts.h"
#include "graph/veldse_graph.h"
#include "interface/segmentation_core.h"
#include "interface/undo_redo.h"
#include "interface/veldse_marker.h"
#include "support/cpu_timer.h"
#include "support/slices.h"
#include "tests/test_support.h"

// The library reads the wall clock through gettimeofday; this definition
// takes its place so that a trial can spend the ten-second budget at once:
// every reading is g_clockSkewMicros late.
namespace {
std::atomic<long> g_clockSkewMicros{0};
}  // namespace

extern "C" int gettimeofday(struct timeval* __restrict tv, void* __restrict) __THROW {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const long micros = now.tv_nsec / 1000 + g_clockSkewMicros.load();
  tv->tv_sec = now.tv_sec + micros / 1000000;
  tv->tv_usec = micros % 1000000;
  return 0;
}

namespace {

enum class Kind { kColour, kGrey, kHomogeneous };

const char* nameOf(Kind k) {
  return k == Kind::kColour ? "colour" : k == Kind::kGrey ? "grey" : "homogeneous";
}

// A w x h photo (0xAARRGGBB): an ellipse of one colour on a background of
// random blocks of two far-apart colours (colour and grey kinds) or of one
// colour (homogeneous kind), all with noise; and the rectangle round the
// ellipse.
struct Scene {
  int w, h;
  std::vector<unsigned int> argb;
  int x1, y1, x2, y2;
};

Scene randomScene(Kind kind, unsigned seed) {
  std::mt19937 rng(seed);
  auto uni = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  Scene s;
  s.w = uni(36, 90);
  s.h = uni(30, 70);
  s.argb.resize(static_cast<size_t>(s.w) * s.h);
  const int cx = s.w / 2 + uni(-4, 4), cy = s.h / 2 + uni(-3, 3);
  const int rx = s.w / 4 + uni(0, 4), ry = s.h / 4 + uni(0, 3);
  s.x1 = std::max(0, cx - rx - uni(2, 6));
  s.x2 = std::min(s.w - 1, cx + rx + uni(2, 6));
  s.y1 = std::max(0, cy - ry - uni(2, 6));
  s.y2 = std::min(s.h - 1, cy + ry + uni(2, 6));
  int object[3], back[2][3];
  for (int c = 0; c < 3; ++c) {
    object[c] = uni(150, 235);
    back[0][c] = uni(5, 60);
    back[1][c] = kind == Kind::kHomogeneous ? back[0][c] + uni(0, 8) : uni(170, 250);
  }
  if (kind == Kind::kColour) std::swap(back[1][0], back[1][2]);
  const int block = uni(3, 9);
  std::uniform_int_distribution<int> noise(-10, 10);
  std::vector<int> blocks((s.w / block + 1) * (s.h / block + 1));
  for (int& b : blocks) b = uni(0, 1);
  auto clip = [](int v) { return static_cast<unsigned int>(v < 0 ? 0 : v > 255 ? 255 : v); };
  for (int y = 0; y < s.h; ++y) {
    for (int x = 0; x < s.w; ++x) {
      const double ex = (x - cx) / static_cast<double>(rx), ey = (y - cy) / static_cast<double>(ry);
      const int* base =
          ex * ex + ey * ey <= 1.0 ? object : back[blocks[(y / block) * (s.w / block + 1) + x / block]];
      unsigned int ch[3];
      const int n = noise(rng);
      for (int c = 0; c < 3; ++c)
        ch[c] = clip((kind == Kind::kGrey ? base[0] : base[c]) + (kind == Kind::kGrey ? n : noise(rng)));
      s.argb[static_cast<size_t>(y) * s.w + x] = 0xFF000000u | ch[0] << 16 | ch[1] << 8 | ch[2];
    }
  }
  return s;
}

// A fresh context on the scene at working size 1:1 with the rectangle's
// marks as the label image.
void startContext(const Scene& s) {
  deinitSegmentation();
  resetSegmentationInterface();
  testsupport::startEngine(s.w, s.h, s.argb.data());
  testsupport::markRectangle(s.w, s.h, s.x1, s.y1, s.x2, s.y2);
}

// The graph of one cut, node by node: reset, addNode, one addtWeights per
// node in index order, then four addEdge per node (left, up-left, up,
// up-right; placeholders outside the box).
void referenceBuild(VELDSEHybrid& h, VELDSEGraph* g) {
  const int w = h.m_boundWidth, ht = h.m_boundHeight;
  const int x0 = VELDSEMarker::m_xMinBBox, y0 = VELDSEMarker::m_yMinBBox;
  const bool grey = VELDSEMarker::m_isGreyScale;
  g->reset();
  g->addNode(w * ht);
  for (int r = 0; r < ht; ++r) {
    for (int c = 0; c < w; ++c) {
      const int node = r * w + c;
      const unsigned char code = testsupport::at(h.m_cropLabel, c, r);
      if (code == LABEL_BG) {
        g->addtWeights(node, 0.0f, 1000.0f);
      } else if (code == LABEL_FG) {
        g->addtWeights(node, 1000.0f, 0.0f);
      } else {
        pixelVal x;
        x.val[0] = testsupport::at(h.m_cropSrc, c, r, 0);
        x.val[1] = grey ? testsupport::at(VELDSEMarker::m_texHor, x0 + c, y0 + r)
                        : testsupport::at(h.m_cropSrc, c, r, 1);
        x.val[2] = grey ? testsupport::at(VELDSEMarker::m_texVer, x0 + c, y0 + r)
                        : testsupport::at(h.m_cropSrc, c, r, 2);
        const double lb = std::log(h.m_bgModel.GMMProb(x));
        const double lf = std::log(h.m_fgModel.GMMProb(x));
        float first = static_cast<float>(-lb);
        const float second = static_cast<float>(-lf);
        if (grey && std::fabs(static_cast<float>(lf - lb)) < 0.0001) first = second;
        g->addtWeights(node, first, second);
      }
    }
  }
  for (int r = 0; r < ht; ++r) {
    for (int c = 0; c < w; ++c) {
      const int node = r * w + c;
      const float* l = h.m_nlinks + (static_cast<long>(y0 + r) * h.m_imgWidth + x0 + c) * 4;
      auto link = [&](bool present, int other, int slot) {
        const float cap = static_cast<float>(h.m_lambda * static_cast<double>(l[slot]));
        if (present) {
          g->addEdge(node, other, cap, cap, false);
        } else {
          g->addEdge(node, node, 0.0f, 0.0f, true);
        }
      };
      link(c >= 1, node - 1, 0);
      link(r >= 1 && c >= 1, node - w - 1, 1);
      link(r >= 1, node - w, 2);
      link(r >= 1 && c + 1 < w, node - w + 1, 3);
    }
  }
}

// The cut into the label codes, pixel by pixel.
void referenceLabels(VELDSEHybrid& h) {
  for (int r = 0; r < h.m_boundHeight; ++r) {
    for (int c = 0; c < h.m_boundWidth; ++c) {
      unsigned char& code = testsupport::at(h.m_cropLabel, c, r);
      if (h.m_graph->getTreeofNode(r * h.m_boundWidth + c) == 1) {
        if (code == LABEL_UNKNOWN || code > LABEL_FG) code = LABEL_PR_BG;
      } else if (code != LABEL_BG && code != LABEL_FG) {
        code = LABEL_PR_FG;
      }
    }
  }
}

// Box, pre-processing, graph and crops as the driver makes them.
void startRequest(VELDSEHybrid& h) {
  g_cancelTimer = create_timer();
  start_cpu_timer(g_cancelTimer);
  h.computeBoundingBox();
  h.preProcess();
  const int n = h.m_boundWidth * h.m_boundHeight;
  h.m_graph = new VELDSEGraph(n, 8 * n, h.m_boundWidth, h.m_boundHeight, 0);
  h.m_cropSrc = h.cropImage(VELDSEMarker::m_srcImage);
  h.m_cropLabel = h.cropImage(VELDSEMarker::m_labelImage);
  h.m_cropLabelInit = cvCloneImage(h.m_cropLabel);
  h.m_lambda = 50.0;
  VELDSEMarker::m_noiseLevel = 0.1;
}

// The models fitted for the first cut; returns whether the trials follow
// (the scene is not homogeneous).
bool fitFirstModels(VELDSEHybrid& h) {
  std::vector<pixelVal> objectSet, backgroundSet;
  h.parallelLamdaSwtich(0);
  extractTrainingData(h.m_cropSrc, h.m_cropLabel, objectSet, backgroundSet);
  initModel(backgroundSet, h.m_bgModel, 10);
  initModel(objectSet, h.m_fgModel, 10);
  return h.homogenousLamda(0) != 0;
}

// A whole request in the one-at-a-time order, every cut built node by node
// and on the calling thread alone.
IplImage* referenceSegment(VELDSEHybrid& h) {
  slices::setCores(1);
  startRequest(h);
  bool lambdaRequest = true;
  int action = 0;
  std::vector<pixelVal> objectSet, backgroundSet;
  for (int i = 0; i < 5; ++i) {
    if (lambdaRequest) action = h.parallelLamdaSwtich(i);
    if (action == 1) {
      extractTrainingData(h.m_cropSrc, h.m_cropLabel, objectSet, backgroundSet);
      updateModel(objectSet, backgroundSet, h.m_fgModel, h.m_bgModel);
      h.homogenousLamda(i);
    } else if (action == 0) {
      extractTrainingData(h.m_cropSrc, h.m_cropLabel, objectSet, backgroundSet);
      initModel(backgroundSet, h.m_bgModel, 10);
      initModel(objectSet, h.m_fgModel, 10);
      lambdaRequest = h.homogenousLamda(i) != 0;
      action = 1;
    }
    referenceBuild(h, h.m_graph);
    h.m_graph->maxFlow();
    referenceLabels(h);
    if (i < 3) h.m_iterLabel[i] = cvCloneImage(h.m_cropLabel);
  }
  if (VELDSEMarker::m_isHomogenous) h.chooseIter();
  delete std::exchange(h.m_graph, nullptr);
  IplImage* mask = h.getObjMask();
  h.clearMemory();
  slices::setCores(0);
  return mask;
}

// Same size, channels and pixel bytes (rows' padding aside).
bool sameBytes(const IplImage* a, const IplImage* b) {
  if (a == nullptr || b == nullptr) return a == b;
  if (a->width != b->width || a->height != b->height || a->nChannels != b->nChannels || a->depth != b->depth)
    return false;
  const size_t rowBytes = static_cast<size_t>(a->width) * a->nChannels * (a->depth & 255) / 8;
  for (int y = 0; y < a->height; ++y) {
    if (std::memcmp(a->imageData + static_cast<long>(y) * a->widthStep,
                    b->imageData + static_cast<long>(y) * b->widthStep, rowBytes) != 0)
      return false;
  }
  return true;
}

bool sameGraph(const VELDSEGraph& a, const VELDSEGraph& b) {
  if (a.m_nodeCount != b.m_nodeCount || a.m_capCount != b.m_capCount) return false;
  if (std::memcmp(&a.m_flow, &b.m_flow, sizeof(float)) != 0) return false;
  if (std::memcmp(a.m_caps, b.m_caps, sizeof(float) * static_cast<size_t>(a.m_capCount)) != 0) return false;
  for (int i = 0; i < a.m_nodeCount; ++i) {
    const nodes& x = a.m_nodes[i];
    const nodes& y = b.m_nodes[i];
    if (x.parent != y.parent || x.tree != y.tree || std::memcmp(&x.trCap, &y.trCap, sizeof(float)) != 0 ||
        (x.nextActive == nullptr) != (y.nextActive == nullptr))
      return false;
  }
  return a.m_capLast - a.m_caps == b.m_capLast - b.m_caps &&
         a.m_nodeLast - a.m_nodes == b.m_nodeLast - b.m_nodes;
}

// A build's record gives each sample the component assignCluster gives it
// under the recorded models, for every sample it covers (the pixels not fixed
// by their code), and nothing under a model that differs in one bit.
void expectRecordedClustersAreAssignments(VELDSEHybrid& h) {
  RecordedClusters record;
  workingcuts::BoxPalette palette;
  workingcuts::makeBoxPalette(h, h.m_cropLabel, &palette);
  workingcuts::wholeBoxGraph(h, &record, &palette);
  std::vector<pixelVal> objectSet, backgroundSet;
  std::vector<signed char> objectKnown, backgroundKnown;
  extractTrainingData(h.m_cropSrc, h.m_cropLabel, objectSet, backgroundSet, record, h.m_fgModel, h.m_bgModel,
                      objectKnown, backgroundKnown);
  ASSERT_EQ(objectKnown.size(), objectSet.size());
  ASSERT_EQ(backgroundKnown.size(), backgroundSet.size());
  size_t known = 0;
  for (size_t i = 0; i < objectSet.size(); ++i) {
    if (objectKnown[i] < 0) continue;
    ++known;
    EXPECT_EQ(objectKnown[i], h.m_fgModel.assignCluster(objectSet[i]));
  }
  for (size_t i = 0; i < backgroundSet.size(); ++i) {
    if (backgroundKnown[i] < 0) continue;
    ++known;
    EXPECT_EQ(backgroundKnown[i], h.m_bgModel.assignCluster(backgroundSet[i]));
  }
  // The rectangle's inside is not fixed: most of the box is covered.
  EXPECT_GT(known, (objectSet.size() + backgroundSet.size()) / 4);
  VELDSEColorModel changed = h.m_fgModel;
  reinterpret_cast<unsigned char*>(&changed.mean[2][1])[0] ^= 1;
  extractTrainingData(h.m_cropSrc, h.m_cropLabel, objectSet, backgroundSet, record, changed, h.m_bgModel,
                      objectKnown, backgroundKnown);
  EXPECT_EQ(std::count(objectKnown.begin(), objectKnown.end(), -1), static_cast<long>(objectKnown.size()));
  EXPECT_LT(std::count(backgroundKnown.begin(), backgroundKnown.end(), -1),
            static_cast<long>(backgroundKnown.size()));
}

// The core counts compared with the one-at-a-time order: one (everything on
// the calling thread), two (this machine), three and four (a phone's).
const int kCores[] = {1, 2, 3, 4};

class WorkingCuts : public ::testing::Test {
 protected:
  void SetUp() override { slices::setParallelItems(1); }  // slice even the small boxes
  void TearDown() override {
    slices::setCores(0);
    slices::setParallelItems(0);
    workingcuts::g_trialStarts = nullptr;
    g_clockSkewMicros = 0;
    VELDSEMarker::m_exitApp = false;
    if (pHybrid != nullptr && pHybrid->m_cropSrc != nullptr) pHybrid->clearMemory();
    deinitSegmentation();
  }
};

// Every build of a request's five cuts, from its labels and models at that
// point, equals the node-by-node build: capacities, terminal capacities and
// the flow field bit for bit.
TEST_F(WorkingCuts, GraphInSlicesEqualsNodeByNodeBuild) {
  for (Kind kind : {Kind::kColour, Kind::kGrey}) {
    for (unsigned seed = 1; seed <= 4; ++seed) {
      SCOPED_TRACE(::testing::Message() << nameOf(kind) << " scene " << seed);
      startContext(randomScene(kind, seed));
      VELDSEHybrid& h = *pHybrid;
      startRequest(h);
      fitFirstModels(h);
      const int n = h.m_boundWidth * h.m_boundHeight;
      VELDSEGraph reference(n, 8 * n, h.m_boundWidth, h.m_boundHeight, 0);
      for (double lambda : {50.0, 13.0, 7.0, 13.513}) {
        h.m_lambda = lambda;
        referenceBuild(h, &reference);
        for (int cores : kCores) {
          SCOPED_TRACE(::testing::Message() << "lambda " << lambda << ", " << cores << " cores");
          slices::setCores(cores);
          h.constructGraphVELD_Whole_Image();
          EXPECT_TRUE(sameGraph(*h.m_graph, reference));
          // Without a palette (weights worked out as the pixels come); and by
          // one made from labels that also fix every fifth pixel, whose
          // weights the build then works out itself.
          workingcuts::BoxPalette palette;
          workingcuts::wholeBoxGraph(h, nullptr, nullptr);
          EXPECT_TRUE(sameGraph(*h.m_graph, reference));
          IplImage* moreFixed = cvCloneImage(h.m_cropLabel);
          for (int i = 0; i < n; i += 5)
            testsupport::at(moreFixed, i % h.m_boundWidth, i / h.m_boundWidth) = LABEL_FG;
          workingcuts::makeBoxPalette(h, moreFixed, &palette);
          cvReleaseImage(&moreFixed);
          workingcuts::wholeBoxGraph(h, nullptr, &palette);
          EXPECT_TRUE(sameGraph(*h.m_graph, reference));
        }
      }
      // And the cut written back: same codes as pixel by pixel.
      h.m_graph->maxFlow();
      IplImage* expected = cvCloneImage(h.m_cropLabel);
      std::swap(expected, h.m_cropLabel);
      referenceLabels(h);
      std::swap(expected, h.m_cropLabel);
      const int objects = h.updateLabelImage();
      EXPECT_TRUE(sameBytes(h.m_cropLabel, expected));
      int counted = 0;
      for (int r = 0; r < h.m_boundHeight; ++r)
        for (int c = 0; c < h.m_boundWidth; ++c) {
          const unsigned char code = testsupport::at(h.m_cropLabelInit, c, r);
          counted +=
              h.m_graph->getTreeofNode(r * h.m_boundWidth + c) == 0 && code != LABEL_BG && code != LABEL_FG;
        }
      EXPECT_EQ(objects, counted);
      cvReleaseImage(&expected);
      expectRecordedClustersAreAssignments(h);  // on the cut's labels, as the refit after it
      h.clearMemory();
    }
  }
}

// The three trials at once leave the labels of each trial, the last trial's
// labels and weight, exactly as cutting them one after the other does.
TEST_F(WorkingCuts, TrialsSideBySideEqualOneAfterTheOther) {
  int trialsDiffer = 0;
  for (Kind kind : {Kind::kColour, Kind::kGrey}) {
    for (unsigned seed = 11; seed <= 20; ++seed) {
      SCOPED_TRACE(::testing::Message() << nameOf(kind) << " scene " << seed);
      startContext(randomScene(kind, seed));
      VELDSEHybrid& h = *pHybrid;
      startRequest(h);
      ASSERT_TRUE(fitFirstModels(h)) << "the scene is meant to take the trials";
      const VELDSEColorModel fg = h.m_fgModel, bg = h.m_bgModel;

      // One after the other, node by node.
      IplImage* expected[3];
      double expectedLambda = 0.0;
      for (int k = 0; k < 3; ++k) {
        if (k > 0) h.parallelLamdaSwtich(k);
        referenceBuild(h, h.m_graph);
        h.m_graph->maxFlow();
        referenceLabels(h);
        expected[k] = cvCloneImage(h.m_cropLabel);
        expectedLambda = h.m_lambda;
      }
      for (int r = 0; r < h.m_boundHeight; ++r)
        for (int c = 0; c < h.m_boundWidth; ++c)
          trialsDiffer += testsupport::at(expected[0], c, r) != testsupport::at(expected[2], c, r);

      for (int cores : kCores) {
        SCOPED_TRACE(::testing::Message() << cores << " cores");
        slices::setCores(cores);
        h.parallelLamdaSwtich(0);  // back to the state before the first trial
        workingcuts::trialCuts(h);
        for (int k = 0; k < 3; ++k) {
          EXPECT_TRUE(sameBytes(h.m_iterLabel[k], expected[k])) << "trial " << k;
          cvReleaseImage(&h.m_iterLabel[k]);
        }
        EXPECT_TRUE(sameBytes(h.m_cropLabel, expected[2]));
        EXPECT_EQ(h.m_lambda, expectedLambda);
        EXPECT_TRUE(testsupport::sameBits(h.m_fgModel, fg) && testsupport::sameBits(h.m_bgModel, bg));
      }
      for (IplImage*& e : expected) cvReleaseImage(&e);
      h.clearMemory();
    }
  }
  // Otherwise a mix-up of the trials' labels could not be seen.
  EXPECT_GT(trialsDiffer, 0) << "no scene where the weights give different cuts";
}

// A whole request (five cuts, model refits, weight choice, mask) on every
// core count gives the mask, the models and the weight of the one-at-a-time
// order; homogeneous scenes (no trials) included.
TEST_F(WorkingCuts, RequestOnEveryCoreCountEqualsOneAtATimeOrder) {
  for (Kind kind : {Kind::kColour, Kind::kGrey, Kind::kHomogeneous}) {
    for (unsigned seed = 31; seed <= 36; ++seed) {
      SCOPED_TRACE(::testing::Message() << nameOf(kind) << " scene " << seed);
      const Scene scene = randomScene(kind, seed);
      startContext(scene);
      IplImage* expected = referenceSegment(*pHybrid);
      ASSERT_NE(expected, nullptr);
      const VELDSEColorModel fg = pHybrid->m_fgModel, bg = pHybrid->m_bgModel;
      const double lambda = pHybrid->m_lambda;
      const bool homogeneous = VELDSEMarker::m_isHomogenous;
      EXPECT_EQ(homogeneous, kind == Kind::kHomogeneous);
      for (int cores : kCores) {
        SCOPED_TRACE(::testing::Message() << cores << " cores");
        startContext(scene);
        slices::setCores(cores);
        IplImage* mask = pHybrid->segment();
        EXPECT_TRUE(sameBytes(mask, expected));
        EXPECT_TRUE(testsupport::sameBits(pHybrid->m_fgModel, fg));
        EXPECT_TRUE(testsupport::sameBits(pHybrid->m_bgModel, bg));
        EXPECT_EQ(pHybrid->m_lambda, lambda);
        EXPECT_EQ(VELDSEMarker::m_isHomogenous, homogeneous);
        if (mask != nullptr) cvReleaseImage(&mask);
      }
      cvReleaseImage(&expected);
    }
  }
}

// The models' refit (assignments in slices, remembered by colour) equals a
// refit that assigns every sample on its own, on sets large and small, of
// 8-bit colours (which repeat) and of fractional values (never remembered).
TEST_F(WorkingCuts, ModelRefitInSlicesEqualsSampleBySample) {
  for (bool bytes : {true, false}) {
    for (int n : {5, 37, 1000, 20011}) {
      SCOPED_TRACE(::testing::Message() << n << (bytes ? " byte" : " fractional") << " samples");
      std::mt19937 rng(7u * n);
      std::uniform_int_distribution<int> u(0, 255);
      std::vector<pixelVal> samples(n);
      for (pixelVal& s : samples) {
        s = testsupport::px(u(rng), u(rng) / 2, u(rng) / 8 * 8);
        if (!bytes) s.val[1] += 0.25;
      }
      VELDSEColorModel start;
      slices::setCores(1);
      initModel(samples, start, 10);
      start.setInverseCovariance();
      std::vector<int> labels(static_cast<size_t>(n));
      for (int i = 0; i < n; ++i)
        labels[static_cast<size_t>(i)] = start.assignCluster(samples[static_cast<size_t>(i)]);
      VELDSEColorModel expected = start;
      setComponentsFromClusters(ClusterInfo(labels, samples), n, expected);
      expected.setDeterminant();
      // Every third sample's component given, as a build's record gives it.
      std::vector<signed char> known(static_cast<size_t>(n), -1);
      for (int i = 0; i < n; i += 3) known[static_cast<size_t>(i)] = static_cast<signed char>(labels[i]);
      for (int cores : kCores) {
        SCOPED_TRACE(::testing::Message() << cores << " cores");
        slices::setCores(cores);
        VELDSEColorModel model = start;
        updateModel(samples, model);
        EXPECT_TRUE(testsupport::sameBits(model, expected));
        model = start;
        updateModel(samples, model, known);
        EXPECT_TRUE(testsupport::sameBits(model, expected));
        // Both refits side by side, the object's set given as the background's.
        VELDSEColorModel object = start;
        VELDSEColorModel background = start;
        updateModels(samples, samples, object, background, known, std::vector<signed char>());
        EXPECT_TRUE(testsupport::sameBits(object, expected));
        EXPECT_TRUE(testsupport::sameBits(background, expected));
      }
    }
  }
}

// Whichever trial the cancel or the time-out comes in, the request is
// abandoned as after any cut: no mask, the one log line, nothing left of it,
// nothing recorded; and the next request on the context starts afresh.
TEST_F(WorkingCuts, CancelOrTimeOutDuringEachTrialAbandonsTheRequest) {
  static std::atomic<int> cancelAt{-1};
  static std::atomic<bool> byClock{false};
  static std::atomic<int> started{0};
  const Scene scene = randomScene(Kind::kColour, 12);
  for (int cores : {1, 4}) {
    for (int trial = 0; trial < 3; ++trial) {
      for (bool clock : {false, true}) {
        SCOPED_TRACE(::testing::Message()
                     << cores << " cores, " << (clock ? "time-out" : "cancel") << " in trial " << trial);
        startContext(scene);
        slices::setCores(cores);
        cancelAt = trial;
        byClock = clock;
        started = 0;
        workingcuts::g_trialStarts = [](int k) {
          ++started;
          if (k != cancelAt.load()) return;
          if (byClock.load()) {
            g_clockSkewMicros += 11000000;  // the budget is spent
          } else {
            VELDSEMarker::m_exitApp = true;
          }
        };
        IplImage* mask = reinterpret_cast<IplImage*>(1);
        const testsupport::Lines log = testsupport::logged([&] { mask = pHybrid->segment(); });
        workingcuts::g_trialStarts = nullptr;
        g_clockSkewMicros = 0;
        EXPECT_EQ(mask, nullptr);
        // One after the other the trials stop at the one cancelled; side by
        // side all three are under way.
        EXPECT_EQ(started.load(), cores == 1 ? trial + 1 : 3);
        EXPECT_EQ(std::count(log.begin(), log.end(), "E/Error: Segmentation canceled due to timeout"), 1);
        testsupport::expectNoRequestLeft();
        EXPECT_EQ(VELDSEManageUndoRedo::m_current, 0) << "no result recorded";
        VELDSEMarker::m_exitApp = false;
      }
    }
  }
}

}  // namespace
