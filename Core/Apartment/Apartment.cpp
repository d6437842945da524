#include "Apartment.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "ApartmentFrame.h"
#include "ApartmentFrameCodec.h"
#include "ApartmentGuard.h"
#include "ApartmentNode.h"
#include "ApartmentSink.h"
#include "ApartmentTimerManager.h"
#include "GroundKit/OS/OS_Clock.h"
#include "GroundKit/OS/OS_Thread.h"
#include "GroundKit/StringAssistant/StringAssistant.h"
#include "os_log.h"

namespace {
const unsigned int NO_TIMER = 0xFFFFFFFFu;
// How long dispatch waits, per readable event, for a new link's first frame.
const DWORD CONNECTION_INFO_TIMEOUT_MS = 100;
// Bounds of the answers waiting for the reply opener, so that a peer
// naming return addresses nobody answers cannot pile up memory: at most
// this many links being opened for answers (queued or under way), and at
// most this many bytes of answers waiting for them, each answer counted
// with REPLY_OVERHEAD_BYTES on top of its names and data. An answer beyond
// either bound is dropped at once and its write fails.
const size_t MAX_REPLY_OPENS = 8;
const size_t MAX_PENDING_REPLY_BYTES = 16u << 20;
const size_t REPLY_OVERHEAD_BYTES = 256;

// The maximum frame size the environment asks for, or the default (with a
// line saying why) when the value is missing, not a number or out of range.
unsigned int maxFrameSizeFromEnvironment() {
    const char* text = std::getenv(CApartment::MAX_FRAME_BYTES_VARIABLE);
    if (text == nullptr) return APARTMENT_DEFAULT_MAX_FRAME_SIZE;
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text, &end, 10);
    const bool digitsOnly = *text >= '0' && *text <= '9' && end != nullptr && *end == '\0';
    if (!digitsOnly || errno != 0 || value == 0 || value > 0xFFFFFFFFull) {
        log_task_line("[Apartment Warning]: %s=\"%s\" is not a number of bytes from 1 to "
                      "4294967295; the maximum frame size stays %u.",
                      CApartment::MAX_FRAME_BYTES_VARIABLE, text, APARTMENT_DEFAULT_MAX_FRAME_SIZE);
        return APARTMENT_DEFAULT_MAX_FRAME_SIZE;
    }
    return static_cast<unsigned int>(value);
}
}  // namespace

const char* const CApartment::MAX_FRAME_BYTES_VARIABLE = "APARTMENT_MAX_FRAME_BYTES";

namespace {
// A link's local apartment URL for one frame, fetched without a heap
// allocation when it has a usual length.
class LinkLocalUrl {
public:
    explicit LinkLocalUrl(const IApartmentSink* pLink) {
        DWORD length = sizeof m_text;
        if (pLink->getLocalApartmentUrl(m_text, length) && length != 0) {
            m_view = std::string_view(m_text, length - 1);
        } else {
            CApartmentSinkHelper::getLocalApartmentUrl(pLink, m_long);
            m_view = m_long;
        }
    }
    std::string_view text() const { return m_view; }

private:
    char m_text[256];
    std::string m_long;
    std::string_view m_view;
};
}  // namespace

