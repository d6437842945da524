// IApartmentCallback: what the host implements to hear about its apartment.
//
// The library keeps its own reference on an installed callback. All three
// operations run on library threads (the thread that dispatches the
// apartment's messages, or for raw frames the real-time communication
// thread or the writer's thread), never under a lock the host could need.
#ifndef APARTMENT_IAPARTMENTCALLBACK_H
#define APARTMENT_IAPARTMENTCALLBACK_H

#include "GroundKit/Base/IBase.h"

class IApartmentCallback : public IBase {
public:
    // An apartment-level timer (one set without a node) expired.
    virtual void onTimer(unsigned int uintTimerId) = 0;
    // A remote apartment watched by the heartbeat stopped answering;
    // repeated on every later heartbeat period until it answers again.
    virtual void onApartmentOffline(const char* strRemoteApartmentUrl) = 0;
    // A raw frame arrived on a real-time link, or was written to this
    // apartment's own URL. The buffer is valid only during the call.
    virtual void onRawFrameReceived(unsigned int uintFrameType, const void* pBuffer,
                                    unsigned int uintBufLen) = 0;

    static const char* interfaceName() { return "IApartmentCallback"; }

protected:
    ~IApartmentCallback() = default;
};

#endif
