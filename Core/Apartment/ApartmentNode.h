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
//
// Answers nobody waits for are not kept. The node knows the request ids it
// wrote (expectResponse) and, of the answers that arrive from a link
// (acceptResponse), keeps only those: an answer to an id it never wrote,
// or whose answer it already stored or handed out, is dropped at once. A
// request is given up when a read of it with a time-out above 0 ends
// without its answer and no other read of it is under way; its answer is
// then kept only if it arrives, or a new read of it starts, within
// GIVE_UP_GRACE_MS (so that a read made of several shorter waits loses
// nothing between them), and for no longer than that unless read. Reads
// with time-out 0 (polls) and reads without limit never give up. Every
// answer kept is no longer handed out once it has waited uncollected for
// the unread limit (APARTMENT_UNREAD_RESPONSE_MS, read by the apartment),
// and is dropped, with one diagnostic line per batch, when the node next
// looks its entries over (a quarter of the limit later at most, and at
// most a second). A request that is never answered is forgotten after the
// same limit when nobody reads it. addResponse is the plain store
// underneath, for any id.
#ifndef APARTMENT_APARTMENTNODE_H
#define APARTMENT_APARTMENTNODE_H

#include <set>
#include <unordered_map>
#include <vector>

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
    // How long an answer to a given-up request is still taken (see above).
    static const unsigned int GIVE_UP_GRACE_MS = 250;
    static const unsigned int DEFAULT_UNREAD_RESPONSE_MS = 60000;
    // What became of an answer that arrived from a link.
    enum ANSWER {
        ANSWER_STORED,     // kept until read, removed or expired
        ANSWER_DUPLICATE,  // its answer is stored already: the first one stays
        ANSWER_UNEXPECTED  // no request of the node waits for it: dropped
    };

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
    // getResponse, and with a buffer the answer read into it is removed as
    // removeResponse would, in the look-up that finds it where it can.
    bool takeResponse(unsigned int uintRequestId, int& intResponseCode, void* pResponseBuffer,
                      unsigned int& uintBufLen, int intTimeout);
    // Any thread, before the request leaves (its answer may come back at
    // once); forgetResponse when it could not be sent.
    void expectResponse(unsigned int uintRequestId);
    void forgetResponse(unsigned int uintRequestId);
    // Dispatching thread: an answer from a link, kept only when awaited.
    ANSWER acceptResponse(unsigned int uintRequestId, int intResponseCode,
                          const void* pResponseBuffer, unsigned int uintBufLen);
    // Set by the apartment when it makes the node.
    void setUnreadLimit(unsigned int uintMs) { m_uintUnreadLimitMs = uintMs; }
    unsigned int setTimer(unsigned int uintLagTime, unsigned int uintInterval) override;
    unsigned int setSingleTimer(unsigned int uintLagTime) override;
    bool killTimer(unsigned int uintTimerId) override;
    void killAllTimer();
    // Entries held for requests and answers, all kinds together (tests).
    size_t bookkept();

private:
    // What the node holds for one request id: that it awaits the answer
    // (written and not yet answered), the answer once stored, or both (a
    // plain store of an id it awaits). One entry per id, so that a round
    // trip costs one entry made and one removed.
    struct _REQUEST {
        long long m_llSince = 0;      // awaited: when written, or given up (ns, monotonic)
        long long m_llExpiresAt = 0;  // answered from a link: dropped then unless read; 0: never
        CReference<IApartmentNodeResponseData> m_Answer;  // nil until answered
        unsigned int m_uintReaders = 0;  // reads of it under way
        bool m_bAwaited = false;
        bool m_bGivenUp = false;
        bool m_bQuiet = false;  // its answer goes without a line (the request was given up)
    };

    CReference<IApartmentNodeCallback> callback();
    // The answer, nil while none (or past its time). With pTakeInto, an
    // answer of at most uintRoom bytes leaves the node in the same look-up,
    // and bTaken is set.
    CReference<IApartmentNodeResponseData> findResponse(unsigned int uintRequestId,
                                                        const void* pTakeInto,
                                                        unsigned int uintRoom, bool& bTaken);
    bool readResponse(unsigned int uintRequestId, int& intResponseCode, void* pResponseBuffer,
                      unsigned int& uintBufLen, int intTimeout, bool bTake);
    bool waitResponse(unsigned int uintRequestId, int& intResponseCode, void* pResponseBuffer,
                      unsigned int& uintBufLen, int intTimeout, bool bTake, bool& bTaken);
    // Now and then (not per call): drops the answers whose time is up and
    // forgets the requests given up or never answered past theirs. An
    // answer past its time is never handed out meanwhile (findResponse
    // looks at it). m_DataMutex held; what goes is moved into `dropped`,
    // to be released after the mutex.
    void sweepLocked(long long llNow, std::vector<CReference<IApartmentNodeResponseData>>& dropped);

    // Guards m_apartmentNodeCallback: setCallback may run on any host thread
    // while the dispatching thread calls out. Never held during a callback.
    OS::TBaseMutex m_CallbackMutex;
    CReference<IApartmentNodeCallback> m_apartmentNodeCallback;
    // Guards m_Requests and m_llNextSweep; m_QueueNotEmptyCondition wakes
    // every reader waiting on it when a response is stored.
    OS::TBaseMutex m_DataMutex;
    OS::TCondition m_QueueNotEmptyCondition;
    std::unordered_map<unsigned int, _REQUEST> m_Requests;
    long long m_llNextSweep = 0;
    unsigned int m_uintUnreadLimitMs = DEFAULT_UNREAD_RESPONSE_MS;
    // Guards m_timerIdSet (host threads set and kill timers while the
    // dispatching thread forgets finished ones).
    OS::TBaseMutex m_TimerIdMutex;
    std::set<unsigned int> m_timerIdSet;
    IApartment* m_pApartment;
};

#endif
