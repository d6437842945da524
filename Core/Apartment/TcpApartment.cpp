#include "TcpApartment.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "ApartmentFrame.h"
#include "GroundKit/OS/Socket/OS_Socket.h"
#include "TcpApartmentSink.h"
#include "os_log.h"

namespace {
const char TCP_SCHEME[] = "tcp://";
const size_t TCP_SCHEME_LENGTH = sizeof(TCP_SCHEME) - 1;
const unsigned int MAX_SINKS_PER_WAIT = 64;
const int EINTR_CODE = 4;
// How long a pass that found only stalled sinks rests before the next one:
// from STALLED_PASS_FIRST_PAUSE_US, doubling on each further such pass, up
// to STALLED_PASS_MAX_PAUSE_US. The rest of a header split in flight comes
// within microseconds; a peer that holds one back costs a few polls per
// second.
const long STALLED_PASS_FIRST_PAUSE_US = 50;
const long STALLED_PASS_MAX_PAUSE_US = 5000;
// Consecutive stalled passes of the calling communication thread.
thread_local unsigned int t_uintStalledPasses = 0;

// Bytes waiting in the socket, or -1 if that cannot be told.
long pendingBytes(int fd) {
    ULONG count = 0;
    if (OS::Socket::ioctl(fd, FIONREAD, &count, USE_DEFAULT) != 0) return -1;
    return static_cast<long>(count);
}
}  // namespace

CTcpApartment::CTcpApartment()
    : m_pRtRawBuffer(new (std::nothrow) char[RT_RAW_BUFFER_SIZE]()),
      m_uintRtRawBufferSize(m_pRtRawBuffer != nullptr ? RT_RAW_BUFFER_SIZE : 0),
      m_pLoopbackRawBuffer(nullptr) {}

CTcpApartment::~CTcpApartment() {
    delete[] m_pRtRawBuffer;
    m_pRtRawBuffer = nullptr;
    delete[] m_pLoopbackRawBuffer;
    m_pLoopbackRawBuffer = nullptr;
}