CApartment::CApartment()
    : m_uintMaxFrameSize(APARTMENT_DEFAULT_MAX_FRAME_SIZE),
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
    m_uintMaxFrameSize = maxFrameSizeFromEnvironment();
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
        createListenThread();
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
    m_LoopbackClientSink = nullptr;
    m_LoopbackServerSink = nullptr;
    m_NonRtCommunicationSinkMap.clear();
    m_RtCommunicationSinkMap.clear();
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
    CReference<IApartmentNode> node(new CApartmentNode(this));
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
void startThread(OS::TBaseMutex& control, std::atomic<bool>& keep, pthread_t& handle,
                 OS_THREAD_FUNCTION fn, void* arg) {
    TAutoMutex<OS::TBaseMutex> lock(&control);
    if (handle != 0) return;
    keep = true;
    OS::Thread::create(&handle, fn, arg, USE_STD, 0);
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

void CApartment::createListenThread() {
    startThread(m_ThreadControlMutex, m_bKeepListen, m_hListenThread, apartmentListenThreadFunc,
                this);
}

void CApartment::createNonRtCommunicationThread() {
    startThread(m_ThreadControlMutex, m_bKeepNonRtCommunication, m_hNonRtCommunicationThread,
                apartmentNonRtCommunicationThreadFunc, this);
}

void CApartment::createRtCommunicationThread() {
    startThread(m_ThreadControlMutex, m_bKeepRtCommunication, m_hRtCommunicationThread,
                apartmentRtCommunicationThreadFunc, this);
}

void CApartment::createReplyOpenerThread() {
    startThread(m_ThreadControlMutex, m_bKeepReplyOpener, m_hReplyOpenerThread,
                apartmentReplyOpenerThreadFunc, this);
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
void CApartment::runThreadPass(const char* where, F&& pass) {
    if (guarded(where, false, [&pass] {
            pass();
            return true;
        }))
        return;
    // A fault that repeats at once (memory that stays short, say) must not
    // turn the loop into a spin: rest for one pass, or until a sink comes.
    TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
    m_ConnectionNotEmptyCondition.wait(OS::Clock::monotonicDeadline(THREAD_PASS_MS));
}

void* CApartment::apartmentListenThreadFunc(void* pParam) {
    CApartment* apartment = static_cast<CApartment*>(pParam);
    while (apartment != nullptr && apartment->m_bKeepListen)
        apartment->runThreadPass("listen thread, connection dropped",
                                 [apartment] { apartment->listenConnection(THREAD_PASS_MS); });
    return nullptr;
}

void* CApartment::apartmentNonRtCommunicationThreadFunc(void* pParam) {
    CApartment* apartment = static_cast<CApartment*>(pParam);
    while (apartment != nullptr && apartment->m_bKeepNonRtCommunication)
        apartment->runThreadPass("non-real-time communication thread, pass abandoned",
                                 [apartment] { apartment->receiveFrame(THREAD_PASS_MS, false); });
    return nullptr;
}

void* CApartment::apartmentRtCommunicationThreadFunc(void* pParam) {
    CApartment* apartment = static_cast<CApartment*>(pParam);
    while (apartment != nullptr && apartment->m_bKeepRtCommunication)
        apartment->runThreadPass("real-time communication thread, pass abandoned",
                                 [apartment] { apartment->receiveFrame(THREAD_PASS_MS, true); });
    return nullptr;
}

void* CApartment::apartmentReplyOpenerThreadFunc(void* pParam) {
    CApartment* apartment = static_cast<CApartment*>(pParam);
    while (apartment != nullptr && apartment->m_bKeepReplyOpener)
        apartment->runThreadPass("reply opener thread, link open abandoned",
                                 [apartment] { apartment->openQueuedReplyLink(THREAD_PASS_MS); });
    return nullptr;
}

void CApartment::listenConnection(DWORD dwTimeout) {
    // Only this thread and destroyApartment (after joining it) touch the
    // listen sink, so it needs no lock.
    if (m_ListenSink.nil()) return;
    IApartmentServerSink* serverSink = m_ListenSink->processConnectRequest(dwTimeout);
    if (serverSink == nullptr) return;
    APARTMENT_TMSG msg;
    msg.m_intMsg = ADD_APARTMENT_CONNECTION;
    msg.wParam = reinterpret_cast<WPARAM>(serverSink);
    msg.lParam = 0;
    // Straight into the main queue: this code is never deferred.
    queueOrRelease(m_ApartmentMsgQueue, msg);
}

void CApartment::receiveFrame(DWORD dwTimeout, bool bRtConnection) {
    std::vector<IApartmentSink*>& sinks = bRtConnection ? m_RtReceiveSinks : m_NonRtReceiveSinks;
    SinkMap& map = sinkMap(bRtConnection);
    const timespec deadline = OS::Clock::monotonicDeadline(dwTimeout);

    // A sink condemned by a stalled write is closed here; its nodes hear
    // that the link went, as for a peer's close, and the entry is removed
    // so that the next write opens a new link instead of failing for ever.
    std::vector<IApartmentSink*> condemned;
    auto take = [&sinks, &condemned](IApartmentSink* sink) {
        if (sink == nullptr || sink->isSinkClosed()) return;
        sink->addRef();
        if (sink->isExpectSinkClosed()) {
            sink->closeSink();
            condemned.push_back(sink);
            return;
        }
        sinks.push_back(sink);
    };

    m_ConnectionManageMutex.lock();
    if (!bRtConnection) {
        take(m_LoopbackClientSink);
        take(m_LoopbackServerSink);
    }
    for (auto& entry : map) take(entry.second);

    if (sinks.empty() && condemned.empty()) {
        m_ConnectionNotEmptyCondition.wait(deadline);
        m_ConnectionManageMutex.unlock();
        return;
    }
    m_ConnectionManageMutex.unlock();

    for (IApartmentSink* sink : condemned) {
        APARTMENT_TMSG msg;
        msg.m_intMsg = APARTMENT_CONNECTION_CLOSED;
        msg.wParam = reinterpret_cast<WPARAM>(sink);  // the message carries the reference
        msg.lParam = 0;
        postMessage(msg);
    }
    for (size_t first = 0; first < sinks.size(); first += MAX_SINKS_PER_WAIT) {
        const size_t count = std::min<size_t>(MAX_SINKS_PER_WAIT, sinks.size() - first);
        waitFrameOnSinks(&sinks[first], static_cast<unsigned int>(count), dwTimeout);
    }
    for (IApartmentSink* sink : sinks) sink->releaseRef();
    sinks.clear();
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
    return m_ApartmentMsgQueue.pop(msg, deadline);
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
    return guarded("dispatch, message dropped", 1, [&] { return dispatchAllowed(msg); });
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

// -------------------------------------------------------------- connections

CApartment::SinkMap& CApartment::sinkMap(bool bRtConnection) {
    return bRtConnection ? m_RtCommunicationSinkMap : m_NonRtCommunicationSinkMap;
}

bool CApartment::loopbackApartment(const char* strRemoteApartmentUrl) const {
    return strRemoteApartmentUrl != nullptr && !m_strLoopbackApartmentUrl.empty() &&
           m_strLoopbackApartmentUrl == strRemoteApartmentUrl;
}

bool CApartment::connectApartment(const char* strRemoteApartmentUrl, bool bRtConnection) {
    if (strRemoteApartmentUrl == nullptr) return false;
    const LINK_KEY key(strRemoteApartmentUrl, bRtConnection);
    std::shared_ptr<_LINK_OPEN> open;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        if (sinkMap(bRtConnection).count(key.first) != 0) return true;
        auto pending = m_LinkOpens.find(key);
        if (pending != m_LinkOpens.end() && pending->second->m_bStarted) {
            // Another thread is opening this very link: share its outcome
            // rather than open a second link that one end would drop (with
            // what was written on it). Bounded by that open's connect
            // time-out.
            const std::shared_ptr<_LINK_OPEN> awaited = pending->second;
            while (!awaited->m_bDone) m_LinkOpenCondition.wait();
            return awaited->m_bOpened;
        }
        if (pending != m_LinkOpens.end()) {
            // Queued for the reply opener and not started: this thread
            // opens it now (and sends the answers waiting for it) rather
            // than wait behind the opener's other links.
            open = pending->second;
            auto queued = std::find(m_ReplyOpenQueue.begin(), m_ReplyOpenQueue.end(), key);
            if (queued != m_ReplyOpenQueue.end()) m_ReplyOpenQueue.erase(queued);
        } else {
            open = std::make_shared<_LINK_OPEN>();
            m_LinkOpens.emplace(key, open);
        }
        open->m_bStarted = true;
    }
    return runLinkOpen(key, open);
}

bool CApartment::runLinkOpen(const LINK_KEY& key, const std::shared_ptr<_LINK_OPEN>& open) {
    bool opened = false;
    try {
        opened = openLink(key);
    } catch (...) {
        finishLinkOpen(key, open, false);  // its waiters must not wait for ever
        throw;
    }
    finishLinkOpen(key, open, opened);
    return opened;
}

bool CApartment::openLink(const LINK_KEY& key) {
    const char* strRemoteApartmentUrl = key.first.c_str();
    const bool bRtConnection = key.second;
    std::string address;
    getPortAddressFromApartmentUrl(strRemoteApartmentUrl, address);
    CReference<IApartmentSink> sink(createSink(CLIENT_SINK));
    if (sink.nil()) return false;
    if (!sink->initSink(nullptr, address.c_str())) return false;

    sink->setLocalApartmentUrl(m_strApartmentUrl.c_str());
    std::string localUrl;
    CApartmentSinkHelper::getLocalApartmentUrl(sink, localUrl);
    sink->setRemoteApartmentUrl(strRemoteApartmentUrl);
    sink->setRTConnection(bRtConnection);

    char block[APARTMENT_CONNECTION_BLOCK_SIZE];
    CApartmentFrameCodec::buildConnectionBlock(bRtConnection, localUrl.c_str(), block);
    sink->sendFrame(APARTMENT_CONNECTION_FRAME, block,
                    static_cast<unsigned int>(APARTMENT_CONNECTION_BLOCK_SIZE));

    if (localUrl == key.first) {
        sink->setLoopbackType(CLIENT_LOOPBACK_TYPE);
        bool stored = false;
        {
            TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
            if (m_LoopbackClientSink.nil()) {
                m_strLoopbackApartmentUrl = key.first;
                m_LoopbackClientSink = sink;
                // Both communication threads may idle on this condition: wake
                // both rather than risk waking the one this sink is not for.
                m_ConnectionNotEmptyCondition.notifyAll();
                log_task_line("Detected client loopback interface changed(%s---->%s).",
                              localUrl.c_str(), strRemoteApartmentUrl);
                stored = true;
            }
        }
        // Loopback sinks never pass through addApartmentSink, which starts
        // the non-real-time thread for ordinary links; without this an
        // apartment linked only to itself would never read its loopback.
        if (stored) createNonRtCommunicationThread();
    } else {
        addApartmentSink(sink);
    }
    return true;
}

void CApartment::finishLinkOpen(const LINK_KEY& key, const std::shared_ptr<_LINK_OPEN>& open,
                                bool bOpened) {
    std::vector<_PENDING_REPLY> replies;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        open->m_bDone = true;
        open->m_bOpened = bOpened;
        auto it = m_LinkOpens.find(key);
        if (it != m_LinkOpens.end() && it->second == open) m_LinkOpens.erase(it);
        replies.swap(open->m_Replies);
        for (const _PENDING_REPLY& reply : replies) m_uintPendingReplyBytes -= replyCost(reply);
        if (open->m_bForReplies) --m_uintReplyOpens;
        m_LinkOpenCondition.notifyAll();
    }
    if (!replies.empty()) deliverReplies(key, replies, bOpened);
}

size_t CApartment::replyCost(const _PENDING_REPLY& reply) {
    return REPLY_OVERHEAD_BYTES + reply.m_strNodeUrl.size() + reply.m_strRemoteNodeUrl.size() +
           reply.m_Data.size();
}

bool CApartment::queueReply(const LINK_KEY& key, _PENDING_REPLY&& reply) {
    const size_t cost = replyCost(reply);
    const char* refusal = nullptr;
    CReference<IApartmentSink> link;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        link = linkLocked(key.first.c_str(), key.second, nullptr);
        if (link.nil()) {
            auto pending = m_LinkOpens.find(key);
            if (m_uintPendingReplyBytes + cost > MAX_PENDING_REPLY_BYTES) {
                refusal = "too many bytes of responses wait for links";
            } else if (pending == m_LinkOpens.end() && m_uintReplyOpens >= MAX_REPLY_OPENS) {
                refusal = "too many links are being opened for responses";
            } else {
                if (pending == m_LinkOpens.end()) {
                    std::shared_ptr<_LINK_OPEN> open = std::make_shared<_LINK_OPEN>();
                    open->m_bForReplies = true;
                    pending = m_LinkOpens.emplace(key, open).first;
                    m_ReplyOpenQueue.push_back(key);
                    ++m_uintReplyOpens;
                    createReplyOpenerThread();
                    m_LinkOpenCondition.notifyAll();
                }
                pending->second->m_Replies.push_back(std::move(reply));
                m_uintPendingReplyBytes += cost;
                return true;
            }
        }
    }
    if (refusal != nullptr) {
        log_task_line("[Apartment Warning]: Response %u to %s dropped: %s.",
                      reply.m_uintRequestId, key.first.c_str(), refusal);
        return false;
    }
    return sendReply(link, key.first.c_str(), reply);  // filed meanwhile
}

