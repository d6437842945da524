#include "ApartmentFrame.h"

CApartmentFrame::CApartmentFrame(unsigned int uintFrameType, unsigned int uintFrameSize)
    : m_uintFrameType(uintFrameType),
      m_uintFrameSize(uintFrameSize),
      m_pFrameBuffer(uintFrameSize != 0 ? new char[uintFrameSize] : nullptr) {}

CApartmentFrame::CApartmentFrame(unsigned int uintFrameType, unsigned int uintFrameSize,
                                 char* pFrameBuffer)
    : m_uintFrameType(uintFrameType), m_uintFrameSize(uintFrameSize), m_pFrameBuffer(pFrameBuffer) {}

CApartmentFrame::~CApartmentFrame() { delete[] m_pFrameBuffer; }
