#include "TcpApartmentSink.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <memory>
#include <new>
#include <random>

#include "ApartmentFrameCodec.h"
#include "FieldKit/Environment/EndianType.h"
#include "GroundKit/OS/OS_Clock.h"
#include "GroundKit/Reference/Reference.h"
#include "GroundKit/StringAssistant/StringAssistant.h"
#include "LinkPoller.h"
#include "SameHost.h"
#include "os_log.h"

namespace {

typedef TAutoMutex<OS::TBaseMutex> SendLock;

// Longest address text makeSinkAddress produces.
const size_t SINK_ADDRESS_TEXT_SIZE = 64;
// A single receive is limited to what the socket call can report.
const unsigned int MAX_RECEIVE_CHUNK = 1u << 30;
// Buffers per frame in a gathered write: header, head part, tail part.
const int PARTS_PER_FRAME = 3;
// Swaps of the send queue a writer that flushes makes at most before it
// leaves the rest to the communication thread: other writers may keep
// filling the queue as fast as it empties.
const unsigned int WRITER_FLUSH_ROUNDS = 4;
// Frames queued closer together than this count as a stream, which the
// communication thread writes out (see _queueFrame). Shorter than any
// round trip, so that a request or an answer is never held back.
const long long STREAM_GAP_NS = 10000;
// A frame from this size on is written from its writer's buffers when the
// socket is free, even within a stream: a system call is cheap beside
// its bytes, and a copy is not.
const size_t DIRECT_WRITE_MIN = 4096;
// A send queue's buffers above this are given back when the queue
// empties, so that a link that is idle again holds little.
const size_t SEND_QUEUE_KEPT_CAPACITY = 64 * 1024;
// Pause between passes of waitRemoteConnectionInfo that made no progress,
// so that a peer holding half a header does not make the wait spin.
const long NO_PROGRESS_PAUSE_US = 1000;

const char* textOrEmpty(const char* text) { return text == nullptr ? "" : text; }

// Send failures that waiting for writability cannot cure.
bool isPermanentSendError(int error) {
    return error != EAGAIN && error != EWOULDBLOCK && error != ENOBUFS && error != ENOMEM;
}

void pauseMicroseconds(long us) {
    timeval pause{0, us};
    OS::Socket::select(0, nullptr, nullptr, nullptr, &pause, USE_DEFAULT);
}

// The read buffer of the calling thread, lent to one link at a time (see
// settleReadBuffer), and the link that holds it; null when none could be
// had.
// One thread-local object, so that a function finds both with one look-up.
struct ThreadReadBuffer {
    std::unique_ptr<char[]> buffer;
    CTcpApartmentSink* holder = nullptr;
};
thread_local ThreadReadBuffer t_read;

unsigned int readU32(const char* p) {
    unsigned int value;
    std::memcpy(&value, p, sizeof value);
    return CEndianType::networkToHost(value);
}

}  // namespace

// One frame waiting to be written, on its writer's stack. The writer that
// takes it into a write sets `ok`; `done` (under the send mutex) tells the
// waiting writer that its result is there.
// While its writer waits, `wake` is that writer's own condition: the writing
// thread wakes exactly the writers whose frames it has finished, and the one
// it hands the writing on to (`lead`), never the whole queue.
struct CTcpApartmentSink::PendingFrame {
    unsigned char header[FRAME_HEADER_SIZE];
    iovec parts[PARTS_PER_FRAME];
    int partCount;
    PendingFrame* next;
    OS::TCondition* wake;
    bool done;
    bool ok;
    bool lead;
};

// ---------------------------------------------------------------------------
// CTcpApartmentSink

CTcpApartmentSink::CTcpApartmentSink()
    : m_uiLocalIPPort(0),
      m_uiRemoteIPPort(0),
      m_intReceiveFrameStep(RECEIVE_FRAME_HEAD),
      m_uintReceiveFrameType(0),
      m_uintReceiveFrameSize(0),
      m_pReceiveBuffer(nullptr),
      m_uintReceiveBufferSize(0),
      m_bBorrowedBuffer(false),
      m_uintReadBegin(0),
      m_uintReadEnd(0),
      m_pLargePayload(nullptr),
      m_uintLargePayloadFill(0),
      m_uintMaxFrameSize(APARTMENT_DEFAULT_MAX_FRAME_SIZE),
      m_SendMutex(MUTEX_NONE, USE_STD, nullptr),
      m_SendDoneCondition(nullptr, USE_STD),
      m_pSendHead(nullptr),
      m_pSendTail(nullptr),
      m_bSending(false),
      m_uintSendQueueBound(0),
      m_uintSendFlushOffset(0),
      m_ullSendProgress(0),
      m_pSendPoller(nullptr),
      m_bSendArmed(false),
      m_bSendQueueClosed(false),
      m_bWritingAlone(false),
      m_LastQueuedAt{0, 0} {
    m_SendDoneCondition.bindMutex(&m_SendMutex);
}

CTcpApartmentSink::~CTcpApartmentSink() {
    m_pTls.reset();  // before its socket
    m_Socket.close();
    _clearReceiveBuffer();
}

void CTcpApartmentSink::setLocalApartmentUrl(const char* strUrl) {
    CApartmentSink::setLocalApartmentUrl(strUrl);
    if (!m_strLocalAddress.empty() && m_strLocalAddress != "0.0.0.0") {
        m_strLocalApartmentUrl = CStringAssistant::replaceSTLString(
            m_strLocalApartmentUrl, "0.0.0.0:", m_strLocalIPAddress + ":", true);
    }
}

void CTcpApartmentSink::setMaxFrameSize(unsigned int uintMaxFrameSize) {
    m_uintMaxFrameSize = uintMaxFrameSize;
}

unsigned int CTcpApartmentSink::maxFrameSize() const { return m_uintMaxFrameSize; }

void CTcpApartmentSink::setTlsContext(const std::shared_ptr<CTlsContext>& context) {
    m_tlsContext = context;
}

void CTcpApartmentSink::announceTls() {
    if (!m_tlsContext->firstHandshake()) return;
    log_task_line("[TcpApartment Info]: TLS 1.3 on links, record layer: %s",
                  CTlsSession::recordLayerName(m_pTls->kernelOffload()));
}

unsigned int CTcpApartmentSink::effectiveMaxFrameSize() const {
    return m_bRtConnection ? RT_MAX_FRAME_SIZE : m_uintMaxFrameSize;
}

bool CTcpApartmentSink::sendFrame(const unsigned int& uintFrameType, const void* pData,
                                  const unsigned int& uintSize) {
    return sendFrameParts(uintFrameType, pData, uintSize, nullptr, 0);
}

