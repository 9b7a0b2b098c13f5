#include "colormodel/training.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <utility>

#include "colormodel/kmeans_init.h"
#include "interface/veldse_marker.h"
#include "support/colour_memo.h"
#include "support/image_rows.h"
#include "support/owned.h"
#include "support/slices.h"
#include "support/threads.h"
#include "support/veld_memory.h"

namespace {

// Five samples are the least any model builder accepts; short sets are padded
// with a fixed colour rather than one taken from the image.
void padWithFiller(std::vector<pixelVal>& set) {
  const pixelVal filler = {{10.0, 20.0, 30.0}};
  while (set.size() < 5) set.push_back(filler);
}

}  // namespace

namespace {

// The one walk of both extractions: every labelled pixel of the box, row by
// row, goes to its set (visit(sample, isObject, boxIndex)).
template <class Visit>
void forTrainingPixels(const IplImage* colour, const IplImage* label, const Visit& visit) {
  const bool grey = VELDSEMarker::m_isGreyScale;
  const IplImage* texHor = VELDSEMarker::m_texHor;
  const IplImage* texVer = VELDSEMarker::m_texVer;
  const int xOff = VELDSEMarker::m_xMinBBox;
  const int yOff = VELDSEMarker::m_yMinBBox;
  const int step = colour->nChannels;
  for (int y = 0; y < colour->height; ++y) {
    const unsigned char* src = imageRow(colour, y);
    const unsigned char* lab = imageRow(label, y);
    const unsigned char* hor = nullptr;
    const unsigned char* ver = nullptr;
    if (grey) {
      hor = imageRow(texHor, yOff + y) + xOff;
      ver = imageRow(texVer, yOff + y) + xOff;
    }
    for (int x = 0; x < colour->width; ++x) {
      const unsigned char code = lab[x];
      bool object;
      if (code == LABEL_BG || code == LABEL_PR_BG) {
        object = false;
      } else if (code == LABEL_FG || code == LABEL_PR_FG) {
        object = true;
      } else {
        continue;
      }
      const unsigned char* p = src + x * step;
      pixelVal s;
      s.val[0] = p[0];
      if (grey) {
        s.val[1] = hor[x];
        s.val[2] = ver[x];
      } else {
        s.val[1] = p[1];
        s.val[2] = p[2];
      }
      visit(s, object, static_cast<long>(y) * colour->width + x);
    }
  }
}

bool sameModel(const VELDSEColorModel& a, const VELDSEColorModel& b) {
  return std::memcmp(&a, &b, sizeof(VELDSEColorModel)) == 0;
}

}  // namespace

void extractTrainingData(const IplImage* colour, const IplImage* label,
                         std::vector<pixelVal>& objectSet,
                         std::vector<pixelVal>& backgroundSet) {
  objectSet.clear();
  backgroundSet.clear();
  if (label != nullptr) {
    forTrainingPixels(colour, label, [&](const pixelVal& s, bool object, long) {
      (object ? objectSet : backgroundSet).push_back(s);
    });
  }
  padWithFiller(objectSet);
  padWithFiller(backgroundSet);
}

void extractTrainingData(const IplImage* colour, const IplImage* label,
                         std::vector<pixelVal>& objectSet,
                         std::vector<pixelVal>& backgroundSet,
                         const RecordedClusters& recorded,
                         const VELDSEColorModel& objectModel,
                         const VELDSEColorModel& backgroundModel,
                         std::vector<signed char>& objectKnown,
                         std::vector<signed char>& backgroundKnown) {
  objectSet.clear();
  backgroundSet.clear();
  objectKnown.clear();
  backgroundKnown.clear();
  const long boxPixels = static_cast<long>(colour->width) * colour->height;
  const bool usable = label != nullptr && static_cast<long>(recorded.perPixel.size()) == boxPixels;
  const unsigned char* const clusters = usable ? recorded.perPixel.data() : nullptr;
  // Which half of a pixel's byte still holds: 0x0F the object model's,
  // 0xF0 the background model's, 0 neither.
  const unsigned objectHalf = usable && sameModel(objectModel, recorded.objectModel) ? 0x0Fu : 0u;
  const unsigned backgroundHalf = usable && sameModel(backgroundModel, recorded.backgroundModel) ? 0xF0u : 0u;
  if (label != nullptr) {
    forTrainingPixels(colour, label, [&](const pixelVal& s, bool object, long index) {
      signed char known = -1;
      if (clusters != nullptr && clusters[index] != RecordedClusters::kNone) {
        const unsigned byte = clusters[index];
        if (object && objectHalf != 0) known = static_cast<signed char>(byte & objectHalf);
        if (!object && backgroundHalf != 0) known = static_cast<signed char>((byte & backgroundHalf) >> 4);
      }
      (object ? objectSet : backgroundSet).push_back(s);
      (object ? objectKnown : backgroundKnown).push_back(known);
    });
  }
  padWithFiller(objectSet);
  padWithFiller(backgroundSet);
  objectKnown.resize(objectSet.size(), -1);
  backgroundKnown.resize(backgroundSet.size(), -1);
}

