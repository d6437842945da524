#include "TcpApartmentSink.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <random>

#include "FieldKit/Environment/EndianType.h"
#include "GroundKit/OS/OS_Clock.h"
#include "GroundKit/Reference/Reference.h"
#include "GroundKit/StringAssistant/StringAssistant.h"
#include "os_log.h"

namespace {

typedef TAutoMutex<OS::TRecursiveMutex> SendLock;

// Longest address text makeSinkAddress produces.
const size_t SINK_ADDRESS_TEXT_SIZE = 64;
// A single receive is limited to what the socket call can report.
const unsigned int MAX_RECEIVE_CHUNK = INT_MAX;
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

}  // namespace

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
      m_uintReceiveBufferOffset(0),
      m_HeaderBytes(),
      m_uintHeaderOffset(0),
      m_SendMutex(nullptr),
      m_pSendBuffer(new (std::nothrow) char[SEND_BUFFER_SIZE]),
      m_uintSendBufferSize(m_pSendBuffer != nullptr ? SEND_BUFFER_SIZE : 0),
      m_uintSendBufferOffset(0) {}

CTcpApartmentSink::~CTcpApartmentSink() {
    m_Socket.close();
    delete[] m_pSendBuffer;
    m_pSendBuffer = nullptr;
    _clearReceiveBuffer();
}

void CTcpApartmentSink::setLocalApartmentUrl(const char* strUrl) {
    CApartmentSink::setLocalApartmentUrl(strUrl);
    if (!m_strLocalAddress.empty() && m_strLocalAddress != "0.0.0.0") {
        m_strLocalApartmentUrl = CStringAssistant::replaceSTLString(
            m_strLocalApartmentUrl, "0.0.0.0:", m_strLocalIPAddress + ":", true);
    }
}

bool CTcpApartmentSink::sendFrame(const unsigned int& uintFrameType, const void* pData,
                                  const unsigned int& uintSize) {
    if (sinkType() == LISTEN_SINK) return false;
    if (pData == nullptr && uintSize != 0) return false;

    SendLock lock(&m_SendMutex);
    if (m_pSendBuffer == nullptr) return false;

    unsigned int header[2] = {uintFrameType, uintSize};
    CEndianType::hostToNetwork(header[0]);
    CEndianType::hostToNetwork(header[1]);
    std::memcpy(m_pSendBuffer, header, FRAME_HEADER_SIZE);
    unsigned int fill = FRAME_HEADER_SIZE;

    const char* pNext = static_cast<const char*>(pData);
    unsigned int remaining = uintSize;
    while (remaining > 0) {
        const unsigned int room = m_uintSendBufferSize - fill;
        if (room < remaining) {
            std::memcpy(m_pSendBuffer + fill, pNext, room);
            pNext += room;
            remaining -= room;
            if (!_rawSend(m_pSendBuffer, m_uintSendBufferSize)) return false;
            fill = 0;
        } else {
            std::memcpy(m_pSendBuffer + fill, pNext, remaining);
            fill += remaining;
            remaining = 0;
        }
    }
    return fill == 0 || _rawSend(m_pSendBuffer, fill);
}

bool CTcpApartmentSink::receiveFrame(unsigned int& uintFrameType, void* pBuffer,
                                     unsigned int& uintSize) {
    if (sinkType() == LISTEN_SINK) return false;

    if (m_intReceiveFrameStep == RECEIVE_FRAME_HEAD) {
        if (m_uintHeaderOffset < FRAME_HEADER_SIZE) {
            const int received =
                m_Socket.receive(m_HeaderBytes + m_uintHeaderOffset,
                                 static_cast<int>(FRAME_HEADER_SIZE - m_uintHeaderOffset), 0);
            if (received > 0) m_uintHeaderOffset += static_cast<unsigned int>(received);
            if (m_uintHeaderOffset < FRAME_HEADER_SIZE) return false;
        }
        unsigned int header[2];
        std::memcpy(header, m_HeaderBytes, FRAME_HEADER_SIZE);
        unsigned int type = CEndianType::networkToHost(header[0]);
        unsigned int size = CEndianType::networkToHost(header[1]);
        // Until the payload has room the header stays held here, so the
        // frame is not half-consumed.
        if (!_ensureReceiveBuffer(size)) return false;
        m_uintReceiveBufferOffset = 0;
        m_uintHeaderOffset = 0;
        m_uintReceiveFrameType = type;
        m_uintReceiveFrameSize = size;
        m_intReceiveFrameStep = RECEIVE_FRAME_BODY;
    }

    if (m_uintReceiveBufferOffset < m_uintReceiveFrameSize) {
        unsigned int missing = m_uintReceiveFrameSize - m_uintReceiveBufferOffset;
        if (missing > MAX_RECEIVE_CHUNK) missing = MAX_RECEIVE_CHUNK;
        const int received = m_Socket.receive(m_pReceiveBuffer + m_uintReceiveBufferOffset,
                                              static_cast<int>(missing), 0);
        if (received > 0) m_uintReceiveBufferOffset += static_cast<unsigned int>(received);
    }
    if (m_uintReceiveBufferOffset < m_uintReceiveFrameSize) return false;

    if (pBuffer == nullptr) {
        uintFrameType = m_uintReceiveFrameType;
        uintSize = m_uintReceiveFrameSize;
        return true;
    }
    if (uintSize < m_uintReceiveFrameSize) return false;

    if (m_uintReceiveFrameSize > 0) std::memcpy(pBuffer, m_pReceiveBuffer, m_uintReceiveFrameSize);
    uintFrameType = m_uintReceiveFrameType;
    uintSize = m_uintReceiveFrameSize;
    m_intReceiveFrameStep = RECEIVE_FRAME_HEAD;
    // The real-time link keeps its buffer so its thread does not allocate
    // per frame; other links give memory back after each frame.
    if (!m_bRtConnection) _clearReceiveBuffer();
    m_uintReceiveBufferOffset = 0;
    return true;
}