bool CTcpApartmentSink::sendFrameParts(const unsigned int& uintFrameType, const void* pHead,
                                       unsigned int uintHeadSize, const void* pTail,
                                       unsigned int uintTailSize) {
    if (sinkType() == LISTEN_SINK) return false;
    if ((pHead == nullptr && uintHeadSize != 0) || (pTail == nullptr && uintTailSize != 0))
        return false;
    if (uintTailSize > 0xFFFFFFFFu - uintHeadSize) return false;
    const unsigned int uintSize = uintHeadSize + uintTailSize;
    // Refused before a byte is written: the peer would close the link at
    // this frame's header, so both ends keep to the same limit.
    if (uintSize > effectiveMaxFrameSize()) return false;

    PendingFrame frame;
    unsigned int header[2] = {uintFrameType, uintSize};
    CEndianType::hostToNetwork(header[0]);
    CEndianType::hostToNetwork(header[1]);
    std::memcpy(frame.header, header, FRAME_HEADER_SIZE);
    frame.parts[0].iov_base = frame.header;
    frame.parts[0].iov_len = FRAME_HEADER_SIZE;
    frame.partCount = 1;
    if (uintHeadSize != 0) {
        frame.parts[frame.partCount].iov_base = const_cast<void*>(pHead);
        frame.parts[frame.partCount++].iov_len = uintHeadSize;
    }
    if (uintTailSize != 0) {
        frame.parts[frame.partCount].iov_base = const_cast<void*>(pTail);
        frame.parts[frame.partCount++].iov_len = uintTailSize;
    }
    frame.next = nullptr;
    frame.wake = nullptr;
    frame.done = false;
    frame.ok = false;
    frame.lead = false;
    if (m_uintSendQueueBound != 0) return _queueFrame(frame, uintSize);

    m_SendMutex.lock();
    // A condemned link may hold part of a frame: nothing more may follow.
    if (m_Socket.getSockFd() == -1 || isExpectSinkClosed()) {
        m_SendMutex.unlock();
        return false;
    }
    if (m_pSendTail != nullptr)
        m_pSendTail->next = &frame;
    else
        m_pSendHead = &frame;
    m_pSendTail = &frame;
    if (m_bSending) {
        // Another thread is writing: it takes this frame into its next write
        // or hands the writing on to this thread. A condition of its own
        // only now, when there is something to wait for.
        OS::TCondition wake(&m_SendMutex);
        frame.wake = &wake;
        while (!frame.done && !frame.lead) wake.wait();
        frame.wake = nullptr;  // under the mutex: no writer signals it after this
        if (frame.done) {
            const bool ok = frame.ok;
            m_SendMutex.unlock();
            return ok;
        }
    }
    // This thread writes: its own frame and whatever queued before and while
    // it writes, until its own frame has gone.
    m_bSending = true;
    const int fd = m_Socket.getSockFd();
    while (!frame.done) {
        PendingFrame* first = m_pSendHead;
        PendingFrame* end = first;
        for (unsigned int n = 0; end != nullptr && n < MAX_FRAMES_PER_WRITE; ++n) end = end->next;
        m_pSendHead = end;
        if (end == nullptr) m_pSendTail = nullptr;
        m_SendMutex.unlock();
        const bool written = _writeFrames(fd, first, end);
        m_SendMutex.lock();
        if (!written) {
            // The link failed: no later frame may follow a broken one.
            for (PendingFrame* p = m_pSendHead; p != nullptr; p = p->next) p->ok = false;
            finishFrames(m_pSendHead, nullptr);
            m_pSendHead = m_pSendTail = nullptr;
        }
        finishFrames(first, end);
    }
    if (m_pSendHead != nullptr) {
        // Frames queued meanwhile: their first writer takes over, so that
        // this thread returns with its own result now.
        m_pSendHead->lead = true;
        if (m_pSendHead->wake != nullptr) m_pSendHead->wake->notify();
    } else {
        m_bSending = false;
        m_SendDoneCondition.notifyAll();  // a closer may wait for this
    }
    const bool ok = frame.ok;
    m_SendMutex.unlock();
    return ok;
}

void CTcpApartmentSink::enableSendQueue(unsigned int uintBytes, CLinkPoller* pPoller) {
    SendLock lock(&m_SendMutex);
    m_uintSendQueueBound = uintBytes;
    m_pSendPoller = pPoller;
}

void CTcpApartmentSink::setSendQueuePoller(CLinkPoller* pPoller) {
    SendLock lock(&m_SendMutex);
    m_pSendPoller = pPoller;
    if (pPoller == nullptr) m_bSendArmed = false;
}

size_t CTcpApartmentSink::_queuedBytes() const {
    return m_SendFill.size() + (m_SendFlush.size() - m_uintSendFlushOffset);
}

size_t CTcpApartmentSink::_queuedFrames() const {
    size_t frames = m_SendFillEnds.size();
    for (size_t end : m_SendFlushEnds) frames += end > m_uintSendFlushOffset ? 1 : 0;
    return frames;
}

size_t CTcpApartmentSink::sendQueueBytes() {
    SendLock lock(&m_SendMutex);
    return _queuedBytes();
}

size_t CTcpApartmentSink::sendQueueFrames() {
    SendLock lock(&m_SendMutex);
    return _queuedFrames();
}

bool CTcpApartmentSink::_queueFrame(PendingFrame& frame, unsigned int uintSize) {
    const size_t total = FRAME_HEADER_SIZE + static_cast<size_t>(uintSize);
    const bool alone = total > m_uintSendQueueBound;  // can never share the queue
    m_SendMutex.lock();
    timespec stallAt{0, 0};
    bool waiting = false;
    unsigned long long seen = 0;
    for (;;) {
        // A condemned link may hold part of a frame: nothing more may follow.
        if (m_Socket.getSockFd() == -1 || isExpectSinkClosed() || m_bSendQueueClosed) {
            m_SendMutex.unlock();
            return false;
        }
        const size_t queued = _queuedBytes();
        if (alone ? queued == 0 && !m_bSending : queued + total <= m_uintSendQueueBound) break;
        if (!m_bSending && !m_bSendArmed) {
            // The socket is free: make room by writing, waiting for the
            // peer as a synchronous write would. (When the communication
            // thread is to write, it is left to: two threads taking turns
            // at a socket that is full would only wake each other.)
            m_bSending = true;
            const FLUSH_RESULT result = _flushQueue(true);
            _endFlush(result);
            if (result == FLUSH_FAILED) {
                m_SendMutex.unlock();
                return false;
            }
            continue;
        }
        // Another thread is writing: wait while it makes progress (a frame
        // written alone has a stall rule of its own).
        if (!waiting || m_ullSendProgress != seen || m_bWritingAlone) {
            waiting = true;
            seen = m_ullSendProgress;
            stallAt = OS::Clock::monotonicDeadline(SEND_STALL_TIMEOUT_MS);
        } else if (OS::Clock::hasPassed(stallAt)) {
            log_task_line("TcpApartmentSink write failed.");
            setExpectSinkClosed(true);
            m_SendMutex.unlock();
            return false;
        }
        m_SendDoneCondition.wait(stallAt);
    }
    if (alone) {
        // Too large for the queue: written from the caller's buffers, as
        // without a queue; what others queue meanwhile follows it.
        m_bSending = true;
        m_bWritingAlone = true;
        const int fd = m_Socket.getSockFd();
        m_SendMutex.unlock();
        frame.next = nullptr;
        const bool written = _writeFrames(fd, &frame, nullptr);
        m_SendMutex.lock();
        m_bWritingAlone = false;
        _endFlush(written ? _flushQueue(false) : FLUSH_FAILED);
        m_SendMutex.unlock();
        return written;
    }
    // While another thread writes, or the communication thread is to, the
    // frame leaves with the next write. Otherwise a frame on its own (a
    // request, an answer) is written at once by its writer, while frames
    // that follow each other closely are left to the communication thread,
    // so that they gather into large writes instead of costing a system
    // call each on the writer's thread.
    const timespec now = OS::Clock::monotonicNow();
    const long long gapNs = (now.tv_sec - m_LastQueuedAt.tv_sec) * 1000000000LL +
                            (now.tv_nsec - m_LastQueuedAt.tv_nsec);
    m_LastQueuedAt = now;
    const bool idle = !m_bSending && !m_bSendArmed;
    const bool stream = gapNs < STREAM_GAP_NS && m_pSendPoller != nullptr;
    // A frame that would be written at once anyway, or one large enough to
    // be worth its own system call, goes from the caller's buffers without
    // a copy. Not through TLS, whose retried write must see the parts cut
    // as before.
    if (idle && !m_pTls && _queuedBytes() == 0 && (!stream || total >= DIRECT_WRITE_MIN))
        return _writeDirect(frame, total);
    try {
        // Grown ahead, by doubling, so that the copies below cannot throw
        // with the mutex held and part of a frame queued.
        if (m_SendFillEnds.size() == m_SendFillEnds.capacity())
            m_SendFillEnds.reserve(std::max<size_t>(16, 2 * m_SendFillEnds.capacity()));
        if (m_SendFill.capacity() - m_SendFill.size() < total)
            m_SendFill.reserve(std::max(m_SendFill.size() + total, 2 * m_SendFill.capacity()));
    } catch (const std::bad_alloc&) {
        m_SendMutex.unlock();
        return false;  // nothing queued: the link goes on as it was
    }
    for (int i = 0; i < frame.partCount; ++i) {
        const char* part = static_cast<const char*>(frame.parts[i].iov_base);
        m_SendFill.insert(m_SendFill.end(), part, part + frame.parts[i].iov_len);
    }
    m_SendFillEnds.push_back(m_SendFill.size());
    if (idle) {
        if (stream && m_pSendPoller->wantWrite(this, true)) {
            m_bSendArmed = true;
        } else {
            m_bSending = true;
            _endFlush(_flushQueue(false));
        }
    }
    m_SendMutex.unlock();
    return true;
}

