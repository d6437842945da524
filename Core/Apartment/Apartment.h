// CApartment: the transport-independent part of an apartment.
//
// An apartment owns a message queue, named nodes, timers and links to other
// apartments. It is single-threaded from the host's point of view: every
// event (a connection added or closed, a frame, a timer) becomes a message
// in m_ApartmentMsgQueue, and the host pumps that queue on a thread of its
// choosing with getMessage/dispatchMessage; handlers and host callbacks run
// there. The exceptions: raw frames on real-time links reach the callback on
// the real-time communication thread, and a raw frame written to the
// apartment's own URL reaches it on the writer's thread.
//
// Threads of an apartment: the listen thread (when it listens), two
// communication threads, real-time and non-real-time, and the reply opener,
// each a loop of passes of at most 100 ms, started on first use and
// stopped by destroyApartment. The listen thread accepts connections and
// reads each one's connection frame (the dispatching thread only files a
// link whose peer is known); each communication thread waits on all of its
// links at once. The reply opener opens, one at a time, the links that
// answers to unlinked requesters wait for, so that an answer never waits
// for a connect on the dispatching thread.
//
// Locks. These are all the nestings there are; an arrow means that the
// first lock may be held while the second is taken, never the reverse:
//   m_NodeManageMutex (recursive) -> everything else: nodes hear an offline
//       notice under it, and their host callbacks may call back into the
//       library. Node timers are set and killed under it (-> the node's
//       timer-id mutex, the timer manager's map and queue mutexes).
//   m_ConnectionManageMutex -> a sink's send mutex (receiveFrame closes a
//       condemned link under it, which waits for a write under way to end)
//       and -> m_ThreadControlMutex (filing a link or queueing a reply open
//       starts a thread).
//   m_HeartbeatMutex -> m_TimerIdMutex and the timer manager's map and
//       queue mutexes (a heartbeat's timer is set and killed under it).
// m_ConnectionManageMutex and m_HeartbeatMutex are never held together.
// Leaves, under which nothing else is taken: m_CallbackMutex,
// m_TimerIdMutex, m_ThreadControlMutex, the message queues' mutexes, a
// sink's send mutex, a node's callback, timer-id and response mutexes.
// Nothing is sent, connected or released under m_ConnectionManageMutex (a
// release may close a sink); a thread waiting for another's open of the
// same link waits on m_LinkOpenCondition, which releases it. Apart from
// the offline notice, no lock of the apartment is held while a host
// callback runs.
//
// A subclass supplies the transport: createSink, the URL/address
// conversions and waitFrameOnSinks.
//
// The definitions are split by concern: Apartment.cpp (lifecycle, nodes,
// threads, message loop), ApartmentLinks.cpp (opening, filing and
// dropping links; the reply opener), ApartmentFrames.cpp (writing frames
// and handling those that arrive), ApartmentTimers.cpp (timers and the
// heartbeat).
#ifndef APARTMENT_APARTMENT_H
#define APARTMENT_APARTMENT_H

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "GroundKit/Base/Stub.h"
#include "GroundKit/OS/OS_Condition.h"
#include "GroundKit/OS/OS_Mutex.h"
#include "GroundKit/Reference/Reference.h"
#include "IApartment.h"
#include "IApartmentEx.h"
#include "IApartmentFrame.h"
#include "IApartmentSink.h"
#include "MessageQueue.h"
#include "TlsContext.h"
#include "QueueBudget.h"

class IApartmentStub : public TRootStub<IApartment> {};
class IApartmentExStub : public TExtensionStub<IApartmentStub, IApartmentEx> {
public:
    using TExtensionStub::TExtensionStub;
};

class CApartment : public IApartmentExStub {
public:
    // Keyed by URL or node name; looked up with the caller's const char*
    // as it is (no key string is built per lookup).
    typedef std::map<std::string, CReference<IApartmentSink>, std::less<>> SinkMap;
    typedef std::map<std::string, CReference<IApartmentNode>, std::less<>> NodeMap;