void CApartment::deliverReplies(const LINK_KEY& key, std::vector<_PENDING_REPLY>& replies,
                                bool bOpened) {
    CReference<IApartmentSink> link;
    if (bOpened) link = findLink(key.first.c_str(), key.second);
    if (link.nil()) {
        log_task_line("[Apartment Warning]: No link to %s could be opened: %zu response(s) "
                      "dropped.",
                      key.first.c_str(), replies.size());
        return;
    }
    size_t failed = 0;
    for (const _PENDING_REPLY& reply : replies)
        if (!guarded("sending a queued response", false,
                     [&] { return sendReply(link, key.first.c_str(), reply); }))
            ++failed;
    if (failed != 0)
        log_task_line("[Apartment Warning]: %zu response(s) to %s could not be sent.", failed,
                      key.first.c_str());
}

void CApartment::openQueuedReplyLink(DWORD dwTimeout) {
    LINK_KEY key;
    std::shared_ptr<_LINK_OPEN> open;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        if (m_ReplyOpenQueue.empty()) {
            m_LinkOpenCondition.wait(OS::Clock::monotonicDeadline(dwTimeout));
            return;
        }
        key = m_ReplyOpenQueue.front();
        m_ReplyOpenQueue.pop_front();
        auto it = m_LinkOpens.find(key);
        if (it == m_LinkOpens.end()) return;
        open = it->second;
        open->m_bStarted = true;
    }
    runLinkOpen(key, open);
}

