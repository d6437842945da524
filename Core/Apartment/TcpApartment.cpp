#include "TcpApartment.h"

#include <cstdio>
#include <cstring>
#include <algorithm>
#include <new>

#include "ApartmentFrame.h"
#include "ApartmentFrameCodec.h"
#include "ApartmentGuard.h"
#include "os_poller.h"
#include "GroundKit/OS/OS_Clock.h"
#include "GroundKit/OS/OS_Thread.h"
#include "GroundKit/OS/Socket/OS_Socket.h"
#include "TcpApartmentSink.h"
#include "os_log.h"

namespace {
const char TCP_SCHEME[] = "tcp://";
const size_t TCP_SCHEME_LENGTH = sizeof(TCP_SCHEME) - 1;
const int ACCEPTS_PER_PASS = 1024;

// The messages of one pass, kept per communication thread so that a pass
// allocates nothing once the threads have warmed up.
thread_local std::vector<APARTMENT_TMSG> t_batch;

// Who is at the other end, for a diagnostic line.
std::string peerOf(IApartmentSink* pSink) {
    std::string peer;
    if (!CApartmentSinkHelper::getRemoteApartmentUrl(pSink, peer) || peer.empty())
        CApartmentSinkHelper::getRemoteAddress(pSink, peer);
    return peer;
}
}  // namespace

CTcpApartment::CTcpApartment()
    : m_pRtRawBuffer(new (std::nothrow) char[RT_RAW_BUFFER_SIZE]()),
      m_uintRtRawBufferSize(m_pRtRawBuffer != nullptr ? RT_RAW_BUFFER_SIZE : 0),
      m_pLoopbackRawBuffer(nullptr),
      m_Lead(*this),
      m_uintPumpMessages(0),
      m_bListenWatched(false),
      m_EarliestDeadline(OS::Clock::noLimit()) {}

CTcpApartment::~CTcpApartment() {
    delete[] m_pRtRawBuffer;
    m_pRtRawBuffer = nullptr;
    delete[] m_pLoopbackRawBuffer;
    m_pLoopbackRawBuffer = nullptr;
}

void CTcpApartment::destroyApartment() {
    CApartment::destroyApartment();  // the listen thread has stopped when it returns
    while (!m_Handshakes.empty()) dropHandshake(m_Handshakes.begin());
}

IApartmentSink* CTcpApartment::createSink(APARTMENT_SINK_TYPE type) {
    CTcpApartmentSink* sink = nullptr;
    switch (type) {
        case LISTEN_SINK:
            sink = new CTcpListenSink();
            break;
        case CLIENT_SINK:
            sink = new CTcpClientSink();
            break;
        case SERVER_SINK:
            sink = new CTcpServerSink();
            break;
        default:
            return nullptr;
    }
    sink->setMaxFrameSize(maxFrameSize());
    sink->setTlsContext(tlsContext());
    sink->setSameHost(sameHost());
    return static_cast<IApartmentSink*>(sink);
}

bool CTcpApartment::getPortAddressFromApartmentUrl(const char* strApartmentUrl,
                                                   std::string& strAddress) {
    if (strApartmentUrl == nullptr || *strApartmentUrl == '\0')
        strAddress = "0.0.0.0:0";
    else if (std::strncmp(strApartmentUrl, TCP_SCHEME, TCP_SCHEME_LENGTH) == 0)
        strAddress = strApartmentUrl + TCP_SCHEME_LENGTH;
    else
        strAddress = strApartmentUrl;
    return true;
}

bool CTcpApartment::getApartmentUrlFromPortAddress(const char* strAddress,
                                                   std::string& strApartmentUrl) {
    if (strAddress == nullptr || *strAddress == '\0')
        strApartmentUrl = "tcp://0.0.0.0:0";
    else
        strApartmentUrl = std::string(TCP_SCHEME) + strAddress;
    return true;
}

