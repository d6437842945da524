/*
 * IPv4 sockets over the POSIX socket API, and the Unix stream sockets of
 * links within one host.
 *
 * Conventions shared by every function here:
 *   - Results follow the system call they wrap: a descriptor or a count, or
 *     -1 with the reason left in errno, which os_socket_get_errno_code()
 *     returns (POSIX values: EINTR 4, EAGAIN 11, EINPROGRESS 115, ...).
 *   - Predicates (os_socket_init_library, os_socket_readable, ...) return 1
 *     for true and 0 for false.
 *   - Whether a call blocks depends on the descriptor: the library switches
 *     every socket it uses to non-blocking mode (FIONBIO), so send, recv,
 *     connect and accept return at once with EAGAIN or EINPROGRESS. Only the
 *     waits (select, readable, writable and their precision forms) block, and
 *     each for at most its time-out.
 *   - Every call takes an RT_MODE. Linux has no separate real-time socket
 *     stack, so the mode has no effect here: all modes use the ordinary one.
 *   - Descriptors are created close-on-exec, and sends never raise SIGPIPE:
 *     a write to a connection the peer has reset fails with EPIPE instead of
 *     killing the process.
 *
 * The system headers below come with this header so that code above the
 * platform layer gets sockaddr, sockaddr_in, socklen_t, fd_set, timeval and
 * the option and flag constants (SOL_SOCKET, IPPROTO_TCP, MSG_PEEK, FIONBIO,
 * ...), struct iovec and struct pollfd with the POLL* flags without
 * including them itself.
 */
#ifndef OS_SOCKET_H
#define OS_SOCKET_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <sys/socket.h>
#include <sys/select.h>
#include <sys/time.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <poll.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include "os_platform_export.h"
#include "GroundKit/OS/OSType.h"

OS_PLATFORM_BEGIN_DECLS

/*
 * Library set-up and tear-down. Every socket object calls init when it is
 * made and clear when it goes; calls nest freely. On Linux there is nothing
 * to set up: init returns 1 and clear returns 1.
 */
OS_PLATFORM_API int os_socket_init_library(void);
OS_PLATFORM_API int os_socket_clear_library(void);

/* The calling thread's last socket error number (errno). */
OS_PLATFORM_API int os_socket_get_errno_code(void);

/* socket(2). Returns a new close-on-exec descriptor, or -1. */
OS_PLATFORM_API int os_socket(int domain, int type, int protocol, RT_MODE mode);

/* bind(2), listen(2): 0, or -1. */
OS_PLATFORM_API int os_socket_bind(int fd, const struct sockaddr* addr, socklen_t len,
                                   RT_MODE mode);
OS_PLATFORM_API int os_socket_listen(int fd, int backlog, RT_MODE mode);

/*
 * connect(2): 0, or -1. On a non-blocking socket -1 with EINPROGRESS means
 * the connection was started; its outcome shows later as writability and
 * SO_ERROR.
 */
OS_PLATFORM_API int os_socket_connect(int fd, const struct sockaddr* addr, socklen_t len,
                                      RT_MODE mode);

/*
 * accept(2): the new close-on-exec descriptor, or -1 (EAGAIN on a
 * non-blocking listener with nothing pending, EINTR when interrupted).
 * addr and len may be NULL.
 */
OS_PLATFORM_API int os_socket_accept(int fd, struct sockaddr* addr, socklen_t* len,
                                     RT_MODE mode);

/*
 * send(2) with MSG_NOSIGNAL added to `flags`: bytes sent (possibly fewer than
 * `len`), or -1 (EAGAIN when the send buffer is full, EPIPE/ECONNRESET on a
 * broken connection).
 */
OS_PLATFORM_API int os_socket_send(int fd, const void* buf, int len, int flags, RT_MODE mode);

/*
 * sendmsg(2) of `count` buffers in order, with MSG_NOSIGNAL added to `flags`:
 * one system call for all of them. Bytes sent (possibly fewer than their
 * sum; the caller continues from where it stopped), or -1 as for send.
 * `count` is at most IOV_MAX (1024 on Linux); more fails with EINVAL.
 */
OS_PLATFORM_API long os_socket_send_vector(int fd, const struct iovec* buffers, int count,
                                           int flags, RT_MODE mode);

