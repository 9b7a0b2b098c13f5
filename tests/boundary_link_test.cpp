// The library's boundary seen from the app's native bridge.
//
// The bridge does not compile against this repository's headers: it declares
// the functions, classes and globals it uses from the interface description
// and links by (mangled) name. This program does the same - it includes no
// header of the library - so a drift of a name, a parameter type, a const
// qualifier or a linkage (extern "C" against C++) fails to link, and a drift
// of a global's type or a class's data layout fails the checks below.
//
// Only OpenCV and the standard library are included: IplImage, CvSeq,
// CvMemStorage and cv::Mat are part of the boundary's types.
#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/core/core_c.h>

#include <cmath>
#include <cstdint>
#include <tuple>
#include <vector>

// --- context state and interface globals ----------------------------------

struct strokeInfo;
class VELDSEHybrid;

class VELDSEMarker {
 public:
  static IplImage *m_originalImage, *m_srcImage, *m_labelImage, *m_prevResult, *m_texHor, *m_texVer;
  static int32_t m_originalWidth, m_originalHeight, m_width, m_height;
  static int32_t m_xMinBBox, m_xMaxBBox, m_yMinBBox, m_yMaxBBox;
  static strokeInfo currentStroke;
  static bool m_isGreyScale, m_isHomogenous, m_exitApp;
  static double m_noiseLevel;

  static void allocator(), dellocator(), initializer(), resetMarkers();
};

extern VELDSEHybrid* pHybrid;
extern float g_imageResizeFactor;
extern int32_t g_exitStatus;
extern CvSeq* contours;
extern CvMemStorage* storage;
extern IplImage *g_markerImage, *g_resultMask;
extern unsigned char g_contoursReady;

// --- exported functions: input, requests, history, lifecycle ---------------

int setSourceImage(int width, int height, unsigned int* pixels);
void copySourceImage(unsigned int* out);
int setMarkerImage(int width, int height, int* markers, int strokeType);
int setCurrentMarkerVector(int count, int* coords);

int processSegment(int, int, int, unsigned int* blended, unsigned char* mask);
int doSegmentationBB(int width, int height, unsigned int* pixels, int x1, int y1, int x2, int y2,
                     unsigned char* mask);
int cutOutImage(int, int, int, unsigned int* blended, unsigned char* mask);
void loadMaskImageInfo(unsigned char* mask);
void loadBlendedImageInfo(unsigned int* blended);
int fetch_path_array(int** array, int* count);
int undo(unsigned int*blended, unsigned char*mask), redo(unsigned int*blended, unsigned char*mask);
int canUndo(), canRedo();

int initSegmentationEngine(int), deinitSegmentation(), resetSegmentationInterface();
int cancelSegmentation(), exitSegmentation();
void freeLocalBuffers();

// --- path tracing ------------------------------------------------------------

struct Node_;
struct Qnode {
  int32_t index;
  double key;
};

class MinPriorityQueue {
 public:
  MinPriorityQueue();
  void push(Qnode q);
  Qnode pop_min();
  void prelocate_up(int slot), prelocate_down(int slot), swap(int slotA, int slotB);

  std::vector<Qnode> heap;
  std::vector<int32_t> position;
};

double find_weight(IplImage* img, int r1, int c1, int r2, int c2, double alpha);
void assign_index(Node_& node, int rows, int cols, int r, int c, double);
void assign_weight(IplImage* src, IplImage* label, Node_& node, int r, int c, double alpha);
std::vector<int32_t> find_parent_info(IplImage* src, IplImage* label, int r, int c, double alpha);
std::vector<int32_t> find_parent_info(IplImage* src, IplImage* label, int r, int c, double alpha,
                                      IplImage* out);

// --- colour model ------------------------------------------------------------

struct pixelVal {
  double val[3];
};

class VELDSEColorModel {
 public:
  VELDSEColorModel();
  void setDeterminant(), setInverseCovariance();
  double gaussianProb(int k, pixelVal x), gaussianProbGreyScale(int k, pixelVal x);
  double GMMProb(pixelVal x), GMMProbGreyScale(pixelVal x);
  int colorModelCriteria(), assignCluster(pixelVal x);
  void EM(std::vector<pixelVal> samples, int iterations);

  double weight[5], mean[5][3], covariance[5][9], determinant[5], normFactor[5], inverseCovariance[5][9];
};