bool CTcpApartment::watchLink(IApartmentSink* pSink, bool bRtThread) {
    CTcpApartmentSink* tcp = dynamic_cast<CTcpApartmentSink*>(pSink);
    if (tcp == nullptr) return false;
    // Frames of the real-time thread's links never wait in the queues.
    if (!bRtThread && !tcp->backlog()) tcp->setBacklog(std::make_shared<CLinkBacklog>(queueBudget()));
    CLinkPoller& poller = m_Comm[bRtThread ? 1 : 0].poller;
    if (!poller.watch(pSink, tcp->getSocketFd(), tcp)) return false;
    // Raw frames on a real-time link are never queued.
    if (!bRtThread && !pSink->getRTConnection() && sendQueueBytes() != 0)
        tcp->enableSendQueue(sendQueueBytes(), &poller);
    // The listen thread may have left frames that followed the connection
    // frame inside the TLS session, where the socket's readiness never
    // shows them.
    if (tcp->tlsPending()) poller.nudge(pSink);
    return true;
}

void CTcpApartment::resumeHeldLinks(CommThread& thread) {
    const bool lift = queueBudget()->m_liftHolds.exchange(false);
    for (auto it = thread.held.begin(); it != thread.held.end();) {
        CLinkPoller::Link link;
        if (!thread.poller.lookup(it->first, link)) {  // gone meanwhile
            --queueBudget()->m_heldLinks;
            it = thread.held.erase(it);
            continue;
        }
        CTcpApartmentSink* tcp = static_cast<CTcpApartmentSink*>(link.context);
        if (lift || !tcp->backlog() || tcp->backlog()->mayResume(it->second)) {
            thread.poller.resume(it->first);
            --queueBudget()->m_heldLinks;
            it = thread.held.erase(it);
            thread.ready.push_back(link);  // its frames already read come first
            continue;
        }
        link.sink->releaseRef();
        ++it;
    }
}

bool CTcpApartment::holdLink(CommThread& thread, uint64_t key, const CLinkBacklog& backlog) {
    const int reasons = backlog.holdReasons();
    if (reasons == 0) return false;
    thread.held.emplace(key, reasons);
    thread.poller.pause(key);
    ++queueBudget()->m_heldLinks;
    return true;
}

void CTcpApartment::unwatchLink(IApartmentSink* pSink) {
    // The sink may outlive the poller (a writer's reference).
    CTcpApartmentSink* tcp = dynamic_cast<CTcpApartmentSink*>(pSink);
    if (tcp != nullptr && tcp->sendQueueBound() != 0) tcp->setSendQueuePoller(nullptr);
    for (CommThread& thread : m_Comm) thread.poller.unwatch(pSink);
}

void CTcpApartment::interruptWait(bool bRtConnection) {
    m_Comm[bRtConnection ? 1 : 0].poller.wake();
}

void CTcpApartment::serveLinks(DWORD dwTimeout, bool bRtConnection) {
    if (bRtConnection) {
        runPass(m_Comm[1], static_cast<int>(dwTimeout), false);
        return;
    }
    if (!m_Lead.takeForCommThread(dwTimeout)) return;
    try {
        runPass(m_Comm[0], static_cast<int>(dwTimeout), false);
    } catch (...) {
        m_Lead.releaseByCommThread(false);
        throw;
    }
    m_Lead.releaseByCommThread(m_Comm[0].posted > 1 || !m_Comm[0].carried.empty());
}