bool CTcpApartmentSink::_writeDirect(PendingFrame& frame, size_t total) {
    m_bSending = true;
    const int fd = m_Socket.getSockFd();
    m_SendMutex.unlock();
    iovec* parts = frame.parts;
    int count = frame.partCount;
    size_t sent = 0;
    long result;
    for (;;) {
        do {
            result = OS::Socket::sendVector(fd, parts, count, 0, USE_DEFAULT);
        } while (result < 0 && OS::Socket::getErrnoCode() == EINTR);
        if (result <= 0) break;
        sent += static_cast<size_t>(result);
        size_t step = static_cast<size_t>(result);
        while (count > 0 && step >= parts->iov_len) {
            step -= parts->iov_len;
            ++parts;
            --count;
        }
        if (count == 0) break;
        parts->iov_base = static_cast<char*>(parts->iov_base) + step;
        parts->iov_len -= step;
    }
    const int error = result < 0 ? OS::Socket::getErrnoCode() : 0;
    m_SendMutex.lock();
    m_ullSendProgress += sent;
    if (sent == total) {
        _endFlush(_flushQueue(false));  // what others queued meanwhile
        m_SendMutex.unlock();
        return true;
    }
    if (result == 0 || isPermanentSendError(error)) {
        if (sent != 0) setExpectSinkClosed(true);  // part of the frame is on the wire
        _endFlush(FLUSH_FAILED);
        m_SendMutex.unlock();
        return false;
    }
    // The socket is full: the rest of the frame leads the queue, before
    // whatever others queued meanwhile.
    bool kept = true;
    try {
        m_SendFlush.clear();
        m_SendFlushEnds.clear();
        m_uintSendFlushOffset = 0;
        m_SendFlush.reserve(total - sent);
        m_SendFlushEnds.push_back(total - sent);
        for (int i = 0; i < count; ++i) {
            const char* part = static_cast<const char*>(parts[i].iov_base);
            m_SendFlush.insert(m_SendFlush.end(), part, part + parts[i].iov_len);
        }
    } catch (const std::bad_alloc&) {
        kept = false;
        m_SendFlush.clear();
        m_SendFlushEnds.clear();
        if (sent != 0) setExpectSinkClosed(true);
    }
    _endFlush(kept ? FLUSH_BLOCKED : FLUSH_FAILED);
    m_SendMutex.unlock();
    return kept;
}

CTcpApartmentSink::FLUSH_RESULT CTcpApartmentSink::_flushQueue(bool bWait,
                                                              const timespec* pGiveUpAt) {
    const int fd = m_Socket.getSockFd();
    unsigned int rounds = 0;
    for (;;) {
        if (m_uintSendFlushOffset == m_SendFlush.size()) {
            m_SendFlush.clear();
            m_SendFlushEnds.clear();
            m_uintSendFlushOffset = 0;
            if (m_SendFill.empty()) return FLUSH_EMPTY;
            if (!bWait && rounds++ == WRITER_FLUSH_ROUNDS) return FLUSH_BLOCKED;
            m_SendFill.swap(m_SendFlush);
            m_SendFillEnds.swap(m_SendFlushEnds);
        }
        iovec part;
        part.iov_base = m_SendFlush.data() + m_uintSendFlushOffset;
        part.iov_len = m_SendFlush.size() - m_uintSendFlushOffset;
        m_SendMutex.unlock();
        long result;
        do {
            result = m_pTls ? m_pTls->writev(&part, 1)
                            : OS::Socket::sendVector(fd, &part, 1, 0, USE_DEFAULT);
        } while (result < 0 && OS::Socket::getErrnoCode() == EINTR);
        const int error = result < 0 ? OS::Socket::getErrnoCode() : 0;
        bool writable = false;
        if (result < 0 && bWait && !isPermanentSendError(error)) {
            long long waitMs = SEND_STALL_TIMEOUT_MS;
            if (pGiveUpAt != nullptr)
                waitMs = std::min(waitMs, OS::Clock::millisecondsUntil(*pGiveUpAt));
            writable = OS::Socket::writable(fd, static_cast<unsigned long>(waitMs), nullptr,
                                            USE_DEFAULT);
        }
        m_SendMutex.lock();
        if (result > 0) {
            m_uintSendFlushOffset += static_cast<size_t>(result);
            m_ullSendProgress += static_cast<unsigned long long>(result);
            m_SendDoneCondition.notifyAll();  // room for writers that wait
            // A closing link waits for no writer that a slow peer keeps busy.
            if (pGiveUpAt == nullptr ? m_bSendQueueClosed : OS::Clock::hasPassed(*pGiveUpAt))
                return FLUSH_BLOCKED;
            continue;
        }
        if (result < 0 && !isPermanentSendError(error)) {
            if (!bWait || (pGiveUpAt != nullptr && OS::Clock::hasPassed(*pGiveUpAt)))
                return FLUSH_BLOCKED;
            if (writable) continue;
            if (pGiveUpAt == nullptr) log_task_line("TcpApartmentSink write failed.");
        }
        // Part of a frame may be on the wire: the stream is out of step.
        setExpectSinkClosed(true);
        return FLUSH_FAILED;
    }
}

