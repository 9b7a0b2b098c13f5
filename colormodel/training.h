// Training sets from the label image and the hard-assignment model refit.
#ifndef SEGCORE_COLORMODEL_TRAINING_H
#define SEGCORE_COLORMODEL_TRAINING_H

#include <opencv2/core/core_c.h>

#include <vector>

#include "colormodel/veldse_color_model.h"

// Clears both sets and refills them from every pixel of `colour` whose label is
// 1/3 (background) or 2/4 (object); each set is then padded to five samples
// with the filler (10, 20, 30). A null `label` gives two sets of five fillers.
// In grey-scale mode channels 1 and 2 come from the texture images at the
// pixel's position in the whole working image (offset by the working box).
void extractTrainingData(const IplImage* colour, const IplImage* label,
                         std::vector<pixelVal>& objectSet,
                         std::vector<pixelVal>& backgroundSet);

// Hard-assignment refit: each sample goes to model.assignCluster(), every
// component that received samples is re-estimated, others keep their values.
// Refreshes determinants; the inverse is left to setInverseCovariance().
void updateModel(const std::vector<pixelVal>& samples, VELDSEColorModel& model);
void updateModel(const std::vector<pixelVal>& objectSet,
                 const std::vector<pixelVal>& backgroundSet,
                 VELDSEColorModel& objectModel, VELDSEColorModel& backgroundModel);

#endif