    // The length of a pass of the listen and communication threads, in ms:
    // it bounds how long stopping a thread takes.
    static const DWORD THREAD_PASS_MS = 100;
    // The most URL characters an apartment accepts.
    static const size_t MAX_APARTMENT_URL_LENGTH = 128;
    // The environment variable that sets the maximum frame size.
    static const char* const MAX_FRAME_BYTES_VARIABLE;
    static const char* const MAX_LINKS_VARIABLE;
    static const char* const UNREAD_RESPONSE_MS_VARIABLE;
    static const char* const MAX_QUEUED_BYTES_PER_LINK_VARIABLE;
    static const char* const MAX_QUEUED_BYTES_VARIABLE;
    static const char* const SEND_QUEUE_BYTES_VARIABLE;
    // The most links an apartment holds (filed, and accepted connections
    // whose connection frame is awaited), unless APARTMENT_MAX_LINKS says
    // otherwise: a connection beyond it is closed at once.
    static const unsigned int DEFAULT_MAX_LINKS = 65536;

    CApartment();
    virtual ~CApartment();

    // Lifecycle and identity. initApartment also reads the maximum frame
    // size, the maximum of links and the TLS settings from the environment
    // (see maxFrameSize, maxLinks, tlsContext and sameHost); TLS settings
    // that cannot be used fail it with one line, and so does a same-host
    // name that is taken (as a taken port does).
    bool initApartment(const char* strApartmentUrl, bool bListen) override;
    void destroyApartment() override;
    bool getApartmentUrl(char* strApartmentUrl, DWORD& dwLen) const override;

    // Nodes.
    bool createApartmentNode(const char* strNodeUrl) override;
    IApartmentNode* findApartmentNode(const char* strNodeUrl) override;
    bool destroyApartmentNode(const char* strNodeUrl) override;
    bool setCallback(IApartmentCallback* pCallback) override;

    // Connections. connectApartment runs on the caller's thread; it opens
    // the link and sends the connection frame without waiting for the peer.
    // An existing link answers at once; while the same link (URL and class)
    // is being opened by another thread it waits for that open and returns
    // its outcome; opens of other links do not wait for each other.
    bool connectApartment(const char* strRemoteApartmentUrl, bool bRtConnection) override;
    bool hasConnection(const char* strRemoteApartmentUrl, bool bRtConnection) override;
    bool disconnectApartment(const char* strRemoteApartmentUrl, bool bRtConnection) override;
    bool localApartmentUrl(const char* strRemoteApartmentUrl, bool bRtConnection,
                           char* strLocalApartmentUrl, DWORD& dwLen) override;

    // Message loop. getMessage blocks until the deadline ({-1,-1}: no
    // limit); both it and dispatchMessage refuse callers once dispatch is
    // stopped, and any thread but the locked one while dispatch is locked.
    bool getMessage(APARTMENT_TMSG& msg, timespec deadline) override;
    // 1 handled or deferred, 0 for APARTMENT_QUIT, -1 refused or unknown.
    // A refused message (dispatch stopped, or locked to another thread) is
    // dropped with its payload; so is one whose handler throws (1, with a
    // diagnostic line). Never throws.
    int dispatchMessage(const APARTMENT_TMSG& msg) override;
    bool stopDispatchMessage() override;
    bool lockedDispatchThreadId(unsigned long& ulThreadId) override;
    bool lockDispatchThread() override;
    bool unlockDispatchThread() override;
    bool allowReentry(bool bAllowReentry) override;

    // Frames, written on the caller's thread. True when the frame was handed
    // to the link whole; false also for a node name or destination URL that
    // is not pure ASCII (a request id is spent all the same). A request
    // opens a missing link first (on this thread). A response never
    // connects: without a link it is handed to the reply opener and true
    // means it was accepted for the link being opened (a failed open or
    // send is then reported by a diagnostic line); false that the bounds on
    // waiting answers refused it.
    bool writeRequestFrame(const char* strApartmentNodeUrl, const char* strRemoteApartmentUrl,
                           const char* strRemoteApartmentNodeUrl, void* pRequestBuffer,
                           unsigned int uintBufLen, bool bRtConnection,
                           unsigned int& uintRequestId, bool bRequireResponse) override;
    bool writeResponseFrame(const char* strApartmentNodeUrl, const char* strRemoteApartmentUrl,
                            const char* strRemoteApartmentNodeUrl, unsigned int uintRequestId,
                            int intResponseCode, void* pResponseBuffer, unsigned int uintBufLen,
                            bool bRtConnection) override;
    bool writeRawFrame(const char* strRemoteApartmentUrl, unsigned int uintFrameType,
                       const void* pRawBuffer, unsigned int uintBufLen,
                       bool bRtConnection) override;

