// Model initialisation by the library's own five-cluster k-means (k-means++
// seeding, four workers per assignment pass).
#ifndef SEGCORE_COLORMODEL_KMEANS_INIT_H
#define SEGCORE_COLORMODEL_KMEANS_INIT_H

#include <vector>

#include "colormodel/veldse_color_model.h"

// Per-cluster moment sums of a labelled sample set.
class ClusterInfo {
 public:
  ClusterInfo(std::vector<int> labels, std::vector<pixelVal> samples);

  int count[5];
  double sum[3][5];   // [channel][cluster]
  double prod[9][5];  // [3r+c][cluster]: sum of x_c * x_r
};

// Sets weight, mean and population covariance of every component with at
// least one sample (n = size of the whole set); empty components keep their
// values. Determinants are not refreshed.
void setComponentsFromClusters(const ClusterInfo& info, int n, VELDSEColorModel& model);

// Work record of one k-means worker.
struct KMeansThreadArg {
  double** data;
  double** centres;
  int* labels;
  int n;
  double*** partialSums;   // [cluster][thread] -> three doubles
  double** partialCounts;  // [cluster] -> one count per thread
  double* partialError;    // one per thread
  int threadIndex;
};

// The int argument is ignored.
void initModel(const std::vector<pixelVal>& samples, VELDSEColorModel& model, int);
void initModel(const std::vector<pixelVal>& a, const std::vector<pixelVal>& b,
               VELDSEColorModel& modelA, VELDSEColorModel& modelB, int);
// Clusters the samples into five groups and takes each non-empty group's share,
// mean and population covariance as a component. Fewer than five samples: no
// change. Refreshes determinants only.
void initModelWithKmeansVELD(const std::vector<pixelVal>& samples, VELDSEColorModel& model);

// Five-cluster k-means over n rows of three doubles; fills labels. `centres`
// is accepted and not used.
void k_means(double** data, int* labels, int n, double tolerance, int maxIterations,
             double** centres);
// k-means++ seeding; reseeds the C library generator from n and from the
// running distance totals, so equal input gives equal seeds.
void chooseCentersKMeanspp(double** data, int n, int k, int* seeds);
// Assignment step for one worker's row range; arg is a KMeansThreadArg*.
void* findMinDistance(void* arg);
double distSq(pixelVal a, pixelVal b);

#endif