int CTcpApartmentSink::getSocketFd() const { return m_Socket.getSockFd(); }

bool CTcpApartmentSink::initSinkSocketOpt() {
    if (m_Socket.getSockFd() == -1) return false;
    const int bufferSize = LINK_SOCKET_BUFFER_SIZE;
    const int noDelay = 1;
    m_Socket.setSockopt(SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof bufferSize);
    m_Socket.setSockopt(SOL_SOCKET, SO_SNDBUF, &bufferSize, sizeof bufferSize);
    m_Socket.setSockopt(IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    return true;
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
    m_intReceiveFrameStep = RECEIVE_FRAME_HEAD;
    m_uintHeaderOffset = 0;
    if (m_bRtConnection) return _resetReceiveBuffer(RT_RECEIVE_BUFFER_SIZE);
    return true;
}

bool CTcpApartmentSink::onSinkDestroyed() {
    m_strLocalIPAddress.clear();
    m_strRemoteIPAddress.clear();
    m_uiLocalIPPort = 0;
    m_uiRemoteIPPort = 0;
    onSinkClose();
    m_intReceiveFrameStep = RECEIVE_FRAME_HEAD;
    m_uintHeaderOffset = 0;
    _clearReceiveBuffer();
    m_uintReceiveBufferOffset = 0;
    return true;
}

void CTcpApartmentSink::onSinkClose() {
    // Shutting the connection down first makes a sender that is waiting in
    // _rawSend fail at once and let go of the send mutex; then the
    // descriptor is closed under the mutex, so no sender can write to it
    // after it has been released (and perhaps reused).
    OS::Socket::shutdown(m_Socket.getSockFd(), SHUT_RDWR, USE_DEFAULT);
    SendLock lock(&m_SendMutex);
    m_Socket.close();
}

unsigned long CTcpApartmentSink::receiveProgress() {
    if (m_intReceiveFrameStep == RECEIVE_FRAME_BODY)
        return FRAME_HEADER_SIZE + 1UL + m_uintReceiveBufferOffset;
    char header[FRAME_HEADER_SIZE];
    const int peeked = m_Socket.receive(header, FRAME_HEADER_SIZE, MSG_PEEK);
    return m_uintHeaderOffset + (peeked > 0 ? static_cast<unsigned long>(peeked) : 0UL);
}

bool CTcpApartmentSink::_ensureReceiveBuffer(unsigned int uintSize) {
    if (m_uintReceiveBufferSize >= uintSize) return true;
    return _resetReceiveBuffer(uintSize);
}

bool CTcpApartmentSink::_resetReceiveBuffer(unsigned int uintSize) {
    _clearReceiveBuffer();
    if (uintSize == 0) return true;
    m_pReceiveBuffer = new (std::nothrow) char[uintSize];
    if (m_pReceiveBuffer == nullptr) return false;
    m_uintReceiveBufferSize = uintSize;
    return true;
}

void CTcpApartmentSink::_clearReceiveBuffer() {
    delete[] m_pReceiveBuffer;
    m_pReceiveBuffer = nullptr;
    m_uintReceiveBufferSize = 0;
}

bool CTcpApartmentSink::_rawPeek(void* pBuffer, const unsigned int& uintSize) {
    return m_Socket.receive(pBuffer, static_cast<int>(uintSize), MSG_PEEK) ==
           static_cast<int>(uintSize);
}

bool CTcpApartmentSink::_rawSend(const void* pData, const unsigned int& uintSize) {
    const char* pBytes = static_cast<const char*>(pData);
    unsigned int sent = 0;
    while (sent < uintSize) {
        const int result = m_Socket.send(pBytes + sent, static_cast<int>(uintSize - sent), 0);
        if (result >= 1) {
            sent += static_cast<unsigned int>(result);
            continue;
        }
        if (m_Socket.getSockFd() == -1 || m_Socket.isLinkBroken()) break;
        if (result < 0 && isPermanentSendError(OS::Socket::getErrnoCode())) break;
        if (m_Socket.readyToWrite(SEND_STALL_TIMEOUT_MS, nullptr)) continue;
        log_task_line("TcpApartmentSink write failed.");
        setExpectSinkClosed(true);
        break;
    }
    return sent == uintSize;
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
        timespec now{0, 0};
        OS::Clock::getTime(OS::Clock::MONOTONIC, &now, USE_DEFAULT);
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
    return true;
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
    if (!server->initSink(localAddress.c_str(), remoteAddress.c_str())) return nullptr;
    server->setLocalApartmentUrl(m_strLocalApartmentUrl.c_str());
    server->addRef();  // the caller's
    return server;
}

// ---------------------------------------------------------------------------
// CTcpClientSink

APARTMENT_SINK_TYPE CTcpClientSink::sinkType() const { return CLIENT_SINK; }

bool CTcpClientSink::onSinkInited(const char* localAddress, const char* remoteAddress) {
    if (!CTcpApartmentSink::onSinkInited(localAddress, remoteAddress)) return false;
    if (!m_Socket.initSocket(SOCK_STREAM, m_strLocalIPAddress, m_uiLocalIPPort, USE_DEFAULT))
        return false;
    initSinkSocketOpt();
    if (!m_Socket.connect(m_strRemoteIPAddress, m_uiRemoteIPPort)) return false;
    if (!m_Socket.readyToWrite(CONNECT_TIMEOUT_MS, nullptr)) return false;

    int error = 0;
    socklen_t length = sizeof error;
    m_Socket.getSockopt(SOL_SOCKET, SO_ERROR, &error, &length);
    if (m_Socket.readyToRead(0, nullptr) && error != 0) {
        log_task_line("[TcpApartment Error]: Can not connected to %s:%u",
                      m_strRemoteIPAddress.c_str(), static_cast<unsigned int>(m_uiRemoteIPPort));
        return false;
    }
    if (!m_Socket.getSockName(m_strLocalIPAddress, m_uiLocalIPPort)) return false;
    makeSinkAddress(m_strLocalIPAddress, m_uiLocalIPPort, m_strLocalAddress);
    return true;
}

// ---------------------------------------------------------------------------
// CTcpServerSink

APARTMENT_SINK_TYPE CTcpServerSink::sinkType() const { return SERVER_SINK; }

CSocket& CTcpServerSink::innerSocket() { return m_Socket; }

bool CTcpServerSink::onSinkInited(const char* localAddress, const char* remoteAddress) {
    if (!CTcpApartmentSink::onSinkInited(localAddress, remoteAddress)) return false;
    initSinkSocketOpt();
    return true;
}

bool CTcpServerSink::waitRemoteConnectionInfo(DWORD dwTimeoutMs, bool& bRtConnection) {
    unsigned char block[CONNECTION_FRAME_SIZE];
    // Deliberately not reset between passes: after a dropped frame, the
    // next receive is offered only that frame's size.
    unsigned int capacity = CONNECTION_FRAME_SIZE;
    timespec giveUpAt = OS::Clock::monotonicDeadline(dwTimeoutMs);
    const timespec totalGiveUpAt = OS::Clock::monotonicDeadline(CONNECTION_INFO_TOTAL_TIMEOUT_MS);
    for (;;) {
        timespec now{0, 0};
        OS::Clock::getTime(OS::Clock::MONOTONIC, &now, USE_DEFAULT);
        if (!OS::Clock::isEarlier(now, totalGiveUpAt)) return false;
        if (!m_Socket.readyToRead(dwTimeoutMs, nullptr)) return false;
        if (m_Socket.getSockFd() == -1 || m_Socket.isLinkBroken()) return false;

        const unsigned long progressBefore = receiveProgress();
        std::memset(block, 0, sizeof block);
        unsigned int type = 0;
        if (receiveFrame(type, block, capacity)) {
            if (type == APARTMENT_CONNECTION_FRAME) {
                bRtConnection = block[0] != 0;
                const char* url = reinterpret_cast<const char*>(block) + CONNECTION_FRAME_URL_OFFSET;
                const size_t urlLength =
                    strnlen(url, CONNECTION_FRAME_SIZE - CONNECTION_FRAME_URL_OFFSET);
                setRemoteApartmentUrl(std::string(url, urlLength).c_str());
                return true;
            }
            giveUpAt = OS::Clock::monotonicDeadline(dwTimeoutMs);  // a frame dropped is progress
            continue;
        }
        if (receiveProgress() != progressBefore) {
            giveUpAt = OS::Clock::monotonicDeadline(dwTimeoutMs);
            continue;
        }
        OS::Clock::getTime(OS::Clock::MONOTONIC, &now, USE_DEFAULT);
        if (!OS::Clock::isEarlier(now, giveUpAt)) return false;
        pauseMicroseconds(NO_PROGRESS_PAUSE_US);
    }
}