bool CTcpApartment::runPass(CommThread& thread, int timeoutMs, bool bPump) {
    std::vector<CLinkPoller::Link>& links = thread.ready;
    links.clear();
    if (!thread.held.empty()) resumeHeldLinks(thread);
    // Whole frames already read are served without waiting on the sockets.
    for (uint64_t key : thread.carried) {
        CLinkPoller::Link link;
        if (thread.poller.lookup(key, link)) links.push_back(link);
    }
    thread.carried.clear();
    const size_t carried = links.size();
    thread.poller.wait(carried != 0 ? 0 : timeoutMs, links);
    if (carried != 0 && links.size() > carried) {
        // A link both carried and ready is served once.
        std::sort(links.begin(), links.end(),
                  [](const CLinkPoller::Link& a, const CLinkPoller::Link& b) { return a.key < b.key; });
        size_t kept = 0;
        for (size_t i = 0; i < links.size(); ++i) {
            if (kept != 0 && links[kept - 1].key == links[i].key)
                links[i].sink->releaseRef();
            else
                links[kept++] = links[i];
        }
        links.resize(kept);
    }
    thread.posted = 0;
    if (links.empty()) return false;

    MessageBatch& batch = t_batch;
    batch.clear();
    bool handBack = false;
    for (const CLinkPoller::Link& link : links) {
        // Raw frames of a real-time link to this apartment reach the host
        // on the communication thread, never on its pumping thread.
        if (bPump && link.sink->getRTConnection()) {
            thread.carried.push_back(link.key);
            handBack = true;
            continue;
        }
        // What goes wrong while serving one link (no memory, say) closes
        // that link only; what the others brought is still posted.
        const bool framesLeft = guarded("receiving, link closed", false, [&] {
            return serveLink(thread, link, batch);
        });
        if (framesLeft) thread.carried.push_back(link.key);
    }
    thread.posted = batch.size();
    if (bPump) m_uintPumpMessages.fetch_add(batch.size(), std::memory_order_relaxed);
    if (!batch.empty()) postMessages(batch.data(), batch.size());
    batch.clear();
    for (const CLinkPoller::Link& link : links) link.sink->releaseRef();
    links.clear();
    // A link with more than one pass to give is a stream: the
    // communication thread reads on while the pump dispatches.
    return handBack || (bPump && !thread.carried.empty());
}

// ------------------------------------------------ who waits on the links

CTcpApartment::Leadership::Leadership(CTcpApartment& owner)
    : m_Owner(owner),
      m_Mutex(MUTEX_NONE, USE_STD, nullptr),
      m_Condition(nullptr, USE_STD),
      m_ulPumpThread(0) {
    m_Condition.bindMutex(&m_Mutex);
}

timespec CTcpApartment::Leadership::afterGrace(timespec at) {
    at.tv_nsec += HAND_BACK_GRACE_US * 1000L;
    OS::Clock::adjustClockTime(&at);
    return at;
}

bool CTcpApartment::Leadership::takeForCommThread(DWORD dwTimeout) {
    TAutoMutex<OS::TBaseMutex> lock(&m_Mutex);
    const timespec deadline = OS::Clock::monotonicDeadline(dwTimeout);
    for (;;) {
        if (m_bHandBack) {
            // Before a pump that may be waiting for the links again: it
            // waits for this pass.
            m_bHandBack = false;
            break;
        }
        if (m_bPumpLeads) {
            // A pump that has led for a grace period (an idle host) calls
            // us when it leaves, and its wait costs no wake-up of ours; one
            // that comes and goes (round trips, a stream it reads itself)
            // is looked at once a grace period instead of calling us at
            // every leave, which would cost both threads a switch each time.
            const timespec settled = afterGrace(m_PumpLedAt);
            if (!OS::Clock::isEarlier(OS::Clock::monotonicNow(), settled)) {
                m_bCommParked = true;
                m_Condition.wait(deadline);
                m_bCommParked = false;
            } else {
                m_Condition.wait(OS::Clock::isEarlier(settled, deadline) ? settled : deadline);
            }
        } else if (m_bCommStreams) {
            break;  // a stream: read on while the pump dispatches
        } else {
            // A pump that has just left its wait is most likely back at
            // once (a round trip's next request); taking the links over for
            // that moment would cost both threads a wake-up each time.
            const timespec grace = afterGrace(m_PumpLeftAt);
            if (!OS::Clock::isEarlier(OS::Clock::monotonicNow(), grace)) break;
            m_Condition.wait(OS::Clock::isEarlier(grace, deadline) ? grace : deadline);
        }
        if (OS::Clock::hasPassed(deadline)) return false;
    }
    m_bCommServing = true;
    return true;
}

