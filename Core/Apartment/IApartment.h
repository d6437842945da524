// IApartment: one addressable execution context of the messaging system.
//
// An apartment owns a message queue, named nodes, timers and links to other
// apartments. Host threads call it through the C functions; one thread pumps
// its queue (getMessage / dispatchMessage) and runs the handlers. Every
// operation that returns text into a caller's buffer follows the size
// protocol: a null buffer asks for the size (length + 1) in the DWORD; a
// buffer at least that large receives the text; a smaller one is refused.
#ifndef APARTMENT_IAPARTMENT_H
#define APARTMENT_IAPARTMENT_H

#include "ApartmentMsg.h"
#include "GroundKit/Base/BaseType.h"
#include "GroundKit/Base/IBase.h"
#include "GroundKit/OS/OSType.h"
#include "IApartmentCallback.h"
#include "IApartmentNode.h"

enum APARTMENT_TYPE {
    INVALID_APARTMENT = 0,
    TCP_APARTMENT = 1
};

class IApartment : public IBase {
public:
    // Lifecycle and identity.
    virtual bool initApartment(const char* strApartmentUrl, bool bListen) = 0;
    virtual void destroyApartment() = 0;
    virtual APARTMENT_TYPE apartmentType() const = 0;
    // const so that a helper holding a const apartment can read the URL.
    virtual bool getApartmentUrl(char* strApartmentUrl, DWORD& dwLen) const = 0;

    // Nodes. findApartmentNode adds a reference that the caller owns.
    virtual bool createApartmentNode(const char* strNodeUrl) = 0;
    virtual IApartmentNode* findApartmentNode(const char* strNodeUrl) = 0;
    virtual bool destroyApartmentNode(const char* strNodeUrl) = 0;
    // Installs (null: removes) the host's callback; always true.
    virtual bool setCallback(IApartmentCallback* pCallback) = 0;

    // Connections to remote apartments.
    virtual bool connectApartment(const char* strRemoteApartmentUrl, bool bRtConnection) = 0;
    virtual bool hasConnection(const char* strRemoteApartmentUrl, bool bRtConnection) = 0;
    virtual bool disconnectApartment(const char* strRemoteApartmentUrl, bool bRtConnection) = 0;
    virtual bool localApartmentUrl(const char* strRemoteApartmentUrl, bool bRtConnection,
                                   char* strLocalApartmentUrl, DWORD& dwLen) = 0;

    // Message loop. The deadline is absolute on the monotonic clock, or
    // {-1, -1} for no limit.
    virtual bool getMessage(APARTMENT_TMSG& msg, timespec deadline) = 0;
    virtual int dispatchMessage(const APARTMENT_TMSG& msg) = 0;
    virtual bool stopDispatchMessage() = 0;
    virtual bool lockedDispatchThreadId(unsigned long& ulThreadId) = 0;
    virtual bool lockDispatchThread() = 0;
    virtual bool unlockDispatchThread() = 0;

    // Frames.
    virtual bool writeRequestFrame(const char* strApartmentNodeUrl, const char* strRemoteApartmentUrl,
                                   const char* strRemoteApartmentNodeUrl, void* pRequestBuffer,
                                   unsigned int uintBufLen, bool bRtConnection,
                                   unsigned int& uintRequestId, bool bRequireResponse) = 0;
    virtual bool writeResponseFrame(const char* strApartmentNodeUrl, const char* strRemoteApartmentUrl,
                                    const char* strRemoteApartmentNodeUrl, unsigned int uintRequestId,
                                    int intResponseCode, void* pResponseBuffer,
                                    unsigned int uintBufLen, bool bRtConnection) = 0;
    virtual bool writeRawFrame(const char* strRemoteApartmentUrl, unsigned int uintFrameType,
                               const void* pRawBuffer, unsigned int uintBufLen,
                               bool bRtConnection) = 0;

    virtual bool allowReentry(bool bAllowReentry) = 0;

    // Timers and heartbeat. Timer ids are 4294967295 on failure.
    virtual unsigned int setTimer(const char* strNodeUrl, unsigned int uintLagTime,
                                  unsigned int uintInterval) = 0;
    virtual unsigned int setSingleTimer(const char* strNodeUrl, unsigned int uintLagTime) = 0;
    virtual bool killTimer(const char* strNodeUrl, unsigned int uintTimerId) = 0;
    virtual bool keepAliveWith(const char* strRemoteApartmentUrl, unsigned int uintAliveCounter,
                               unsigned int uintPeriod) = 0;

    static const char* interfaceName() { return "IApartment"; }

protected:
    ~IApartment() = default;
};

#endif
