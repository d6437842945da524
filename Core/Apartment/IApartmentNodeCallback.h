// IApartmentNodeCallback: what the host implements to serve a node.
#ifndef APARTMENT_IAPARTMENTNODECALLBACK_H
#define APARTMENT_IAPARTMENTNODECALLBACK_H

#include "GroundKit/Base/IBase.h"

// Implemented by the host. Called on the thread that dispatches the
// apartment's messages, with no library lock held.
class IApartmentNodeCallback : public IBase {
public:
    // A timer of this node fired.
    virtual void onTimer(unsigned int uintTimerId) = 0;
    // The link to the named remote apartment closed.
    virtual void onApartmentOffline(const char* strApartmentUrl) = 0;
    // A request (bRequireResponse true: answer with the same id) or a
    // notification for this node. The buffer is valid only during the call.
    virtual void onRequestReceived(const char* strSourceApartmentUrl, const char* strSourceNodeUrl,
                                   const char* strTargetApartmentUrl, const char* strTargetNodeUrl,
                                   unsigned int uintRequestId, const void* pRequestBuffer,
                                   unsigned int uintBufLen, bool bRequireResponse) = 0;

    static const char* interfaceName() { return "IApartmentNodeCallback"; }

protected:
    ~IApartmentNodeCallback() = default;
};

#endif