/*
 * recv(2): bytes received, 0 at the peer's orderly shutdown (or for len 0),
 * -1 on error (EAGAIN when nothing is pending). MSG_PEEK leaves the bytes in
 * the socket.
 */
OS_PLATFORM_API int os_socket_recv(int fd, void* buf, int len, int flags, RT_MODE mode);

/* sendto(2) / recvfrom(2), for datagram sockets; results as above. */
OS_PLATFORM_API int os_socket_send_to(int fd, const void* buf, int len, int flags,
                                      const struct sockaddr* to, socklen_t tolen, RT_MODE mode);
OS_PLATFORM_API int os_socket_recv_from(int fd, void* buf, int len, int flags,
                                        struct sockaddr* from, socklen_t* fromlen, RT_MODE mode);

/* getpeername(2) / getsockname(2): 0, or -1. */
OS_PLATFORM_API int os_socket_get_peer_name(int fd, struct sockaddr* addr, socklen_t* len,
                                            RT_MODE mode);
OS_PLATFORM_API int os_socket_get_sock_name(int fd, struct sockaddr* addr, socklen_t* len,
                                            RT_MODE mode);

/*
 * select(2). Blocks up to *timeout (no limit for NULL). Returns the number of
 * ready descriptors, 0 on time-out, -1 on error (EINTR included: the caller
 * decides whether to repeat). On Linux *timeout is updated to the time not
 * slept, so a caller that repeats with the same value waits less each time.
 */
OS_PLATFORM_API int os_socket_select(int nfds, fd_set* readfds, fd_set* writefds,
                                     fd_set* exceptfds, struct timeval* timeout, RT_MODE mode);

/*
 * poll(2) over `count` descriptors. Blocks up to timeout_ms milliseconds (0:
 * just look; negative: no limit); unlike select it serves descriptors of any
 * value. Returns the number of entries with events in revents, 0 on
 * time-out, -1 on error (EINTR included: the caller decides whether to
 * repeat). Negative descriptors are ignored, as poll(2) does.
 */
OS_PLATFORM_API int os_socket_poll(struct pollfd* fds, unsigned long count, int timeout_ms,
                                   RT_MODE mode);

/*
 * ioctl(2) for the int-valued socket requests (FIONBIO, FIONREAD, ...): *arg
 * is passed to the system as an int and the value the system leaves there is
 * stored back. Returns 0, or -1 (EINVAL for a NULL arg).
 */
OS_PLATFORM_API int os_socket_ioctl(int fd, unsigned long request, unsigned long* arg,
                                    RT_MODE mode);

/* close(2). -1 and other invalid descriptors are ignored. */
OS_PLATFORM_API void os_socket_close(int fd, RT_MODE mode);

/*
 * Keeps an ICMP "port unreachable" from surfacing as ECONNREFUSED on a later
 * receive of a datagram socket: clears IP_RECVERR, so that only errors of a
 * connected datagram socket's own sends are reported. Stream sockets (and
 * anything that is not an IPv4 datagram socket) are left unchanged.
 */
OS_PLATFORM_API void os_socket_disable_udp_unreached_report(int fd);

/* SO_SNDTIMEO / SO_RCVTIMEO in milliseconds (0: no limit). 0, or -1. These
 * bound only blocking calls; non-blocking sockets are not affected. */
OS_PLATFORM_API int os_socket_set_send_timeout(int fd, unsigned long ms, RT_MODE mode);
OS_PLATFORM_API int os_socket_set_recv_timeout(int fd, unsigned long ms, RT_MODE mode);

/*
 * Wait up to `timeout_ms` milliseconds (0: just look) until a read (write)
 * on `fd` would not block. As with select, an error or hang-up on the socket
 * counts as ready: the next read or write then reports it. Returns 1 when
 * ready, 0 otherwise. *error, when error is not NULL, receives 0 when ready,
 * ETIMEDOUT when the time-out passed, EBADF for an invalid descriptor
 * (including -1, which fails at once), or the errno of the failed wait.
 * An interrupted wait resumes for the time that is left.
 */
OS_PLATFORM_API int os_socket_readable(int fd, unsigned long timeout_ms, int* error,
                                       RT_MODE mode);
