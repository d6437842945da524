// CApartment: the object, its lifecycle, nodes, threads and message loop.
// Links are in ApartmentLinks.cpp, frames in ApartmentFrames.cpp, timers
// and the heartbeat in ApartmentTimers.cpp.
#include "Apartment.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "ApartmentGuard.h"
#include "ApartmentNode.h"
#include "ApartmentSink.h"
#include "GroundKit/OS/OS_Clock.h"
#include "GroundKit/OS/OS_Thread.h"
#include "GroundKit/StringAssistant/StringAssistant.h"
#include "SameHost.h"
#include "os_log.h"

namespace {
// A count of the environment, from 1 to 4294967295, or the default (with a
// line saying why) when the value is missing, not a number or out of range.
unsigned int countFromEnvironment(const char* variable, const char* what, unsigned int fallback) {
    const char* text = std::getenv(variable);
    if (text == nullptr) return fallback;
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text, &end, 10);
    const bool digitsOnly = *text >= '0' && *text <= '9' && end != nullptr && *end == '\0';
    if (!digitsOnly || errno != 0 || value == 0 || value > 0xFFFFFFFFull) {
        log_task_line("[Apartment Warning]: %s=\"%s\" is not a number from 1 to 4294967295; "
                      "the %s stays %u.",
                      variable, text, what, fallback);
        return fallback;
    }
    return static_cast<unsigned int>(value);
}

// A switch of the environment: "0" off, "1" on, missing the default;
// anything else keeps the default with a line saying why.
bool switchFromEnvironment(const char* variable, const char* what, bool fallback) {
    const char* text = std::getenv(variable);
    if (text == nullptr) return fallback;
    if (std::strcmp(text, "0") == 0 || std::strcmp(text, "1") == 0) return *text == '1';
    log_task_line("[Apartment Warning]: %s=\"%s\" is neither 0 nor 1; the %s stays %s.", variable,
                  text, what, fallback ? "on" : "off");
    return fallback;
}
}  // namespace

const char* const CApartment::MAX_FRAME_BYTES_VARIABLE = "APARTMENT_MAX_FRAME_BYTES";
const char* const CApartment::MAX_LINKS_VARIABLE = "APARTMENT_MAX_LINKS";
const char* const CApartment::UNREAD_RESPONSE_MS_VARIABLE = "APARTMENT_UNREAD_RESPONSE_MS";
const char* const CApartment::MAX_QUEUED_BYTES_PER_LINK_VARIABLE =
    "APARTMENT_MAX_QUEUED_BYTES_PER_LINK";
const char* const CApartment::MAX_QUEUED_BYTES_VARIABLE = "APARTMENT_MAX_QUEUED_BYTES";
const char* const CApartment::SEND_QUEUE_BYTES_VARIABLE = "APARTMENT_SEND_QUEUE_BYTES";

CApartment::CApartment()
    : m_uintMaxFrameSize(APARTMENT_DEFAULT_MAX_FRAME_SIZE),
      m_uintMaxLinks(DEFAULT_MAX_LINKS),
      m_uintSendQueueBytes(0),
      m_uintUnreadResponseMs(CApartmentNode::DEFAULT_UNREAD_RESPONSE_MS),
      m_pQueueBudget(std::make_shared<CQueueBudget>(CQueueBudget::DEFAULT_PER_LINK,
                                                    CQueueBudget::DEFAULT_TOTAL)),
      m_ConnectionManageMutex(MUTEX_NONE, USE_STD, nullptr),
      m_ConnectionNotEmptyCondition(nullptr, USE_STD),
      m_LinkOpenCondition(nullptr, USE_STD),
      m_bKeepListen(false),
      m_hListenThread(0),
      m_bKeepNonRtCommunication(false),
      m_hNonRtCommunicationThread(0),
      m_bKeepRtCommunication(false),
      m_hRtCommunicationThread(0),
      m_bKeepReplyOpener(false),
      m_hReplyOpenerThread(0),
      m_bAllowReentry(true),
      m_bLockDispatch(false),
      m_bKeepDispatch(true),
      m_ulLockedDispatchThreadId(0),
      m_ulNextRequestId(1) {
    m_ConnectionNotEmptyCondition.bindMutex(&m_ConnectionManageMutex);
    m_LinkOpenCondition.bindMutex(&m_ConnectionManageMutex);
}

