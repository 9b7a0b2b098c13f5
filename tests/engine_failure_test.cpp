// Running out of memory, or of threads, inside the engine: a request fails
// with std::bad_alloc and leaves nothing of itself behind (every per-request
// handle null again, nothing leaked - run under AddressSanitizer to see the
// latter), the full-resolution re-cut falls back to the enlarged working mask,
// and work meant for threads that cannot be started is done on the calling
// thread with the same result.
//
// Failures are made here, in the test program, by definitions that take the
// place of the library's: the tracked allocator (VELD_Malloc_Msg,
// VELD_Calloc_Msg), pthread_create and the global operator new each forward to
// the real one until a test arms them to fail.
#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>

#include "colormodel/kmeans_init.h"
#include "engine/veldse_hybrid.h"
#include "graph/parallel_gc.h"
#include "graph/veldse_graph.h"
#include "interface/segmentation_core.h"
#include "interface/veldse_marker.h"
#include "support/cpu_timer.h"
#include "support/veld_memory.h"
#include "tests/maxflow_reference.h"
#include "tests/synthetic_scene.h"
#include "tests/test_support.h"

namespace {

// The tracked allocation to fail: the `skip`+1-th call from `function` at
// `line` (0: any line). It fails once, then the allocator works again.
struct TrackedFault {
  std::mutex lock;
  std::string function;
  int line = 0;
  int skip = 0;
  bool armed = false;
  int fired = 0;

  void arm(const char* f, int l, int s) {
    const std::lock_guard<std::mutex> g(lock);
    function = f;
    line = l;
    skip = s;
    armed = true;
    fired = 0;
  }
  void disarm() {
    const std::lock_guard<std::mutex> g(lock);
    armed = false;
  }
  int firedCount() {
    const std::lock_guard<std::mutex> g(lock);
    return fired;
  }
  bool fails(const char* f, int l) {
    const std::lock_guard<std::mutex> g(lock);
    if (!armed || function != f || (line != 0 && line != l)) return false;
    if (skip-- > 0) return false;
    armed = false;
    ++fired;
    return true;
  }
} g_tracked;

std::atomic<bool> g_refuseThreads{false};
std::atomic<int> g_refusedThreads{0};

// operator new of exactly g_newFailSize bytes fails on its g_newCountdown+1-th
// call while g_newFailSize is not 0.
std::atomic<size_t> g_newFailSize{0};
std::atomic<int> g_newCountdown{0};
std::atomic<int> g_newFailures{0};

template <typename F>
F realFunction(const char* name) {
  void* f = dlsym(RTLD_NEXT, name);
  if (f == nullptr) std::abort();
  return reinterpret_cast<F>(f);
}

}  // namespace

void* VELD_Malloc_Msg(unsigned int size, const char* function, int line) {
  using Fn = void* (*)(unsigned int, const char*, int);
  static const Fn real = realFunction<Fn>("_Z15VELD_Malloc_MsgjPKci");
  if (g_tracked.fails(function, line)) return nullptr;
  return real(size, function, line);
}

void* VELD_Calloc_Msg(unsigned int count, unsigned int size, const char* function, int line) {
  using Fn = void* (*)(unsigned int, unsigned int, const char*, int);
  static const Fn real = realFunction<Fn>("_Z15VELD_Calloc_MsgjjPKci");
  if (g_tracked.fails(function, line)) return nullptr;
  return real(count, size, function, line);
}

extern "C" int pthread_create(pthread_t* __restrict thread, const pthread_attr_t* __restrict attr,
                              void* (*start)(void*), void* __restrict arg) __THROWNL {
  using Fn = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const Fn real = realFunction<Fn>("pthread_create");
  if (g_refuseThreads.load()) {
    ++g_refusedThreads;
    return EAGAIN;
  }
  return real(thread, attr, start, arg);
}