void CTcpApartment::Leadership::releaseByCommThread(bool bStream) {
    TAutoMutex<OS::TBaseMutex> lock(&m_Mutex);
    m_bCommServing = false;
    m_bCommStreams = bStream;
    if (m_bPumpLeads) m_Condition.notifyAll();
}

bool CTcpApartment::Leadership::waitElsewhere(timespec deadline) {
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_Mutex);
        // Another thread pumps and leads, or no readiness set to wait on.
        if (m_bPumpLeads || !m_Owner.m_Comm[0].poller.valid()) return false;
        // A stream is read on by the communication thread while this one
        // dispatches: taking the links from it would cost both threads a
        // hand-over per pass. The pump leads again once a pass of that
        // thread brings a single message (a round trip's answer).
        if (m_bCommStreams) return false;
        m_bPumpLeads = true;
        m_PumpLedAt = OS::Clock::monotonicNow();
        m_ulPumpThread.store(OS::Thread::current(), std::memory_order_relaxed);
        // A link handed back is served by the communication thread first.
        bool waitedForPass = false;
        while (m_bCommServing || m_bHandBack) {
            waitedForPass = true;
            timespec until = deadline;
            if (m_bCommServing) {
                m_Owner.m_Comm[0].poller.wake();  // ends its wait: the pass then ends
            } else {
                m_Condition.notifyAll();
                // Bounded: with no communication thread to take it (none
                // could be started), the pump leads all the same.
                const timespec pass = OS::Clock::monotonicDeadline(THREAD_PASS_MS);
                if (OS::Clock::isNoLimit(until) || OS::Clock::isEarlier(pass, until)) until = pass;
            }
            const int rc = OS::Clock::isNoLimit(until) ? m_Condition.wait()
                                                       : m_Condition.wait(until);
            if (rc == WAIT_CONDITION_OK || !(m_bCommServing || m_bHandBack)) continue;
            if (!OS::Clock::isNoLimit(deadline) && OS::Clock::hasPassed(deadline)) {
                leave(false, true);
                return true;  // the pop gives up
            }
            if (!m_bCommServing) m_bHandBack = false;
        }
        // That pass's wait may have taken the wake-up of a message posted
        // since the queue was found empty: the pop looks again first.
        if (waitedForPass) {
            leave(false, false);
            return true;
        }
    }
    int timeoutMs = -1;
    if (!OS::Clock::isNoLimit(deadline))
        timeoutMs = static_cast<int>(std::min(OS::Clock::millisecondsUntil(deadline), 1LL << 30));
    bool handBack = false;
    try {
        handBack = m_Owner.runPass(m_Owner.m_Comm[0], timeoutMs, true);
    } catch (...) {
        TAutoMutex<OS::TBaseMutex> lock(&m_Mutex);
        leave(true, false);
        throw;
    }
    // A wait that simply ran out brings no callback: the parked thread is
    // left to its own pass's end, so that an idle host that pumps with a
    // time-out costs no wake-up more than before.
    const bool ranOut = !OS::Clock::isNoLimit(deadline) && OS::Clock::hasPassed(deadline);
    TAutoMutex<OS::TBaseMutex> lock(&m_Mutex);
    leave(handBack, ranOut);
    return true;
}

void CTcpApartment::Leadership::leave(bool bHandBack, bool bRanOut) {
    m_bPumpLeads = false;
    m_ulPumpThread.store(0, std::memory_order_relaxed);
    m_PumpLeftAt = OS::Clock::monotonicNow();
    if (bHandBack) m_bHandBack = true;
    // Only a parked communication thread needs the call: one in its grace
    // wait looks again when that ends.
    if ((m_bCommParked && !bRanOut) || bHandBack) m_Condition.notifyAll();
}

void CTcpApartment::Leadership::wake() {
    // The pump's own posts need no wake-up: it looks at the queue next.
    if (m_ulPumpThread.load(std::memory_order_relaxed) != OS::Thread::current())
        m_Owner.m_Comm[0].poller.wake();
}