CApartment::~CApartment() {
    // Messages that were never dispatched still own what their wParam
    // carries (frames, sinks, nodes); the queues themselves never free it.
    for (CMessageQueue* queue : {&m_ApartmentMsgQueue, &m_ApartmentCacheMsgQueue}) {
        queue->unlockQueue();
        APARTMENT_TMSG msg;
        while (queue->tryPop(msg)) releaseMessagePayload(msg);
    }
}

void CApartment::onFinalRelease() { destroyApartment(); }

// ---------------------------------------------------------------- lifecycle

bool CApartment::initApartment(const char* strApartmentUrl, bool bListen) {
    if (strApartmentUrl != nullptr && std::strlen(strApartmentUrl) > MAX_APARTMENT_URL_LENGTH) {
        log_task_line("Apartment url is too long: %s.", strApartmentUrl);
        return false;
    }
    m_uintMaxFrameSize = countFromEnvironment(MAX_FRAME_BYTES_VARIABLE, "maximum frame size",
                                              APARTMENT_DEFAULT_MAX_FRAME_SIZE);
    m_uintMaxLinks = countFromEnvironment(MAX_LINKS_VARIABLE, "maximum of links", DEFAULT_MAX_LINKS);
    // 0, the default, is a value of its own here: no queue.
    const char* sendQueue = std::getenv(SEND_QUEUE_BYTES_VARIABLE);
    m_uintSendQueueBytes = sendQueue != nullptr && std::strcmp(sendQueue, "0") == 0
                               ? 0
                               : countFromEnvironment(SEND_QUEUE_BYTES_VARIABLE,
                                                      "send queue bound (bytes)", 0);
    m_uintUnreadResponseMs = countFromEnvironment(UNREAD_RESPONSE_MS_VARIABLE,
                                                  "time an unread response is kept (ms)",
                                                  CApartmentNode::DEFAULT_UNREAD_RESPONSE_MS);
    m_pQueueBudget = std::make_shared<CQueueBudget>(
        countFromEnvironment(MAX_QUEUED_BYTES_PER_LINK_VARIABLE, "bound on a link's queued bytes",
                             CQueueBudget::DEFAULT_PER_LINK),
        countFromEnvironment(MAX_QUEUED_BYTES_VARIABLE, "bound on queued bytes",
                             CQueueBudget::DEFAULT_TOTAL));
    m_bSameHost = switchFromEnvironment(CSameHost::VARIABLE, "same-host path", true);
    // Before the first sink is made: every sink takes the context with it.
    std::string tlsError;
    m_tlsContext = CTlsContext::fromEnvironment(tlsError);
    if (!tlsError.empty()) {
        log_task_line("[Apartment Error]: %s; apartment not initialised.", tlsError.c_str());
        return false;
    }
    if (m_tlsContext && m_tlsContext->logsKeys())
        log_task_line("[Apartment Warning]: TLS secrets are written to APARTMENT_TLS_KEYLOG: "
                      "whoever reads that file can decrypt these links.");
    std::string url = strApartmentUrl != nullptr ? strApartmentUrl : "";
    std::string address;
    getPortAddressFromApartmentUrl(strApartmentUrl, address);

    if (bListen) {
        CReference<IApartmentSink> sink(createSink(LISTEN_SINK));
        if (sink.nil() || !sink->initSink(address.c_str(), nullptr)) return false;
        CApartmentSinkHelper::getLocalAddress(sink, address);
        getApartmentUrlFromPortAddress(address.c_str(), url);
        sink->setLocalApartmentUrl(url.c_str());
        m_ListenSink = asIApartmentListenSink(sink);
        // An apartment that would never accept a link is no apartment.
        if (!createListenThread()) {
            m_ListenSink = nullptr;
            return false;
        }
        log_task_line("Apartment listen at port(%s).", url.c_str());
    } else {
        getApartmentUrlFromPortAddress(address.c_str(), url);
    }
    m_strApartmentUrl = url;
    return true;
}

