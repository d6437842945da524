// IApartmentNode: a named endpoint inside an apartment.
//
// A node forwards requests, timer expiries and offline notices to its
// callback, stores the responses to the requests it sent and lets a caller
// wait for one, and keeps the ids of the timers it started. The apartment's
// node map holds one reference; every lookup hands out another.
#ifndef APARTMENT_IAPARTMENTNODE_H
#define APARTMENT_IAPARTMENTNODE_H

#include "GroundKit/Base/IBase.h"
#include "IApartmentNodeCallback.h"

class IApartmentNode : public IBase {
public:
    // Tells the callback (if any) that a remote apartment went away.
    virtual void notifyApartmentOffline(const char* strSourceApartmentUrl) = 0;
    // A firing of one of this node's timers is being dispatched: tells the
    // callback, then re-arms a periodic timer or forgets a finished one.
    virtual void onApartmentTimer(unsigned int uintTimerId) = 0;
    // Installs (null: removes) the host's callback; the node keeps its own
    // reference. Always true.
    virtual bool setCallback(IApartmentNodeCallback* pCallback) = 0;
    // Hands a request to the callback; dropped when none is installed.
    virtual void receiveRequest(const char* strSourceApartmentUrl, const char* strSourceNodeUrl,
                                const char* strTargetApartmentUrl, const char* strTargetNodeUrl,
                                unsigned int uintRequestId, const void* pRequestBuffer,
                                unsigned int uintBufLen, bool bRequireResponse) = 0;
    // Stores a response; false when one is already stored under the id.
    virtual bool addResponse(unsigned int uintRequestId, int intResponseCode,
                             const void* pResponseBuffer, unsigned int uintBufLen) = 0;
    // Waits up to intTimeout milliseconds (negative: no limit) for the
    // response to a request. False on time-out, on a buffer that is too
    // small, or when pumping the apartment fails; outputs then untouched.
    virtual bool getResponse(unsigned int uintRequestId, int& intResponseCode,
                             void* pResponseBuffer, unsigned int& uintBufLen, int intTimeout) = 0;
    // False when nothing is stored under the id.
    virtual bool removeResponse(unsigned int uintRequestId) = 0;
    // Timer id, or 4294967295 when no timer could be set.
    virtual unsigned int setTimer(unsigned int uintLagTime, unsigned int uintInterval) = 0;
    virtual unsigned int setSingleTimer(unsigned int uintLagTime) = 0;
    // False when the id is unknown.
    virtual bool killTimer(unsigned int uintTimerId) = 0;

    static const char* interfaceName() { return "IApartmentNode"; }

protected:
    ~IApartmentNode() = default;
};

#endif
