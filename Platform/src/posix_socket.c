#include <arpa/inet.h>
#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "os_socket.h"

/* RT_MODE selects nothing on Linux (there is one socket stack); every
 * function below ignores it. */

int os_socket_init_library(void) { return 1; }

int os_socket_clear_library(void) { return 1; }

int os_socket_get_errno_code(void) { return errno; }

int os_socket(int domain, int type, int protocol, RT_MODE mode) {
    (void)mode;
    return socket(domain, type | SOCK_CLOEXEC, protocol);
}

int os_socket_bind(int fd, const struct sockaddr* addr, socklen_t len, RT_MODE mode) {
    (void)mode;
    return bind(fd, addr, len);
}

int os_socket_listen(int fd, int backlog, RT_MODE mode) {
    (void)mode;
    return listen(fd, backlog);
}

int os_socket_connect(int fd, const struct sockaddr* addr, socklen_t len, RT_MODE mode) {
    (void)mode;
    return connect(fd, addr, len);
}

int os_socket_accept(int fd, struct sockaddr* addr, socklen_t* len, RT_MODE mode) {
    (void)mode;
    return accept4(fd, addr, len, SOCK_CLOEXEC);
}

int os_socket_send(int fd, const void* buf, int len, int flags, RT_MODE mode) {
    (void)mode;
    if (len < 0) {
        errno = EINVAL;
        return -1;
    }
    return (int)send(fd, buf, (size_t)len, flags | MSG_NOSIGNAL);
}

long os_socket_send_vector(int fd, const struct iovec* buffers, int count, int flags,
                           RT_MODE mode) {
    (void)mode;
    if (count < 0 || (count > 0 && buffers == NULL)) {
        errno = EINVAL;
        return -1;
    }
    struct msghdr message;
    memset(&message, 0, sizeof message);
    message.msg_iov = (struct iovec*)buffers;
    message.msg_iovlen = (size_t)count;
    return (long)sendmsg(fd, &message, flags | MSG_NOSIGNAL);
}

int os_socket_recv(int fd, void* buf, int len, int flags, RT_MODE mode) {
    (void)mode;
    if (len < 0) {
        errno = EINVAL;
        return -1;
    }
    return (int)recv(fd, buf, (size_t)len, flags);
}

int os_socket_send_to(int fd, const void* buf, int len, int flags, const struct sockaddr* to,
                      socklen_t tolen, RT_MODE mode) {
    (void)mode;
    if (len < 0) {
        errno = EINVAL;
        return -1;
    }
    return (int)sendto(fd, buf, (size_t)len, flags | MSG_NOSIGNAL, to, tolen);
}

int os_socket_recv_from(int fd, void* buf, int len, int flags, struct sockaddr* from,
                        socklen_t* fromlen, RT_MODE mode) {
    (void)mode;
    if (len < 0) {
        errno = EINVAL;
        return -1;
    }
    return (int)recvfrom(fd, buf, (size_t)len, flags, from, fromlen);
}

int os_socket_get_peer_name(int fd, struct sockaddr* addr, socklen_t* len, RT_MODE mode) {
    (void)mode;
    return getpeername(fd, addr, len);
}

int os_socket_get_sock_name(int fd, struct sockaddr* addr, socklen_t* len, RT_MODE mode) {
    (void)mode;
    return getsockname(fd, addr, len);
}

int os_socket_select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                     struct timeval* timeout, RT_MODE mode) {
    (void)mode;
    return select(nfds, readfds, writefds, exceptfds, timeout);
}

int os_socket_poll(struct pollfd* fds, unsigned long count, int timeout_ms, RT_MODE mode) {
    (void)mode;
    return poll(fds, (nfds_t)count, timeout_ms);
}

int os_socket_ioctl(int fd, unsigned long request, unsigned long* arg, RT_MODE mode) {
    (void)mode;
    if (arg == NULL) {
        errno = EINVAL;
        return -1;
    }
    /* The socket requests read and write an int; handing the kernel the
     * unsigned long itself would be wrong on a big-endian machine. */
    int value = (int)*arg;
    int rc = ioctl(fd, request, &value);
    if (rc != -1) *arg = (unsigned long)value;
    return rc;
}

void os_socket_close(int fd, RT_MODE mode) {
    (void)mode;
    if (fd < 0) return;
    /* Not retried on EINTR: on Linux the descriptor is released even then,
     * and a second close could hit a descriptor another thread just got. */
    close(fd);
}

void os_socket_disable_udp_unreached_report(int fd) {
    int type = 0;
    socklen_t len = sizeof type;
    if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len) != 0 || type != SOCK_DGRAM) return;
    struct sockaddr_storage name;
    len = sizeof name;
    if (getsockname(fd, (struct sockaddr*)&name, &len) != 0 || name.ss_family != AF_INET) return;
    int off = 0;
    (void)setsockopt(fd, IPPROTO_IP, IP_RECVERR, &off, sizeof off);
}

static int set_timeout(int fd, int option, unsigned long ms) {
    struct timeval tv;
    tv.tv_sec = (time_t)(ms / 1000);
    tv.tv_usec = (suseconds_t)((ms % 1000) * 1000);
    return setsockopt(fd, SOL_SOCKET, option, &tv, sizeof tv);
}

int os_socket_set_send_timeout(int fd, unsigned long ms, RT_MODE mode) {
    (void)mode;
    return set_timeout(fd, SO_SNDTIMEO, ms);
}