void CTcpApartmentSink::_endFlush(FLUSH_RESULT result) {
    m_bSending = false;
    const bool arm = result == FLUSH_BLOCKED && m_pSendPoller != nullptr;
    // Under the send mutex, so that an arm and a disarm of two flushes
    // reach the poller in the order they were decided.
    if (arm != m_bSendArmed && m_pSendPoller != nullptr) m_pSendPoller->wantWrite(this, arm);
    m_bSendArmed = arm;
    if (result == FLUSH_EMPTY) {
        for (std::vector<char>* buffer : {&m_SendFlush, &m_SendFill})
            if (buffer->capacity() > SEND_QUEUE_KEPT_CAPACITY) std::vector<char>().swap(*buffer);
    }
    m_SendDoneCondition.notifyAll();
}

void CTcpApartmentSink::flushSendQueue() {
    SendLock lock(&m_SendMutex);
    if (m_uintSendQueueBound == 0 || m_bSending || m_bSendQueueClosed ||
        m_Socket.getSockFd() == -1 || isExpectSinkClosed())
        return;
    m_bSending = true;
    _endFlush(_flushQueue(false));
}

void CTcpApartmentSink::_closeSendQueue() {
    SendLock lock(&m_SendMutex);
    m_bSendQueueClosed = true;
    // What the peer takes within the stall bound goes; the rest is
    // counted. A writer still under way by then (a frame too large for the
    // queue, going to a slow peer) is ended by the shutdown that follows.
    const timespec giveUpAt = OS::Clock::monotonicDeadline(SEND_STALL_TIMEOUT_MS);
    while (m_bSending && !OS::Clock::hasPassed(giveUpAt)) m_SendDoneCondition.wait(giveUpAt);
    if (!m_bSending && _queuedBytes() != 0 && m_Socket.getSockFd() != -1 && !isExpectSinkClosed()) {
        m_bSending = true;
        _flushQueue(true, &giveUpAt);
        m_bSending = false;
        m_SendDoneCondition.notifyAll();
    }
    const size_t frames = _queuedFrames();
    if (frames != 0) {
        const std::string& peer =
            m_strRemoteApartmentUrl.empty() ? m_strRemoteAddress : m_strRemoteApartmentUrl;
        log_task_line("[TcpApartment Warning]: link to %s closed with %zu frame%s still queued; "
                      "not sent.",
                      peer.c_str(), frames, frames == 1 ? "" : "s");
    }
    if (m_bSendArmed && m_pSendPoller != nullptr) m_pSendPoller->wantWrite(this, false);
    m_bSendArmed = false;
    if (m_bSending) return;  // its writer still reads the queue: freed with the sink
    std::vector<char>().swap(m_SendFill);
    std::vector<char>().swap(m_SendFlush);
    std::vector<size_t>().swap(m_SendFillEnds);
    std::vector<size_t>().swap(m_SendFlushEnds);
    m_uintSendFlushOffset = 0;
}

void CTcpApartmentSink::finishFrames(PendingFrame* pFirst, PendingFrame* pEnd) {
    for (PendingFrame* p = pFirst; p != pEnd;) {
        PendingFrame* next = p->next;  // read first: a finished writer may return at once
        p->done = true;
        if (p->wake != nullptr) p->wake->notify();
        p = next;
    }
}

bool CTcpApartmentSink::_writeFrames(int fd, PendingFrame* pFirst, PendingFrame* pEnd) {
    iovec parts[MAX_FRAMES_PER_WRITE * PARTS_PER_FRAME];
    unsigned long long frameEnds[MAX_FRAMES_PER_WRITE];
    int count = 0;
    unsigned int frames = 0;
    unsigned long long total = 0;
    for (PendingFrame* p = pFirst; p != pEnd; p = p->next) {
        for (int i = 0; i < p->partCount; ++i) {
            parts[count++] = p->parts[i];
            total += p->parts[i].iov_len;
        }
        frameEnds[frames++] = total;
    }

    unsigned long long sent = 0;
    int next = 0;
    while (next < count) {
        long result;
        do {
            result = m_pTls ? m_pTls->writev(parts + next, count - next)
                            : OS::Socket::sendVector(fd, parts + next, count - next, 0, USE_DEFAULT);
        } while (result < 0 && OS::Socket::getErrnoCode() == EINTR);
        if (result > 0) {
            sent += static_cast<unsigned long long>(result);
            size_t step = static_cast<size_t>(result);
            while (step > 0 && next < count) {
                const size_t taken = step < parts[next].iov_len ? step : parts[next].iov_len;
                parts[next].iov_base = static_cast<char*>(parts[next].iov_base) + taken;
                parts[next].iov_len -= taken;
                step -= taken;
                if (parts[next].iov_len == 0) ++next;
            }
            while (next < count && parts[next].iov_len == 0) ++next;
            continue;
        }
        if (result == 0 || isPermanentSendError(OS::Socket::getErrnoCode())) break;
        if (OS::Socket::isLinkBroken(fd, USE_DEFAULT)) break;
        if (OS::Socket::writable(fd, SEND_STALL_TIMEOUT_MS, nullptr, USE_DEFAULT)) continue;
        log_task_line("TcpApartmentSink write failed.");
        setExpectSinkClosed(true);
        break;
    }

    unsigned int index = 0;
    for (PendingFrame* p = pFirst; p != pEnd; p = p->next) p->ok = sent >= frameEnds[index++];
    if (sent != total && sent != 0) {
        // Part of a frame is on the wire: the stream is out of step for good.
        setExpectSinkClosed(true);
    }
    return sent == total;
}

void CTcpApartmentSink::setExpectSinkClosed(bool bExpect) {
    CApartmentSink::setExpectSinkClosed(bExpect);
    // Only shut down, never closed here: a writer or the poller may still
    // use the descriptor's number.
    if (bExpect) OS::Socket::shutdown(m_Socket.getSockFd(), SHUT_RDWR, USE_DEFAULT);
}