bool CTcpApartment::serveLink(CommThread& thread, const CLinkPoller::Link& link,
                              MessageBatch& batch) {
    IApartmentSink* pSink = link.sink;
    CTcpApartmentSink* tcp = static_cast<CTcpApartmentSink*>(link.context);  // see watchLink
    if (pSink->isSinkClosed()) return false;
    // Room again for what its writers queued; with nothing to read
    // reported, the socket is not asked.
    if ((link.events & OS_POLLER_WRITE) != 0) {
        tcp->flushSendQueue();
        if (link.events == OS_POLLER_WRITE) return false;
    }
    // A write condemned it (and shut it down, which is what woke us).
    if (pSink->isExpectSinkClosed()) {
        closeLink(thread, pSink, batch);
        return false;
    }
    // Over its bound: not read until the dispatcher has taken its backlog
    // down, so that the kernel's flow control slows the sender. A link that
    // has failed is read all the same: there is nothing to hold back, and
    // its end must be heard.
    const bool ended = (link.events & (OS_POLLER_ERROR | OS_POLLER_HANGUP)) != 0;
    const std::shared_ptr<CLinkBacklog>& backlog = tcp->backlog();
    if (!ended && backlog && (thread.held.count(link.key) != 0 || holdLink(thread, link.key, *backlog)))
        return false;
    try {
        serveSink(thread, pSink, tcp, batch);
    } catch (...) {
        tcp->settleReadBuffer();  // the thread's buffer must not stay lent
        if (!pSink->isSinkClosed()) closeLink(thread, pSink, batch);
        throw;
    }
    // The thread's read buffer goes back whatever happened: a link closed
    // while it held it would leave the thread lending freed memory.
    const bool settled = tcp->settleReadBuffer();
    if (pSink->isSinkClosed()) return false;
    if (backlog && thread.held.count(link.key) == 0) holdLink(thread, link.key, *backlog);
    if (!settled) {
        log_task_line("[TcpApartment Error]: no memory to read from %s; link closed.",
                      peerOf(pSink).c_str());
        closeLink(thread, pSink, batch);
        return false;
    }
    return (tcp->hasFrameReady() || tcp->tlsPending()) && thread.held.count(link.key) == 0;
}

void CTcpApartment::serveSink(CommThread& thread, IApartmentSink* pSink, CTcpApartmentSink* pTcp,
                              MessageBatch& batch) {
    unsigned int frames = 0;
    unsigned long bytes = 0;
    bool drained = false;
    for (;;) {
        unsigned int type = 0;
        unsigned int size = 0;
        char* payload = nullptr;
        const CTcpApartmentSink::FRAME_STATUS status = pTcp->nextFrame(type, payload, size);
        if (status == CTcpApartmentSink::FRAME_READY) {
            deliverFrame(pSink, pTcp, type, payload, size, batch);
            bytes += size;
            if (++frames >= MAX_FRAMES_PER_PASS || bytes >= MAX_BYTES_PER_PASS) return;
            if (pTcp->backlog() && pTcp->backlog()->holdReasons() != 0) return;  // held back
            continue;
        }
        if (status == CTcpApartmentSink::FRAME_TOO_LARGE) {
            log_task_line("[TcpApartment Error]: %s announced a frame of %u bytes, above the "
                          "maximum of %u; link closed.",
                          peerOf(pSink).c_str(), size,
                          pSink->getRTConnection() ? CTcpApartmentSink::RT_MAX_FRAME_SIZE
                                                   : pTcp->maxFrameSize());
            closeLink(thread, pSink, batch);
            return;
        }
        if (status == CTcpApartmentSink::FRAME_NO_MEMORY) {
            log_task_line("[TcpApartment Error]: no memory for a frame of %u bytes from %s; link "
                          "closed.",
                          size, peerOf(pSink).c_str());
            closeLink(thread, pSink, batch);
            return;
        }
        // A socket that a read left empty is not asked again only to say
        // so: one system call less per wake-up of a round trip.
        if (drained) return;
        switch (pTcp->readAvailable()) {
            case CTcpApartmentSink::READ_DATA:
                drained = pTcp->readDrained();
                continue;
            case CTcpApartmentSink::READ_NOTHING:
                return;
            case CTcpApartmentSink::READ_NO_MEMORY:
                log_task_line("[TcpApartment Error]: no memory to read from %s; link closed.",
                              peerOf(pSink).c_str());
                closeLink(thread, pSink, batch);
                return;
            default:
                // The peer has gone: what it sent is all here, so a frame
                // still incomplete never completes.
                closeLink(thread, pSink, batch);
                return;
        }
    }
}