void CApartment::destroyApartment() {
    killAllTimer();
    // First: an open it finishes files a link and may start a
    // communication thread.
    destroyReplyOpenerThread();
    dropQueuedReplyOpens();
    m_strApartmentUrl.clear();
    destroyNonRtCommunicationThread();
    destroyRtCommunicationThread();
    destroyListenThread();
    m_ListenSink = nullptr;
    // Host threads may still look for links: the maps and the loopback
    // slots are emptied under their mutex, and the sinks released after it.
    SinkMap nonRtLinks, rtLinks;
    CReference<IApartmentSink> loopbackClient, loopbackServer;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        nonRtLinks.swap(m_NonRtCommunicationSinkMap);
        rtLinks.swap(m_RtCommunicationSinkMap);
        loopbackClient = m_LoopbackClientSink;
        loopbackServer = m_LoopbackServerSink;
        for (SinkMap* links : {&nonRtLinks, &rtLinks})
            for (auto& entry : *links) unwatchLink(entry.second);
        if (!loopbackClient.nil()) unwatchLink(loopbackClient);
        if (!loopbackServer.nil()) unwatchLink(loopbackServer);
        m_LoopbackClientSink = nullptr;
        m_LoopbackServerSink = nullptr;
        m_strLoopbackApartmentUrl.clear();
    }
    NodeMap nodes;
    {
        TAutoMutex<OS::TRecursiveMutex> lock(&m_NodeManageMutex);
        nodes.swap(m_ApartmentNodeMap);
    }
    // A pending node timer holds the node (and this apartment) through the
    // timer manager; kill them so that both can go.
    for (auto& entry : nodes) static_cast<CApartmentNode*>(entry.second.operator->())->killAllTimer();
}

bool CApartment::getApartmentUrl(char* strApartmentUrl, DWORD& dwLen) const {
    return CStringAssistant::getBaseStringFromSTLString(m_strApartmentUrl, strApartmentUrl, dwLen);
}

// -------------------------------------------------------------------- nodes

bool CApartment::createApartmentNode(const char* strNodeUrl) {
    CApartmentNode* made = new CApartmentNode(this);
    CReference<IApartmentNode> node(made);
    made->setUnreadLimit(m_uintUnreadResponseMs);
    const std::string name = strNodeUrl != nullptr ? strNodeUrl : "";
    TAutoMutex<OS::TRecursiveMutex> lock(&m_NodeManageMutex);
    return m_ApartmentNodeMap.emplace(name, node).second;
}

IApartmentNode* CApartment::findApartmentNode(const char* strNodeUrl) {
    if (strNodeUrl == nullptr) return nullptr;
    const std::string_view name(strNodeUrl);  // measured once, not per comparison
    TAutoMutex<OS::TRecursiveMutex> lock(&m_NodeManageMutex);
    auto it = m_ApartmentNodeMap.find(name);
    if (it == m_ApartmentNodeMap.end()) return nullptr;
    it->second->addRef();
    return it->second;
}

bool CApartment::destroyApartmentNode(const char* strNodeUrl) {
    if (strNodeUrl == nullptr) return false;
    CReference<IApartmentNode> removed;
    TAutoMutex<OS::TRecursiveMutex> lock(&m_NodeManageMutex);
    auto it = m_ApartmentNodeMap.find(strNodeUrl);
    if (it == m_ApartmentNodeMap.end()) return false;
    removed = it->second;
    m_ApartmentNodeMap.erase(it);
    return true;
}

bool CApartment::setCallback(IApartmentCallback* pCallback) {
    if (pCallback != nullptr) pCallback->addRef();
    CReference<IApartmentCallback> previous;
    TAutoMutex<OS::TBaseMutex> lock(&m_CallbackMutex);
    previous = m_apartmentCallback;
    m_apartmentCallback = pCallback;
    return true;
}

CReference<IApartmentCallback> CApartment::apartmentCallback() {
    TAutoMutex<OS::TBaseMutex> lock(&m_CallbackMutex);
    return m_apartmentCallback;
}

// ------------------------------------------------------------------ threads

