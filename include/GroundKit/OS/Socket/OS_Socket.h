// OS::Socket: the platform layer's socket functions under C++ names.
//
// Each operation forwards one-to-one to the os_socket_* function of the same
// meaning (see os_socket.h for blocking, results and errno); predicates come
// back as bool. Stateless; callable from any thread.
#ifndef GROUNDKIT_OS_SOCKET_OS_SOCKET_H
#define GROUNDKIT_OS_SOCKET_OS_SOCKET_H

#include <cstddef>
#include <cstdint>

#include "GroundKit/Base/BaseType.h"
#include "GroundKit/OS/OSType.h"
#include "os_socket.h"

namespace OS {

class Socket {
public:
    static bool initLibrary() { return os_socket_init_library() != 0; }
    static bool clearLibrary() { return os_socket_clear_library() != 0; }
    static int getErrnoCode() { return os_socket_get_errno_code(); }

    static int socket(int domain, int type, int protocol, RT_MODE mode) {
        return os_socket(domain, type, protocol, mode);
    }
    static int bind(int fd, const sockaddr* addr, socklen_t len, RT_MODE mode) {
        return os_socket_bind(fd, addr, len, mode);
    }
    static int listen(int fd, int backlog, RT_MODE mode) {
        return os_socket_listen(fd, backlog, mode);
    }
    static int connect(int fd, const sockaddr* addr, socklen_t len, RT_MODE mode) {
        return os_socket_connect(fd, addr, len, mode);
    }
    static int accept(int fd, sockaddr* addr, socklen_t* len, RT_MODE mode) {
        return os_socket_accept(fd, addr, len, mode);
    }
    static int send(int fd, const void* buf, int len, int flags, RT_MODE mode) {
        return os_socket_send(fd, buf, len, flags, mode);
    }
    static long sendVector(int fd, const iovec* buffers, int count, int flags, RT_MODE mode) {
        return os_socket_send_vector(fd, buffers, count, flags, mode);
    }
    static int recv(int fd, void* buf, int len, int flags, RT_MODE mode) {
        return os_socket_recv(fd, buf, len, flags, mode);
    }
    static int sendTo(int fd, const void* buf, int len, int flags, const sockaddr* to,
                      socklen_t tolen, RT_MODE mode) {
        return os_socket_send_to(fd, buf, len, flags, to, tolen, mode);
    }
    static int recvFrom(int fd, void* buf, int len, int flags, sockaddr* from,
                        socklen_t* fromlen, RT_MODE mode) {
        return os_socket_recv_from(fd, buf, len, flags, from, fromlen, mode);
    }
    static int getPeerName(int fd, sockaddr* addr, socklen_t* len, RT_MODE mode) {
        return os_socket_get_peer_name(fd, addr, len, mode);
    }
    static int getSockName(int fd, sockaddr* addr, socklen_t* len, RT_MODE mode) {
        return os_socket_get_sock_name(fd, addr, len, mode);
    }
    static int select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                      timeval* timeout, RT_MODE mode) {
        return os_socket_select(nfds, readfds, writefds, exceptfds, timeout, mode);
    }
    static int poll(pollfd* fds, ULONG count, int timeoutMs, RT_MODE mode) {
        return os_socket_poll(fds, count, timeoutMs, mode);
    }
    static int ioctl(int fd, ULONG request, ULONG* arg, RT_MODE mode) {
        return os_socket_ioctl(fd, request, arg, mode);
    }
    static void close(int fd, RT_MODE mode) { os_socket_close(fd, mode); }
    static void disableUDPUnreachedReport(int fd) { os_socket_disable_udp_unreached_report(fd); }
    static int setSendTimeout(int fd, DWORD ms, RT_MODE mode) {
        return os_socket_set_send_timeout(fd, ms, mode);
    }
    static int setRecvTimeout(int fd, DWORD ms, RT_MODE mode) {
        return os_socket_set_recv_timeout(fd, ms, mode);
    }
    static bool readable(int fd, DWORD timeoutMs, int* error, RT_MODE mode) {
        return os_socket_readable(fd, timeoutMs, error, mode) != 0;
    }
    static bool writable(int fd, DWORD timeoutMs, int* error, RT_MODE mode) {
        return os_socket_writable(fd, timeoutMs, error, mode) != 0;
    }
    static bool precisionReadable(int fd, DWORD timeoutUs, int* error, RT_MODE mode) {
        return os_socket_precision_readable(fd, timeoutUs, error, mode) != 0;
    }
    static bool precisionWritable(int fd, DWORD timeoutUs, int* error, RT_MODE mode) {
        return os_socket_precision_writable(fd, timeoutUs, error, mode) != 0;
    }
    static bool isLinkBroken(int fd, RT_MODE mode) {
        return os_socket_is_link_broken(fd, mode) != 0;
    }
    static int getSockOpt(int fd, int level, int name, void* value, socklen_t* len,
                          RT_MODE mode) {
        return os_socket_get_sock_opt(fd, level, name, value, len, mode);
    }
    static int setSockOpt(int fd, int level, int name, const void* value, socklen_t len,
                          RT_MODE mode) {
        return os_socket_set_sock_opt(fd, level, name, value, len, mode);
    }
    static int shutdown(int fd, int how, RT_MODE mode) { return os_socket_shutdown(fd, how, mode); }
    static int socketPair(int domain, int type, int protocol, int fds[2], RT_MODE mode) {
        return os_socket_pair(domain, type, protocol, fds, mode);
    }
    static int localListen(const char* name, int backlog, RT_MODE mode) {
        return os_socket_local_listen(name, backlog, mode);
    }
    static int localConnect(const char* name, RT_MODE mode) {
        return os_socket_local_connect(name, mode);
    }
    static int hostAddresses(uint32_t* addresses, int max) {
        return os_socket_host_addresses(addresses, max);
    }
    static int sourceAddress(uint32_t address, uint32_t* source) {
        return os_socket_source_address(address, source);
    }
    static uint32_t addressFromText(const char* text) { return os_socket_address_from_text(text); }
    static char* addressToText(uint32_t address, char* buf, size_t size) {
        return os_socket_address_to_text(address, buf, size);
    }
};

}  // namespace OS

#endif