void CTcpApartment::deliverFrame(IApartmentSink* pSink, CTcpApartmentSink* pTcp,
                                 unsigned int uintType, char* pPayload, unsigned int uintSize,
                                 MessageBatch& batch) {
    if (pSink->getRTConnection()) {
        char* buffer = m_uintRtRawBufferSize >= uintSize ? m_pRtRawBuffer : nullptr;
        if (pSink->getLoopbackType() != NONE_LOOPBACK_TYPE) {
            // Not the real-time thread: keep off its buffer.
            if (m_pLoopbackRawBuffer == nullptr)
                m_pLoopbackRawBuffer = new (std::nothrow) char[RT_RAW_BUFFER_SIZE]();
            buffer = m_pLoopbackRawBuffer;
        }
        if (buffer != nullptr && uintSize != 0) std::memcpy(buffer, pPayload, uintSize);
        pTcp->consumeFrame();
        if (buffer == nullptr) {
            log_task_line("[TcpApartment Error]: no memory for a raw frame from %s; frame dropped.",
                          peerOf(pSink).c_str());
            return;
        }
        CReference<IApartmentCallback> cb = apartmentCallback();
        if (cb.nil()) return;
        // A host callback that throws costs its frame only, not the rest of
        // the pass (whose messages are not posted yet).
        try {
            cb->onRawFrameReceived(uintType, buffer, uintSize);
        } catch (abi::__forced_unwind&) {
            throw;
        } catch (...) {
            reportCaughtException("onRawFrameReceived");
        }
        return;
    }

    CApartmentFrame* frame = nullptr;
    if (pTcp->payloadHasOwnBuffer()) {
        frame = new (std::nothrow) CApartmentFrame(uintType, uintSize, pPayload);
        pTcp->consumeFrame(frame != nullptr);
    } else {
        // A request's data is handed to the host where it lies in the frame,
        // so the frame is laid out with that data aligned.
        const unsigned int dataAt =
            pSink->getLoopbackType() == SERVER_LOOPBACK_TYPE
                ? 0
                : CApartmentFrameCodec::dataOffset(uintType, pPayload, uintSize);
        frame = CApartmentFrame::createCopy(uintType, uintSize, pPayload, dataAt);
        pTcp->consumeFrame();
    }
    if (frame == nullptr) {
        log_task_line("[TcpApartment Error]: no memory for a frame of %u bytes from %s; frame "
                      "dropped.",
                      uintSize, peerOf(pSink).c_str());
        return;
    }

    frame->charge(pTcp->backlog());

    APARTMENT_MSG_CODE code;
    if (pSink->getLoopbackType() == SERVER_LOOPBACK_TYPE)
        code = LOOPDATA_FRAME_ARRIVED;
    else if (uintType == APARTMENT_REQUEST_FRAME)
        code = REQUEST_FRAME_ARRIVED;
    else if (uintType == APARTMENT_RESPONSE_FRAME)
        code = RESPONSE_FRAME_ARRIVED;
    else
        code = NORMAL_FRAME_ARRIVED;
    APARTMENT_TMSG msg;
    msg.m_intMsg = code;
    msg.wParam = reinterpret_cast<WPARAM>(static_cast<IApartmentFrame*>(frame));
    msg.lParam = 0;
    try {
        batch.push_back(msg);
    } catch (...) {
        frame->releaseRef();
        throw;
    }
}

