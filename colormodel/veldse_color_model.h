// Five-component Gaussian mixture over three-channel colour samples.
//
// The engine keeps two of these by value (object and background). The model is
// a plain block of 120 doubles; the parallel terminal-link code reads the
// fields directly, so their order and layout are part of the interface.
// Densities carry no (2*pi)^(-3/2) factor: only normFactor scales them.
#ifndef SEGCORE_COLORMODEL_VELDSE_COLOR_MODEL_H
#define SEGCORE_COLORMODEL_VELDSE_COLOR_MODEL_H

#include <vector>

// One colour sample: the three channels of a working-image pixel in storage
// order, unscaled. In grey-scale mode val[1] and val[2] hold texture values.
struct pixelVal {
  double val[3];
};

class VELDSEColorModel {
 public:
  static const int kComponents = 5;

  // All-zero model: evaluates to 0 everywhere.
  VELDSEColorModel();

  // Determinant (cofactor expansion) and 1/sqrt(det) of every non-empty
  // component. A zero determinant leaves normFactor as it was.
  void setDeterminant();
  // Inverts every non-empty component's covariance by the adjugate. A
  // component whose stored determinant is not above DBL_EPSILON first gets
  // VELDSEMarker::m_noiseLevel added to its diagonal until it is; the enlarged
  // diagonal is written back into covariance. Trusts determinant[] from the
  // last setDeterminant().
  void setInverseCovariance();

  // Density of component k without its mixing weight; 0 if determinant[k] is 0.
  double gaussianProb(int k, pixelVal x);
  // One-dimensional density on channel 0; unguarded (zero variance -> inf/NaN).
  double gaussianProbGreyScale(int k, pixelVal x);
  // Weighted sum of the component densities.
  double GMMProb(pixelVal x);
  // Weighted sum of the channel-0 densities, unguarded.
  double GMMProbGreyScale(pixelVal x);
  // 1 if the mixture describes a nearly single-coloured region, else 0.
  int colorModelCriteria();
  // Index of the component with the highest unweighted density; ties go to
  // the lower index.
  int assignCluster(pixelVal x);
  // Soft refit by expectation-maximisation, a fixed number of iterations.
  // Fewer than five samples: no change.
  void EM(std::vector<pixelVal> samples, int iterations);

  double weight[5];
  double mean[5][3];
  double covariance[5][9];
  double determinant[5];
  double normFactor[5];
  double inverseCovariance[5][9];
};

// GMMProb(x), and in *cluster what assignCluster(x) returns, from one
// evaluation of the five components: each component's density is the same
// product of the same two factors in both, so the two results are bit for
// bit theirs. Costs what GMMProb costs.
double densityAndCluster(const VELDSEColorModel& model, const pixelVal& x, int* cluster);

#endif