int os_socket_set_recv_timeout(int fd, unsigned long ms, RT_MODE mode) {
    (void)mode;
    return set_timeout(fd, SO_RCVTIMEO, ms);
}

#define USEC_PER_SEC 1000000UL
#define NSEC_PER_SEC 1000000000L

/* Ready masks as select(2) reports them: an error or hang-up makes the
 * socket readable and writable, because the next call will not block. */
#define READ_READY (POLLIN | POLLPRI | POLLHUP | POLLERR | POLLRDHUP)
#define WRITE_READY (POLLOUT | POLLHUP | POLLERR)

static void set_error(int* error, int value) {
    if (error != NULL) *error = value;
}

/* Waits for `events` on fd for up to timeout_us microseconds, resuming an
 * interrupted wait for the time that is left. */
static int wait_ready(int fd, short events, short ready, unsigned long timeout_us, int* error) {
    if (fd < 0) {
        set_error(error, EBADF);
        return 0;
    }
    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += (time_t)(timeout_us / USEC_PER_SEC);
    deadline.tv_nsec += (long)(timeout_us % USEC_PER_SEC) * 1000L;
    if (deadline.tv_nsec >= NSEC_PER_SEC) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= NSEC_PER_SEC;
    }
    for (;;) {
        struct timespec now, left;
        clock_gettime(CLOCK_MONOTONIC, &now);
        left.tv_sec = deadline.tv_sec - now.tv_sec;
        left.tv_nsec = deadline.tv_nsec - now.tv_nsec;
        if (left.tv_nsec < 0) {
            left.tv_sec -= 1;
            left.tv_nsec += NSEC_PER_SEC;
        }
        if (left.tv_sec < 0) left.tv_sec = left.tv_nsec = 0;

        struct pollfd pfd;
        pfd.fd = fd;
        pfd.events = events;
        pfd.revents = 0;
        int rc = ppoll(&pfd, 1, &left, NULL);
        if (rc > 0) {
            if (pfd.revents & POLLNVAL) {
                set_error(error, EBADF);
                return 0;
            }
            if (pfd.revents & ready) {
                set_error(error, 0);
                return 1;
            }
            /* Woken for an event we did not ask about: wait on. */
            continue;
        }
        if (rc == 0) {
            set_error(error, ETIMEDOUT);
            return 0;
        }
        if (errno != EINTR) {
            set_error(error, errno);
            return 0;
        }
    }
}

/* Milliseconds to microseconds, saturating: a time-out of "for ever" stays
 * a very long one instead of wrapping to a short one. */
static unsigned long ms_to_us(unsigned long ms) {
    return ms > ULONG_MAX / 1000UL ? ULONG_MAX / 1000UL * 1000UL : ms * 1000UL;
}

int os_socket_readable(int fd, unsigned long timeout_ms, int* error, RT_MODE mode) {
    return os_socket_precision_readable(fd, ms_to_us(timeout_ms), error, mode);
}

int os_socket_writable(int fd, unsigned long timeout_ms, int* error, RT_MODE mode) {
    return os_socket_precision_writable(fd, ms_to_us(timeout_ms), error, mode);
}

int os_socket_precision_readable(int fd, unsigned long timeout_us, int* error, RT_MODE mode) {
    (void)mode;
    return wait_ready(fd, POLLIN | POLLPRI | POLLRDHUP, READ_READY, timeout_us, error);
}

int os_socket_precision_writable(int fd, unsigned long timeout_us, int* error, RT_MODE mode) {
    (void)mode;
    return wait_ready(fd, POLLOUT, WRITE_READY, timeout_us, error);
}

int os_socket_is_link_broken(int fd, RT_MODE mode) {
    (void)mode;
    if (fd < 0) return 1;
    struct pollfd pfd;
    pfd.fd = fd;
    pfd.events = POLLRDHUP;
    pfd.revents = 0;
    int rc;
    do {
        rc = poll(&pfd, 1, 0);
    } while (rc < 0 && errno == EINTR);
    if (rc < 0) return 1;
    return (pfd.revents & (POLLERR | POLLHUP | POLLNVAL | POLLRDHUP)) ? 1 : 0;
}

int os_socket_get_sock_opt(int fd, int level, int name, void* value, socklen_t* len,
                           RT_MODE mode) {
    (void)mode;
    return getsockopt(fd, level, name, value, len);
}

int os_socket_set_sock_opt(int fd, int level, int name, const void* value, socklen_t len,
                           RT_MODE mode) {
    (void)mode;
    return setsockopt(fd, level, name, value, len);
}

int os_socket_shutdown(int fd, int how, RT_MODE mode) {
    (void)mode;
    return shutdown(fd, how);
}

int os_socket_pair(int domain, int type, int protocol, int fds[2], RT_MODE mode) {
    (void)mode;
    if (fds == NULL) {
        errno = EINVAL;
        return -1;
    }
    return socketpair(domain, type | SOCK_CLOEXEC, protocol, fds);
}

uint32_t os_socket_address_from_text(const char* text) {
    if (text == NULL) return INADDR_NONE;
    return (uint32_t)inet_addr(text);
}

char* os_socket_address_to_text(uint32_t address, char* buf, size_t size) {
    if (buf == NULL || size == 0) return NULL;
    const unsigned char* b = (const unsigned char*)&address;
    snprintf(buf, size, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
    return buf;
}