    // Timers and heartbeat.
    unsigned int setTimer(const char* strNodeUrl, unsigned int uintLagTime,
                          unsigned int uintInterval) override;
    unsigned int setSingleTimer(const char* strNodeUrl, unsigned int uintLagTime) override;
    bool killTimer(const char* strNodeUrl, unsigned int uintTimerId) override;
    bool keepAliveWith(const char* strRemoteApartmentUrl, unsigned int uintAliveCounter,
                       unsigned int uintAliveInterval) override;

    // Runs destroyApartment before the memory goes.
    void onFinalRelease() override;
    // Queues a message, into the cache queue while re-entry is refused and
    // the message is a request or a connection-closed notice. Any thread,
    // holding no apartment lock: once dispatch has stopped the message is
    // dropped and its payload released here.
    void postMessage(const APARTMENT_TMSG& msg) override;
    // postMessage of several messages, in order, taking each queue's lock
    // once: a communication thread posts what one pass brought this way.
    void postMessages(const APARTMENT_TMSG* pMessages, size_t count);

    // The largest payload the apartment's non-real-time links accept and
    // send: APARTMENT_DEFAULT_MAX_FRAME_SIZE, or the value of
    // APARTMENT_MAX_FRAME_BYTES (1 to 4294967295) when initApartment read
    // one. A frame announced above it closes its link at the header; a
    // write above it fails at once and leaves the link untouched.
    unsigned int maxFrameSize() const { return m_uintMaxFrameSize; }
    // DEFAULT_MAX_LINKS, or the value of APARTMENT_MAX_LINKS (1 to
    // 4294967295) when initApartment read one.
    unsigned int maxLinks() const { return m_uintMaxLinks; }
    // The bound in bytes of each non-real-time link's send queue, as
    // initApartment read it from APARTMENT_SEND_QUEUE_BYTES; 0 (the
    // default) when frames are written on the caller's thread before the
    // write returns.
    unsigned int sendQueueBytes() const { return m_uintSendQueueBytes; }
    // The TLS settings every link of this apartment uses, read from the
    // environment by initApartment (see CTlsContext::fromEnvironment); null
    // when TLS is off. Set before any link exists, read-only after.
    const std::shared_ptr<CTlsContext>& tlsContext() const { return m_tlsContext; }
    // Whether links to apartments of this host go over Unix sockets (see
    // CSameHost): on unless APARTMENT_SAME_HOST=0 when initApartment read
    // the environment. Read-only after that.
    bool sameHost() const { return m_bSameHost; }

protected:
    // The transport. createSink returns an uninitialised sink with one
    // reference for the caller, or null for an unknown type.
    virtual IApartmentSink* createSink(APARTMENT_SINK_TYPE type) = 0;
    virtual bool getPortAddressFromApartmentUrl(const char* strApartmentUrl,
                                                std::string& strAddress) = 0;
    virtual bool getApartmentUrlFromPortAddress(const char* strAddress,
                                                std::string& strApartmentUrl) = 0;
    // The links a communication thread serves. watchLink adds a filed link
    // to the set of the real-time thread or the other (loopback links
    // always go to the non-real-time one); unwatchLink forgets it before
    // the apartment's reference goes. Both are called under
    // m_ConnectionManageMutex, so that filing and removal keep their order;
    // the transport takes only leaf locks of its own. watchLink's false
    // means the link cannot be served (it is then not filed).
    virtual bool watchLink(IApartmentSink* pSink, bool bRtThread) = 0;
    virtual void unwatchLink(IApartmentSink* pSink) = 0;
    // One pass of a communication thread: waits up to dwTimeout ms for
    // frames on its links and turns what arrived into messages (or, on
    // real-time links, callbacks). Returns early when interruptWait is
    // called for that thread.
    virtual void serveLinks(DWORD dwTimeout, bool bRtConnection) = 0;
    // Ends the wait of that communication thread now in progress (or its
    // next one). Any thread; called holding no apartment lock.
    virtual void interruptWait(bool bRtConnection) = 0;
    // Who may wait for the main queue on the links themselves, so that a
    // frame read by the pumping thread is dispatched without waking another
    // thread; null (the default) when the pump waits on the queue alone.
    virtual CMessageQueue::Waiter* queueWaiter() { return nullptr; }
    // One pass of the listen thread: waits up to dwTimeout ms and appends
    // to `ready` the accepted server sinks whose connection frame has
    // arrived, each with a reference for the caller.
    virtual void acceptLinks(DWORD dwTimeout, std::vector<IApartmentServerSink*>& ready) = 0;
    // The bound on received messages waiting in the queues (see
    // CQueueBudget): CQueueBudget's defaults, or APARTMENT_MAX_QUEUED_BYTES
    // _PER_LINK and APARTMENT_MAX_QUEUED_BYTES as initApartment read them.
    const std::shared_ptr<CQueueBudget>& queueBudget() const { return m_pQueueBudget; }
    // The listening sink (null when the apartment does not listen). Only
    // the listen thread and destroyApartment touch it.
    IApartmentListenSink* listenSink() const { return m_ListenSink; }

