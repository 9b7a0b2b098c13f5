#include "colormodel/alternative_init.h"

#include <opencv2/core.hpp>

#include <algorithm>
#include <cstddef>

#include "colormodel/kmeans_init.h"
#include "support/image_rows.h"

int g_maxVarDir = 0;

void initModelWithKmeans(const std::vector<pixelVal>& samples, VELDSEColorModel& model) {
  if (samples.empty()) return;
  const int n = static_cast<int>(samples.size());
  std::vector<cv::Vec<float, 3> > points(samples.size());
  for (int i = 0; i < n; ++i) {
    for (int c = 0; c < 3; ++c) points[i][c] = static_cast<float>(samples[i].val[c]);
  }
  const cv::Mat data(n, 3, CV_32F, points.data());
  cv::Mat labelMat;
  try {
    // Attempts 0 is raised to one attempt by cv::kmeans itself.
    cv::kmeans(data, 5, labelMat, cv::TermCriteria(1, 10, 0.0), 0, 2, cv::noArray());
  } catch (const cv::Exception&) {
    // cv::kmeans refuses fewer samples than clusters (one to four samples);
    // the model is left as it was, as for an empty set.
    return;
  }
  const int* l = labelMat.ptr<int>(0);
  const std::vector<int> labels(l, l + n);
  const ClusterInfo info(labels, samples);
  setComponentsFromClusters(info, n, model);
  model.setDeterminant();
}

void initModelWithKmeans(const std::vector<pixelVal>& a, const std::vector<pixelVal>& b,
                         VELDSEColorModel& modelA, VELDSEColorModel& modelB) {
  initModelWithKmeans(a, modelA);
  initModelWithKmeans(b, modelB);
}

void initThirdInitalization(const IplImage* colour, const IplImage* label,
                            VELDSEColorModel& objectModel,
                            VELDSEColorModel& backgroundModel) {
  std::vector<pixelVal> background;
  std::vector<pixelVal> rest;
  if (label != nullptr) {
    for (int y = 0; y < colour->height; ++y) {
      const unsigned char* lab = imageRow(label, y);
      for (int x = 0; x < colour->width; ++x) {
        const CvScalar v = cvGet2D(colour, y, x);
        const pixelVal s = {{v.val[0], v.val[1], v.val[2]}};
        if (lab[x] == 1 || lab[x] == 3) {
          background.push_back(s);
        } else {
          rest.push_back(s);
        }
      }
    }
  }
  initModelWithKmeans(background, backgroundModel);

  // The k-means above refreshed only determinants and normalisers, so the
  // scores use the background model's previous inverse covariances.
  std::vector<vec4> scored;
  scored.reserve(rest.size());
  for (const pixelVal& s : rest) {
    scored.push_back(vec4{{s.val[0], s.val[1], s.val[2]}, backgroundModel.GMMProb(s)});
  }
  rest.clear();
  // order() is not a strict weak ordering when a score is NaN; the merge sort
  // stays within the range whatever the comparator answers.
  std::stable_sort(scored.begin(), scored.end(), order);

  const size_t m = scored.size();
  if (m >= 3) {
    const size_t third = m / 3;
    // Least background-like third to the object side, most background-like
    // third to the background; the undecided middle is dropped.
    for (size_t i = 0; i < third; ++i) {
      rest.push_back(pixelVal{{scored[i].val[0], scored[i].val[1], scored[i].val[2]}});
    }
    for (size_t i = 0; i < third; ++i) {
      const vec4& v = scored[m - 1 - i];
      background.push_back(pixelVal{{v.val[0], v.val[1], v.val[2]}});
    }
  }
  initModelWithKmeansVELD(rest, objectModel);
  initModelWithKmeansVELD(background, backgroundModel);
}

pixelVal findMean(const std::vector<pixelVal>& set) {
  pixelVal mean = {{0.0, 0.0, 0.0}};
  if (set.empty()) return mean;
  for (const pixelVal& s : set) {
    for (int c = 0; c < 3; ++c) mean.val[c] += s.val[c];
  }
  for (int c = 0; c < 3; ++c) mean.val[c] /= static_cast<double>(set.size());
  return mean;
}

double findSSE(const std::vector<pixelVal>& set) {
  if (set.empty()) return 0.0;
  const pixelVal mean = findMean(set);
  double sse = 0.0;
  for (const pixelVal& s : set) sse += distSq(s, mean);
  return sse;
}

void varPartition(const std::vector<pixelVal>& in, std::vector<pixelVal>& low,
                  std::vector<pixelVal>& high) {
  const double n = static_cast<double>(in.size());
  double best = -1.0;
  double pivot = 0.0;
  g_maxVarDir = 0;
  for (int c = 0; c < 3; ++c) {
    double sum = 0.0;
    double sumSq = 0.0;
    for (const pixelVal& s : in) {
      sum += s.val[c];
      sumSq += s.val[c] * s.val[c];
    }
    const double mean = sum / n;
    const double variance = sumSq / n - mean * mean;
    if (variance > best) {
      best = variance;
      g_maxVarDir = c;
      pivot = mean;
    }
  }
  for (const pixelVal& s : in) {
    if (s.val[g_maxVarDir] < pivot) {
      low.push_back(s);
    } else {
      high.push_back(s);
    }
  }
  // Neither half may be empty; an empty input has no sample to lend.
  if (in.empty()) return;
  if (low.empty()) low.push_back(in[0]);
  if (high.empty()) high.push_back(in[0]);
}

void varParInit(const std::vector<pixelVal>& samples, double** centres) {
  if (samples.empty()) {
    // Nothing to split: the centres are the means of empty groups.
    for (int k = 0; k < 5; ++k) centres[k][0] = centres[k][1] = centres[k][2] = 0.0;
    return;
  }
  std::vector<std::vector<pixelVal> > clusters(1, samples);
  std::vector<double> errors(1, findSSE(samples));
  for (int split = 0; split < 4; ++split) {
    size_t pick = 0;
    double worst = errors[0] / static_cast<double>(clusters[0].size());
    for (size_t i = 1; i < clusters.size(); ++i) {
      const double mse = errors[i] / static_cast<double>(clusters[i].size());
      if (mse > worst) {
        worst = mse;
        pick = i;
      }
    }
    std::vector<pixelVal> low;
    std::vector<pixelVal> high;
    varPartition(clusters[pick], low, high);
    clusters.erase(clusters.begin() + pick);
    errors.erase(errors.begin() + pick);
    errors.push_back(findSSE(low));
    clusters.push_back(low);
    errors.push_back(findSSE(high));
    clusters.push_back(high);
  }
  for (int k = 0; k < 5; ++k) {
    const pixelVal mean = findMean(clusters[k]);
    for (int c = 0; c < 3; ++c) centres[k][c] = mean.val[c];
  }
}

bool order(vec4 a, vec4 b) { return !(a.score >= b.score); }
