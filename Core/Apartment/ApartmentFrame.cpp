#include "ApartmentFrame.h"

#include <cstddef>
#include <cstdint>
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
                                 InlinePayload, char* pPayload)
    : m_uintFrameType(uintFrameType),
      m_uintFrameSize(uintFrameSize),
      m_pFrameBuffer(uintFrameSize != 0 ? pPayload : nullptr),
      m_bOwnsBuffer(false) {}

CApartmentFrame::~CApartmentFrame() {
    if (m_bOwnsBuffer) delete[] m_pFrameBuffer;
    if (m_pBacklog) m_pBacklog->discharge(m_uintFrameSize + CQueueBudget::MESSAGE_OVERHEAD);
}

void CApartmentFrame::charge(std::shared_ptr<CLinkBacklog> backlog) {
    m_pBacklog = std::move(backlog);
    if (m_pBacklog) m_pBacklog->charge(m_uintFrameSize + CQueueBudget::MESSAGE_OVERHEAD);
}

CApartmentFrame* CApartmentFrame::createCopy(unsigned int uintFrameType,
                                             unsigned int uintFrameSize, const char* pPayload,
                                             unsigned int uintAlignedAt) {
    const size_t alignment = alignof(std::max_align_t);
    void* memory =
        ::operator new(sizeof(CApartmentFrame) + alignment + uintFrameSize, std::nothrow);
    if (memory == nullptr) return nullptr;
    const uintptr_t end = reinterpret_cast<uintptr_t>(memory) + sizeof(CApartmentFrame);
    const uintptr_t target = end + uintAlignedAt;
    const uintptr_t payload = (target + alignment - 1) / alignment * alignment - uintAlignedAt;
    CApartmentFrame* frame = new (memory) CApartmentFrame(
        uintFrameType, uintFrameSize, InlinePayload(), reinterpret_cast<char*>(payload));
    if (uintFrameSize != 0) std::memcpy(frame->m_pFrameBuffer, pPayload, uintFrameSize);
    return frame;
}