    // The host's callback as a counted reference, or empty. Any thread.
    CReference<IApartmentCallback> apartmentCallback();

    // One pass of a communication thread (real-time or not).
    void receiveFrame(DWORD dwTimeout, bool bRtConnection);

    // Frame handlers, run by dispatch on the dispatching thread.
    void onLoopbackFrameArrived(IApartmentFrame* pFrame);
    void onRequestFrameArrived(IApartmentFrame* pFrame);
    void onResponseFrameArrived(IApartmentFrame* pFrame);
    void onNormalFrameArrived(IApartmentFrame* pFrame);
    void onAliveFrameArrived(IApartmentFrame* pFrame);
    void onAliveAckFrameArrived(IApartmentFrame* pFrame);
    void onApartmentTimer(IApartmentNode* pNode, unsigned int uintTimerId);
    bool heartbeatWithApartment(const char* strRemoteApartmentUrl, unsigned int uintTimerId);
    void killAllTimer();

    // Connection handling on the dispatching thread.
    void addApartmentSink(IApartmentSink* pSink);
    void removeApartmentSink(IApartmentSink* pSink);
    void onConnectionClosed(IApartmentSink* pSink);
    void onAddConnection(IApartmentServerSink* pServerSink);

private:
    // An answer waiting for the link it is to go out on: what its payload
    // is built from once the link, and so the local URL the payload names,
    // exists.
    struct _PENDING_REPLY {
        std::string m_strNodeUrl;        // the answering node
        std::string m_strRemoteNodeUrl;  // the requesting node
        unsigned int m_uintRequestId = 0;
        int m_intResponseCode = 0;
        bool m_bHasData = false;  // a null buffer sends no data, whatever its length
        std::vector<char> m_Data;
    };
    // A link being opened, by connectApartment on a host thread or by the
    // reply opener. Its fields change under m_ConnectionManageMutex; the
    // record outlives its map entry for as long as a waiter holds it.
    struct _LINK_OPEN {
        bool m_bStarted = false;     // an opener works on it (else queued for the reply opener)
        bool m_bDone = false;        // the open has finished
        bool m_bOpened = false;      // ... and the link was filed
        bool m_bForReplies = false;  // made for answers: counts against MAX_REPLY_OPENS
        std::vector<_PENDING_REPLY> m_Replies;  // sent on the link once it is open
    };
    // Remote apartment URL, and true for the real-time class.
    typedef std::pair<std::string, bool> LINK_KEY;

    struct _HEARTBEAT_INFO {
        std::string m_strRemoteApartmentUrl;
        unsigned int m_uintAliveCounter;
        unsigned int m_uintMaxCounter;
    };

