/* Raw TCP, the floor: blocking sockets with TCP_NODELAY, each message a
 * 4-byte big-endian length and the bytes, sent with one call per message.
 * The receiving sides read whatever is waiting (one buffered read serves
 * many small messages), as any framing library's receiver does.
 *   tcp_peer [--unix] echo                  bind 127.0.0.1:0, echo every message back
 *   tcp_peer ping ADDR SIZE COUNT           round trips, report latency
 *   tcp_peer [--unix] sink SIZE COUNT       bind, count COUNT messages, report the rate
 *   tcp_peer flood ADDR SIZE COUNT [THREADS]
 *                                           send COUNT messages; with THREADS > 1 that
 *                                           many threads share the socket under a mutex
 * --epoll: echo and ping wait for readiness in epoll, then read (see below).
 * --unix: the same over a Unix stream socket, the floor of a same-host link:
 * the binding side takes an abstract name and prints it as "@name", and an
 * ADDR of that form connects to it. */
#include <errno.h>
#include <pthread.h>
#include <stddef.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include "peer_common.h"

static long from_socket(void* fd, void* buf, size_t len) { return recv(*(int*)fd, buf, len, 0); }

/* --epoll: the reader waits for readiness in an epoll set that also holds an
 * eventfd (as a host's queue wake-up would be), then reads without blocking:
 * the floor of any readiness-based receiver, one more system call per read. */
static int g_epoll = -1;
static long from_socket_polled(void* fd, void* buf, size_t len) {
    for (;;) {
        struct epoll_event ev[2];
        if (epoll_wait(g_epoll, ev, 2, -1) < 0 && errno != EINTR) return -1;
        long n = recv(*(int*)fd, buf, len, MSG_DONTWAIT);
        if (n >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return n;
    }
}
static void watch(int fd) {
    g_epoll = epoll_create1(0);
    int wake = eventfd(0, EFD_NONBLOCK);
    struct epoll_event ev = {EPOLLIN, {.fd = fd}};
    struct epoll_event ew = {EPOLLIN, {.fd = wake}};
    if (g_epoll < 0 || wake < 0 || epoll_ctl(g_epoll, EPOLL_CTL_ADD, fd, &ev) != 0 ||
        epoll_ctl(g_epoll, EPOLL_CTL_ADD, wake, &ew) != 0)
        peer_die("no epoll");
}

/* Header and body in one call, as a framing library would, without a copy. */
static int write_message(int fd, const char* buf, uint32_t len) {
    uint32_t n = htonl(len);
    struct iovec iov[2] = {{&n, 4}, {(void*)buf, len}};
    struct msghdr m;
    memset(&m, 0, sizeof m);
    m.msg_iov = iov;
    m.msg_iovlen = 2;
    size_t left = 4u + len;
    while (left > 0) {
        ssize_t sent = sendmsg(fd, &m, MSG_NOSIGNAL);
        if (sent <= 0) return -1;
        left -= (size_t)sent;
        while (sent > 0) { /* step over what went */
            size_t step = (size_t)sent < m.msg_iov->iov_len ? (size_t)sent : m.msg_iov->iov_len;
            m.msg_iov->iov_base = (char*)m.msg_iov->iov_base + step;
            m.msg_iov->iov_len -= step;
            sent -= (ssize_t)step;
            if (m.msg_iov->iov_len == 0 && m.msg_iovlen > 0) {
                ++m.msg_iov;
                --m.msg_iovlen;
            }
        }
    }
    return 0;
}

/* The abstract address "@name" (no file, gone with the socket); its length. */
static socklen_t unix_address(struct sockaddr_un* a, const char* name) {
    memset(a, 0, sizeof *a);
    a->sun_family = AF_UNIX;
    size_t n = strlen(name);
    if (n >= sizeof a->sun_path - 1) peer_die("Unix socket name too long");
    memcpy(a->sun_path + 1, name, n); /* sun_path[0] stays 0: abstract */
    return (socklen_t)(offsetof(struct sockaddr_un, sun_path) + 1 + n);
}

static int listen_unix(void) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    char name[64];
    snprintf(name, sizeof name, "apartment-peer-%ld", (long)getpid());
    struct sockaddr_un a;
    socklen_t len = unix_address(&a, name);
    if (fd < 0 || bind(fd, (struct sockaddr*)&a, len) != 0 || listen(fd, 1) != 0)
        peer_die("cannot listen");
    char text[80];
    snprintf(text, sizeof text, "@%s", name);
    peer_endpoint(text);
    int c = accept(fd, NULL, NULL);
    if (c < 0) peer_die("accept failed");
    close(fd);
    return c;
}