void CTcpApartment::closeLink(CommThread& thread, IApartmentSink* pSink, MessageBatch& batch) {
    // Forgotten while its descriptor is still open (see CLinkPoller).
    thread.poller.unwatch(pSink);
    pSink->closeSink();
    APARTMENT_TMSG msg;
    msg.m_intMsg = APARTMENT_CONNECTION_CLOSED;
    msg.wParam = reinterpret_cast<WPARAM>(pSink);
    msg.lParam = 0;
    batch.push_back(msg);
    pSink->addRef();  // the message carries it
}

// ------------------------------------------------------------- listen thread

void CTcpApartment::acceptLinks(DWORD dwTimeout, std::vector<IApartmentServerSink*>& ready) {
    IApartmentListenSink* listen = listenSink();
    if (listen == nullptr) return;
    CReference<IApartmentSink> listenView(asIApartmentSink(listen));
    // The TCP port's listener and those of its same-host names.
    std::vector<CTcpListenSink*> listeners;
    if (CTcpListenSink* tcp = dynamic_cast<CTcpListenSink*>(listenView.operator->())) {
        listeners.push_back(tcp);
        for (const CReference<CTcpListenSink>& name : tcp->sameHostListeners())
            listeners.push_back(name);
    }
    if (!m_bListenWatched) {
        bool watched = !listeners.empty();
        for (CTcpListenSink* listener : listeners)
            watched = watched && m_ListenPoller.watch(listener, listener->getSocketFd());
        if (!watched) {
            // No readiness set: accept as connections come, one wait at a
            // time (connections without their connection frame are no link).
            for (CTcpListenSink* listener : listeners) {
                IApartmentServerSink* server =
                    listener->processConnectRequest(listener == listeners.front() ? dwTimeout : 0);
                if (server != nullptr) server->releaseRef();
            }
            return;
        }
        m_bListenWatched = true;
    }

    // The wait ends in time for the first handshake that may run out.
    int timeoutMs = static_cast<int>(dwTimeout);
    if (!m_Handshakes.empty()) {
        const long long ms = OS::Clock::millisecondsUntil(m_EarliestDeadline);
        if (ms < timeoutMs) timeoutMs = static_cast<int>(ms);
    }

    std::vector<CLinkPoller::Link> links;
    m_ListenPoller.wait(timeoutMs, links);
    for (const CLinkPoller::Link& link : links) {
        const auto listener = std::find(listeners.begin(), listeners.end(), link.sink);
        if (listener != listeners.end())
            acceptConnections(*listener);
        else
            stepHandshake(link.sink, ready);
    }
    for (const CLinkPoller::Link& link : links) link.sink->releaseRef();

    // Silent or slow peers are given up without notice; a handshake past
    // its time is looked at once more first, so that what this thread was
    // too busy to read (in a storm of connections) still counts. The whole
    // set is looked at only once its earliest deadline has passed: thousands
    // of handshakes under way would otherwise cost a scan per wake-up.
    if (m_Handshakes.empty() || !OS::Clock::hasPassed(m_EarliestDeadline)) return;
    const auto expired = [](const Handshake& handshake, const timespec& now) {
        return !OS::Clock::isEarlier(now, handshake.progressDeadline) ||
               !OS::Clock::isEarlier(now, handshake.totalDeadline);
    };
    timespec now = OS::Clock::monotonicNow();
    for (auto it = m_Handshakes.begin(); it != m_Handshakes.end();) {
        auto next = std::next(it);
        if (expired(it->second, now)) {
            IApartmentSink* sink = it->first;
            stepHandshake(sink, ready);
            it = m_Handshakes.find(sink);
            now = OS::Clock::monotonicNow();
            if (it != m_Handshakes.end() && expired(it->second, now)) {
                // Unlike a silent plaintext peer, one that began TLS and
                // stalled is named: it may be a peer misconfigured.
                if (it->second.sink->tlsHandshaking())
                    reportTlsRefusal(sink, "no handshake within the time allowed");
                dropHandshake(it);
            }
        }
        it = next;
    }
    m_EarliestDeadline = OS::Clock::noLimit();
    for (const auto& entry : m_Handshakes) {
        noteDeadline(entry.second.progressDeadline);
        noteDeadline(entry.second.totalDeadline);
    }
}