// --- parallel max-flow and terminal links ---------------------------------------

struct nodes;
struct blockEdges;

class VELDSEGraph {
 public:
  void InitBlock();
};

class ParallelGC {
 public:
  ParallelGC(VELDSEGraph* g, int n);
  ~ParallelGC();
  int maxFlow();
  void AssignIDs(int by, int bx), PartitionGraph(int by, int bx);
  int RemoveAndStoreEdges(nodes*n, blockEdges*pair), MergeBlocks(int a, int b);
  void MakeNeighbourChanges(int a, int b);
  void ComputeGMMProbsParallely(cv::Mat* img, cv::Mat* labels, double K, int sinkCode, int sourceCode,
                                VELDSEColorModel* m1, VELDSEColorModel* m2, VELDSEGraph* g);
  void ComputeGMMProbs(int by, int bx, cv::Mat* img, cv::Mat* labels, double K, int sinkCode, int sourceCode,
                       VELDSEColorModel* m1, VELDSEColorModel* m2, VELDSEGraph* g);
};

void *ThreadAssignBlockIDs(void*arg), *ThreadPartition(void*arg), *ThreadMaxFlow(void*arg);
void *ThreadMerge(void*arg), *ThreadComputeGMMProbs(void*arg);

// Constructors and destructors have no address to take: this function refers
// to them so that the link needs them. It is never called (a ParallelGC needs
// a built graph), and external linkage keeps the compiler from dropping it.
void boundaryLinkParallelGC(VELDSEGraph* g) { ParallelGC gc(g, 2); }

using FindParents = std::vector<int32_t> (*)(IplImage*, IplImage*, int, int, double);
using FindParentsInto = std::vector<int32_t> (*)(IplImage*, IplImage*, int, int, double, IplImage*);

// Address tables with external linkage: the compiler must emit them with a
// relocation for every entry, so the link needs every symbol they name (a
// comparison of a known address with null alone would be folded away).
auto boundaryGlobals =
    std::make_tuple(&VELDSEMarker::m_originalImage, &VELDSEMarker::m_originalWidth,
                    &VELDSEMarker::m_originalHeight, &VELDSEMarker::m_srcImage, &VELDSEMarker::m_width,
                    &VELDSEMarker::m_height, &VELDSEMarker::m_labelImage, &VELDSEMarker::m_prevResult,
                    &VELDSEMarker::m_texHor, &VELDSEMarker::m_texVer, &VELDSEMarker::currentStroke,
                    &VELDSEMarker::m_xMinBBox, &VELDSEMarker::m_xMaxBBox, &VELDSEMarker::m_yMinBBox,
                    &VELDSEMarker::m_yMaxBBox, &VELDSEMarker::m_isGreyScale, &VELDSEMarker::m_isHomogenous,
                    &VELDSEMarker::m_exitApp, &VELDSEMarker::m_noiseLevel, &pHybrid, &g_imageResizeFactor,
                    &g_exitStatus, &contours, &storage, &g_markerImage, &g_resultMask, &g_contoursReady);
auto boundaryFunctions = std::make_tuple(
    &VELDSEMarker::allocator, &VELDSEMarker::dellocator, &VELDSEMarker::initializer,
    &VELDSEMarker::resetMarkers, &setSourceImage, &copySourceImage, &setMarkerImage, &setCurrentMarkerVector,
    &processSegment, &doSegmentationBB, &cutOutImage, &loadMaskImageInfo, &loadBlendedImageInfo,
    &fetch_path_array, &undo, &redo, &canUndo, &canRedo, &initSegmentationEngine, &deinitSegmentation,
    &resetSegmentationInterface, &cancelSegmentation, &exitSegmentation, &freeLocalBuffers, &find_weight,
    &assign_index, &assign_weight, static_cast<FindParents>(&find_parent_info),
    static_cast<FindParentsInto>(&find_parent_info), &boundaryLinkParallelGC, &ThreadAssignBlockIDs,
    &ThreadPartition, &ThreadMaxFlow, &ThreadMerge, &ThreadComputeGMMProbs);
