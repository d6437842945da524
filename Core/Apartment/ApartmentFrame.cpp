#include "ApartmentFrame.h"

#include <cstring>
#include <new>

CApartmentFrame::CApartmentFrame(unsigned int uintFrameType, unsigned int uintFrameSize)
    : m_uintFrameType(uintFrameType),
      m_uintFrameSize(uintFrameSize),
      m_pFrameBuffer(uintFrameSize != 0 ? new char[uintFrameSize] : nullptr),
      m_bOwnsBuffer(true) {}

CApartmentFrame::CApartmentFrame(unsigned int uintFrameType, unsigned int uintFrameSize,
                                 char* pFrameBuffer)
    : m_uintFrameType(uintFrameType),
      m_uintFrameSize(uintFrameSize),
      m_pFrameBuffer(pFrameBuffer),
      m_bOwnsBuffer(true) {}

CApartmentFrame::CApartmentFrame(unsigned int uintFrameType, unsigned int uintFrameSize,
                                 InlinePayload)
    : m_uintFrameType(uintFrameType),
      m_uintFrameSize(uintFrameSize),
      m_pFrameBuffer(uintFrameSize != 0 ? reinterpret_cast<char*>(this + 1) : nullptr),
      m_bOwnsBuffer(false) {}

CApartmentFrame::~CApartmentFrame() {
    if (m_bOwnsBuffer) delete[] m_pFrameBuffer;
}

CApartmentFrame* CApartmentFrame::createCopy(unsigned int uintFrameType,
                                             unsigned int uintFrameSize, const char* pPayload) {
    void* memory = ::operator new(sizeof(CApartmentFrame) + uintFrameSize, std::nothrow);
    if (memory == nullptr) return nullptr;
    CApartmentFrame* frame = new (memory) CApartmentFrame(uintFrameType, uintFrameSize, InlinePayload());
    if (uintFrameSize != 0) std::memcpy(frame->m_pFrameBuffer, pPayload, uintFrameSize);
    return frame;
}
