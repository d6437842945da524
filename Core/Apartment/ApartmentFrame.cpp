#include "ApartmentFrame.h"

CApartmentFrame::CApartmentFrame(unsigned int uintFrameType, unsigned int uintFrameSize)
    : m_uintFrameType(uintFrameType),
      m_uintFrameSize(uintFrameSize),
      m_pFrameBuffer(uintFrameSize != 0 ? new char[uintFrameSize] : nullptr) {}

CApartmentFrame::~CApartmentFrame() { delete[] m_pFrameBuffer; }