void CApartment::dropQueuedReplyOpens() {
    std::vector<std::pair<LINK_KEY, std::shared_ptr<_LINK_OPEN>>> queued;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        for (const LINK_KEY& key : m_ReplyOpenQueue) {
            auto it = m_LinkOpens.find(key);
            if (it != m_LinkOpens.end()) queued.emplace_back(key, it->second);
        }
        m_ReplyOpenQueue.clear();
    }
    for (auto& entry : queued) finishLinkOpen(entry.first, entry.second, false);
}

void CApartment::addApartmentSink(IApartmentSink* pSink) {
    if (pSink == nullptr) return;
    const bool bRtConnection = pSink->getRTConnection();
    std::string localUrl, remoteUrl;
    CApartmentSinkHelper::getLocalApartmentUrl(pSink, localUrl);
    CApartmentSinkHelper::getRemoteApartmentUrl(pSink, remoteUrl);

    if (localUrl != remoteUrl) {
        SinkMap& map = sinkMap(bRtConnection);
        CReference<IApartmentSink> replaced;  // released after the unlock
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        if (map.empty()) {
            if (bRtConnection)
                createRtCommunicationThread();
            else
                createNonRtCommunicationThread();
        }
        auto it = map.find(remoteUrl);
        if (it != map.end()) {
            // A peer opens a link only when it holds none to us, so a second
            // accepted link under its URL means it dropped the first (a
            // quick reconnect whose old close is not handled yet): the new
            // one is kept. Links opened from both ends at once are settled
            // by compareConnection, which both ends answer alike.
            const bool reconnected =
                pSink->sinkType() == SERVER_SINK && it->second->sinkType() == SERVER_SINK;
            if (reconnected || pSink->compareConnection(it->second) > 0) {
                replaced = it->second;
                pSink->addRef();
                it->second = pSink;
            }
            return;
        }
        pSink->addRef();
        map.emplace(remoteUrl, CReference<IApartmentSink>(pSink));
        m_ConnectionNotEmptyCondition.notifyAll();
        return;
    }

    TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
    if (pSink->sinkType() == CLIENT_SINK) {
        if (!m_LoopbackClientSink.nil())
            log_task_line("Client loopback apartment sink is already added.");
        else
            log_task_line("Client loopback apartment sink should not be added in function %s.",
                          "addApartmentSink");
    } else if (pSink->sinkType() == SERVER_SINK) {
        if (!m_LoopbackServerSink.nil())
            log_task_line("Server loopback apartment sink is already added.");
        else
            log_task_line("Server loopback apartment sink should not be added in function %s.",
                          "addApartmentSink");
    }
}

void CApartment::removeApartmentSink(IApartmentSink* pSink) {
    if (pSink == nullptr) return;
    const bool bRtConnection = pSink->getRTConnection();
    std::string remoteUrl;
    CApartmentSinkHelper::getRemoteApartmentUrl(pSink, remoteUrl);

    // Only the link itself is removed: a peer that closed and at once came
    // back under the same URL may already have its new link filed in the
    // old one's place, and the old link's late close must not take it.
    if (pSink->getLoopbackType() != NONE_LOOPBACK_TYPE) {
        CReference<IApartmentSink> client, server;
        {
            TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
            if (m_LoopbackClientSink != pSink && m_LoopbackServerSink != pSink) return;
            m_strLoopbackApartmentUrl.clear();
            client = m_LoopbackClientSink;
            server = m_LoopbackServerSink;
            m_LoopbackClientSink = nullptr;
            m_LoopbackServerSink = nullptr;
        }
        log_task_line("Loopback apartment sink is removed.");
        return;
    }

    CReference<IApartmentSink> removed;
    TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
    SinkMap& map = sinkMap(bRtConnection);
    auto it = map.find(remoteUrl);
    if (it == map.end() || it->second != pSink) return;
    removed = it->second;
    map.erase(it);
}

bool CApartment::hasConnection(const char* strRemoteApartmentUrl, bool bRtConnection) {
    if (strRemoteApartmentUrl == nullptr) return false;
    TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
    if (loopbackApartment(strRemoteApartmentUrl)) return true;
    return sinkMap(bRtConnection).count(std::string_view(strRemoteApartmentUrl)) != 0;
}

