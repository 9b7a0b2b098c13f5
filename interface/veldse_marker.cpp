#include "interface/veldse_marker.h"

#include "support/owned.h"

IplImage* VELDSEMarker::m_originalImage = nullptr;
int VELDSEMarker::m_originalWidth = 0;
int VELDSEMarker::m_originalHeight = 0;
IplImage* VELDSEMarker::m_srcImage = nullptr;
int VELDSEMarker::m_width = 0;
int VELDSEMarker::m_height = 0;
IplImage* VELDSEMarker::m_labelImage = nullptr;
IplImage* VELDSEMarker::m_prevResult = nullptr;
IplImage* VELDSEMarker::m_texHor = nullptr;
IplImage* VELDSEMarker::m_texVer = nullptr;
strokeInfo VELDSEMarker::currentStroke;
int VELDSEMarker::m_xMinBBox = 0;
int VELDSEMarker::m_xMaxBBox = 0;
int VELDSEMarker::m_yMinBBox = 0;
int VELDSEMarker::m_yMaxBBox = 0;
bool VELDSEMarker::m_isGreyScale = false;
bool VELDSEMarker::m_isHomogenous = false;
std::atomic<bool> VELDSEMarker::m_exitApp{false};
double VELDSEMarker::m_noiseLevel = 0.1;

VELDSEHybrid* pHybrid = nullptr;
float g_imageResizeFactor = 1.0f;
std::atomic<int> g_exitStatus{0};
CvSeq* contours = nullptr;
CvMemStorage* storage = nullptr;
IplImage* g_markerImage = nullptr;
IplImage* g_resultMask = nullptr;
unsigned char g_contoursReady = 0;

void VELDSEMarker::allocator() {}

void VELDSEMarker::dellocator() {
  releaseImage(m_srcImage);
  releaseImage(m_labelImage);
  releaseImage(m_originalImage);
  releaseImage(m_prevResult);
  releaseImage(m_texHor);
  releaseImage(m_texVer);
  currentStroke.points.clear();
}

void VELDSEMarker::initializer() {
  m_noiseLevel = 0.1;
  m_exitApp = false;
  m_labelImage = nullptr;
  m_isHomogenous = false;
}

void VELDSEMarker::resetMarkers() {
  releaseImage(m_labelImage);
  releaseImage(m_prevResult);
  m_noiseLevel = 0.1;
  currentStroke.points.clear();
  m_exitApp = false;
  m_isHomogenous = false;
}
