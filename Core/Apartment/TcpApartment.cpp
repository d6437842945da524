#include "TcpApartment.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "ApartmentFrame.h"
#include "ApartmentFrameCodec.h"
#include "ApartmentGuard.h"
#include "GroundKit/OS/Socket/OS_Socket.h"
#include "TcpApartmentSink.h"
#include "os_log.h"

namespace {
const char TCP_SCHEME[] = "tcp://";
const size_t TCP_SCHEME_LENGTH = sizeof(TCP_SCHEME) - 1;
const int EINTR_CODE = 4;

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
      m_pLoopbackRawBuffer(nullptr) {
    for (int* pair : m_WakeFds)
        if (OS::Socket::socketPair(AF_UNIX, SOCK_STREAM, 0, pair, USE_DEFAULT) != 0)
            pair[0] = pair[1] = -1;
}

CTcpApartment::~CTcpApartment() {
    // The threads that poll the wake sockets were joined when the last
    // reference went (onFinalRelease).
    for (int* pair : m_WakeFds)
        for (int i = 0; i < 2; ++i)
            if (pair[i] >= 0) OS::Socket::close(pair[i], USE_DEFAULT);
    delete[] m_pRtRawBuffer;
    m_pRtRawBuffer = nullptr;
    delete[] m_pLoopbackRawBuffer;
    m_pLoopbackRawBuffer = nullptr;
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

void CTcpApartment::interruptWait(bool bRtConnection) {
    const int fd = m_WakeFds[bRtConnection ? 1 : 0][1];
    const char byte = 0;
    // A full socket is already a wake-up waiting to be seen.
    if (fd >= 0) OS::Socket::send(fd, &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL, USE_DEFAULT);
}

void CTcpApartment::waitFrameOnSinks(IApartmentSink** pSinks, unsigned int uintCount,
                                     DWORD dwTimeout, bool bRtConnection) {
    if (uintCount > MAX_SINKS_PER_WAIT) {
        log_task_line("Fatal Error: too many sink receive data at same time, only %u are working.",
                      MAX_SINKS_PER_WAIT);
        uintCount = MAX_SINKS_PER_WAIT;
    }
    CTcpApartmentSink* tcp[MAX_SINKS_PER_WAIT];
    pollfd fds[MAX_SINKS_PER_WAIT + 1];
    bool framesHeld = false;
    for (unsigned int i = 0; i < uintCount; ++i) {
        // The snapshot holds a reference to every sink for the whole pass.
        CReference<ITcpApartmentSink> view(asITcpApartmentSink(pSinks[i]));
        tcp[i] = view.nil() ? nullptr : static_cast<CTcpApartmentSink*>(view.operator->());
        fds[i].fd = tcp[i] != nullptr ? tcp[i]->getSocketFd() : -1;
        fds[i].events = POLLIN;
        fds[i].revents = 0;
        if (tcp[i] != nullptr && tcp[i]->hasFrameReady()) framesHeld = true;
    }

    pollfd& wake = fds[uintCount];  // poll passes over a negative descriptor
    wake.fd = m_WakeFds[bRtConnection ? 1 : 0][0];
    wake.events = POLLIN;
    wake.revents = 0;

    // Whole frames already held are served without waiting on the sockets.
    const int timeoutMs = framesHeld ? 0 : static_cast<int>(dwTimeout);
    int ready;
    do {
        ready = OS::Socket::poll(fds, uintCount + 1, timeoutMs, USE_DEFAULT);
    } while (ready < 0 && OS::Socket::getErrnoCode() == EINTR_CODE);
    if (ready > 0 && wake.revents != 0) {
        // Woken for a new link: the caller's next pass takes it in.
        char drained[64];
        while (OS::Socket::recv(wake.fd, drained, sizeof drained, MSG_DONTWAIT, USE_DEFAULT) > 0) {
        }
        --ready;
    }
    if (ready < 0 || (ready == 0 && !framesHeld)) return;

    MessageBatch& batch = t_batch;
    batch.clear();
    for (unsigned int i = 0; i < uintCount; ++i) {
        if (tcp[i] == nullptr || fds[i].fd < 0) continue;
        if (fds[i].revents == 0 && !tcp[i]->hasFrameReady()) continue;
        // What goes wrong while serving one link (no memory, say) closes
        // that link only; what the others brought is still posted.
        if (!guarded("receiving, link closed", false, [&] {
                serveSink(pSinks[i], tcp[i], batch);
                return true;
            })) {
            pSinks[i]->closeSink();
            pSinks[i]->addRef();  // the message carries it
            APARTMENT_TMSG msg;
            msg.m_intMsg = APARTMENT_CONNECTION_CLOSED;
            msg.wParam = reinterpret_cast<WPARAM>(pSinks[i]);
            msg.lParam = 0;
            postMessage(msg);
        }
    }
    if (!batch.empty()) postMessages(batch.data(), batch.size());
    batch.clear();
}

void CTcpApartment::serveSink(IApartmentSink* pSink, CTcpApartmentSink* pTcp,
                              MessageBatch& batch) {
    unsigned int frames = 0;
    unsigned long bytes = 0;
    for (;;) {
        unsigned int type = 0;
        unsigned int size = 0;
        char* payload = nullptr;
        const CTcpApartmentSink::FRAME_STATUS status = pTcp->nextFrame(type, payload, size);
        if (status == CTcpApartmentSink::FRAME_READY) {
            deliverFrame(pSink, pTcp, type, payload, size, batch);
            bytes += size;
            if (++frames >= MAX_FRAMES_PER_PASS || bytes >= MAX_BYTES_PER_PASS) return;
            continue;
        }
        if (status == CTcpApartmentSink::FRAME_TOO_LARGE) {
            log_task_line("[TcpApartment Error]: %s announced a frame of %u bytes, above the "
                          "maximum of %u; link closed.",
                          peerOf(pSink).c_str(), size,
                          pSink->getRTConnection() ? CTcpApartmentSink::RT_MAX_FRAME_SIZE
                                                   : pTcp->maxFrameSize());
            closeLink(pSink, batch);
            return;
        }
        if (status == CTcpApartmentSink::FRAME_NO_MEMORY) {
            log_task_line("[TcpApartment Error]: no memory for a frame of %u bytes from %s; link "
                          "closed.",
                          size, peerOf(pSink).c_str());
            closeLink(pSink, batch);
            return;
        }
        switch (pTcp->readAvailable()) {
            case CTcpApartmentSink::READ_DATA:
                continue;
            case CTcpApartmentSink::READ_NOTHING:
                return;
            case CTcpApartmentSink::READ_NO_MEMORY:
                log_task_line("[TcpApartment Error]: no memory to read from %s; link closed.",
                              peerOf(pSink).c_str());
                closeLink(pSink, batch);
                return;
            default:
                // The peer has gone: what it sent is all here, so a frame
                // still incomplete never completes.
                closeLink(pSink, batch);
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

void CTcpApartment::closeLink(IApartmentSink* pSink, MessageBatch& batch) {
    pSink->closeSink();
    APARTMENT_TMSG msg;
    msg.m_intMsg = APARTMENT_CONNECTION_CLOSED;
    msg.wParam = reinterpret_cast<WPARAM>(pSink);
    msg.lParam = 0;
    batch.push_back(msg);
    pSink->addRef();  // the message carries it
}