bool CApartment::disconnectApartment(const char* strRemoteApartmentUrl, bool bRtConnection) {
    if (strRemoteApartmentUrl == nullptr) return false;
    CReference<IApartmentSink> first, second;  // released after the unlock
    TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
    if (loopbackApartment(strRemoteApartmentUrl)) {
        m_strLoopbackApartmentUrl.clear();
        first = m_LoopbackClientSink;
        second = m_LoopbackServerSink;
        m_LoopbackClientSink = nullptr;
        m_LoopbackServerSink = nullptr;
        return true;
    }
    SinkMap& map = sinkMap(bRtConnection);
    auto it = map.find(strRemoteApartmentUrl);
    if (it == map.end()) return false;
    first = it->second;
    map.erase(it);
    return true;
}

bool CApartment::localApartmentUrl(const char* strRemoteApartmentUrl, bool bRtConnection,
                                   char* strLocalApartmentUrl, DWORD& dwLen) {
    if (strRemoteApartmentUrl == nullptr) return false;
    TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
    if (loopbackApartment(strRemoteApartmentUrl))
        return !m_LoopbackClientSink.nil() &&
               m_LoopbackClientSink->getLocalApartmentUrl(strLocalApartmentUrl, dwLen);
    SinkMap& map = sinkMap(bRtConnection);
    auto it = map.find(strRemoteApartmentUrl);
    if (it == map.end()) return false;
    return it->second->getLocalApartmentUrl(strLocalApartmentUrl, dwLen);
}

void CApartment::onConnectionClosed(IApartmentSink* pSink) {
    if (pSink == nullptr) return;
    std::string remoteUrl;
    CApartmentSinkHelper::getRemoteApartmentUrl(pSink, remoteUrl);
    {
        TAutoMutex<OS::TRecursiveMutex> lock(&m_NodeManageMutex);
        // A node's callback may destroy or create nodes (the mutex is
        // recursive): walk a counted copy, never the map itself.
        std::vector<CReference<IApartmentNode>> nodes;
        nodes.reserve(m_ApartmentNodeMap.size());
        for (auto& entry : m_ApartmentNodeMap)
            if (!entry.second.nil()) nodes.push_back(entry.second);
        for (auto& node : nodes) node->notifyApartmentOffline(remoteUrl.c_str());
    }
    removeApartmentSink(pSink);
}

void CApartment::onAddConnection(IApartmentServerSink* pServerSink) {
    CReference<IApartmentServerSink> serverSink(pServerSink);
    if (serverSink.nil()) return;
    CReference<IApartmentSink> sink(asIApartmentSink(serverSink));
    bool bRtConnection = false;
    if (sink.nil() || !serverSink->waitRemoteConnectionInfo(CONNECTION_INFO_TIMEOUT_MS, bRtConnection))
        return;  // the connection is dropped with the last references
    sink->setRTConnection(bRtConnection);
    std::string localUrl, remoteUrl;
    CApartmentSinkHelper::getLocalApartmentUrl(sink, localUrl);
    CApartmentSinkHelper::getRemoteApartmentUrl(sink, remoteUrl);
    if (localUrl == remoteUrl) {
        sink->setLoopbackType(SERVER_LOOPBACK_TYPE);
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        if (m_LoopbackServerSink.nil()) {
            m_LoopbackServerSink = sink;
            log_task_line("Detected server loopback interface changed(%s---->%s).",
                          localUrl.c_str(), remoteUrl.c_str());
        }
        return;
    }
    addApartmentSink(sink);
}

// ------------------------------------------------------------ frame writing

CReference<IApartmentSink> CApartment::findLink(const char* strRemoteApartmentUrl,
                                                bool bRtConnection, bool* pbLoopback) {
    TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
    return linkLocked(strRemoteApartmentUrl, bRtConnection, pbLoopback);
}

CReference<IApartmentSink> CApartment::linkLocked(const char* strRemoteApartmentUrl,
                                                  bool bRtConnection, bool* pbLoopback) {
    if (loopbackApartment(strRemoteApartmentUrl)) {
        if (pbLoopback != nullptr) *pbLoopback = true;
        return m_LoopbackClientSink;
    }
    if (strRemoteApartmentUrl == nullptr) return CReference<IApartmentSink>();
    SinkMap& map = sinkMap(bRtConnection);
    auto it = map.find(std::string_view(strRemoteApartmentUrl));
    return it == map.end() ? CReference<IApartmentSink>() : it->second;
}

CReference<IApartmentSink> CApartment::linkOrConnect(const char* strRemoteApartmentUrl,
                                                     bool bRtConnection) {
    CReference<IApartmentSink> link = findLink(strRemoteApartmentUrl, bRtConnection);
    if (!link.nil() || !connectApartment(strRemoteApartmentUrl, bRtConnection)) return link;
    return findLink(strRemoteApartmentUrl, bRtConnection);
}

template <class Build>
bool CApartment::encodes(Build&& build) {
    try {
        build();
        return true;
    } catch (CAbstractStream::CStreamException* e) {
        delete e;  // a name or URL that is not pure ASCII: the caller's mistake, not a fault
        return false;
    }
}

bool CApartment::sendPayload(IApartmentSink* pSink, unsigned int uintFrameType,
                             const std::vector<char>& payload) {
    return pSink->sendFrame(uintFrameType, payload.empty() ? nullptr : payload.data(),
                            static_cast<unsigned int>(payload.size()));
}