CTcpApartmentSink::READ_RESULT CTcpApartmentSink::readAvailable(unsigned int uintMost) {
    if (sinkType() == LISTEN_SINK) return READ_NOTHING;
    char* into;
    unsigned int room;
    if (m_intReceiveFrameStep == RECEIVE_FRAME_BODY) {
        into = m_pLargePayload + m_uintLargePayloadFill;
        room = m_uintReceiveFrameSize - m_uintLargePayloadFill;
    } else {
        if (!_ensureReceiveBuffer()) return READ_NO_MEMORY;
        if (m_uintReadBegin == m_uintReadEnd) {
            m_uintReadBegin = m_uintReadEnd = 0;
        } else if (m_uintReadBegin != 0) {
            // What is left is part of one frame: move it to the front so
            // that the frame fits once the rest arrives.
            std::memmove(m_pReceiveBuffer, m_pReceiveBuffer + m_uintReadBegin,
                         m_uintReadEnd - m_uintReadBegin);
            m_uintReadEnd -= m_uintReadBegin;
            m_uintReadBegin = 0;
        }
        into = m_pReceiveBuffer + m_uintReadEnd;
        room = m_uintReceiveBufferSize - m_uintReadEnd;
    }
    if (room == 0) return READ_NOTHING;  // whole frames wait to be taken first
    if (room > uintMost) room = uintMost;
    if (room > MAX_RECEIVE_CHUNK) room = MAX_RECEIVE_CHUNK;
    int received;
    if (m_pTls) {
        // A closed link's descriptor number may already be another's.
        if (m_Socket.getSockFd() == -1) return READ_FAILED;
        received = m_pTls->read(into, room);
        m_bReadDrained = received > 0 && m_pTls->takeDrained();
    } else {
        received = m_Socket.receive(into, static_cast<int>(room), 0);
        m_bReadDrained = received > 0 && static_cast<unsigned int>(received) < room;
    }
    if (received == 0) return READ_CLOSED;
    if (received < 0) {
        const int error = OS::Socket::getErrnoCode();
        return error == EAGAIN || error == EWOULDBLOCK ? READ_NOTHING : READ_FAILED;
    }
    if (m_intReceiveFrameStep == RECEIVE_FRAME_BODY)
        m_uintLargePayloadFill += static_cast<unsigned int>(received);
    else
        m_uintReadEnd += static_cast<unsigned int>(received);
    return READ_DATA;
}

CTcpApartmentSink::FRAME_STATUS CTcpApartmentSink::nextFrame(unsigned int& uintFrameType,
                                                             char*& pPayload,
                                                             unsigned int& uintSize,
                                                             unsigned int uintLimit) {
    if (m_intReceiveFrameStep == RECEIVE_FRAME_BODY) {
        if (m_uintLargePayloadFill != m_uintReceiveFrameSize) return FRAME_INCOMPLETE;
        uintFrameType = m_uintReceiveFrameType;
        uintSize = m_uintReceiveFrameSize;
        pPayload = m_pLargePayload;
        return FRAME_READY;
    }
    const unsigned int held = m_uintReadEnd - m_uintReadBegin;
    if (held < FRAME_HEADER_SIZE) return FRAME_INCOMPLETE;
    const char* header = m_pReceiveBuffer + m_uintReadBegin;
    const unsigned int type = readU32(header);
    const unsigned int size = readU32(header + 4);
    unsigned int limit = effectiveMaxFrameSize();
    if (uintLimit < limit) limit = uintLimit;
    if (size > limit) {
        uintFrameType = type;
        uintSize = size;
        return FRAME_TOO_LARGE;
    }
    m_uintReceiveFrameType = type;
    m_uintReceiveFrameSize = size;
    if (size <= held - FRAME_HEADER_SIZE) {
        uintFrameType = type;
        uintSize = size;
        pPayload = m_pReceiveBuffer + m_uintReadBegin + FRAME_HEADER_SIZE;
        return FRAME_READY;
    }
    if (size <= m_uintReceiveBufferSize - FRAME_HEADER_SIZE) return FRAME_INCOMPLETE;

    // Too large for the read buffer: the rest is read straight into a
    // buffer of the payload's own size, which the taker may keep.
    char* payload = new (std::nothrow) char[size];
    if (payload == nullptr) {
        uintFrameType = type;
        uintSize = size;
        return FRAME_NO_MEMORY;
    }
    m_uintLargePayloadFill = held - FRAME_HEADER_SIZE;
    std::memcpy(payload, header + FRAME_HEADER_SIZE, m_uintLargePayloadFill);
    m_pLargePayload = payload;
    m_uintReadBegin = m_uintReadEnd = 0;
    m_intReceiveFrameStep = RECEIVE_FRAME_BODY;
    return FRAME_INCOMPLETE;
}

void CTcpApartmentSink::consumeFrame(bool bPayloadTaken) {
    if (m_intReceiveFrameStep == RECEIVE_FRAME_BODY) {
        if (!bPayloadTaken) delete[] m_pLargePayload;
        m_pLargePayload = nullptr;
        m_uintLargePayloadFill = 0;
        m_intReceiveFrameStep = RECEIVE_FRAME_HEAD;
        return;
    }
    m_uintReadBegin += FRAME_HEADER_SIZE + m_uintReceiveFrameSize;
    if (m_uintReadBegin >= m_uintReadEnd) m_uintReadBegin = m_uintReadEnd = 0;
}

bool CTcpApartmentSink::payloadHasOwnBuffer() const {
    return m_intReceiveFrameStep == RECEIVE_FRAME_BODY;
}

bool CTcpApartmentSink::hasFrameReady() const {
    if (m_intReceiveFrameStep == RECEIVE_FRAME_BODY)
        return m_uintLargePayloadFill == m_uintReceiveFrameSize;
    const unsigned int held = m_uintReadEnd - m_uintReadBegin;
    if (held < FRAME_HEADER_SIZE) return false;
    const unsigned int size = readU32(m_pReceiveBuffer + m_uintReadBegin + 4);
    // A header over the limit is ready too: it is to be refused at once.
    return size > effectiveMaxFrameSize() || size <= held - FRAME_HEADER_SIZE ||
           size > m_uintReceiveBufferSize - FRAME_HEADER_SIZE;
}

bool CTcpApartmentSink::receiveFrame(unsigned int& uintFrameType, void* pBuffer,
                                     unsigned int& uintSize) {
    if (sinkType() == LISTEN_SINK) return false;
    unsigned int type = 0;
    unsigned int size = 0;
    char* payload = nullptr;
    FRAME_STATUS status = nextFrame(type, payload, size);
    if (status == FRAME_INCOMPLETE && readAvailable() == READ_DATA)
        status = nextFrame(type, payload, size);
    bool delivered = false;
    if (status == FRAME_READY && pBuffer == nullptr) {
        uintFrameType = type;
        uintSize = size;
        delivered = true;
    } else if (status == FRAME_READY && uintSize >= size) {
        if (size > 0) std::memcpy(pBuffer, payload, size);
        uintFrameType = type;
        uintSize = size;
        consumeFrame();
        delivered = true;
    }
    // What is left (a frame reported and kept, or one begun) is the link's
    // own until the next call.
    settleReadBuffer();
    return delivered;
}

int CTcpApartmentSink::getSocketFd() const { return m_Socket.getSockFd(); }

