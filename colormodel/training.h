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

// The component each model assigns to the colour of every pixel of the
// working box, kept from the last time the box's terminal weights were worked
// out (the densities and the assignment come from one evaluation, see
// densityAndCluster). The refit that follows a cut assigns its samples with
// the very models that cut was built with, so it can look them up instead of
// evaluating them again; `objectModel` and `backgroundModel` are the models
// they were recorded with, and a lookup is only made for a model still equal
// to its recorded copy, byte for byte.
struct RecordedClusters {
  static const unsigned char kNone = 0xFF;
  // Per box pixel, row by row: the object model's component in the low four
  // bits and the background model's in the high four; kNone where the
  // pixel's weights were not worked out (hard-coded pixels). Empty when
  // nothing is recorded.
  std::vector<unsigned char> perPixel;
  VELDSEColorModel objectModel;
  VELDSEColorModel backgroundModel;
};

// extractTrainingData, and beside each sample of each set the component
// `recorded` holds for it under that set's model (-1 where it holds none, or
// where the model is no longer the one recorded, and for the fillers).
// `label` is box-sized like recorded.perPixel. O(box).
void extractTrainingData(const IplImage* colour, const IplImage* label,
                         std::vector<pixelVal>& objectSet,
                         std::vector<pixelVal>& backgroundSet,
                         const RecordedClusters& recorded,
                         const VELDSEColorModel& objectModel,
                         const VELDSEColorModel& backgroundModel,
                         std::vector<signed char>& objectKnown,
                         std::vector<signed char>& backgroundKnown);

// Hard-assignment refit: each sample goes to model.assignCluster(), every
// component that received samples is re-estimated, others keep their values.
// Refreshes determinants; the inverse is left to setInverseCovariance().
void updateModel(const std::vector<pixelVal>& samples, VELDSEColorModel& model);
// The same, taking known[i] as sample i's component where it is 0 or more
// (what assignCluster returns for it under this model) and assigning the
// others; `known` as long as the set.
void updateModel(const std::vector<pixelVal>& samples, VELDSEColorModel& model,
                 const std::vector<signed char>& known);
void updateModel(const std::vector<pixelVal>& objectSet,
                 const std::vector<pixelVal>& backgroundSet,
                 VELDSEColorModel& objectModel, VELDSEColorModel& backgroundModel);

// Both models as the two-set updateModel refits them (object first), with
// the components each `known` gives (as the three-argument updateModel takes
// them). The two sets' components are assigned one set after the other; the
// two refits, which share nothing, then run side by side: the object's on a
// thread of its own (or first, on the calling thread, when none can be had),
// the background's on the calling thread. Two threads at most while they
// run. Throws what a refit throws, after both have ended.
void updateModels(const std::vector<pixelVal>& objectSet, const std::vector<pixelVal>& backgroundSet,
                  VELDSEColorModel& objectModel, VELDSEColorModel& backgroundModel,
                  const std::vector<signed char>& objectKnown, const std::vector<signed char>& backgroundKnown);

#endif