bool CApartment::writeRequestFrame(const char* strApartmentNodeUrl,
                                   const char* strRemoteApartmentUrl,
                                   const char* strRemoteApartmentNodeUrl, void* pRequestBuffer,
                                   unsigned int uintBufLen, bool bRtConnection,
                                   unsigned int& uintRequestId, bool bRequireResponse) {
    CReference<IApartmentSink> link = linkOrConnect(strRemoteApartmentUrl, bRtConnection);
    if (link.nil()) return false;
    const LinkLocalUrl localUrl(link);
    // The counter returns the value after the addition; the id is the one
    // before it. Only its low 32 bits travel.
    const unsigned int id =
        static_cast<unsigned int>(OS::Thread::syncFetchAdd(&m_ulNextRequestId) - 1);
    CPayloadHead head;
    if (!encodes([&] {
            CApartmentFrameCodec::buildRequestHead(head, localUrl.text(), strApartmentNodeUrl,
                                                   strRemoteApartmentUrl,
                                                   strRemoteApartmentNodeUrl, id, bRequireResponse);
        }))
        return false;
    // The caller's data follows the fields as it is, without a copy.
    const bool sent = link->sendFrameParts(APARTMENT_REQUEST_FRAME, head.data(), head.size(),
                                           pRequestBuffer,
                                           pRequestBuffer != nullptr ? uintBufLen : 0);
    if (sent) uintRequestId = id;
    return sent;
}

bool CApartment::writeResponseFrame(const char* strApartmentNodeUrl,
                                    const char* strRemoteApartmentUrl,
                                    const char* strRemoteApartmentNodeUrl,
                                    unsigned int uintRequestId, int intResponseCode,
                                    void* pResponseBuffer, unsigned int uintBufLen,
                                    bool bRtConnection) {
    if (strRemoteApartmentUrl == nullptr) return false;
    CReference<IApartmentSink> link = findLink(strRemoteApartmentUrl, bRtConnection);
    if (!link.nil()) {
        return sendReply(link, strRemoteApartmentUrl, strApartmentNodeUrl,
                         strRemoteApartmentNodeUrl, uintRequestId, intResponseCode,
                         pResponseBuffer, pResponseBuffer != nullptr ? uintBufLen : 0);
    }
    // No link to the requester. An answer never waits for a connect here:
    // this is usually the dispatching thread, and a peer naming return
    // addresses that nobody answers would hold it for a connect time-out
    // per request. The reply opener opens the link and sends it. The names
    // are checked now, while the caller can still be told.
    CPayloadHead check;
    if (!encodes([&] {
            CApartmentFrameCodec::buildResponseHead(check, m_strApartmentUrl, strApartmentNodeUrl,
                                                    strRemoteApartmentUrl,
                                                    strRemoteApartmentNodeUrl, uintRequestId,
                                                    intResponseCode);
        }))
        return false;
    _PENDING_REPLY reply;
    reply.m_strNodeUrl = strApartmentNodeUrl != nullptr ? strApartmentNodeUrl : "";
    reply.m_strRemoteNodeUrl = strRemoteApartmentNodeUrl != nullptr ? strRemoteApartmentNodeUrl : "";
    reply.m_uintRequestId = uintRequestId;
    reply.m_intResponseCode = intResponseCode;
    reply.m_bHasData = pResponseBuffer != nullptr;
    if (pResponseBuffer != nullptr)
        reply.m_Data.assign(static_cast<const char*>(pResponseBuffer),
                            static_cast<const char*>(pResponseBuffer) + uintBufLen);
    return queueReply(LINK_KEY(strRemoteApartmentUrl, bRtConnection), std::move(reply));
}

bool CApartment::sendReply(IApartmentSink* pLink, const char* strRemoteApartmentUrl,
                           const _PENDING_REPLY& reply) {
    return sendReply(pLink, strRemoteApartmentUrl, reply.m_strNodeUrl.c_str(),
                     reply.m_strRemoteNodeUrl.c_str(), reply.m_uintRequestId,
                     reply.m_intResponseCode, reply.m_bHasData ? reply.m_Data.data() : nullptr,
                     static_cast<unsigned int>(reply.m_Data.size()));
}

bool CApartment::sendReply(IApartmentSink* pLink, const char* strRemoteApartmentUrl,
                           const char* strApartmentNodeUrl, const char* strRemoteApartmentNodeUrl,
                           unsigned int uintRequestId, int intResponseCode, const void* pData,
                           unsigned int uintDataSize) {
    const LinkLocalUrl localUrl(pLink);
    CPayloadHead head;
    if (!encodes([&] {
            CApartmentFrameCodec::buildResponseHead(head, localUrl.text(), strApartmentNodeUrl,
                                                    strRemoteApartmentUrl,
                                                    strRemoteApartmentNodeUrl, uintRequestId,
                                                    intResponseCode);
        }))
        return false;
    // The data follows the fields as it is, without a copy.
    return pLink->sendFrameParts(APARTMENT_RESPONSE_FRAME, head.data(), head.size(), pData,
                                 pData != nullptr ? uintDataSize : 0);
}

bool CApartment::writeRawFrame(const char* strRemoteApartmentUrl, unsigned int uintFrameType,
                               const void* pRawBuffer, unsigned int uintBufLen,
                               bool bRtConnection) {
    bool loopback = false;
    CReference<IApartmentSink> link = findLink(strRemoteApartmentUrl, bRtConnection, &loopback);
    if (loopback) {
        // A raw frame to itself is never sent: it reaches the callback at
        // once, on this thread.
        CReference<IApartmentCallback> cb = apartmentCallback();
        if (!cb.nil()) cb->onRawFrameReceived(uintFrameType, pRawBuffer, uintBufLen);
        return true;
    }
    if (link.nil()) return false;
    return link->sendFrame(uintFrameType, pRawBuffer, uintBufLen);
}