OS_PLATFORM_API int os_socket_writable(int fd, unsigned long timeout_ms, int* error,
                                       RT_MODE mode);
/* The same with the time-out in microseconds. */
OS_PLATFORM_API int os_socket_precision_readable(int fd, unsigned long timeout_us, int* error,
                                                 RT_MODE mode);
OS_PLATFORM_API int os_socket_precision_writable(int fd, unsigned long timeout_us, int* error,
                                                 RT_MODE mode);

/*
 * Returns 1 when the connection can no longer carry data both ways: the
 * socket has an error, has hung up, or the peer has shut down its sending
 * side (POLLRDHUP; this holds even while bytes it sent before are still
 * unread, so a peer that sent half a frame and left is seen at once).
 * Also 1 for an invalid descriptor. Never blocks.
 */
OS_PLATFORM_API int os_socket_is_link_broken(int fd, RT_MODE mode);

/* getsockopt(2) / setsockopt(2): 0, or -1. */
OS_PLATFORM_API int os_socket_get_sock_opt(int fd, int level, int name, void* value,
                                           socklen_t* len, RT_MODE mode);
OS_PLATFORM_API int os_socket_set_sock_opt(int fd, int level, int name, const void* value,
                                           socklen_t len, RT_MODE mode);

/* shutdown(2) with SHUT_RD, SHUT_WR or SHUT_RDWR: 0, or -1. */
OS_PLATFORM_API int os_socket_shutdown(int fd, int how, RT_MODE mode);

/* socketpair(2) with close-on-exec descriptors written to fds[0], fds[1]:
 * 0, or -1. */
OS_PLATFORM_API int os_socket_pair(int domain, int type, int protocol, int fds[2],
                                   RT_MODE mode);

/*
 * Unix stream sockets in the abstract namespace (Linux), for links between
 * processes of one host. An abstract name is no file: it exists exactly as
 * long as the socket bound to it is open (a process that ends, however it
 * ends, gives its names back as it does its ports) and is seen by the
 * processes of the same network namespace only. `name` is the name without
 * the namespace's leading zero byte, a text of 1 to OS_SOCKET_LOCAL_NAME_MAX
 * bytes.
 */
#define OS_SOCKET_LOCAL_NAME_MAX 107

/*
 * A close-on-exec stream socket bound to `name` and listening with
 * `backlog`: its descriptor, or -1 (EADDRINUSE when another socket holds
 * the name, ENAMETOOLONG or EINVAL for a name too long or empty).
 */
OS_PLATFORM_API int os_socket_local_listen(const char* name, int backlog, RT_MODE mode);

/*
 * A close-on-exec, non-blocking stream socket connected to `name`: its
 * descriptor, or -1. Never waits: ECONNREFUSED (or ENOENT) when no socket
 * holds the name, EAGAIN when its holder's listen queue is full.
 */
OS_PLATFORM_API int os_socket_local_connect(const char* name, RT_MODE mode);

/*
 * The IPv4 addresses (network byte order) of this host's interfaces that
 * are up, loopback included: at most `max` of them into `addresses`; the
 * number there are, which may exceed `max`, or -1 when they cannot be
 * listed. Asks the system each time (the interfaces may change).
 */
OS_PLATFORM_API int os_socket_host_addresses(uint32_t* addresses, int max);

/*
 * The source address (network byte order) the system picks for a
 * connection from this host to `address` into *source: 0, or -1 (for
 * example ENETUNREACH). Nothing is sent.
 */
OS_PLATFORM_API int os_socket_source_address(uint32_t address, uint32_t* source);

/*
 * Dotted IPv4 text to an address in network byte order, as inet_addr(3):
 * 0xffffffff (INADDR_NONE) for text that is no address (and for NULL).
 */
OS_PLATFORM_API uint32_t os_socket_address_from_text(const char* text);

/*
 * Address in network byte order to dotted text in `buf` (at least 16 bytes
 * for a whole address; shorter buffers get a truncated, terminated text).
 * Thread-safe, unlike inet_ntoa. Returns buf, or NULL for a NULL or empty
 * buffer.
 */
OS_PLATFORM_API char* os_socket_address_to_text(uint32_t address, char* buf, size_t size);

OS_PLATFORM_END_DECLS

#endif