    bool allowMessage(const APARTMENT_TMSG& msg) const;
    // Runs the handler of a message that passed the gate and re-entry
    // control; dispatchMessage's result. May throw (a host callback).
    int dispatchAllowed(const APARTMENT_TMSG& msg);
    bool dispatchGatePasses() const;
    // Caller holds m_ConnectionManageMutex.
    bool loopbackApartment(const char* strRemoteApartmentUrl) const;
    // The link used to reach a remote apartment (the loopback client for
    // this apartment's own URL), as a counted reference, or empty.
    CReference<IApartmentSink> findLink(const char* strRemoteApartmentUrl, bool bRtConnection,
                                        bool* pbLoopback = nullptr);
    SinkMap& sinkMap(bool bRtConnection);
    // Creates the client sink, connects (up to its connect time-out), sends
    // the connection frame and files the link. Caller's thread, no lock
    // held; the caller owns the open's entry in m_LinkOpens.
    bool openLink(const LINK_KEY& key);
    // Runs openLink for an open whose entry the caller has marked started,
    // then finishLinkOpen, also when openLink throws.
    bool runLinkOpen(const LINK_KEY& key, const std::shared_ptr<_LINK_OPEN>& open);
    // Records the outcome of an open, removes its entry, wakes whoever
    // waits for it, and sends the answers that waited for the link (or
    // drops them with a diagnostic line). No lock held by the caller.
    void finishLinkOpen(const LINK_KEY& key, const std::shared_ptr<_LINK_OPEN>& open,
                        bool bOpened);
    // The link for a URL as findLink finds it; m_ConnectionManageMutex held.
    CReference<IApartmentSink> linkLocked(const char* strRemoteApartmentUrl, bool bRtConnection,
                                          bool* pbLoopback);
    // Hands an answer to the link being opened for its URL (queueing an
    // open for the reply opener when there is none), or sends it if the
    // link has been filed meanwhile. False, with a diagnostic line, when
    // the bounds on waiting answers refuse it. Never connects.
    bool queueReply(const LINK_KEY& key, _PENDING_REPLY&& reply);
    // What an answer counts against MAX_PENDING_REPLY_BYTES.
    static size_t replyCost(const _PENDING_REPLY& reply);
    // Builds the response's fields for a link and sends them there with the
    // data (a queued answer's own copy, or the caller's buffer as it is).
    bool sendReply(IApartmentSink* pLink, const char* strRemoteApartmentUrl,
                   const _PENDING_REPLY& reply);
    bool sendReply(IApartmentSink* pLink, const char* strRemoteApartmentUrl,
                   const char* strApartmentNodeUrl, const char* strRemoteApartmentNodeUrl,
                   unsigned int uintRequestId, int intResponseCode, const void* pData,
                   unsigned int uintDataSize);
    void deliverReplies(const LINK_KEY& key, std::vector<_PENDING_REPLY>& replies, bool bOpened);
    // One pass of the reply opener: opens the oldest queued link, or waits
    // up to dwTimeout ms for one to be queued.
    void openQueuedReplyLink(DWORD dwTimeout);
    // At tear-down, after the reply opener stopped: the queued opens fail,
    // and their answers are dropped.
    void dropQueuedReplyOpens();
    // Runs build(); false when the codec refused a name or URL that is not
    // pure ASCII.
    template <class Build>
    static bool encodes(Build&& build);
    // The link to a remote apartment, opened first when there is none (a
    // request writer's first frame to a new remote opens the link on its
    // thread); empty when it cannot be had.
    CReference<IApartmentSink> linkOrConnect(const char* strRemoteApartmentUrl, bool bRtConnection);
    // Sends a built payload on a link; frees nothing of the caller's.
    static bool sendPayload(IApartmentSink* pSink, unsigned int uintFrameType,
                            const std::vector<char>& payload);
    // Releases what a message's wParam carries, for messages that will never
    // be dispatched.
    static void releaseMessagePayload(const APARTMENT_TMSG& msg);
    // Pushes the message, or releases its payload when the queue refuses it
    // (dispatch has stopped). Any thread; no apartment lock may be held, as
    // the release may destroy a sink or a node.
    static void queueOrRelease(CMessageQueue& queue, const APARTMENT_TMSG& msg);

    void listenConnection(DWORD dwTimeout);
    // The loop of a library thread: passes until its keep flag goes down.
    // An exception is reported, the pass given up, and the thread rests one
    // pass length before the next.
    template <class F>
    void* runThread(std::atomic<bool> CApartment::*keep, const char* where, F&& pass);
    bool createListenThread();
    void destroyListenThread();
    bool createNonRtCommunicationThread();
    void destroyNonRtCommunicationThread();
    bool createRtCommunicationThread();
    void destroyRtCommunicationThread();
    static void* apartmentListenThreadFunc(void* pParam);
    static void* apartmentNonRtCommunicationThreadFunc(void* pParam);
    static void* apartmentRtCommunicationThreadFunc(void* pParam);
    bool createReplyOpenerThread();
    void destroyReplyOpenerThread();
    static void* apartmentReplyOpenerThreadFunc(void* pParam);

