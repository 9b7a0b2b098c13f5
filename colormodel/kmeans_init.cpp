#include "colormodel/kmeans_init.h"

#include <pthread.h>
#include <semaphore.h>

#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "support/owned.h"

namespace {

const int kClusters = 5;
const int kThreads = 4;
const double kTwoPowMinus31 = 4.656612873077393e-10;

inline double rowDistSq(const double* a, const double* b) {
  const double d0 = a[0] - b[0];
  const double d1 = a[1] - b[1];
  const double d2 = a[2] - b[2];
  return d0 * d0 + d1 * d1 + d2 * d2;
}

// Seed for srand() from a distance total. The conversion saturates as the
// ARM float-to-integer instruction does (negative and NaN give 0, anything
// beyond the range gives UINT_MAX), so the seeding is the same on the phone
// and on the host, and the conversion is always defined.
unsigned int seedFromTotal(double total) {
  if (!(total > 0)) return 0u;
  if (total >= 4294967295.0) return 4294967295u;
  return static_cast<unsigned int>(total);
}

// The four assignment shares of one k_means call: share 0 on the calling
// thread, shares 1 to 3 on workers, so that no more than four threads work at
// once. The threads are started once per call rather than once per pass (up
// to ten passes), which halves the cost of a 20000-sample initialisation on a
// loaded two-core machine; they are joined and destroyed when k_means
// returns, so no thread outlives the call. A worker that could not be started
// has its share done on the caller's thread, which gives the same result
// (each share fills its own accumulator column). Whatever a worker's share throws is
// kept and thrown again on the caller once every share of the pass is done:
// an exception must not leave a thread's body.
class KMeansWorkers {
 public:
  KMeansWorkers() {
    for (int t = 0; t < kThreads; ++t) {
      sem_init(&start_[t], 0, 0);
      sem_init(&done_[t], 0, 0);
      slot_[t].owner = this;
      slot_[t].index = t;
      running_[t] = t > 0 && pthread_create(&thread_[t], nullptr, &KMeansWorkers::loop, &slot_[t]) == 0;
    }
  }
  ~KMeansWorkers() {
    quit_ = true;
    for (int t = 0; t < kThreads; ++t) {
      if (running_[t]) sem_post(&start_[t]);
    }
    for (int t = 0; t < kThreads; ++t) {
      if (running_[t]) pthread_join(thread_[t], nullptr);
      sem_destroy(&start_[t]);
      sem_destroy(&done_[t]);
    }
  }
  KMeansWorkers(const KMeansWorkers&) = delete;
  KMeansWorkers& operator=(const KMeansWorkers&) = delete;

  // Runs findMinDistance on the four records and returns when all are done.
  void run(KMeansThreadArg* args) {
    args_ = args;
    std::exception_ptr here;
    for (int t = 0; t < kThreads; ++t) {
      if (running_[t]) sem_post(&start_[t]);
    }
    for (int t = 0; t < kThreads; ++t) {
      if (!running_[t] && !here) {
        try {
          findMinDistance(&args[t]);
        } catch (...) {
          here = std::current_exception();
        }
      }
    }
    for (int t = 0; t < kThreads; ++t) {
      if (running_[t]) waitFor(&done_[t]);
    }
    if (here) std::rethrow_exception(here);
    for (int t = 0; t < kThreads; ++t) {
      if (failure_[t]) std::rethrow_exception(failure_[t]);
    }
  }

 private:
  struct Slot {
    KMeansWorkers* owner;
    int index;
  };

  static void waitFor(sem_t* sem) {
    while (sem_wait(sem) != 0) {
      // Interrupted by a signal: wait again.
    }
  }

  static void* loop(void* p) {
    Slot* slot = static_cast<Slot*>(p);
    KMeansWorkers* self = slot->owner;
    for (;;) {
      waitFor(&self->start_[slot->index]);
      if (self->quit_) return nullptr;
      try {
        findMinDistance(&self->args_[slot->index]);
      } catch (...) {
        self->failure_[slot->index] = std::current_exception();
      }
      sem_post(&self->done_[slot->index]);
    }
  }

  pthread_t thread_[kThreads];
  bool running_[kThreads];
  sem_t start_[kThreads];
  sem_t done_[kThreads];
  Slot slot_[kThreads];
  KMeansThreadArg* args_ = nullptr;  // handed over through start_
  bool quit_ = false;                // handed over through start_
  std::exception_ptr failure_[kThreads];  // handed back through done_
};

}  // namespace

