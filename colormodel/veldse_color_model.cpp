#include "colormodel/veldse_color_model.h"

#include <cfloat>
#include <cmath>
#include <cstring>

#include "interface/veldse_marker.h"

namespace {

// Cofactor expansion along the first row of a row-major 3x3 matrix.
inline double det3(double c00, double c01, double c02, double c10, double c11,
                   double c12, double c20, double c21, double c22) {
  return c00 * (c11 * c22 - c12 * c21) + c01 * (c12 * c20 - c10 * c22) +
         c02 * (c10 * c21 - c11 * c20);
}

// d^T * inv * d, written out in the order the terminal-link code also uses.
inline double quadForm(const double* inv, const double* mean, const pixelVal& x) {
  const double d0 = x.val[0] - mean[0];
  const double d1 = x.val[1] - mean[1];
  const double d2 = x.val[2] - mean[2];
  return (inv[0] * d0 + inv[3] * d1 + inv[6] * d2) * d0 +
         (inv[1] * d0 + inv[4] * d1 + inv[7] * d2) * d1 +
         (inv[2] * d0 + inv[5] * d1 + inv[8] * d2) * d2;
}

}  // namespace

VELDSEColorModel::VELDSEColorModel() {
  std::memset(weight, 0, sizeof(weight));
  std::memset(mean, 0, sizeof(mean));
  std::memset(covariance, 0, sizeof(covariance));
  // With every weight zero these two clear the derived fields.
  setDeterminant();
  setInverseCovariance();
}

void VELDSEColorModel::setDeterminant() {
  for (int k = 0; k < 5; ++k) {
    if (weight[k] > 0) {
      const double* c = covariance[k];
      const double det = det3(c[0], c[1], c[2], c[3], c[4], c[5], c[6], c[7], c[8]);
      determinant[k] = det;
      // A zero determinant keeps the previous normaliser on purpose: the
      // component is skipped by every evaluation while determinant is 0.
      if (det != 0) normFactor[k] = 1.0 / std::sqrt(det);
    } else {
      determinant[k] = 0;
      normFactor[k] = 0;
    }
  }
}

void VELDSEColorModel::setInverseCovariance() {
  const double nu = VELDSEMarker::m_noiseLevel;
  for (int k = 0; k < 5; ++k) {
    double* inv = inverseCovariance[k];
    if (!(weight[k] > 0)) {
      for (int i = 0; i < 9; ++i) inv[i] = 0;
      continue;
    }
    double* c = covariance[k];
    double det = determinant[k];
    if (!(det > DBL_EPSILON)) {
      // Singular or nearly so (e.g. all samples of the component equal):
      // widen the diagonal until the matrix is safely invertible.
      double c00 = c[0], c11 = c[4], c22 = c[8];
      do {
        c00 += nu;
        c11 += nu;
        c22 += nu;
        det = det3(c00, c[1], c[2], c[3], c11, c[5], c[6], c[7], c22);
        determinant[k] = det;
        if (det != 0) normFactor[k] = 1.0 / std::sqrt(det);
      } while (!(det > DBL_EPSILON));
      c[0] = c00;
      c[4] = c11;
      c[8] = c22;
    }
    const double c00 = c[0], c01 = c[1], c02 = c[2];
    const double c10 = c[3], c11 = c[4], c12 = c[5];
    const double c20 = c[6], c21 = c[7], c22 = c[8];
    inv[0] = (c11 * c22 - c12 * c21) / det;
    inv[1] = (c02 * c21 - c01 * c22) / det;
    inv[2] = (c01 * c12 - c02 * c11) / det;
    inv[3] = (c12 * c20 - c10 * c22) / det;
    inv[4] = (c00 * c22 - c02 * c20) / det;
    inv[5] = (c02 * c10 - c00 * c12) / det;
    inv[6] = (c10 * c21 - c11 * c20) / det;
    inv[7] = (c01 * c20 - c00 * c21) / det;
    inv[8] = (c00 * c11 - c01 * c10) / det;
  }
}

double VELDSEColorModel::gaussianProb(int k, pixelVal x) {
  if (determinant[k] == 0) return 0;
  return std::exp(-0.5 * quadForm(inverseCovariance[k], mean[k], x)) * normFactor[k];
}

double VELDSEColorModel::gaussianProbGreyScale(int k, pixelVal x) {
  const double v = covariance[k][0];
  const double d = x.val[0] - mean[k][0];
  return std::exp(-0.5 * d * d / v) / std::sqrt(v);
}

double VELDSEColorModel::GMMProb(pixelVal x) {
  double p = 0.0;
  for (int k = 0; k < 5; ++k) {
    double pk = 0;
    if (determinant[k] != 0) {
      pk = std::exp(-0.5 * quadForm(inverseCovariance[k], mean[k], x)) * normFactor[k];
    }
    p += weight[k] * pk;
  }
  return p;
}