namespace {
// Starts the thread unless one runs: the keep flag goes up before the thread
// exists, so its first test of the flag sees it. The control mutex guards
// the handle (a host thread and the dispatching thread may both start one).
// False, after one line, when no thread could be had.
bool startThread(const char* what, OS::TBaseMutex& control, std::atomic<bool>& keep,
                 pthread_t& handle, OS_THREAD_FUNCTION fn, void* arg) {
    TAutoMutex<OS::TBaseMutex> lock(&control);
    if (handle != 0) return true;
    keep = true;
    if (createLibraryThread(what, &handle, fn, arg, USE_STD)) return true;
    keep = false;
    return false;
}

// Clears the keep flag and joins, without holding the control mutex during
// the join (the thread may need locks that a creator holds).
void stopThread(OS::TBaseMutex& control, std::atomic<bool>& keep, pthread_t& handle) {
    pthread_t thread = 0;
    {
        TAutoMutex<OS::TBaseMutex> lock(&control);
        if (handle == 0) return;
        keep = false;
        thread = handle;
        handle = 0;
    }
    OS::Thread::join(thread, USE_DEFAULT);
}
}  // namespace

bool CApartment::createListenThread() {
    return startThread("listen", m_ThreadControlMutex, m_bKeepListen, m_hListenThread,
                       apartmentListenThreadFunc, this);
}

bool CApartment::createNonRtCommunicationThread() {
    return startThread("non-real-time communication", m_ThreadControlMutex,
                       m_bKeepNonRtCommunication, m_hNonRtCommunicationThread,
                       apartmentNonRtCommunicationThreadFunc, this);
}

bool CApartment::createRtCommunicationThread() {
    return startThread("real-time communication", m_ThreadControlMutex, m_bKeepRtCommunication,
                       m_hRtCommunicationThread, apartmentRtCommunicationThreadFunc, this);
}

bool CApartment::createReplyOpenerThread() {
    return startThread("reply opener", m_ThreadControlMutex, m_bKeepReplyOpener,
                       m_hReplyOpenerThread, apartmentReplyOpenerThreadFunc, this);
}

void CApartment::destroyReplyOpenerThread() {
    stopThread(m_ThreadControlMutex, m_bKeepReplyOpener, m_hReplyOpenerThread);
}

void CApartment::destroyListenThread() {
    stopThread(m_ThreadControlMutex, m_bKeepListen, m_hListenThread);
}

void CApartment::destroyNonRtCommunicationThread() {
    stopThread(m_ThreadControlMutex, m_bKeepNonRtCommunication, m_hNonRtCommunicationThread);
}

void CApartment::destroyRtCommunicationThread() {
    stopThread(m_ThreadControlMutex, m_bKeepRtCommunication, m_hRtCommunicationThread);
}

template <class F>
void* CApartment::runThread(std::atomic<bool> CApartment::*keep, const char* where, F&& pass) {
    while (this->*keep) {
        if (guarded(where, false, [&pass] {
                pass();
                return true;
            }))
            continue;
        // A fault that repeats at once (memory that stays short, say) must
        // not turn the loop into a spin: rest for one pass, or until a sink
        // comes.
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        m_ConnectionNotEmptyCondition.wait(OS::Clock::monotonicDeadline(THREAD_PASS_MS));
    }
    return nullptr;
}

void* CApartment::apartmentListenThreadFunc(void* pParam) {
    CApartment* a = static_cast<CApartment*>(pParam);
    return a->runThread(&CApartment::m_bKeepListen, "listen thread, connection dropped",
                        [a] { a->listenConnection(THREAD_PASS_MS); });
}

void* CApartment::apartmentNonRtCommunicationThreadFunc(void* pParam) {
    CApartment* a = static_cast<CApartment*>(pParam);
    return a->runThread(&CApartment::m_bKeepNonRtCommunication,
                        "non-real-time communication thread, pass abandoned",
                        [a] { a->receiveFrame(THREAD_PASS_MS, false); });
}

void* CApartment::apartmentRtCommunicationThreadFunc(void* pParam) {
    CApartment* a = static_cast<CApartment*>(pParam);
    return a->runThread(&CApartment::m_bKeepRtCommunication,
                        "real-time communication thread, pass abandoned",
                        [a] { a->receiveFrame(THREAD_PASS_MS, true); });
}

void* CApartment::apartmentReplyOpenerThreadFunc(void* pParam) {
    CApartment* a = static_cast<CApartment*>(pParam);
    return a->runThread(&CApartment::m_bKeepReplyOpener, "reply opener thread, link open abandoned",
                        [a] { a->openQueuedReplyLink(THREAD_PASS_MS); });
}