namespace {

// The component of every sample under `model`, as a vector, by way of the
// one block of the tracked allocator updateModel keeps its labels in (no
// labels, no update: the request fails rather than the model being refitted
// from nothing). Up to five exp per sample and each sample on its own: in
// slices side by side on a large set. Samples of an 8-bit image repeat: a
// sample whose three values are whole numbers 0 .. 255 has its component
// remembered by those bytes. A component already known for a sample (see
// RecordedClusters) is taken as it is: it is what assignCluster gives under
// this very model. Only the others are work worth threads and memo room.
std::vector<int> assignSamples(const std::vector<pixelVal>& samples, const VELDSEColorModel& model,
                               const std::vector<signed char>& known) {
  const int n = static_cast<int>(samples.size());
  owned::Tracked<int> labelOwner(static_cast<int*>(
      VELD_Malloc_Msg(static_cast<unsigned int>(n * sizeof(int)), "updateModel", 725)));
  if (n > 0) needMemory(labelOwner.get());
  int* const labelBlock = labelOwner.get();
  const signed char* const knownAt = known.size() == samples.size() ? known.data() : nullptr;
  const auto unknownIn = [knownAt](int begin, int end) {
    if (knownAt == nullptr) return end - begin;
    int count = 0;
    for (int i = begin; i < end; ++i) count += knownAt[i] < 0;
    return count;
  };
  slices::forSlicesFrom(n, unknownIn(0, n), slices::parallelItems(), [&](int begin, int end) {
    VELDSEColorModel local = model;
    ColourMemo<int> memo(unknownIn(begin, end));
    for (int i = begin; i < end; ++i) {
      if (knownAt != nullptr && knownAt[i] >= 0) {
        labelBlock[i] = knownAt[i];
        continue;
      }
      const double* v = samples[i].val;
      uint32_t key = 0;
      bool byte = true;
      for (int c = 0; c < 3; ++c) {
        if (!(v[c] >= 0.0 && v[c] <= 255.0) || v[c] != static_cast<double>(static_cast<int>(v[c]))) {
          byte = false;
          break;
        }
        key |= static_cast<uint32_t>(v[c]) << (8 * c);
      }
      labelBlock[i] = byte ? memo.get(key, [&] { return local.assignCluster(samples[i]); })
                           : local.assignCluster(samples[i]);
    }
  });
  std::vector<int> labels(labelBlock, labelBlock + n);
  VELD_Free_Msg(labelOwner.release(), "updateModel", 741);
  return labels;
}

// The refit from the samples' components: the sums keep the sample order; a
// component that attracted no sample keeps its previous parameters.
void refit(std::vector<int> labels, const std::vector<pixelVal>& samples, VELDSEColorModel& model) {
  const ClusterInfo info(std::move(labels), samples);
  setComponentsFromClusters(info, static_cast<int>(samples.size()), model);
  model.setDeterminant();
}

}  // namespace

void updateModel(const std::vector<pixelVal>& samples, VELDSEColorModel& model) {
  updateModel(samples, model, std::vector<signed char>());
}

void updateModel(const std::vector<pixelVal>& samples, VELDSEColorModel& model,
                 const std::vector<signed char>& known) {
  refit(assignSamples(samples, model, known), samples, model);
}

void updateModel(const std::vector<pixelVal>& objectSet,
                 const std::vector<pixelVal>& backgroundSet,
                 VELDSEColorModel& objectModel, VELDSEColorModel& backgroundModel) {
  updateModel(objectSet, objectModel);
  updateModel(backgroundSet, backgroundModel);
}

void updateModels(const std::vector<pixelVal>& objectSet, const std::vector<pixelVal>& backgroundSet,
                  VELDSEColorModel& objectModel, VELDSEColorModel& backgroundModel,
                  const std::vector<signed char>& objectKnown, const std::vector<signed char>& backgroundKnown) {
  std::vector<int> objectLabels = assignSamples(objectSet, objectModel, objectKnown);
  std::vector<int> backgroundLabels = assignSamples(backgroundSet, backgroundModel, backgroundKnown);
  // The two refits share nothing: the object's on a thread of its own (or
  // first, here, when none can be had), the background's here.
  auto objectRefit = [&] { refit(std::move(objectLabels), objectSet, objectModel); };
  threads::Thread worker;
  threads::startOrRun(worker, objectRefit);
  std::exception_ptr failure;
  try {
    refit(std::move(backgroundLabels), backgroundSet, backgroundModel);
  } catch (...) {
    failure = std::current_exception();
  }
  worker.join();
  worker.rethrow();
  if (failure) std::rethrow_exception(failure);
}
