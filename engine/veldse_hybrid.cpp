// Construction of the engine and its per-request memory.
#include "engine/veldse_hybrid.h"

#include "interface/veldse_marker.h"
#include "support/cpu_timer.h"
#include "support/owned.h"
#include "support/veld_memory.h"

VELDSEHybrid::VELDSEHybrid()
    : m_imgWidth(0),
      m_imgHeight(0),
      m_boundHeight(0),
      m_boundWidth(0),
      m_boundWidthTrimap(0),
      m_boundHeightTrimap(0),
      m_cropSrc(nullptr),
      m_cropLabel(nullptr),
      m_cropLabelInit(nullptr),
      m_iterLabel{nullptr, nullptr, nullptr},
      m_lambda(50.0),
      m_beta(0.0),
      m_areaTenth(0),
      m_graph(nullptr),
      m_trimapGraph(nullptr),
      m_nlinks(nullptr) {}

VELDSEHybrid::~VELDSEHybrid() {
  m_graph = nullptr;
  VELD_Free_Msg(m_nlinks, "~VELDSEHybrid", 66);
}

void VELDSEHybrid::clearMemory() {
  for (IplImage*& label : m_iterLabel) releaseImage(label);
  releaseImage(m_cropSrc);
  releaseImage(m_cropLabel);
  releaseImage(m_cropLabelInit);
  if (m_graph != nullptr) {
    delete m_graph;
    m_graph = nullptr;
  }
  destroy_timer(g_cancelTimer);
  g_cancelTimer = nullptr;
}

VELDSEGraph* VELDSEHybrid::graphSpaceAllocator() {
  const int n = m_boundHeight * m_boundWidth;
  m_graph = new VELDSEGraph(n, 8 * n, m_boundWidth, m_boundHeight, 0);
  return m_graph;
}

void VELDSEHybrid::graphSpaceDellocator() {
  delete m_graph;
  m_graph = nullptr;
}