void CApartment::listenConnection(DWORD dwTimeout) {
    std::vector<IApartmentServerSink*> ready;
    try {
        acceptLinks(dwTimeout, ready);
    } catch (...) {
        for (IApartmentServerSink* server : ready) server->releaseRef();
        throw;
    }
    for (IApartmentServerSink* server : ready) {
        APARTMENT_TMSG msg;
        msg.m_intMsg = ADD_APARTMENT_CONNECTION;
        msg.wParam = reinterpret_cast<WPARAM>(server);  // the message carries the reference
        msg.lParam = 0;
        // Straight into the main queue: this code is never deferred.
        queueOrRelease(m_ApartmentMsgQueue, msg);
    }
}

void CApartment::receiveFrame(DWORD dwTimeout, bool bRtConnection) {
    serveLinks(dwTimeout, bRtConnection);
}

// ------------------------------------------------------------- message loop

bool CApartment::dispatchGatePasses() const {
    if (!m_bKeepDispatch) return false;
    return !m_bLockDispatch || OS::Thread::current() == m_ulLockedDispatchThreadId;
}

bool CApartment::allowMessage(const APARTMENT_TMSG& msg) const {
    if (m_bAllowReentry) return true;
    return msg.m_intMsg != REQUEST_FRAME_ARRIVED && msg.m_intMsg != APARTMENT_CONNECTION_CLOSED;
}

void CApartment::postMessage(const APARTMENT_TMSG& msg) {
    queueOrRelease(allowMessage(msg) ? m_ApartmentMsgQueue : m_ApartmentCacheMsgQueue, msg);
}

void CApartment::queueOrRelease(CMessageQueue& queue, const APARTMENT_TMSG& msg) {
    // A stopped dispatch locks the main queue for good: what it refuses
    // would never be dispatched, so its payload goes now. So does a message
    // that could not be queued for want of memory.
    if (!guarded("posting a message, message dropped", false, [&] { return queue.push(msg); }))
        releaseMessagePayload(msg);
}

void CApartment::postMessages(const APARTMENT_TMSG* pMessages, size_t count) {
    // Runs of messages bound for one queue go in under one lock; the order
    // within each queue is the order given, as posting one by one would be.
    size_t first = 0;
    while (first < count) {
        const bool allowed = allowMessage(pMessages[first]);
        size_t end = first + 1;
        while (end < count && allowMessage(pMessages[end]) == allowed) ++end;
        CMessageQueue& queue = allowed ? m_ApartmentMsgQueue : m_ApartmentCacheMsgQueue;
        // As for one message: what the queue refuses goes now.
        if (!guarded("posting messages, messages dropped", false,
                     [&] { return queue.pushBatch(pMessages + first, end - first); }))
            for (size_t i = first; i < end; ++i) releaseMessagePayload(pMessages[i]);
        first = end;
    }
}

bool CApartment::getMessage(APARTMENT_TMSG& msg, timespec deadline) {
    if (!dispatchGatePasses()) return false;
    // Deferred messages come back first, one per call, once re-entry is
    // allowed again.
    if (m_bAllowReentry && m_ApartmentCacheMsgQueue.tryPop(msg)) return true;
    // About to wait with nothing to take while links are held back: what
    // holds them is deferred, and only reading on brings what this thread
    // waits for (a response behind those requests, say).
    if (m_pQueueBudget->m_heldLinks.load(std::memory_order_relaxed) != 0 &&
        m_ApartmentMsgQueue.getQueueSize() == 0) {
        m_pQueueBudget->m_liftHolds = true;
        interruptWait(false);
    }
    return m_ApartmentMsgQueue.pop(msg, deadline, queueWaiter());
}

int CApartment::dispatchMessage(const APARTMENT_TMSG& msg) {
    if (!dispatchGatePasses()) {
        // Taken from the queue before the gate closed: nobody else will
        // ever run it.
        releaseMessagePayload(msg);
        return -1;
    }
    if (!allowMessage(msg)) {
        postMessage(msg);  // into the cache queue, reference and all
        return 1;
    }
    // A handler that throws (a host callback, an allocation failure) costs
    // its message only: the payload is held by a CReference below and goes
    // as the exception passes, and the pump goes on with the next message.
    const int result =
        guarded("dispatch, message dropped", 1, [&] { return dispatchAllowed(msg); });
    // The frame just released may let a held link be read again.
    if (m_pQueueBudget->takeResumeWanted()) interruptWait(false);
    return result;
}