void* operator new(std::size_t size) {
  const size_t failSize = g_newFailSize.load();
  if (failSize != 0 && size == failSize && g_newCountdown.fetch_sub(1) == 0) {
    g_newFailSize = 0;
    ++g_newFailures;
    throw std::bad_alloc();
  }
  void* p = std::malloc(size != 0 ? size : 1);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
// Not inlined: the compiler would otherwise pair the free with the new
// expressions it sees and warn of a mismatch that is not there.
__attribute__((noinline)) void operator delete(void* p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

// A context on a synthetic scene and a rectangle request (probable object
// inside, the rectangle as the stroke), as the driver's own tests set it up.
// Photos above 76800 pixels are worked on reduced and re-cut at full size.
class SegmentDriver : public ::testing::Test {
 protected:
  void TearDown() override {
    g_tracked.disarm();
    deinitSegmentation();
  }

  void startContext(int w, int h, int centreTenths = 5) {
    testsupport::startEngine(w, h, synthetic::makeScene(w, h, false, false, centreTenths).argb.data());
  }

  // The mask of one request on a fresh context, or an empty Mat.
  cv::Mat maskOf(int w, int h, int centreTenths) {
    startContext(w, h, centreTenths);
    testsupport::markRectangle(w, h, w / 4, h / 6, 3 * w / 4, 5 * h / 6);
    IplImage* mask = pHybrid->segment();
    cv::Mat out = mask != nullptr ? testsupport::M(mask).clone() : cv::Mat();
    if (mask != nullptr) cvReleaseImage(&mask);
    deinitSegmentation();
    return out;
  }
};

// Every tracked allocation of a request that has no fall-back: the request
// throws std::bad_alloc with nothing of it left, and the next request on the
// same context gives the mask a request on a fresh context gives.
TEST_F(SegmentDriver, TrackedAllocationFailureEndsRequestCleanly) {
  const struct {
    const char* function;
    int line;
    int skip;
    int w, h, centreTenths;
  } rows[] = {
      {"create_timer", 0, 0, 160, 120, 5},                 // the request's timer
      {"VELDSEGraph", 53, 0, 160, 120, 5},                 // the working graph's nodes
      {"VELDSEGraph", 54, 0, 160, 120, 5},                 // and its capacities
      {"updateModel", 0, 0, 160, 120, 5},                  // a model update between cuts
      {"updateModel", 0, 5, 160, 120, 5},                  // a later one, all trial labels held
      {"constructGraphTrimapVELD", 2385, 0, 400, 300, 5},  // re-cut contrast table (reduced photo)
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(testing::Message() << r.function << ":" << r.line << " #" << r.skip + 1 << " on " << r.w
                                    << "x" << r.h);
    const cv::Mat expected = maskOf(r.w, r.h, r.centreTenths);
    ASSERT_FALSE(expected.empty());

    startContext(r.w, r.h, r.centreTenths);
    testsupport::markRectangle(r.w, r.h, r.w / 4, r.h / 6, 3 * r.w / 4, 5 * r.h / 6);
    g_tracked.arm(r.function, r.line, r.skip);
    EXPECT_THROW(pHybrid->segment(), std::bad_alloc);
    EXPECT_EQ(g_tracked.firedCount(), 1) << "the allocation was never made";
    g_tracked.disarm();
    testsupport::expectNoRequestLeft();

    // The context is still usable: the same request again.
    testsupport::markRectangle(r.w, r.h, r.w / 4, r.h / 6, 3 * r.w / 4, 5 * r.h / 6);
    IplImage* mask = pHybrid->segment();
    ASSERT_NE(mask, nullptr);
    EXPECT_EQ(cv::norm(testsupport::M(mask), expected, cv::NORM_INF), 0.0);
    cvReleaseImage(&mask);
    testsupport::expectNoRequestLeft();
    deinitSegmentation();
  }
}

// The full-resolution re-cut's own fall-back: no arrays for the band graph,
// so the enlarged working mask is the result and the failure is logged.
TEST_F(SegmentDriver, BandGraphWithoutMemoryGivesEnlargedWorkingMask) {
  for (int line : {53, 54}) {
    SCOPED_TRACE(line);
    startContext(400, 300);
    testsupport::markRectangle(400, 300, 100, 50, 300, 250);
    // The working graph is the first VELDSEGraph of the request, the band
    // graph the second.
    g_tracked.arm("VELDSEGraph", line, 1);
    IplImage* mask = nullptr;
    const testsupport::Lines log = testsupport::logged([&] { mask = pHybrid->segment(); });
    EXPECT_EQ(g_tracked.firedCount(), 1);
    ASSERT_NE(mask, nullptr);
    EXPECT_EQ(cv::Size(mask->width, mask->height), cv::Size(400, 300));
    EXPECT_GT(cv::countNonZero(testsupport::M(mask)), 0);
    EXPECT_EQ(std::count(log.begin(), log.end(), "E/Error: Failed: intelligentUpscaling (status_flag = 1)"),
              1);
    cvReleaseImage(&mask);
    testsupport::expectNoRequestLeft();
    deinitSegmentation();
  }
}

// The per-photo weights: without them the initialisation fails and leaves
// the working images and the weights null, not dangling.
using EngineInit = SegmentDriver;

TEST_F(EngineInit, NeighbourWeightsWithoutMemoryLeaveNoImages) {
  for (int line : {503, 509}) {
    SCOPED_TRACE(line);
    synthetic::Pixels photo = synthetic::makeScene(160, 120, true, false, 5).argb;  // grey: textures too
    setSourceImage(160, 120, photo.data());
    g_imageResizeFactor = 1.0f;
    pHybrid = new VELDSEHybrid;
    VELDSEMarker::initializer();
    g_tracked.arm("computeNlinks", line, 0);
    EXPECT_THROW(pHybrid->intializer(), std::bad_alloc);
    EXPECT_EQ(g_tracked.firedCount(), 1);
    EXPECT_EQ(pHybrid->m_nlinks, nullptr);
    EXPECT_EQ(VELDSEMarker::m_srcImage, nullptr);
    EXPECT_EQ(VELDSEMarker::m_texHor, nullptr);
    EXPECT_EQ(VELDSEMarker::m_texVer, nullptr);
    deinitSegmentation();
  }
}

// A random grid for the block-parallel solver.
maxflow_reference::GridCase gridFor(unsigned seed, int w, int h) {
  std::mt19937 rng(seed);
  return maxflow_reference::randomGrid(&rng, w, h);
}

// Blocks whose threads cannot be started are solved on the calling thread:
// the same cut and flow as with every thread running, and only started
// threads are joined.
TEST(ParallelGCMaxFlow, RefusedThreadsGiveTheSameCut) {
  for (int threads : {2, 4, 6}) {
    SCOPED_TRACE(threads);
    const maxflow_reference::GridCase gc = gridFor(77u + threads, 40, 30);
    VELDSEGraph normal(40 * 30, 8 * 40 * 30, 40, 30, threads);
    maxflow_reference::build(gc, &normal);
    {
      ParallelGC pgc(&normal, threads);
      pgc.maxFlow();
    }
    VELDSEGraph refused(40 * 30, 8 * 40 * 30, 40, 30, threads);
    maxflow_reference::build(gc, &refused);
    g_refusedThreads = 0;
    g_refuseThreads = true;
    {
      ParallelGC pgc(&refused, threads);
      pgc.maxFlow();
    }
    g_refuseThreads = false;
    EXPECT_GE(g_refusedThreads.load(), 3 * threads) << "every phase's threads were refused";
    EXPECT_EQ(refused.m_flow, normal.m_flow);
    int differing = 0;
    for (int i = 0; i < 40 * 30; ++i) differing += refused.getTreeofNode(i) != normal.getTreeofNode(i);
    EXPECT_EQ(differing, 0);
  }
}

// A stored edge that cannot be allocated on a partition thread: maxFlow()
// throws it on the calling thread after the phase is joined, and the pairs
// stored so far go with the ParallelGC (no leak under AddressSanitizer).
TEST(ParallelGCMaxFlow, PartitionFailureIsThrownOnTheCaller) {
  for (int countdown : {0, 7, 40}) {
    SCOPED_TRACE(countdown);
    const maxflow_reference::GridCase gc = gridFor(901u, 40, 30);
    VELDSEGraph g(40 * 30, 8 * 40 * 30, 40, 30, 4);
    maxflow_reference::build(gc, &g);
    ParallelGC pgc(&g, 4);
    g_newFailures = 0;
    g_newCountdown = countdown;
    g_newFailSize = sizeof(storedEdge);
    EXPECT_THROW(pgc.maxFlow(), std::bad_alloc);
    g_newFailSize = 0;
    EXPECT_EQ(g_newFailures.load(), 1);
  }
}

// k-means with none of its three workers (share 0 is the calling thread's
// own): every share is done on the calling thread, with the same model.
TEST(KMeansInit, RefusedWorkersGiveTheSameModel) {
  for (int n : {5, 97, 4000}) {
    SCOPED_TRACE(n);
    std::mt19937 rng(31u * n);
    std::uniform_int_distribution<int> u(0, 255);
    std::vector<pixelVal> samples(n);
    for (pixelVal& s : samples) s = testsupport::px(u(rng), u(rng), u(rng));
    VELDSEColorModel normal = testsupport::singleComponent(10, 20, 30, 40);
    VELDSEColorModel refused = normal;
    initModelWithKmeansVELD(samples, normal);
    g_refusedThreads = 0;
    g_refuseThreads = true;
    initModelWithKmeansVELD(samples, refused);
    g_refuseThreads = false;
    EXPECT_EQ(g_refusedThreads.load(), 3);
    EXPECT_TRUE(testsupport::sameBits(normal, refused));
  }
}

}  // namespace