double VELDSEColorModel::GMMProbGreyScale(pixelVal x) {
  double p = 0.0;
  for (int k = 0; k < 5; ++k) {
    const double v = covariance[k][0];
    const double d = x.val[0] - mean[k][0];
    p += weight[k] * (std::exp(-0.5 * d * d / v) / std::sqrt(v));
  }
  return p;
}

int VELDSEColorModel::colorModelCriteria() {
  // Spread: are all significant means within 100 units of each other?
  float maxDist = -1.0f;
  for (int i = 0; i < 5; ++i) {
    if (!(weight[i] > 0.05)) continue;
    for (int j = i + 1; j < 5; ++j) {
      if (!(weight[j] > 0.05)) continue;
      const double d0 = mean[i][0] - mean[j][0];
      const double d1 = mean[i][1] - mean[j][1];
      const double d2 = mean[i][2] - mean[j][2];
      const float dist = static_cast<float>(d0 * d0 + d1 * d1 + d2 * d2);
      if (dist > maxDist) maxDist = dist;
    }
  }
  if (maxDist < 10000.0) return 1;

  // Flatness: every dominant component nearly constant.
  int dominant = 0;
  int flat = 0;
  for (int k = 0; k < 5; ++k) {
    if (weight[k] > 0.35) {
      ++dominant;
      if (determinant[k] < 1.0) ++flat;
    }
  }
  return (dominant > 0 && flat == dominant) ? 1 : 0;
}

int VELDSEColorModel::assignCluster(pixelVal x) {
  int best = 0;
  double bestScore = 0;
  for (int k = 0; k < 5; ++k) {
    double s = 0;
    if (determinant[k] != 0) {
      s = normFactor[k] * std::exp(-0.5 * quadForm(inverseCovariance[k], mean[k], x));
    }
    if (k == 0 || s > bestScore) {
      best = k;
      bestScore = s;
    }
  }
  return best;
}

double densityAndCluster(const VELDSEColorModel& model, const pixelVal& x, int* cluster) {
  double p = 0.0;
  int best = 0;
  double bestScore = 0;
  for (int k = 0; k < 5; ++k) {
    double pk = 0;
    if (model.determinant[k] != 0) {
      pk = std::exp(-0.5 * quadForm(model.inverseCovariance[k], model.mean[k], x)) * model.normFactor[k];
    }
    p += model.weight[k] * pk;
    if (k == 0 || pk > bestScore) {
      best = k;
      bestScore = pk;
    }
  }
  *cluster = best;
  return p;
}

void VELDSEColorModel::EM(std::vector<pixelVal> samples, int iterations) {
  const size_t n = samples.size();
  if (n < 5) return;
  if (iterations < 1) {
    setDeterminant();
    setInverseCovariance();
    return;
  }
  const double invN = 1.0 / static_cast<double>(n);
  std::vector<double> resp;
  for (int it = 0; it < iterations; ++it) {
    // E-step. Determinants, normalisers and inverses stay those of the model
    // on entry for all iterations; only weights and means move.
    resp.clear();
    resp.reserve(5 * n);
    for (size_t i = 0; i < n; ++i) {
      const pixelVal& x = samples[i];
      const double p = GMMProb(x);
      if (p > 0) {
        const double invP = 1.0 / p;
        for (int k = 0; k < 5; ++k) {
          double g = 0;
          if (determinant[k] != 0) {
            g = std::exp(-0.5 * quadForm(inverseCovariance[k], mean[k], x)) * normFactor[k];
          }
          resp.push_back(g * weight[k] * invP);
        }
      } else {
        for (int k = 0; k < 5; ++k) resp.push_back(0.0);
      }
    }
    // M-step.
    for (int k = 0; k < 5; ++k) {
      double s = 0;
      for (size_t i = 0; i < n; ++i) s += resp[5 * i + k];
      weight[k] = s * invN;
      double m[3] = {0, 0, 0};
      for (size_t i = 0; i < n; ++i) {
        const double r = resp[5 * i + k];
        for (int c = 0; c < 3; ++c) m[c] += r * samples[i].val[c];
      }
      if (s > 0) {
        for (int c = 0; c < 3; ++c) m[c] /= s;
      }
      for (int c = 0; c < 3; ++c) mean[k][c] = m[c];
      double cov[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
      for (size_t i = 0; i < n; ++i) {
        const double r = resp[5 * i + k];
        const double d[3] = {samples[i].val[0] - m[0], samples[i].val[1] - m[1],
                             samples[i].val[2] - m[2]};
        for (int a = 0; a < 3; ++a) {
          for (int b = 0; b < 3; ++b) cov[3 * a + b] += r * d[a] * d[b];
        }
      }
      if (s > 0) {
        for (int e = 0; e < 9; ++e) cov[e] /= s;
      }
      for (int e = 0; e < 9; ++e) covariance[k][e] = cov[e];
    }
    resp.clear();
  }
  setDeterminant();
  setInverseCovariance();
}