static int listen_any(int unix_socket) { return unix_socket ? listen_unix() : peer_listen_tcp(); }

static int connect_to(const char* addr) {
    if (addr[0] == '@') {
        struct sockaddr_un u;
        socklen_t len = unix_address(&u, addr + 1);
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (fd < 0 || connect(fd, (struct sockaddr*)&u, len) != 0) peer_die("cannot connect");
        return fd;
    }
    return peer_connect_tcp(addr);
}

struct flooder {
    int fd;
    size_t size, count;
    pthread_mutex_t* lock;
};

static void* flood(void* arg) {
    struct flooder* f = arg;
    char* msg = calloc(f->size, 1);
    for (size_t i = 0; i < f->count; ++i) {
        if (f->lock) pthread_mutex_lock(f->lock);
        int rc = write_message(f->fd, msg, (uint32_t)f->size);
        if (f->lock) pthread_mutex_unlock(f->lock);
        if (rc != 0) peer_die("send failed");
    }
    free(msg);
    return NULL;
}

int main(int argc, char** argv) {
    int unix_socket = 0, polled = 0;
    for (; argc > 1 && strncmp(argv[1], "--", 2) == 0; --argc, ++argv) {
        if (strcmp(argv[1], "--unix") == 0)
            unix_socket = 1;
        else if (strcmp(argv[1], "--epoll") == 0)
            polled = 1;
        else
            peer_die("unknown option");
    }
    if (argc < 2)
        peer_die("usage: tcp_peer [--unix] echo | ping ADDR SIZE COUNT | [--unix] sink SIZE COUNT | "
                 "flood ADDR SIZE COUNT [THREADS]");
    char* buf = NULL;
    size_t cap = 0;
    uint32_t len = 0;
    int fd = -1;
    struct peer_reader r = {polled ? from_socket_polled : from_socket, &fd, malloc(PEER_READ_CHUNK),
                            0, 0};
    if (strcmp(argv[1], "echo") == 0) {
        fd = listen_any(unix_socket);
        if (polled) watch(fd);
        while (peer_read_message(&r, &buf, &cap, &len) == 0)
            if (write_message(fd, buf, len) != 0) break;
        return 0;
    }
    if (strcmp(argv[1], "ping") == 0 && argc == 5) {
        fd = connect_to(argv[2]);
        if (polled) watch(fd);
        size_t size = (size_t)atol(argv[3]), count = (size_t)atol(argv[4]);
        char* msg = calloc(size, 1);
        double* samples = malloc(count * sizeof *samples);
        for (size_t i = 0, w = peer_warmup(count); i < w + count; ++i) {
            double t = peer_now();
            if (write_message(fd, msg, (uint32_t)size) != 0 ||
                peer_read_message(&r, &buf, &cap, &len) != 0)
                peer_die("round trip failed");
            if (i >= w) samples[i - w] = (peer_now() - t) * 1e6;
        }
        peer_report_rr(size, samples, count);
        return 0;
    }
    if (strcmp(argv[1], "sink") == 0 && argc == 4) {
        size_t size = (size_t)atol(argv[2]), count = (size_t)atol(argv[3]);
        fd = listen_any(unix_socket);
        peer_sink(&r, size, count);
        return 0;
    }
    if (strcmp(argv[1], "flood") == 0 && (argc == 5 || argc == 6)) {
        fd = connect_to(argv[2]);
        size_t size = (size_t)atol(argv[3]), count = (size_t)atol(argv[4]);
        size_t threads = argc == 6 ? (size_t)atol(argv[5]) : 1;
        if (threads < 1 || threads > 64) peer_die("THREADS must be 1..64");
        pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
        struct flooder f[64];
        pthread_t t[64];
        for (size_t i = 0; i < threads; ++i) {
            f[i].fd = fd;
            f[i].size = size;
            f[i].count = count / threads + (i < count % threads ? 1 : 0);
            f[i].lock = threads > 1 ? &lock : NULL;
            if (pthread_create(&t[i], NULL, flood, &f[i]) != 0) peer_die("no thread");
        }
        for (size_t i = 0; i < threads; ++i) pthread_join(t[i], NULL);
        shutdown(fd, SHUT_WR);
        while (recv(fd, &len, sizeof len, 0) > 0) {
        }
        return 0;
    }
    peer_die("bad arguments");
    return 1;
}