bool CTcpApartmentSink::initSinkSocketOpt() {
    if (m_Socket.getSockFd() == -1) return false;
    const int bufferSize = LINK_SOCKET_BUFFER_SIZE;
    const int noDelay = 1;
    m_Socket.setSockopt(SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof bufferSize);
    m_Socket.setSockopt(SOL_SOCKET, SO_SNDBUF, &bufferSize, sizeof bufferSize);
    if (!overLocalSocket()) m_Socket.setSockopt(IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    return true;
}

bool CTcpApartmentSink::overLocalSocket() const {
    int domain = AF_INET;
    socklen_t length = sizeof domain;
    return OS::Socket::getSockOpt(m_Socket.getSockFd(), SOL_SOCKET, SO_DOMAIN, &domain, &length,
                                  USE_DEFAULT) == 0 &&
           domain == AF_UNIX;
}

void CTcpApartmentSink::makeSinkAddress(const std::string& strIp, unsigned short uiPort,
                                        std::string& strOut) {
    const char* ip = strIp.empty() ? "127.0.0.1" : strIp.c_str();
    char text[SINK_ADDRESS_TEXT_SIZE];
    if (uiPort != 0)
        std::snprintf(text, sizeof text, "%s:%u", ip, static_cast<unsigned int>(uiPort));
    else
        std::snprintf(text, sizeof text, "%s", ip);
    strOut = text;
}

void CTcpApartmentSink::resolveSinkAddress(const std::string& strAddress, std::string& strIp,
                                           unsigned short& uiPort) {
    const std::string::size_type colon = strAddress.find(':');
    if (colon == std::string::npos) {
        strIp = strAddress;
        uiPort = 0;
        return;
    }
    strIp = strAddress.substr(0, colon);
    uiPort = static_cast<unsigned short>(std::atoi(strAddress.c_str() + colon + 1));
}

bool CTcpApartmentSink::onSinkInited(const char* localAddress, const char* remoteAddress) {
    resolveSinkAddress(textOrEmpty(localAddress), m_strLocalIPAddress, m_uiLocalIPPort);
    resolveSinkAddress(textOrEmpty(remoteAddress), m_strRemoteIPAddress, m_uiRemoteIPPort);
    _clearReceiveBuffer();
    return true;
}

bool CTcpApartmentSink::onSinkDestroyed() {
    m_strLocalIPAddress.clear();
    m_strRemoteIPAddress.clear();
    m_uiLocalIPPort = 0;
    m_uiRemoteIPPort = 0;
    onSinkClose();
    _clearReceiveBuffer();
    return true;
}

void CTcpApartmentSink::onSinkClose() {
    // Shutting the connection down first makes a write under way fail at
    // once; the descriptor is closed only when no write is under way, so
    // that no writer uses it after it has been released (and perhaps
    // reused). Writers that come later find no descriptor and fail. A TLS
    // peer is told first that the end is deliberate, if the socket takes it.
    // Frames still queued go first, as far as the peer takes them.
    if (m_uintSendQueueBound != 0) _closeSendQueue();
    if (m_pTls && m_Socket.getSockFd() != -1) m_pTls->shutdown();
    OS::Socket::shutdown(m_Socket.getSockFd(), SHUT_RDWR, USE_DEFAULT);
    SendLock lock(&m_SendMutex);
    while (m_bSending) m_SendDoneCondition.wait();
    m_Socket.close();
}

bool CTcpApartmentSink::_ensureReceiveBuffer() {
    if (m_pReceiveBuffer != nullptr && (m_bBorrowedBuffer || m_uintReadEnd != m_uintReadBegin))
        return true;
    if (m_pReceiveBuffer != nullptr) _releaseReadBuffer();  // its frame is taken: borrow again
    ThreadReadBuffer& read = t_read;
    if (!read.buffer) read.buffer.reset(new (std::nothrow) char[READ_BUFFER_SIZE]);
    if (!read.buffer) return false;
    // Another link of this thread that was not settled gives it back first.
    if (read.holder != nullptr && read.holder != this && !read.holder->settleReadBuffer())
        return false;
    read.holder = this;
    m_pReceiveBuffer = read.buffer.get();
    m_bBorrowedBuffer = true;
    m_uintReceiveBufferSize = READ_BUFFER_SIZE;
    m_uintReadBegin = m_uintReadEnd = 0;
    return true;
}

bool CTcpApartmentSink::settleReadBuffer() {
    if (m_pReceiveBuffer == nullptr) return true;
    const unsigned int held = m_uintReadEnd - m_uintReadBegin;
    if (held == 0 || !m_bBorrowedBuffer) {
        if (held == 0) _releaseReadBuffer();
        return true;
    }
    // Room for the whole of the frame begun (its header, when that is all
    // there is), so that the next read completes it.
    unsigned int capacity = FRAME_HEADER_SIZE;
    if (held >= FRAME_HEADER_SIZE) {
        const unsigned int size = readU32(m_pReceiveBuffer + m_uintReadBegin + 4);
        if (size <= READ_BUFFER_SIZE - FRAME_HEADER_SIZE) capacity = FRAME_HEADER_SIZE + size;
    }
    if (capacity < held) capacity = held;
    char* own = new (std::nothrow) char[capacity];
    if (own == nullptr) return false;
    std::memcpy(own, m_pReceiveBuffer + m_uintReadBegin, held);
    if (t_read.holder == this) t_read.holder = nullptr;
    m_pReceiveBuffer = own;
    m_bBorrowedBuffer = false;
    m_uintReceiveBufferSize = capacity;
    m_uintReadBegin = 0;
    m_uintReadEnd = held;
    return true;
}

void CTcpApartmentSink::_releaseReadBuffer() {
    if (m_bBorrowedBuffer) {
        if (t_read.holder == this) t_read.holder = nullptr;
        m_pReceiveBuffer = nullptr;
        m_bBorrowedBuffer = false;
    }
    delete[] m_pReceiveBuffer;
    m_pReceiveBuffer = nullptr;
    m_uintReceiveBufferSize = 0;
    m_uintReadBegin = m_uintReadEnd = 0;
}

void CTcpApartmentSink::_clearReceiveBuffer() {
    _releaseReadBuffer();
    delete[] m_pLargePayload;
    m_pLargePayload = nullptr;
    m_uintLargePayloadFill = 0;
    m_intReceiveFrameStep = RECEIVE_FRAME_HEAD;
}

// ---------------------------------------------------------------------------
// CTcpListenSink

APARTMENT_SINK_TYPE CTcpListenSink::sinkType() const { return LISTEN_SINK; }

unsigned short CTcpListenSink::randomPort() {
    std::uniform_int_distribution<int> distribution(RANDOM_PORT_MIN, RANDOM_PORT_MAX);
    std::mt19937::result_type seed;
    try {
        std::random_device device("default");
        seed = device();
    } catch (const std::exception&) {
        // No random device: the clock still varies the port between runs.
        const timespec now = OS::Clock::monotonicNow();
        seed = static_cast<std::mt19937::result_type>(now.tv_nsec ^ now.tv_sec);
    }
    std::mt19937 engine(seed);
    return static_cast<unsigned short>(distribution(engine));
}

bool CTcpListenSink::onSinkInited(const char* localAddress, const char* remoteAddress) {
    if (!CTcpApartmentSink::onSinkInited(localAddress, remoteAddress)) return false;
    if (m_uiLocalIPPort != 0) {
        if (!m_Socket.initSocket(SOCK_STREAM, m_strLocalIPAddress, m_uiLocalIPPort, USE_DEFAULT))
            return false;
    } else {
        // One draw only: if that port is taken the apartment fails to start
        // rather than appear somewhere its peers were not told about.
        const unsigned short port = randomPort();
        if (!m_Socket.initSocket(SOCK_STREAM, m_strLocalIPAddress, port, USE_DEFAULT)) {
            m_Socket.close();
            return false;
        }
        m_uiLocalIPPort = port;
    }
    initSinkSocketOpt();
    if (!m_Socket.listen(LISTEN_BACKLOG)) return false;
    makeSinkAddress(m_strLocalIPAddress, m_uiLocalIPPort, m_strLocalAddress);
    // With the port, or not at all: a failure here closes the port too.
    return !m_bSameHost || listenSameHost();
}

bool CTcpListenSink::listenSameHost() {
    for (const std::string& ip : CSameHost::namedAddresses(m_strLocalIPAddress)) {
        CReference<CTcpListenSink> listener(new CSameHostListenSink);
        listener->setMaxFrameSize(m_uintMaxFrameSize);
        listener->setTlsContext(m_tlsContext);
        std::string address;
        makeSinkAddress(ip, m_uiLocalIPPort, address);
        if (!listener->initSink(address.c_str(), nullptr)) {
            dropSameHostListeners();
            return false;
        }
        listener->setLocalApartmentUrl(m_strLocalApartmentUrl.c_str());
        m_SameHostListeners.push_back(listener);
    }
    return true;
}

void CTcpListenSink::dropSameHostListeners() {
    std::vector<CReference<CTcpListenSink>> listeners;
    listeners.swap(m_SameHostListeners);
    for (CReference<CTcpListenSink>& listener : listeners) listener->destroySink();
}

void CTcpListenSink::setLocalApartmentUrl(const char* strUrl) {
    CTcpApartmentSink::setLocalApartmentUrl(strUrl);
    for (CReference<CTcpListenSink>& listener : m_SameHostListeners)
        listener->setLocalApartmentUrl(strUrl);
}

bool CTcpListenSink::onSinkDestroyed() {
    dropSameHostListeners();  // the names go before the port
    return CTcpApartmentSink::onSinkDestroyed();
}

void CTcpListenSink::onSinkClose() {
    dropSameHostListeners();
    CTcpApartmentSink::onSinkClose();
}

IApartmentServerSink* CTcpListenSink::processConnectRequest(DWORD dwTimeoutMs) {
    if (!m_Socket.readyToRead(dwTimeoutMs, nullptr)) return nullptr;

    // Held by a reference until handed out: should anything below throw
    // (the address texts allocate), the sink and the connection it accepted
    // go with it.
    CReference<CTcpServerSink> server(new (std::nothrow) CTcpServerSink);
    if (server.nil()) return nullptr;
    ISocket* pTarget = &server->innerSocket();
    std::string peerIp;
    USHORT peerPort = 0;
    std::string localIp;
    USHORT localPort = 0;
    if (!m_Socket.accept(pTarget, peerIp, peerPort, USE_DEFAULT) ||
        !server->innerSocket().getSockName(localIp, localPort))
        return nullptr;
    std::string localAddress;
    std::string remoteAddress;
    makeSinkAddress(localIp, localPort, localAddress);
    makeSinkAddress(peerIp, peerPort, remoteAddress);
    return adoptConnection(server, localAddress, remoteAddress);
}

IApartmentServerSink* CTcpListenSink::adoptConnection(CTcpServerSink* server,
                                                      const std::string& strLocal,
                                                      const std::string& strRemote) {
    if (!server->initSink(strLocal.c_str(), strRemote.c_str())) return nullptr;
    server->setLocalApartmentUrl(m_strLocalApartmentUrl.c_str());
    server->setMaxFrameSize(m_uintMaxFrameSize);
    server->setTlsContext(m_tlsContext);
    server->addRef();  // the caller's
    return server;
}

// ---------------------------------------------------------------------------
// CSameHostListenSink

bool CSameHostListenSink::onSinkInited(const char* localAddress, const char* remoteAddress) {
    if (!CTcpApartmentSink::onSinkInited(localAddress, remoteAddress)) return false;
    const std::string name = CSameHost::nameOf(m_strLocalIPAddress, m_uiLocalIPPort);
    const int fd = OS::Socket::localListen(name.c_str(), LISTEN_BACKLOG, USE_DEFAULT);
    if (fd == -1) {
        log_task_line("[TcpApartment Error]: Can not listen on the same-host name \"%s\", error "
                      "code: %d",
                      name.c_str(), OS::Socket::getErrnoCode());
        return false;
    }
    if (!m_Socket.attach(fd, USE_DEFAULT)) {
        OS::Socket::close(fd, USE_DEFAULT);
        return false;
    }
    m_strPeerAddress = CSameHost::sourceAddressFor(m_strLocalIPAddress);
    return true;
}

IApartmentServerSink* CSameHostListenSink::processConnectRequest(DWORD dwTimeoutMs) {
    if (!m_Socket.readyToRead(dwTimeoutMs, nullptr)) return nullptr;
    CReference<CTcpServerSink> server(new (std::nothrow) CTcpServerSink);
    if (server.nil()) return nullptr;
    int fd;
    do {
        fd = OS::Socket::accept(m_Socket.getSockFd(), nullptr, nullptr, USE_DEFAULT);
    } while (fd == -1 && OS::Socket::getErrnoCode() == EINTR);
    if (fd == -1) return nullptr;
    if (!server->innerSocket().attach(fd, USE_DEFAULT)) {
        OS::Socket::close(fd, USE_DEFAULT);
        return nullptr;
    }
    // A Unix peer has no port: its end is named by the address it would
    // have come from over TCP, as its own link names it.
    return adoptConnection(server, m_strLocalAddress, m_strPeerAddress);
}

// ---------------------------------------------------------------------------
// CTcpClientSink

APARTMENT_SINK_TYPE CTcpClientSink::sinkType() const { return CLIENT_SINK; }

bool CTcpClientSink::onSinkInited(const char* localAddress, const char* remoteAddress) {
    if (!CTcpApartmentSink::onSinkInited(localAddress, remoteAddress)) return false;
    if (connectSameHost()) return !m_tlsContext || handshake();
    if (!m_Socket.initSocket(SOCK_STREAM, m_strLocalIPAddress, m_uiLocalIPPort, USE_DEFAULT))
        return false;
    initSinkSocketOpt();
    if (!m_Socket.connect(m_strRemoteIPAddress, m_uiRemoteIPPort)) return false;
    if (!m_Socket.readyToWrite(CONNECT_TIMEOUT_MS, nullptr)) return false;

    int error = 0;
    socklen_t length = sizeof error;
    m_Socket.getSockopt(SOL_SOCKET, SO_ERROR, &error, &length);
    const bool refused = m_Socket.readyToRead(0, nullptr) && error != 0;
    if (!refused && !m_Socket.getSockName(m_strLocalIPAddress, m_uiLocalIPPort)) return false;
    // A connect to a port of this host that nobody listens on can be given
    // that very port as its own and meet itself (a simultaneous open): a
    // link to itself, not to the apartment asked for.
    if (refused || (m_uiLocalIPPort == m_uiRemoteIPPort &&
                    m_strLocalIPAddress == m_strRemoteIPAddress)) {
        log_task_line("[TcpApartment Error]: Can not connected to %s:%u",
                      m_strRemoteIPAddress.c_str(), static_cast<unsigned int>(m_uiRemoteIPPort));
        return false;
    }
    makeSinkAddress(m_strLocalIPAddress, m_uiLocalIPPort, m_strLocalAddress);
    return !m_tlsContext || handshake();
}

bool CTcpClientSink::connectSameHost() {
    // A local end asked for (an address to bind) is TCP's to honour.
    if (!m_bSameHost || !m_strLocalIPAddress.empty() || m_uiLocalIPPort != 0 ||
        m_uiRemoteIPPort == 0 || !CSameHost::isHostAddress(m_strRemoteIPAddress))
        return false;
    const std::string name = CSameHost::nameOf(m_strRemoteIPAddress, m_uiRemoteIPPort);
    const int fd = OS::Socket::localConnect(name.c_str(), USE_DEFAULT);
    if (fd == -1) return false;  // nobody holds it (or its queue is full): TCP
    if (!m_Socket.attach(fd, USE_DEFAULT)) {
        OS::Socket::close(fd, USE_DEFAULT);
        return false;
    }
    initSinkSocketOpt();
    m_strLocalIPAddress = CSameHost::sourceAddressFor(m_strRemoteIPAddress);
    makeSinkAddress(m_strLocalIPAddress, 0, m_strLocalAddress);
    return true;
}

bool CTcpClientSink::handshake() {
    m_pTls.reset(new CTlsSession(m_tlsContext, m_Socket.getSockFd(), CTlsSession::CLIENT));
    const timespec giveUpAt = OS::Clock::monotonicDeadline(CONNECT_TIMEOUT_MS);
    std::string reason;
    for (;;) {
        const CTlsSession::HANDSHAKE step = m_pTls->handshakeStep();
        if (step == CTlsSession::DONE) {
            announceTls();
            return true;
        }
        if (step == CTlsSession::FAILED) {
            reason = m_pTls->failureReason();
            break;
        }
        const long long left = OS::Clock::millisecondsUntil(giveUpAt);  // 0 once passed
        if (left == 0) {
            reason = "not done within " + std::to_string(CONNECT_TIMEOUT_MS) + " ms";
            break;
        }
        const DWORD wait = static_cast<DWORD>(left);
        if (step == CTlsSession::WANT_READ) m_Socket.readyToRead(wait, nullptr);
        else m_Socket.readyToWrite(wait, nullptr);
    }
    log_task_line("[TcpApartment Error]: TLS handshake with %s:%u failed: %s.",
                  m_strRemoteIPAddress.c_str(), static_cast<unsigned int>(m_uiRemoteIPPort),
                  reason.c_str());
    m_pTls.reset();
    return false;
}

// ---------------------------------------------------------------------------
// CTcpServerSink

APARTMENT_SINK_TYPE CTcpServerSink::sinkType() const { return SERVER_SINK; }

CSocket& CTcpServerSink::innerSocket() { return m_Socket; }

std::string CTcpServerSink::tlsFailure() const {
    return m_pTls ? m_pTls->failureReason() : std::string();
}

bool CTcpServerSink::onSinkInited(const char* localAddress, const char* remoteAddress) {
    if (!CTcpApartmentSink::onSinkInited(localAddress, remoteAddress)) return false;
    initSinkSocketOpt();
    return true;
}

CTcpServerSink::CONNECTION_INFO CTcpServerSink::takeConnectionInfo(bool& bRtConnection,
                                                                    bool& bProgress) {
    bProgress = false;
    if (m_bConnectionInfoKnown) {
        bRtConnection = m_bInfoRt;
        return INFO_RECEIVED;
    }
    if (tlsHandshaking()) {
        // Whether the step has something to take: a peer that stalls mid-
        // handshake must not count as making progress.
        bProgress = m_bTlsWantsWrite ? m_Socket.readyToWrite(0, nullptr)
                                     : m_Socket.readyToRead(0, nullptr);
        if (!m_pTls)
            m_pTls.reset(new CTlsSession(m_tlsContext, m_Socket.getSockFd(), CTlsSession::SERVER));
        const CTlsSession::HANDSHAKE step = m_pTls->handshakeStep();
        if (step == CTlsSession::FAILED) return INFO_REFUSED;
        m_bTlsWantsWrite = step == CTlsSession::WANT_WRITE;
        if (step != CTlsSession::DONE) return INFO_PENDING;
        m_bTlsDone = true;
        bProgress = true;
        announceTls();
    }
    CONNECTION_INFO result = INFO_PENDING;
    for (;;) {
        unsigned int type = 0;
        unsigned int size = 0;
        char* payload = nullptr;
        // Deliberately not reset after a frame of another type is dropped:
        // the next frame may then be no larger than that one. A frame that
        // can never be taken is refused at its header, before the rest of
        // it is waited for.
        const FRAME_STATUS status = nextFrame(type, payload, size, m_uintInfoCapacity);
        if (status == FRAME_TOO_LARGE || status == FRAME_NO_MEMORY) {
            result = INFO_REFUSED;
            break;
        }
        if (status == FRAME_READY) {
            bProgress = true;
            if (type == APARTMENT_CONNECTION_FRAME) {
                std::string url;
                if (!CApartmentFrameCodec::parseConnectionBlock(payload, size, bRtConnection,
                                                                url)) {
                    result = INFO_REFUSED;
                    break;
                }
                setRemoteApartmentUrl(url.c_str());
                consumeFrame();
                m_bInfoRt = bRtConnection;
                m_bConnectionInfoKnown = true;
                result = INFO_RECEIVED;
                break;
            }
            m_uintInfoCapacity = size;
            consumeFrame();
            continue;
        }
        // No more than the frame being waited for can still need: what
        // follows the connection frame is the communication thread's.
        const unsigned int held = m_uintReadEnd - m_uintReadBegin;
        const unsigned int need = FRAME_HEADER_SIZE + m_uintInfoCapacity;
        const READ_RESULT read = readAvailable(need > held ? need - held : 1);
        if (read == READ_DATA) {
            bProgress = true;
            continue;
        }
        if (read != READ_NOTHING) result = INFO_REFUSED;  // closed, broken, or no memory
        break;
    }
    if (!settleReadBuffer()) return INFO_REFUSED;
    return result;
}

bool CTcpServerSink::waitRemoteConnectionInfo(DWORD dwTimeoutMs, bool& bRtConnection) {
    timespec giveUpAt = OS::Clock::monotonicDeadline(dwTimeoutMs);
    const timespec totalGiveUpAt = OS::Clock::monotonicDeadline(totalTimeoutMs());
    for (;;) {
        bool progress = false;
        const CONNECTION_INFO info = takeConnectionInfo(bRtConnection, progress);
        if (info != INFO_PENDING) return info == INFO_RECEIVED;
        if (progress) giveUpAt = OS::Clock::monotonicDeadline(dwTimeoutMs);
        if (OS::Clock::hasPassed(totalGiveUpAt) || OS::Clock::hasPassed(giveUpAt)) return false;
        if (tlsWantsWrite() ? !m_Socket.readyToWrite(dwTimeoutMs, nullptr)
                            : !m_Socket.readyToRead(dwTimeoutMs, nullptr))
            return false;
        if (!progress) pauseMicroseconds(NO_PROGRESS_PAUSE_US);
    }
}