int CApartment::dispatchAllowed(const APARTMENT_TMSG& msg) {
    switch (msg.m_intMsg) {
        case APARTMENT_QUIT:
            return 0;
        case ADD_APARTMENT_CONNECTION:
            onAddConnection(reinterpret_cast<IApartmentServerSink*>(msg.wParam));
            return 1;
        case REMOVE_APARTMENT_CONNECTION: {
            CReference<IApartmentServerSink> serverSink(
                reinterpret_cast<IApartmentServerSink*>(msg.wParam));
            CReference<IApartmentSink> sink(asIApartmentSink(serverSink));
            removeApartmentSink(sink);
            return 1;
        }
        case APARTMENT_CONNECTION_CLOSED: {
            CReference<IApartmentSink> sink(reinterpret_cast<IApartmentSink*>(msg.wParam));
            onConnectionClosed(sink);
            return 1;
        }
        case LOOPDATA_FRAME_ARRIVED:
        case REQUEST_FRAME_ARRIVED:
        case RESPONSE_FRAME_ARRIVED:
        case NORMAL_FRAME_ARRIVED: {
            CReference<IApartmentFrame> frame(reinterpret_cast<IApartmentFrame*>(msg.wParam));
            if (msg.m_intMsg == LOOPDATA_FRAME_ARRIVED)
                onLoopbackFrameArrived(frame);
            else if (msg.m_intMsg == REQUEST_FRAME_ARRIVED)
                onRequestFrameArrived(frame);
            else if (msg.m_intMsg == RESPONSE_FRAME_ARRIVED)
                onResponseFrameArrived(frame);
            else
                onNormalFrameArrived(frame);
            return 1;
        }
        case APARTMENT_TIMER: {
            CReference<IApartmentNode> node(reinterpret_cast<IApartmentNode*>(msg.wParam));
            onApartmentTimer(node, static_cast<unsigned int>(msg.lParam & 0xFFFFFFFF));
            return 1;
        }
    }
    return -1;
}

void CApartment::releaseMessagePayload(const APARTMENT_TMSG& msg) {
    if (msg.wParam == 0) return;
    switch (msg.m_intMsg) {
        case ADD_APARTMENT_CONNECTION:
        case REMOVE_APARTMENT_CONNECTION:
            reinterpret_cast<IApartmentServerSink*>(msg.wParam)->releaseRef();
            break;
        case APARTMENT_CONNECTION_CLOSED:
            reinterpret_cast<IApartmentSink*>(msg.wParam)->releaseRef();
            break;
        case LOOPDATA_FRAME_ARRIVED:
        case REQUEST_FRAME_ARRIVED:
        case RESPONSE_FRAME_ARRIVED:
        case NORMAL_FRAME_ARRIVED:
            reinterpret_cast<IApartmentFrame*>(msg.wParam)->releaseRef();
            break;
        case APARTMENT_TIMER:
            reinterpret_cast<IApartmentNode*>(msg.wParam)->releaseRef();
            break;
        default:
            break;
    }
}

bool CApartment::stopDispatchMessage() {
    m_bKeepDispatch = false;
    m_ApartmentMsgQueue.lockQueue();
    return true;
}

bool CApartment::lockDispatchThread() {
    bool expected = false;
    if (!m_bLockDispatch.compare_exchange_strong(expected, true)) return false;
    m_ulLockedDispatchThreadId = OS::Thread::current();
    return true;
}

bool CApartment::unlockDispatchThread() {
    bool expected = true;
    if (!m_bLockDispatch.compare_exchange_strong(expected, false)) return false;
    m_ulLockedDispatchThreadId = 0;
    return true;
}

bool CApartment::lockedDispatchThreadId(unsigned long& ulThreadId) {
    if (!m_bLockDispatch) return false;
    ulThreadId = m_ulLockedDispatchThreadId;
    return true;
}

bool CApartment::allowReentry(bool bAllowReentry) {
    m_bAllowReentry = bAllowReentry;
    return true;
}