IApartmentSink* CTcpApartment::createSink(APARTMENT_SINK_TYPE type) {
    switch (type) {
        case LISTEN_SINK:
            return static_cast<IApartmentSink*>(new CTcpListenSink());
        case CLIENT_SINK:
            return static_cast<IApartmentSink*>(new CTcpClientSink());
        case SERVER_SINK:
            return static_cast<IApartmentSink*>(new CTcpServerSink());
        default:
            return nullptr;
    }
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

void CTcpApartment::waitFrameOnSinks(IApartmentSink** pSinks, unsigned int uintCount,
                                     DWORD dwTimeout) {
    if (uintCount > MAX_SINKS_PER_WAIT) {
        log_task_line(
            "Fatal Error: too many sink receive data at same time, only 64 are working.");
        uintCount = MAX_SINKS_PER_WAIT;
    }
    timeval timeout;
    timeout.tv_sec = static_cast<time_t>(dwTimeout / 1000);
    timeout.tv_usec = static_cast<suseconds_t>((dwTimeout % 1000) * 1000);

    int fds[MAX_SINKS_PER_WAIT];
    fd_set readSet;
    FD_ZERO(&readSet);
    int maxFd = -1;
    for (unsigned int i = 0; i < uintCount; ++i) {
        fds[i] = -1;
        CReference<ITcpApartmentSink> tcp(asITcpApartmentSink(pSinks[i]));
        if (tcp.nil()) continue;
        const int fd = tcp->getSocketFd();
        // select cannot watch descriptors past FD_SETSIZE; such a sink is
        // not served rather than corrupting the stack.
        if (fd < 0 || fd >= FD_SETSIZE) continue;
        fds[i] = fd;
        FD_SET(fd, &readSet);
        if (fd > maxFd) maxFd = fd;
    }

    int ready;
    do {
        ready = OS::Socket::select(maxFd + 1, &readSet, nullptr, nullptr, &timeout, USE_DEFAULT);
    } while (ready < 0 && OS::Socket::getErrnoCode() == EINTR_CODE);
    if (ready < 1) return;

    // A sink is stalled when it is readable but its bytes cannot be taken
    // yet (part of a header, which is consumed only whole): select reports
    // it again at once, so a pass that found nothing else rests briefly
    // instead of spinning until the rest arrives.
    bool progressed = false;
    bool stalled = false;
    for (unsigned int i = 0; i < uintCount; ++i) {
        if (fds[i] < 0 || !FD_ISSET(fds[i], &readSet)) continue;
        char peek[4];
        if (OS::Socket::recv(fds[i], peek, sizeof peek, MSG_PEEK, USE_DEFAULT) == 0) {
            postConnectionClosed(pSinks[i]);
            progressed = true;
            continue;
        }
        const long before = pendingBytes(fds[i]);
        const RECEIVE_RESULT result = receiveOneFrame(pSinks[i]);
        // After the peer's close every byte it sent is already here, so a
        // frame still incomplete now never completes.
        if (result == FRAME_REFUSED ||
            (result == FRAME_PENDING && OS::Socket::isLinkBroken(fds[i], USE_DEFAULT))) {
            postConnectionClosed(pSinks[i]);
            progressed = true;
        } else if (result == FRAME_PENDING && before >= 0 && pendingBytes(fds[i]) == before) {
            stalled = true;
        } else {
            progressed = true;
        }
    }
    if (!stalled || progressed) {
        t_uintStalledPasses = 0;
        return;
    }
    long pauseUs = STALLED_PASS_FIRST_PAUSE_US;
    for (unsigned int i = 0; i < t_uintStalledPasses && pauseUs < STALLED_PASS_MAX_PAUSE_US; ++i)
        pauseUs *= 2;
    if (pauseUs > STALLED_PASS_MAX_PAUSE_US) pauseUs = STALLED_PASS_MAX_PAUSE_US;
    ++t_uintStalledPasses;
    timeval pause{0, static_cast<suseconds_t>(pauseUs)};
    OS::Socket::select(0, nullptr, nullptr, nullptr, &pause, USE_DEFAULT);
}

void CTcpApartment::postConnectionClosed(IApartmentSink* pSink) {
    // The message carries this reference.
    pSink->addRef();
    pSink->closeSink();
    APARTMENT_TMSG msg;
    msg.m_intMsg = APARTMENT_CONNECTION_CLOSED;
    msg.wParam = reinterpret_cast<WPARAM>(pSink);
    msg.lParam = 0;
    postMessage(msg);
}

CTcpApartment::RECEIVE_RESULT CTcpApartment::receiveOneFrame(IApartmentSink* pSink) {
    if (pSink->getRTConnection()) {
        char* buffer = m_pRtRawBuffer;
        unsigned int size = m_uintRtRawBufferSize;
        if (pSink->getLoopbackType() != NONE_LOOPBACK_TYPE) {
            // Not the real-time thread: keep off its buffer.
            if (m_pLoopbackRawBuffer == nullptr)
                m_pLoopbackRawBuffer = new (std::nothrow) char[RT_RAW_BUFFER_SIZE]();
            if (m_pLoopbackRawBuffer == nullptr) return FRAME_PENDING;
            buffer = m_pLoopbackRawBuffer;
            size = RT_RAW_BUFFER_SIZE;
        }
        const unsigned int capacity = size;
        unsigned int type = 0;
        if (!pSink->receiveFrame(type, buffer, size)) {
            // Incomplete, or complete but too large for the buffer: only a
            // size query tells them apart (and it never consumes the frame).
            size = 0;
            if (!pSink->receiveFrame(type, nullptr, size)) return FRAME_PENDING;
            if (size > capacity) return FRAME_REFUSED;
            size = capacity;
            if (!pSink->receiveFrame(type, buffer, size)) return FRAME_PENDING;
        }
        CReference<IApartmentCallback> cb = apartmentCallback();
        if (!cb.nil()) cb->onRawFrameReceived(type, buffer, size);
        return FRAME_TAKEN;
    }

    unsigned int type = 0;
    unsigned int size = 0;
    if (!pSink->receiveFrame(type, nullptr, size)) return FRAME_PENDING;
    CApartmentFrame* frame = new CApartmentFrame(type, size);
    // An empty payload has no buffer, and a null buffer only asks for the
    // size: the frame would stay held and be posted again on every pass.
    // Any non-null buffer of capacity 0 takes it.
    char empty = 0;
    pSink->receiveFrame(type, size != 0 ? frame->getFrameBuffer() : &empty, size);

    APARTMENT_MSG_CODE code;
    if (pSink->getLoopbackType() == SERVER_LOOPBACK_TYPE)
        code = LOOPDATA_FRAME_ARRIVED;
    else if (type == APARTMENT_REQUEST_FRAME)
        code = REQUEST_FRAME_ARRIVED;
    else if (type == APARTMENT_RESPONSE_FRAME)
        code = RESPONSE_FRAME_ARRIVED;
    else
        code = NORMAL_FRAME_ARRIVED;
    APARTMENT_TMSG msg;
    msg.m_intMsg = code;
    msg.wParam = reinterpret_cast<WPARAM>(static_cast<IApartmentFrame*>(frame));
    msg.lParam = 0;
    postMessage(msg);
    return FRAME_TAKEN;
}
