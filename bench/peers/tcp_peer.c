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
 * --unix: the same over a Unix stream socket, the floor of a same-host link:
 * the binding side takes an abstract name and prints it as "@name", and an
 * ADDR of that form connects to it. */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <stddef.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include "peer_common.h"

/* What has arrived and is not yet taken, over a buffer of READ_CHUNK bytes;
 * a message larger than that is read straight into the caller's buffer. */
#define READ_CHUNK (256 * 1024)
struct reader {
    int fd;
    char* buf;
    size_t begin, end;
};

static int fill(struct reader* r) {
    if (r->begin == r->end) r->begin = r->end = 0;
    if (r->end == READ_CHUNK) {
        memmove(r->buf, r->buf + r->begin, r->end - r->begin);
        r->end -= r->begin;
        r->begin = 0;
    }
    ssize_t n = recv(r->fd, r->buf + r->end, READ_CHUNK - r->end, 0);
    if (n <= 0) return -1;
    r->end += (size_t)n;
    return 0;
}

static int take(struct reader* r, void* out, size_t len) {
    char* p = out;
    while (len > 0) {
        if (r->begin == r->end) {
            if (len >= READ_CHUNK) { /* large: no detour through the buffer */
                ssize_t n = recv(r->fd, p, len, 0);
                if (n <= 0) return -1;
                p += n;
                len -= (size_t)n;
                continue;
            }
            if (fill(r) != 0) return -1;
        }
        size_t n = r->end - r->begin;
        if (n > len) n = len;
        memcpy(p, r->buf + r->begin, n);
        r->begin += n;
        p += n;
        len -= n;
    }
    return 0;
}

static int read_message(struct reader* r, char** buf, size_t* cap, uint32_t* len) {
    uint32_t n;
    if (take(r, &n, 4) != 0) return -1;
    *len = ntohl(n);
    if (*len > *cap) {
        *buf = realloc(*buf, *len);
        *cap = *len;
    }
    return take(r, *buf, *len);
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

static int listen_any(int unix_socket) {
    if (unix_socket) return listen_unix();
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in a;
    memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (bind(fd, (struct sockaddr*)&a, sizeof a) != 0 || listen(fd, 1) != 0 ||
        getsockname(fd, (struct sockaddr*)&a, &len) != 0)
        peer_die("cannot listen");
    char text[64];
    snprintf(text, sizeof text, "127.0.0.1:%u", ntohs(a.sin_port));
    peer_endpoint(text);
    int c = accept(fd, NULL, NULL);
    if (c < 0) peer_die("accept failed");
    close(fd);
    int one = 1;
    setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return c;
}

static int connect_to(const char* addr) {
    if (addr[0] == '@') {
        struct sockaddr_un u;
        socklen_t len = unix_address(&u, addr + 1);
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (fd < 0 || connect(fd, (struct sockaddr*)&u, len) != 0) peer_die("cannot connect");
        return fd;
    }
    char host[64];
    snprintf(host, sizeof host, "%s", addr);
    char* colon = strrchr(host, ':');
    if (colon == NULL) peer_die("bad address");
    *colon = 0;
    struct sockaddr_in a;
    memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    a.sin_port = htons((unsigned short)atoi(colon + 1));
    inet_pton(AF_INET, host, &a.sin_addr);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(fd, (struct sockaddr*)&a, sizeof a) != 0) peer_die("cannot connect");
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
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
    int unix_socket = argc > 1 && strcmp(argv[1], "--unix") == 0;
    if (unix_socket) {
        --argc;
        ++argv;
    }
    if (argc < 2)
        peer_die("usage: tcp_peer [--unix] echo | ping ADDR SIZE COUNT | [--unix] sink SIZE COUNT | "
                 "flood ADDR SIZE COUNT [THREADS]");
    char* buf = NULL;
    size_t cap = 0;
    uint32_t len = 0;
    struct reader r = {-1, malloc(READ_CHUNK), 0, 0};
    if (strcmp(argv[1], "echo") == 0) {
        r.fd = listen_any(unix_socket);
        while (read_message(&r, &buf, &cap, &len) == 0)
            if (write_message(r.fd, buf, len) != 0) break;
        return 0;
    }
    if (strcmp(argv[1], "ping") == 0 && argc == 5) {
        r.fd = connect_to(argv[2]);
        size_t size = (size_t)atol(argv[3]), count = (size_t)atol(argv[4]);
        char* msg = calloc(size, 1);
        double* samples = malloc(count * sizeof *samples);
        for (size_t i = 0, w = peer_warmup(count); i < w + count; ++i) {
            double t = peer_now();
            if (write_message(r.fd, msg, (uint32_t)size) != 0 ||
                read_message(&r, &buf, &cap, &len) != 0)
                peer_die("round trip failed");
            if (i >= w) samples[i - w] = (peer_now() - t) * 1e6;
        }
        peer_report_rr(size, samples, count);
        return 0;
    }
    if (strcmp(argv[1], "sink") == 0 && argc == 4) {
        size_t size = (size_t)atol(argv[2]), count = (size_t)atol(argv[3]);
        r.fd = listen_any(unix_socket);
        double start = 0;
        for (size_t i = 0; i < count; ++i) {
            if (read_message(&r, &buf, &cap, &len) != 0) peer_die("stream ended early");
            if (i == 0) start = peer_now();
        }
        peer_report_stream(size, count - 1, peer_now() - start);
        return 0;
    }
    if (strcmp(argv[1], "flood") == 0 && (argc == 5 || argc == 6)) {
        int fd = connect_to(argv[2]);
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
