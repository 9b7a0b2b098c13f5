// The cuts of the working box, in parts that can run side by side.
//
// Internal to engine/ (and its tests). A cut over the working box is: terminal
// weights from the label codes and the two colour models, neighbour links
// from the contrast weights scaled by a smoothness weight, the serial
// max-flow, the cut written back into label codes. The per-pixel parts run in
// row slices (support/slices.h) on up to four threads; the three trial cuts,
// which start from the same labels with the same models, share one
// computation of their terminal weights and are solved side by side, each on
// a graph of its own by the serial solver. Every float operation is the one
// the one-at-a-time order makes, in the same order, so labels, models and
// graphs are bit for bit those of cutting once after the other.
#ifndef SEGCORE_ENGINE_WORKING_CUTS_H
#define SEGCORE_ENGINE_WORKING_CUTS_H

#include <opencv2/core/core_c.h>

#include <cstdint>
#include <vector>

#include "colormodel/training.h"
#include "engine/veldse_hybrid.h"
#include "graph/veldse_graph.h"

namespace workingcuts {

// The distinct three-byte triples of the working box (colour, or grey and the
// two texture values: what the terminal weights are a function of), listed
// once per request so that each cut works each one out once.
struct BoxPalette {
  std::vector<int> entryOf;     // per box pixel, row by row: its triple's entry; -1 if coded 1 or 2
  std::vector<uint32_t> keys;   // the triples, v0 | v1 << 8 | v2 << 16, in order of first sight
};

// Lists the box's triples from h.m_cropSrc (and the texture images of grey
// photos), leaving out pixels `label` codes 1 or 2 (their weights are fixed).
// Leaves the palette empty when memory runs out. One hash probe per pixel;
// four bytes per pixel and four per entry.
void makeBoxPalette(const VELDSEHybrid& h, const IplImage* label, BoxPalette* palette);

// Terminal weights of the box for the codes in `label` (box size): pairs[2
// node] is the weight to the object side and pairs[2 node + 1] the one to the
// background side, exactly what the graph's addtWeights receives; recorded in
// `record` (when given) for the refit that follows the cut. Reads h.m_cropSrc,
// the texture images of grey photos and copies of both models. With a palette
// made for the box, each entry is worked out once (two mixture densities, up
// to ten exp), in equal shares side by side, and the pixels take theirs; else
// on the calling thread, each distinct triple worked out once. The weights
// are the same either way.
void terminalWeights(const VELDSEHybrid& h, const IplImage* label, float* pairs,
                     RecordedClusters* record = nullptr, const BoxPalette* palette = nullptr);

// The graph of one cut over the box into h.m_graph, from h.m_cropLabel, the
// models and h.m_lambda: what constructGraphVELD_Whole_Image() does, which
// calls it without a record. With `record`, the pixels' components under the
// two models are kept there for the refit that follows the cut (left
// unrecorded when its room cannot be had). Terminal weights as
// terminalWeights works them out (by `palette` when given), with the
// neighbour links in the same shares; the terminal links are added one node
// after the other. O(box + entries x components).
void wholeBoxGraph(VELDSEHybrid& h, RecordedClusters* record, const BoxPalette* palette);

// Neighbour-link capacities of box rows [r0, r1) with smoothness weight
// `lambda`, written where four addEdge calls per node (left, up-left, up,
// up-right; placeholders -2.0 at the box border) would put them: floats
// 8 node .. 8 node + 7 of `caps`. Reads h.m_nlinks. O(rows x width).
void neighbourLinkRows(const VELDSEHybrid& h, double lambda, float* caps, int r0, int r1);

// Fills `g` (created for the box) with the box's nodes, the terminal weights
// `pairs` (added one node after the other, so the graph's flow field sums as
// in the one-at-a-time build) and the neighbour links for `lambda`, on the
// calling thread. Equal, float for float, to reset, addNode, one addtWeights
// and four addEdge per node. O(box).
void fillGraph(const VELDSEHybrid& h, VELDSEGraph* g, const float* pairs, double lambda);

// Writes the cut of `g` into the label codes of `label` (box size): a node on
// the background side turns 0 and codes above 2 into 3; any other node turns
// codes other than 1 and 2 into 4. Returns the count of object-side pixels
// whose code was not 1 or 2. O(box).
int writeCut(VELDSEGraph* g, IplImage* label);

// The three trial cuts of a request whose models were fitted for the first
// one (h.m_cropLabelInit the initial labels, h.m_cropLabel a copy of them,
// h.m_graph the request's graph): leaves the labels of trial k in
// h.m_iterLabel[k], the labels and the weight of the last trial in
// h.m_cropLabel and h.m_lambda, as the one-at-a-time order does. One graph
// per slice of trials (h.m_graph and up to two more, freed before the
// return); when the extra memory cannot be had the trials run one after the
// other on h.m_graph. A cancel or time-out stops every trial's solver; the
// caller tests the flag afterwards as after any cut. Throws std::bad_alloc /
// cv::Exception when memory the trials cannot do without runs out; whatever
// it made is then released or left to the request's clean-up. The shared
// terminal weights' components go to `record` (when given), as in
// wholeBoxGraph, which `palette` (when given) serves as there.
void trialCuts(VELDSEHybrid& h, RecordedClusters* record = nullptr, const BoxPalette* palette = nullptr);

// Test seam: called (when set) with the trial's index right before each
// trial's solver starts, on the thread that runs it.
extern void (*g_trialStarts)(int trial);

}  // namespace workingcuts

#endif