ClusterInfo::ClusterInfo(std::vector<int> labels, std::vector<pixelVal> samples) {
  std::memset(count, 0, sizeof(count));
  std::memset(sum, 0, sizeof(sum));
  std::memset(prod, 0, sizeof(prod));
  // prod[3r+c] and prod[3c+r] add x_c * x_r and x_r * x_c, the same double
  // (a product does not depend on the order of its factors) in the same
  // sample order: the six sums on and above the diagonal are made and the
  // three below copied from them.
  const size_t n = samples.size();
  for (size_t i = 0; i < n; ++i) {
    const int k = labels[i];
    const double x0 = samples[i].val[0];
    const double x1 = samples[i].val[1];
    const double x2 = samples[i].val[2];
    count[k] += 1;
    sum[0][k] += x0;
    sum[1][k] += x1;
    sum[2][k] += x2;
    prod[0][k] += x0 * x0;
    prod[1][k] += x1 * x0;
    prod[2][k] += x2 * x0;
    prod[4][k] += x1 * x1;
    prod[5][k] += x2 * x1;
    prod[8][k] += x2 * x2;
  }
  for (int k = 0; k < kClusters; ++k) {
    prod[3][k] = prod[1][k];
    prod[6][k] = prod[2][k];
    prod[7][k] = prod[5][k];
  }
}

void setComponentsFromClusters(const ClusterInfo& info, int n, VELDSEColorModel& model) {
  const double invN = 1.0 / n;
  for (int k = 0; k < kClusters; ++k) {
    if (info.count[k] < 1) continue;
    const double invCount = 1.0 / info.count[k];
    model.weight[k] = info.count[k] * invN;
    for (int c = 0; c < 3; ++c) model.mean[k][c] = info.sum[c][k] * invCount;
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) {
        model.covariance[k][3 * r + c] =
            info.prod[3 * r + c][k] * invCount - model.mean[k][r] * model.mean[k][c];
      }
    }
  }
}

void initModel(const std::vector<pixelVal>& samples, VELDSEColorModel& model, int) {
  initModelWithKmeansVELD(samples, model);
}

void initModel(const std::vector<pixelVal>& a, const std::vector<pixelVal>& b,
               VELDSEColorModel& modelA, VELDSEColorModel& modelB, int) {
  initModelWithKmeansVELD(a, modelA);
  initModelWithKmeansVELD(b, modelB);
}

void initModelWithKmeansVELD(const std::vector<pixelVal>& samples, VELDSEColorModel& model) {
  const int n = static_cast<int>(samples.size());
  if (n <= 4) return;

  // Nothing to cluster without these: the call fails instead.
  owned::Malloced<double> rowOwner(needMemory(static_cast<double*>(std::malloc(sizeof(double) * 3 * n))));
  owned::Malloced<double*> rowsOwner(needMemory(static_cast<double**>(std::malloc(sizeof(double*) * n))));
  double* const rowBlock = rowOwner.get();
  double** const rows = rowsOwner.get();
  for (int i = 0; i < n; ++i) {
    rows[i] = rowBlock + 3 * i;
    for (int c = 0; c < 3; ++c) rows[i][c] = samples[i].val[c];
  }
  // Zeroed so a row that no centre can claim keeps a valid label.
  owned::Malloced<int> labelOwner(needMemory(static_cast<int*>(std::calloc(n, sizeof(int)))));
  int* const labelArray = labelOwner.get();
  double centreBlock[kClusters * 3];
  double* centres[kClusters];
  for (int k = 0; k < kClusters; ++k) centres[k] = centreBlock + 3 * k;

  k_means(rows, labelArray, n, 0.0, 10, centres);

  std::vector<int> labels(labelArray, labelArray + n);
  labelOwner.reset();
  rowsOwner.reset();
  rowOwner.reset();

  const ClusterInfo info(std::move(labels), samples);
  // Clusters that ended empty leave their component as it was.
  setComponentsFromClusters(info, n, model);
  model.setDeterminant();
}

void chooseCentersKMeanspp(double** data, int n, int k, int* seeds) {
  const owned::Malloced<double> distOwner(
      needMemory(static_cast<double*>(std::malloc(sizeof(double) * (n > 0 ? n : 1)))));
  double* const dist = distOwner.get();
  // Seeding from n and from the running totals makes the whole clustering a
  // function of its input.
  std::srand(static_cast<unsigned int>(n));
  seeds[0] = static_cast<int>((n * kTwoPowMinus31) * std::rand());
  double total = 0;
  if (n >= 1) {
    for (int i = 0; i < n; ++i) {
      dist[i] = rowDistSq(data[i], data[seeds[0]]);
      total += dist[i];
    }
  }
  if (k >= 2) {
    for (int j = 1; j < k; ++j) {
      std::srand(seedFromTotal(total));
      int pick = 0;
      if (n >= 2) {
        double target = (total * kTwoPowMinus31) * std::rand();
        while (pick < n - 1 && target > dist[pick]) {
          target -= dist[pick];
          ++pick;
        }
      } else if (n == 1) {
        std::rand();
      } else {
        std::rand();
        seeds[j] = 0;
        total = 0;
        continue;
      }
      seeds[j] = pick;
      double next = 0;
      for (int m = 0; m < n; ++m) {
        const double d = rowDistSq(data[m], data[pick]);
        if (d < dist[m]) dist[m] = d;
        next += dist[m];
      }
      total = next;
    }
  }
}

