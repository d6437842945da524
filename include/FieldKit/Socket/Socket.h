// CSockAddr, an IPv4 address value, and CSocket, the socket object behind
// ISocket.
//
// CSocket owns at most one descriptor. It is reference counted (count 1 at
// construction); the last releaseRef closes the descriptor. The TCP sinks
// hold one by value and close it themselves. A CSocket has no lock: its
// owner decides which thread uses it.
#ifndef FIELDKIT_SOCKET_SOCKET_H
#define FIELDKIT_SOCKET_SOCKET_H

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "FieldKit/Socket/ISocket.h"
#include "GroundKit/OS/Socket/OS_Socket.h"
#include "os_log.h"
#include "os_sync.h"

// An IPv4 address and port; the fields are those of sockaddr_in, with the
// port and address in network byte order.
class CSockAddr : public sockaddr_in {
public:
    CSockAddr() { clear(); }
    CSockAddr(const sockaddr& addr) { *this = addr; }            // NOLINT: value conversion
    CSockAddr(const sockaddr_in& addr) { *this = addr; }         // NOLINT: value conversion
    // `address` in host byte order.
    CSockAddr(ULONG address, USHORT port) {
        clear();
        sin_port = htons(port);
        sin_addr.s_addr = htonl(static_cast<uint32_t>(address));
    }
    // Text that is no dotted address gives the wildcard 0.0.0.0, and so does
    // 255.255.255.255, which the conversion cannot tell apart from an error.
    CSockAddr(const std::string& address, USHORT port) {
        clear();
        sin_port = htons(port);
        uint32_t parsed = OS::Socket::addressFromText(address.c_str());
        sin_addr.s_addr = parsed == INADDR_NONE ? 0 : parsed;
    }

    std::string dottedDecimal() const {
        char text[INET_TEXT_SIZE];
        OS::Socket::addressToText(sin_addr.s_addr, text, sizeof text);
        return text;
    }
    USHORT Port() const { return ntohs(sin_port); }
    // The address in host byte order.
    ULONG iPAddr() const { return ntohl(sin_addr.s_addr); }

    CSockAddr& operator=(const sockaddr& addr) {
        std::memcpy(static_cast<sockaddr_in*>(this), &addr, sizeof(sockaddr_in));
        return *this;
    }
    CSockAddr& operator=(const sockaddr_in& addr) {
        std::memcpy(static_cast<sockaddr_in*>(this), &addr, sizeof(sockaddr_in));
        return *this;
    }
    operator sockaddr() const {
        sockaddr plain;
        std::memcpy(&plain, static_cast<const sockaddr_in*>(this), sizeof plain);
        return plain;
    }
    operator sockaddr*() { return reinterpret_cast<sockaddr*>(static_cast<sockaddr_in*>(this)); }
    operator const sockaddr*() const {
        return reinterpret_cast<const sockaddr*>(static_cast<const sockaddr_in*>(this));
    }
    operator sockaddr_in*() { return this; }

    static constexpr socklen_t LENGTH = sizeof(sockaddr_in);  // 16

private:
    static constexpr size_t INET_TEXT_SIZE = 16;  // "255.255.255.255" and its zero
    void clear() {
        std::memset(static_cast<sockaddr_in*>(this), 0, sizeof(sockaddr_in));
        sin_family = AF_INET;
    }
};

static_assert(sizeof(CSockAddr) == 16, "CSockAddr must be exactly a sockaddr_in");

class CSocket : public ISocketStub {
public:
    // Time-outs for blocking calls and the initial buffer sizes given to
    // every attached descriptor; the sinks raise the buffers afterwards.
    static constexpr DWORD IO_TIMEOUT_MS = 500;
    static constexpr int INITIAL_BUFFER_SIZE = 8192;

    CSocket() : m_iSocketFd(-1), m_RtMode(USE_STD) { OS::Socket::initLibrary(); }
    // A descriptor still held here is closed, so that an object dropped
    // without close() does not leak it.
    virtual ~CSocket() {
        if (m_iSocketFd != -1) OS::Socket::close(m_iSocketFd, m_RtMode);
        OS::Socket::clearLibrary();
    }