    std::string m_strApartmentUrl;
    CReference<IApartmentListenSink> m_ListenSink;
    // Set by initApartment before any sink exists; read-only afterwards.
    unsigned int m_uintMaxFrameSize;
    unsigned int m_uintMaxLinks;
    unsigned int m_uintSendQueueBytes;
    std::shared_ptr<CTlsContext> m_tlsContext;
    bool m_bSameHost = true;
    unsigned int m_uintUnreadResponseMs;
    std::shared_ptr<CQueueBudget> m_pQueueBudget;
    // Answers that no request waits for are reported one line a second:
    // when the last line went (s, monotonic; -1 before the first), and how
    // many were dropped quietly since.
    std::atomic<long long> m_llUnexpectedLineAt{-1};
    std::atomic<unsigned long> m_ulUnexpectedSuppressed{0};

    // Guards the two sink maps, the loopback URL, both loopback slots and
    // m_LinkOpens. m_ConnectionNotEmptyCondition wakes an idle communication
    // thread when a sink becomes available; m_LinkOpenCondition wakes the
    // threads waiting for a link being opened when an open finishes, and
    // the reply opener when an open is queued for it. Never held while a
    // link is opened or a frame sent.
    OS::TBaseMutex m_ConnectionManageMutex;
    OS::TCondition m_ConnectionNotEmptyCondition;
    OS::TCondition m_LinkOpenCondition;
    // The links being opened, by remote URL and class, so that threads
    // writing their first frames to one remote at once share one new link
    // instead of each opening one that all but one would drop (with what
    // was already written on it), while opens to other remotes go on.
    std::map<LINK_KEY, std::shared_ptr<_LINK_OPEN>> m_LinkOpens;
    // The reply opener's work: the opens made for answers and not yet
    // started, oldest first; with the number of such opens (queued or under
    // way) and the bytes their answers count. Guarded by
    // m_ConnectionManageMutex.
    std::deque<LINK_KEY> m_ReplyOpenQueue;
    size_t m_uintReplyOpens = 0;
    size_t m_uintPendingReplyBytes = 0;
    SinkMap m_NonRtCommunicationSinkMap;
    SinkMap m_RtCommunicationSinkMap;
    std::string m_strLoopbackApartmentUrl;
    CReference<IApartmentSink> m_LoopbackClientSink;
    CReference<IApartmentSink> m_LoopbackServerSink;

    // Guards m_ApartmentNodeMap; recursive because node callbacks run under
    // it and may come back to the apartment.
    OS::TRecursiveMutex m_NodeManageMutex;
    NodeMap m_ApartmentNodeMap;

    // Guards m_apartmentCallback, which the real-time thread reads while a
    // host thread may replace it. Never held during a callback.
    OS::TBaseMutex m_CallbackMutex;
    CReference<IApartmentCallback> m_apartmentCallback;

    // Guards m_timerIdSet: host threads set and kill apartment timers while
    // the dispatching thread forgets finished ones.
    OS::TBaseMutex m_TimerIdMutex;
    std::set<unsigned int> m_timerIdSet;

    // Written by the owner, read by the threads between passes.
    std::atomic<bool> m_bKeepListen;
    pthread_t m_hListenThread;
    std::atomic<bool> m_bKeepNonRtCommunication;
    pthread_t m_hNonRtCommunicationThread;
    std::atomic<bool> m_bKeepRtCommunication;
    pthread_t m_hRtCommunicationThread;
    // The reply opener: started by the first answer that has no link to go
    // out on, stopped first in destroyApartment.
    std::atomic<bool> m_bKeepReplyOpener;
    pthread_t m_hReplyOpenerThread;
    // Starting a communication thread may race between the dispatching
    // thread (addApartmentSink) and a connecting host thread: this guards
    // the four thread handles. A leaf; threads are joined without it.
    OS::TBaseMutex m_ThreadControlMutex;

    CMessageQueue m_ApartmentMsgQueue;
    std::atomic<bool> m_bAllowReentry;
    CMessageQueue m_ApartmentCacheMsgQueue;
    std::atomic<bool> m_bLockDispatch;
    std::atomic<bool> m_bKeepDispatch;
    std::atomic<unsigned long> m_ulLockedDispatchThreadId;

    volatile unsigned long m_ulNextRequestId;

    // Guards the two heartbeat maps.
    OS::TBaseMutex m_HeartbeatMutex;
    std::map<std::string, unsigned int> m_HeartbeatTimerIdMap;
    std::map<unsigned int, _HEARTBEAT_INFO> m_HeartbeatTimerInfoMap;
};

#endif