void* findMinDistance(void* arg) {
  KMeansThreadArg* a = static_cast<KMeansThreadArg*>(arg);
  const int t = a->threadIndex;
  const int chunk = a->n / kThreads;
  const int begin = t * chunk;
  const int end = (t == kThreads - 1) ? a->n : (t + 1) * chunk;
  if (begin >= end) return nullptr;

  // Work on local copies of this worker's accumulator column and store them
  // back at the end: the columns of the four workers share cache lines. The
  // additions happen in the same order as they would in place.
  double centre[kClusters][3];
  double sums[kClusters][3];
  double counts[kClusters];
  for (int k = 0; k < kClusters; ++k) {
    for (int c = 0; c < 3; ++c) {
      centre[k][c] = a->centres[k][c];
      sums[k][c] = a->partialSums[k][t][c];
    }
    counts[k] = a->partialCounts[k][t];
  }
  double error = a->partialError[t];
  for (int i = begin; i < end; ++i) {
    const double* x = a->data[i];
    double best = DBL_MAX;
    int bestIndex = a->labels[i];
    for (int k = 0; k < kClusters; ++k) {
      const double d = rowDistSq(x, centre[k]);
      if (d < best) {
        best = d;
        bestIndex = k;
      }
    }
    a->labels[i] = bestIndex;
    sums[bestIndex][0] += x[0];
    sums[bestIndex][1] += x[1];
    sums[bestIndex][2] += x[2];
    counts[bestIndex] += 1.0;
    error += best;
  }
  for (int k = 0; k < kClusters; ++k) {
    for (int c = 0; c < 3; ++c) a->partialSums[k][t][c] = sums[k][c];
    a->partialCounts[k][t] = counts[k];
  }
  a->partialError[t] = error;
  return nullptr;
}

void k_means(double** data, int* labels, int n, double tolerance, int maxIterations,
             double** /*centres*/) {
  // Accumulators: [cluster][thread][channel] sums, [cluster][thread] counts,
  // [thread] errors. Each worker touches only its own thread column.
  double sumBlock[kClusters * kThreads * 3];
  double* sumRows[kClusters * kThreads];
  double** partialSums[kClusters];
  double countBlock[kClusters * kThreads];
  double* partialCounts[kClusters];
  double partialError[kThreads];
  for (int k = 0; k < kClusters; ++k) {
    partialSums[k] = sumRows + k * kThreads;
    for (int t = 0; t < kThreads; ++t) {
      partialSums[k][t] = sumBlock + (k * kThreads + t) * 3;
    }
    partialCounts[k] = countBlock + k * kThreads;
  }
  double centreBlock[kClusters * 3];
  double* centre[kClusters];
  for (int k = 0; k < kClusters; ++k) centre[k] = centreBlock + 3 * k;

  const owned::Malloced<int> seedOwner(needMemory(static_cast<int*>(std::malloc(sizeof(int) * kClusters))));
  int* const seeds = seedOwner.get();
  chooseCentersKMeanspp(data, n, kClusters, seeds);
  for (int k = 0; k < kClusters; ++k) {
    for (int c = 0; c < 3; ++c) centre[k][c] = data[seeds[k]][c];
  }

  KMeansThreadArg args[kThreads];
  KMeansWorkers workers;
  double previousError = DBL_MAX;
  int iteration = 0;
  for (;;) {
    std::memset(sumBlock, 0, sizeof(sumBlock));
    std::memset(countBlock, 0, sizeof(countBlock));
    std::memset(partialError, 0, sizeof(partialError));
    for (int t = 0; t < kThreads; ++t) {
      args[t] = KMeansThreadArg{data, centre, labels, n, partialSums, partialCounts,
                                partialError, t};
    }
    workers.run(args);
    for (int k = 0; k < kClusters; ++k) {
      double total = 0;
      double s[3] = {0, 0, 0};
      for (int t = 0; t < kThreads; ++t) {
        total += partialCounts[k][t];
        for (int c = 0; c < 3; ++c) s[c] += partialSums[k][t][c];
      }
      if (total > 0) {
        for (int c = 0; c < 3; ++c) centre[k][c] = s[c] / total;
      } else {
        // An empty cluster keeps its centre and reclaims its own seed.
        labels[seeds[k]] = k;
      }
    }
    const double error =
        ((partialError[0] + partialError[1]) + partialError[2]) + partialError[3];
    ++iteration;
    if (iteration >= maxIterations || std::fabs(error - previousError) <= tolerance) break;
    previousError = error;
  }
}

double distSq(pixelVal a, pixelVal b) {
  return (a.val[1] - b.val[1]) * (a.val[1] - b.val[1]) +
         (a.val[0] - b.val[0]) * (a.val[0] - b.val[0]) +
         (a.val[2] - b.val[2]) * (a.val[2] - b.val[2]);
}
