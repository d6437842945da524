// CApartmentNode: a named endpoint inside an apartment.
//
// Ownership: the apartment's node map holds one reference, each lookup
// another, and each pending timer of the node one more (through the timer
// manager). The node points back at its apartment without a reference: the
// apartment outlives the map entry.
//
// Threads: requests, timer firings and offline notices arrive on the
// apartment's dispatching thread; responses are stored there too. Any host
// thread may wait for a response (getResponse) and set or kill timers.
#ifndef APARTMENT_APARTMENTNODE_H
#define APARTMENT_APARTMENTNODE_H

#include <map>
#include <set>

#include "ApartmentNodeResponseData.h"
#include "GroundKit/Base/Stub.h"
#include "GroundKit/OS/OS_Condition.h"
#include "GroundKit/OS/OS_Mutex.h"
#include "GroundKit/Reference/Reference.h"
#include "IApartment.h"
#include "IApartmentNode.h"

class IApartmentNodeStub : public TRootStub<IApartmentNode> {};

class CApartmentNode : public IApartmentNodeStub {
public:
    explicit CApartmentNode(IApartment* pApartment);
    // Kills the node's remaining timers first.
    virtual ~CApartmentNode();

    void notifyApartmentOffline(const char* strSourceApartmentUrl) override;
    void onApartmentTimer(unsigned int uintTimerId) override;
    bool setCallback(IApartmentNodeCallback* pCallback) override;
    void receiveRequest(const char* strSourceApartmentUrl, const char* strSourceNodeUrl,
                        const char* strTargetApartmentUrl, const char* strTargetNodeUrl,
                        unsigned int uintRequestId, const void* pRequestBuffer,
                        unsigned int uintBufLen, bool bRequireResponse) override;
    bool addResponse(unsigned int uintRequestId, int intResponseCode, const void* pResponseBuffer,
                     unsigned int uintBufLen) override;
    // Blocks up to intTimeout ms (negative: no limit). When dispatching is
    // locked to another thread it waits for that thread to store the
    // response; otherwise it pumps the apartment's queue itself, so requests,
    // timers and other traffic are dispatched meanwhile on this thread.
    bool getResponse(unsigned int uintRequestId, int& intResponseCode, void* pResponseBuffer,
                     unsigned int& uintBufLen, int intTimeout) override;
    bool removeResponse(unsigned int uintRequestId) override;
    unsigned int setTimer(unsigned int uintLagTime, unsigned int uintInterval) override;
    unsigned int setSingleTimer(unsigned int uintLagTime) override;
    bool killTimer(unsigned int uintTimerId) override;
    void killAllTimer();

private:
    CReference<IApartmentNodeCallback> callback();
    CReference<IApartmentNodeResponseData> findResponse(unsigned int uintRequestId);

    // Guards m_apartmentNodeCallback: setCallback may run on any host thread
    // while the dispatching thread calls out. Never held during a callback.
    OS::TBaseMutex m_CallbackMutex;
    CReference<IApartmentNodeCallback> m_apartmentNodeCallback;
    // Guards m_responseDataMap; m_QueueNotEmptyCondition wakes every reader
    // waiting on it when a response is stored.
    OS::TBaseMutex m_DataMutex;
    OS::TCondition m_QueueNotEmptyCondition;
    std::map<unsigned int, CReference<IApartmentNodeResponseData>> m_responseDataMap;
    // Guards m_timerIdSet (host threads set and kill timers while the
    // dispatching thread forgets finished ones).
    OS::TBaseMutex m_TimerIdMutex;
    std::set<unsigned int> m_timerIdSet;
    IApartment* m_pApartment;
};

#endif