    bool attach(int fd, RT_MODE mode) override {
        if (m_iSocketFd != -1 || fd == -1) return false;
        m_iSocketFd = fd;
        m_RtMode = mode == USE_DEFAULT ? get_default_rt_mode() : mode;
        OS::Socket::setSendTimeout(fd, IO_TIMEOUT_MS, m_RtMode);
        OS::Socket::setRecvTimeout(fd, IO_TIMEOUT_MS, m_RtMode);
        const int bufferSize = INITIAL_BUFFER_SIZE;
        const int reuse = 1;
        setSockopt(SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof bufferSize);
        setSockopt(SOL_SOCKET, SO_SNDBUF, &bufferSize, sizeof bufferSize);
        setSockopt(SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
        OS::Socket::disableUDPUnreachedReport(fd);
        ULONG nonBlocking = 1;
        OS::Socket::ioctl(fd, FIONBIO, &nonBlocking, m_RtMode);
        onSocketAttach();
        return true;
    }

    int dettach() override {
        onSocketDetach();
        const int fd = m_iSocketFd;
        m_iSocketFd = -1;
        return fd;
    }

    // On failure the object holds no descriptor of this call's making.
    bool initSocket(__socket_type type, const std::string& address, USHORT port,
                    RT_MODE mode) override {
        m_RtMode = mode == USE_DEFAULT ? get_default_rt_mode() : mode;
        const int fd = OS::Socket::socket(AF_INET, type, 0, m_RtMode);
        if (fd == -1) return false;
        if (!attach(fd, mode)) {
            OS::Socket::close(fd, m_RtMode);
            return false;
        }
        return bind(address, port);
    }

    bool close() override {
        OS::Socket::close(dettach(), m_RtMode);
        return true;
    }

    bool bind(const std::string& address, USHORT port) override {
        CSockAddr addr(address, port);
        if (OS::Socket::bind(m_iSocketFd, addr, CSockAddr::LENGTH, m_RtMode) == -1) {
            log_task_line("Bind failed, error code: %d", OS::Socket::getErrnoCode());
            return false;
        }
        return true;
    }

    bool listen(int backlog) override {
        return OS::Socket::listen(m_iSocketFd, backlog, m_RtMode) != -1;
    }

    bool connect(const std::string& address, USHORT port) override {
        CSockAddr addr(address, port);
        if (OS::Socket::connect(m_iSocketFd, addr, CSockAddr::LENGTH, m_RtMode) != -1) return true;
        const int error = OS::Socket::getErrnoCode();
        return error == EINPROGRESS || error == EAGAIN;
    }

    bool accept(ISocket*& socket, std::string& address, USHORT& port, RT_MODE mode) override {
        if (socket == nullptr) return false;
        CSockAddr peer;
        socklen_t length = CSockAddr::LENGTH;
        int fd;
        do {
            fd = OS::Socket::accept(m_iSocketFd, peer, &length, m_RtMode);
        } while (fd == -1 && OS::Socket::getErrnoCode() == EINTR);
        if (!socket->attach(fd, mode)) {
            // A caller's object that already held a descriptor refused the
            // new one; do not leak it.
            if (fd != -1) OS::Socket::close(fd, m_RtMode);
            return false;
        }
        address = peer.dottedDecimal();
        port = peer.Port();
        return true;
    }

    int send(const void* data, int length, int flags) override {
        int result;
        do {
            result = OS::Socket::send(m_iSocketFd, data, length, flags, m_RtMode);
        } while (result == -1 && OS::Socket::getErrnoCode() == EINTR);
        return result;
    }

    int receive(void* data, int length, int flags) override {
        int result;
        do {
            result = OS::Socket::recv(m_iSocketFd, data, length, flags, m_RtMode);
        } while (result == -1 && OS::Socket::getErrnoCode() == EINTR);
        return result;
    }

    int sendTo(const void* data, int length, const std::string& address, USHORT port,
               int flags) override {
        CSockAddr addr(address, port);
        return OS::Socket::sendTo(m_iSocketFd, data, length, flags, addr, CSockAddr::LENGTH,
                                  m_RtMode);
    }

    int receiveFrom(void* data, int length, std::string& address, USHORT& port,
                    int flags) override {
        CSockAddr from;
        socklen_t fromLength = CSockAddr::LENGTH;
        const int result =
            OS::Socket::recvFrom(m_iSocketFd, data, length, flags, from, &fromLength, m_RtMode);
        if (result >= 0) {
            address = from.dottedDecimal();
            port = from.Port();
        }
        return result;
    }

    bool getPeerName(std::string& address, USHORT& port) override {
        CSockAddr addr;
        socklen_t length = CSockAddr::LENGTH;
        if (OS::Socket::getPeerName(m_iSocketFd, addr, &length, m_RtMode) == -1) return false;
        address = addr.dottedDecimal();
        port = addr.Port();
        return true;
    }

    bool getSockName(std::string& address, USHORT& port) override {
        CSockAddr addr;
        socklen_t length = CSockAddr::LENGTH;
        if (OS::Socket::getSockName(m_iSocketFd, addr, &length, m_RtMode) == -1) return false;
        address = addr.dottedDecimal();
        port = addr.Port();
        return true;
    }

    int getSockopt(int level, int name, void* value, socklen_t* length) override {
        return OS::Socket::getSockOpt(m_iSocketFd, level, name, value, length, m_RtMode);
    }

    int setSockopt(int level, int name, const void* value, socklen_t length) override {
        return OS::Socket::setSockOpt(m_iSocketFd, level, name, value, length, m_RtMode);
    }

    void onFinalRelease() override { close(); }
    virtual void onSocketAttach() {}
    virtual void onSocketDetach() {}

    int getSockFd() const { return m_iSocketFd; }

    // Block up to `timeout` ms (µs for the precision forms) until a read or
    // write would not block; *error (may be null) receives the reason when
    // not. See os_socket_readable.
    bool readyToRead(DWORD timeout, int* error) {
        return OS::Socket::readable(m_iSocketFd, timeout, error, m_RtMode);
    }
    bool readyToWrite(DWORD timeout, int* error) {
        return OS::Socket::writable(m_iSocketFd, timeout, error, m_RtMode);
    }
    bool readyToReadInMicroSecond(DWORD timeout, int* error) {
        return OS::Socket::precisionReadable(m_iSocketFd, timeout, error, m_RtMode);
    }
    bool readyToWriteInMicroSecond(DWORD timeout, int* error) {
        return OS::Socket::precisionWritable(m_iSocketFd, timeout, error, m_RtMode);
    }
    // True when there is no descriptor or the peer has gone. Never blocks.
    bool isLinkBroken() { return OS::Socket::isLinkBroken(m_iSocketFd, USE_DEFAULT); }

protected:
    int m_iSocketFd;
    RT_MODE m_RtMode;
};

#endif