// ------------------------------------------------------------ frame arrival

void CApartment::onLoopbackFrameArrived(IApartmentFrame* pFrame) {
    const unsigned int type = pFrame->getFrameType();
    const unsigned int size = pFrame->getFrameSize();
    CReference<IApartmentSink> server;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        server = m_LoopbackServerSink;
    }
    // Back through the server end to the client end, where it arrives as an
    // ordinary frame.
    if (!server.nil()) server->sendFrame(type, pFrame->getFrameBuffer(), size);
}

namespace {
// Parsed requests of the dispatching thread, one per nesting level (a node
// callback may pump, and so parse the next request, before its own returns),
// kept across frames so that their strings keep their room: the fields of a
// request then cost no allocation.
thread_local std::vector<std::unique_ptr<APARTMENT_REQUEST_PAYLOAD>> t_requests;
thread_local size_t t_requestDepth = 0;

class RequestSlot {
public:
    RequestSlot() {
        if (t_requests.size() <= t_requestDepth)
            t_requests.emplace_back(new APARTMENT_REQUEST_PAYLOAD());
        m_pRequest = t_requests[t_requestDepth++].get();
    }
    ~RequestSlot() { --t_requestDepth; }
    APARTMENT_REQUEST_PAYLOAD& request() { return *m_pRequest; }

private:
    APARTMENT_REQUEST_PAYLOAD* m_pRequest;
};
}  // namespace

void CApartment::onRequestFrameArrived(IApartmentFrame* pFrame) {
    RequestSlot slot;
    APARTMENT_REQUEST_PAYLOAD& request = slot.request();
    if (!CApartmentFrameCodec::parseRequestPayload(pFrame->getFrameBuffer(), pFrame->getFrameSize(),
                                                   request))
        return;
    CReference<IApartmentNode> node(findApartmentNode(request.m_strTargetNodeUrl.c_str()));
    if (node.nil()) return;
    // The host reads the data where it lies in the frame, which is this
    // handler's until it returns. The receiver lays frames out with the data
    // aligned; otherwise it moves to the buffer's (aligned) start.
    char* data = nullptr;
    if (request.m_uintDataSize != 0) {
        data = const_cast<char*>(request.m_pData);
        if (reinterpret_cast<uintptr_t>(data) % alignof(std::max_align_t) != 0) {
            data = pFrame->getFrameBuffer();
            std::memmove(data, request.m_pData, request.m_uintDataSize);
        }
    }
    node->receiveRequest(request.m_strSourceApartmentUrl.c_str(),
                         request.m_strSourceNodeUrl.c_str(),
                         request.m_strTargetApartmentUrl.c_str(),
                         request.m_strTargetNodeUrl.c_str(), request.m_uintRequestId, data,
                         request.m_uintDataSize, request.m_bRequireResponse);
}

void CApartment::onResponseFrameArrived(IApartmentFrame* pFrame) {
    APARTMENT_RESPONSE_PAYLOAD response;
    if (!CApartmentFrameCodec::parseResponsePayload(pFrame->getFrameBuffer(),
                                                    pFrame->getFrameSize(), response))
        return;
    CReference<IApartmentNode> node(findApartmentNode(response.m_strTargetNodeUrl.c_str()));
    if (node.nil()) return;
    if (!node->addResponse(response.m_uintRequestId, response.m_intResponseCode, response.m_pData,
                           response.m_uintDataSize))
        log_task_line("[Apartment Warning]: Request %u already have response.",
                      response.m_uintRequestId);
}

void CApartment::onNormalFrameArrived(IApartmentFrame* pFrame) {
    if (pFrame->getFrameType() == APARTMENT_ALIVE_FRAME)
        onAliveFrameArrived(pFrame);
    else if (pFrame->getFrameType() == APARTMENT_ALIVE_ACK_FRAME)
        onAliveAckFrameArrived(pFrame);
}

// ------------------------------------------------------ timers and heartbeat

unsigned int CApartment::setTimer(const char* strNodeUrl, unsigned int uintLagTime,
                                  unsigned int uintInterval) {
    if (strNodeUrl != nullptr) {
        TAutoMutex<OS::TRecursiveMutex> lock(&m_NodeManageMutex);
        auto it = m_ApartmentNodeMap.find(strNodeUrl);
        return it == m_ApartmentNodeMap.end() ? NO_TIMER
                                              : it->second->setTimer(uintLagTime, uintInterval);
    }
    CApartmentTimerManager* manager = CApartmentTimerManager::getUniqueApartmentTimerManager();
    if (manager == nullptr) return NO_TIMER;
    APARTMENT_TIMER_INFO info;
    addRef();
    info.m_Apartment = static_cast<IApartment*>(this);
    info.m_uintLagTime = uintLagTime;
    info.m_uintInterval = uintInterval;
    const unsigned int id = manager->setTimer(info);
    if (id != NO_TIMER) {
        TAutoMutex<OS::TBaseMutex> lock(&m_TimerIdMutex);
        m_timerIdSet.insert(id);
    }
    return id;
}

unsigned int CApartment::setSingleTimer(const char* strNodeUrl, unsigned int uintLagTime) {
    return setTimer(strNodeUrl, uintLagTime, 0);
}

bool CApartment::killTimer(const char* strNodeUrl, unsigned int uintTimerId) {
    if (strNodeUrl != nullptr) {
        TAutoMutex<OS::TRecursiveMutex> lock(&m_NodeManageMutex);
        auto it = m_ApartmentNodeMap.find(strNodeUrl);
        return it != m_ApartmentNodeMap.end() && it->second->killTimer(uintTimerId);
    }
    CApartmentTimerManager* manager = CApartmentTimerManager::getUniqueApartmentTimerManager();
    if (manager == nullptr || !manager->killTimer(uintTimerId)) return false;
    TAutoMutex<OS::TBaseMutex> lock(&m_TimerIdMutex);
    m_timerIdSet.erase(uintTimerId);
    return true;
}