void CTcpApartment::noteDeadline(const timespec& deadline) {
    if (OS::Clock::isNoLimit(m_EarliestDeadline) || OS::Clock::isEarlier(deadline, m_EarliestDeadline))
        m_EarliestDeadline = deadline;
}

void CTcpApartment::acceptConnections(IApartmentListenSink* pListener) {
    // A bounded number per wake-up, so that a storm does not starve the
    // handshakes under way; the rest are taken on the next pass. Large
    // enough that the listen queue rarely fills: a connection it refuses
    // is retried by the peer's system only after a second.
    for (int taken = 0; taken < ACCEPTS_PER_PASS; ++taken) {
        CReference<IApartmentServerSink> server(pListener->processConnectRequest(0));
        if (server.nil()) return;
        CReference<IApartmentSink> sink(asIApartmentSink(server));
        CTcpServerSink* tcp = dynamic_cast<CTcpServerSink*>(sink.operator->());
        if (tcp == nullptr) continue;
        const size_t links = m_Comm[0].poller.size() + m_Comm[1].poller.size() + m_Handshakes.size();
        if (links >= maxLinks()) {
            std::string peer;
            CApartmentSinkHelper::getRemoteAddress(sink, peer);
            log_task_line("[TcpApartment Warning]: connection from %s refused: the apartment "
                          "holds its maximum of %u links (%s).",
                          peer.c_str(), maxLinks(), MAX_LINKS_VARIABLE);
            continue;  // closed with the last reference
        }
        if (!m_ListenPoller.watch(sink, tcp->getSocketFd())) continue;
        Handshake& handshake = m_Handshakes[sink.operator->()];
        handshake.server = server;
        handshake.sink = tcp;
        // Until its first byte a peer has the whole bound: one process that
        // opens thousands of links at once writes their first frames one
        // after another. Once it has begun, it may not pause for longer
        // than CONNECTION_INFO_TIMEOUT_MS.
        handshake.totalDeadline = OS::Clock::monotonicDeadline(tcp->totalTimeoutMs());
        handshake.progressDeadline = handshake.totalDeadline;
        noteDeadline(handshake.totalDeadline);
    }
}

void CTcpApartment::stepHandshake(IApartmentSink* pSink,
                                  std::vector<IApartmentServerSink*>& ready) {
    auto it = m_Handshakes.find(pSink);
    if (it == m_Handshakes.end()) return;
    bool rt = false;
    bool progress = false;
    const CTcpServerSink::CONNECTION_INFO info = it->second.sink->takeConnectionInfo(rt, progress);
    if (info == CTcpServerSink::INFO_PENDING) {
        if (progress) {
            it->second.progressDeadline = OS::Clock::monotonicDeadline(CONNECTION_INFO_TIMEOUT_MS);
            noteDeadline(it->second.progressDeadline);
        }
        const bool write = it->second.sink->tlsHandshaking() && it->second.sink->tlsWantsWrite();
        if (write != it->second.watchingWrite &&
            m_ListenPoller.setInterest(pSink, !write, write))
            it->second.watchingWrite = write;
        return;
    }
    const std::string failure = it->second.sink->tlsFailure();
    if (!failure.empty()) reportTlsRefusal(pSink, failure);
    if (info == CTcpServerSink::INFO_RECEIVED) {
        ready.push_back(it->second.server);
        it->second.server->addRef();  // the caller's
    }
    dropHandshake(it);
}

void CTcpApartment::reportTlsRefusal(IApartmentSink* pSink, const std::string& reason) {
    std::string peer;
    CApartmentSinkHelper::getRemoteAddress(pSink, peer);
    log_task_line("[TcpApartment Warning]: TLS handshake with %s failed: %s; link closed.",
                  peer.c_str(), reason.c_str());
}

void CTcpApartment::dropHandshake(std::map<IApartmentSink*, Handshake>::iterator it) {
    m_ListenPoller.unwatch(it->first);
    m_Handshakes.erase(it);  // the last reference of a connection given up closes it
}