auto boundaryMembers = std::make_tuple(
    &MinPriorityQueue::push, &MinPriorityQueue::pop_min, &MinPriorityQueue::prelocate_up,
    &MinPriorityQueue::prelocate_down, &MinPriorityQueue::swap, &VELDSEColorModel::setDeterminant,
    &VELDSEColorModel::setInverseCovariance, &VELDSEColorModel::gaussianProb,
    &VELDSEColorModel::gaussianProbGreyScale, &VELDSEColorModel::GMMProb, &VELDSEColorModel::GMMProbGreyScale,
    &VELDSEColorModel::colorModelCriteria, &VELDSEColorModel::assignCluster, &VELDSEColorModel::EM,
    &VELDSEGraph::InitBlock, &ParallelGC::maxFlow, &ParallelGC::AssignIDs, &ParallelGC::PartitionGraph,
    &ParallelGC::RemoveAndStoreEdges, &ParallelGC::MergeBlocks, &ParallelGC::MakeNeighbourChanges,
    &ParallelGC::ComputeGMMProbsParallely, &ParallelGC::ComputeGMMProbs);

namespace {

template <typename Tuple>
int countSet(const Tuple& t) {
  return std::apply([](auto... p) { return ((p != nullptr ? 1 : 0) + ...); }, t);
}

TEST(BoundaryLink, EveryDeclarationResolves) {
  EXPECT_EQ(countSet(boundaryGlobals), 27);
  EXPECT_EQ(countSet(boundaryFunctions), 35);
  EXPECT_EQ(countSet(boundaryMembers), 23);
}

// The globals' types and defaults as the bridge reads them: a float read as a
// float, a double as a double, a 32-bit exit status as an int32. The exit is
// armed only after a cancel.
TEST(BoundaryLink, GlobalsHaveTheDeclaredTypesAndDefaults) {
  EXPECT_EQ(g_imageResizeFactor, 1.0f);
  EXPECT_EQ(VELDSEMarker::m_noiseLevel, 0.1);
  EXPECT_EQ(pHybrid, nullptr);
  g_exitStatus = 7;
  EXPECT_EQ(exitSegmentation(), 0);
  EXPECT_EQ(g_exitStatus, 0);
  EXPECT_EQ(cancelSegmentation(), 1);
  EXPECT_TRUE(VELDSEMarker::m_exitApp);
  EXPECT_EQ(exitSegmentation(), 1);
  EXPECT_EQ(g_exitStatus, 1);
  VELDSEMarker::resetMarkers();
  EXPECT_FALSE(VELDSEMarker::m_exitApp);
  EXPECT_EQ(exitSegmentation(), 0);
  EXPECT_EQ(g_exitStatus, 0);
}

// Objects the bridge builds itself must have the library's layout: a model of
// 120 doubles evaluated by the library, and the path search's queue.
TEST(BoundaryLink, ObjectsHaveTheDeclaredLayout) {
  static_assert(sizeof(VELDSEColorModel) == 120 * sizeof(double), "120 doubles");
  VELDSEColorModel m;
  for (int k = 0; k < 5; ++k) EXPECT_EQ(m.weight[k], 0.0) << k;
  m.weight[3] = 0.5;
  for (int c = 0; c < 3; ++c) m.mean[3][c] = 10.0 * (c + 1), m.covariance[3][4 * c] = 4.0;
  m.setDeterminant();
  m.setInverseCovariance();
  EXPECT_DOUBLE_EQ(m.determinant[3], 64.0);
  EXPECT_DOUBLE_EQ(m.normFactor[3], 0.125);
  EXPECT_DOUBLE_EQ(m.inverseCovariance[3][8], 0.25);
  const pixelVal atMean{{10.0, 20.0, 30.0}},
      off{{12.0, 20.0, 30.0}};  // off: d = 2 on channel 0, q = 4 / 4 = 1
  EXPECT_DOUBLE_EQ(m.GMMProb(atMean), 0.5 * 0.125);
  EXPECT_DOUBLE_EQ(m.gaussianProb(3, off), std::exp(-0.5) * 0.125);
  EXPECT_EQ(m.assignCluster(off), 3);

  MinPriorityQueue q;
  ASSERT_EQ(q.heap.size(), 1u);  // the dummy slot
  EXPECT_TRUE(q.heap[0].index == -1 && q.heap[0].key == -1.0);
  for (int i = 0; i < 3; ++i) q.push(Qnode{i, 3.0 - i});
  EXPECT_EQ(q.position, (std::vector<int32_t>{2, 3, 1}));
  const Qnode top = q.pop_min();
  EXPECT_TRUE(top.index == 2 && top.key == 1.0);
}

}  // namespace