void CApartment::killAllTimer() {
    std::set<unsigned int> ids;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_TimerIdMutex);
        ids.swap(m_timerIdSet);
    }
    CApartmentTimerManager* manager = CApartmentTimerManager::getUniqueApartmentTimerManager();
    if (manager == nullptr) return;
    for (unsigned int id : ids) manager->killTimer(id);
}

bool CApartment::keepAliveWith(const char* strRemoteApartmentUrl, unsigned int uintAliveCounter,
                               unsigned int uintAliveInterval) {
    const std::string url = strRemoteApartmentUrl != nullptr ? strRemoteApartmentUrl : "";
    TAutoMutex<OS::TBaseMutex> lock(&m_HeartbeatMutex);
    auto watched = m_HeartbeatTimerIdMap.find(url);
    if (uintAliveCounter != 0) {
        if (watched != m_HeartbeatTimerIdMap.end()) return false;
        const unsigned int id = setTimer(nullptr, 0, uintAliveInterval);
        m_HeartbeatTimerIdMap[url] = id;
        m_HeartbeatTimerInfoMap[id] = _HEARTBEAT_INFO{url, uintAliveCounter, uintAliveCounter};
        return true;
    }
    if (watched == m_HeartbeatTimerIdMap.end()) return false;
    const unsigned int id = watched->second;
    killTimer(nullptr, id);
    m_HeartbeatTimerInfoMap.erase(id);
    m_HeartbeatTimerIdMap.erase(watched);
    return true;
}

void CApartment::onApartmentTimer(IApartmentNode* pNode, unsigned int uintTimerId) {
    if (pNode != nullptr) {
        pNode->onApartmentTimer(uintTimerId);
        return;
    }
    bool heartbeat = false;
    bool counterLeft = false;
    std::string remoteUrl;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_HeartbeatMutex);
        auto it = m_HeartbeatTimerInfoMap.find(uintTimerId);
        if (it != m_HeartbeatTimerInfoMap.end()) {
            heartbeat = true;
            counterLeft = it->second.m_uintAliveCounter != 0;
            remoteUrl = it->second.m_strRemoteApartmentUrl;
        }
    }
    if (heartbeat && counterLeft) {
        heartbeatWithApartment(remoteUrl.c_str(), uintTimerId);
        // Looked up again: the watch may have been stopped meanwhile.
        TAutoMutex<OS::TBaseMutex> lock(&m_HeartbeatMutex);
        auto it = m_HeartbeatTimerInfoMap.find(uintTimerId);
        if (it != m_HeartbeatTimerInfoMap.end() && it->second.m_uintAliveCounter != 0)
            --it->second.m_uintAliveCounter;
    } else {
        CReference<IApartmentCallback> cb = apartmentCallback();
        if (!cb.nil()) {
            if (heartbeat)
                cb->onApartmentOffline(remoteUrl.c_str());
            else
                cb->onTimer(uintTimerId);
        }
    }
    CApartmentTimerManager* manager = CApartmentTimerManager::getUniqueApartmentTimerManager();
    if (manager == nullptr || !manager->generateNextTimer(uintTimerId)) killTimer(nullptr, uintTimerId);
}

bool CApartment::heartbeatWithApartment(const char* strRemoteApartmentUrl,
                                        unsigned int uintTimerId) {
    CReference<IApartmentSink> link;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        auto it = m_NonRtCommunicationSinkMap.find(strRemoteApartmentUrl != nullptr
                                                       ? strRemoteApartmentUrl
                                                       : "");
        if (it != m_NonRtCommunicationSinkMap.end()) link = it->second;
    }
    if (link.nil()) return false;
    std::string localUrl;
    CApartmentSinkHelper::getLocalApartmentUrl(link, localUrl);
    return sendPayload(link, APARTMENT_ALIVE_FRAME,
                       CApartmentFrameCodec::buildAlivePayload(localUrl, uintTimerId));
}

void CApartment::onAliveFrameArrived(IApartmentFrame* pFrame) {
    APARTMENT_ALIVE_PAYLOAD alive;
    if (!CApartmentFrameCodec::parseAlivePayload(pFrame->getFrameBuffer(), pFrame->getFrameSize(),
                                                 alive))
        return;
    CReference<IApartmentSink> link;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        auto it = m_NonRtCommunicationSinkMap.find(alive.m_strSenderApartmentUrl);
        if (it != m_NonRtCommunicationSinkMap.end()) link = it->second;
    }
    // Echo the payload unchanged.
    if (!link.nil())
        link->sendFrame(APARTMENT_ALIVE_ACK_FRAME, pFrame->getFrameBuffer(), pFrame->getFrameSize());
}

void CApartment::onAliveAckFrameArrived(IApartmentFrame* pFrame) {
    APARTMENT_ALIVE_PAYLOAD alive;
    if (!CApartmentFrameCodec::parseAlivePayload(pFrame->getFrameBuffer(), pFrame->getFrameSize(),
                                                 alive))
        return;
    TAutoMutex<OS::TBaseMutex> lock(&m_HeartbeatMutex);
    auto it = m_HeartbeatTimerInfoMap.find(alive.m_uintTimerId);
    if (it != m_HeartbeatTimerInfoMap.end())
        it->second.m_uintAliveCounter = it->second.m_uintMaxCounter;
}
