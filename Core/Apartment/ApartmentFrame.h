// CApartmentFrame: a received frame's type and payload. The receiver creates
// it with one reference, fills the buffer and posts it; the message carries
// that reference to the dispatcher, whose release destroys the frame.
#ifndef APARTMENT_APARTMENTFRAME_H
#define APARTMENT_APARTMENTFRAME_H

#include <memory>

#include "GroundKit/Base/Stub.h"
#include "IApartmentFrame.h"
#include "QueueBudget.h"

class IApartmentFrameStub : public TRootStub<IApartmentFrame> {};

class CApartmentFrame : public IApartmentFrameStub {
public:
    // Allocates exactly uintFrameSize bytes (none for 0) for the receiver to
    // fill; throws std::bad_alloc when it cannot.
    CApartmentFrame(unsigned int uintFrameType, unsigned int uintFrameSize);
    // Takes pFrameBuffer (uintFrameSize bytes from new[], or null for 0) as
    // the payload, already filled: a large payload read straight into its
    // own buffer is not copied again.
    CApartmentFrame(unsigned int uintFrameType, unsigned int uintFrameSize, char* pFrameBuffer);
    virtual ~CApartmentFrame();

    // A frame holding a copy of the uintFrameSize bytes at pPayload, in one
    // allocation with the object (what a small frame costs per arrival);
    // null when there is no memory. Count 1, as from new. The copy is placed
    // so that its byte uintAlignedAt (a request's or response's data, say)
    // sits on a max_align_t boundary, where a host may read it in place.
    static CApartmentFrame* createCopy(unsigned int uintFrameType, unsigned int uintFrameSize,
                                       const char* pPayload, unsigned int uintAlignedAt = 0);
    // Frames are deleted by their last releaseRef; createCopy's frames
    // share their allocation with the payload.
    static void operator delete(void* pFrame) { ::operator delete(pFrame); }

    // Counts the frame against its link's backlog until it goes (see
    // CQueueBudget). Once, by the receiver, before the frame is posted.
    void charge(std::shared_ptr<CLinkBacklog> backlog);

    unsigned int getFrameType() override { return m_uintFrameType; }
    unsigned int getFrameSize() override { return m_uintFrameSize; }
    char* getFrameBuffer() override { return m_pFrameBuffer; }

private:
    struct InlinePayload {};
    CApartmentFrame(unsigned int uintFrameType, unsigned int uintFrameSize, InlinePayload,
                    char* pPayload);

    unsigned int m_uintFrameType;
    unsigned int m_uintFrameSize;
    char* m_pFrameBuffer;
    bool m_bOwnsBuffer;  // false when the payload sits in the object's own allocation
    std::shared_ptr<CLinkBacklog> m_pBacklog;  // charged with the frame, when set
};

#endif
