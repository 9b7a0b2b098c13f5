// Alternative mixture initialisations, exported but unused by the pipeline:
// OpenCV k-means, a re-sorting third initialisation and variance-partition
// seeding.
#ifndef SEGCORE_COLORMODEL_ALTERNATIVE_INIT_H
#define SEGCORE_COLORMODEL_ALTERNATIVE_INIT_H

#include <opencv2/core/core_c.h>

#include <vector>

#include "colormodel/veldse_color_model.h"

// A sample with a score, for sorting.
struct vec4 {
  double val[3];
  double score;
};

// Channel of the last varPartition split.
extern int g_maxVarDir;

void initModelWithKmeans(const std::vector<pixelVal>& samples, VELDSEColorModel& model);
void initModelWithKmeans(const std::vector<pixelVal>& a, const std::vector<pixelVal>& b,
                         VELDSEColorModel& modelA, VELDSEColorModel& modelB);
void initThirdInitalization(const IplImage* colour, const IplImage* label,
                            VELDSEColorModel& objectModel,
                            VELDSEColorModel& backgroundModel);
void varParInit(const std::vector<pixelVal>& samples, double** centres);
void varPartition(const std::vector<pixelVal>& in, std::vector<pixelVal>& low,
                  std::vector<pixelVal>& high);
pixelVal findMean(const std::vector<pixelVal>& set);
double findSSE(const std::vector<pixelVal>& set);
bool order(vec4 a, vec4 b);

#endif
