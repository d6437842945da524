/* What the minimal peers share: timing, latency summaries, the
 * length-prefixed reader, the TCP set-up and the result line that
 * bench/compare reads:
 *   RESULT kind=rr size=N count=N median_us=.. p90_us=.. p99_us=.. max_us=..
 *   RESULT kind=stream size=N count=N msgs_per_s=.. mb_per_s=..
 * (MB = 10^6 bytes). Each peer is a two-process program: the side that
 * binds prints "endpoint <address>" first, so the script can start the
 * other side against it. */
#ifndef PEER_COMMON_H
#define PEER_COMMON_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

static double peer_now(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

static int peer_compare(const void* a, const void* b) {
    const double x = *(const double*)a, y = *(const double*)b;
    return x < y ? -1 : x > y;
}

/* Nearest-rank percentile of sorted samples. */
static double peer_rank(const double* sorted, size_t n, double p) {
    size_t index = (size_t)(p * (double)n + 0.999999);
    if (index > 0) --index;
    if (index >= n) index = n - 1;
    return sorted[index];
}

static void peer_report_rr(size_t size, double* samples_us, size_t n) {
    qsort(samples_us, n, sizeof *samples_us, peer_compare);
    printf("RESULT kind=rr size=%zu count=%zu median_us=%.2f p90_us=%.2f p99_us=%.2f max_us=%.2f\n",
           size, n, peer_rank(samples_us, n, 0.5), peer_rank(samples_us, n, 0.9),
           peer_rank(samples_us, n, 0.99), samples_us[n - 1]);
    fflush(stdout);
}

static void peer_report_stream(size_t size, size_t n, double seconds) {
    printf("RESULT kind=stream size=%zu count=%zu msgs_per_s=%.0f mb_per_s=%.2f\n", size, n,
           (double)n / seconds, (double)n * (double)size / seconds / 1e6);
    fflush(stdout);
}

static void peer_endpoint(const char* address) {
    printf("endpoint %s\n", address);
    fflush(stdout);
}

static void peer_die(const char* what) {
    fprintf(stderr, "peer: %s\n", what);
    exit(1);
}

static size_t peer_warmup(size_t count) {
    size_t w = count / 20;
    if (w < 10) w = 10;
    if (w > 200) w = 200;
    return w;
}

/* Length-prefixed messages (a 4-byte big-endian length, then the bytes)
 * from a byte source that reads at most LEN bytes and returns how many
 * (<= 0 at the end): what has arrived and is not yet taken sits in a buffer
 * of PEER_READ_CHUNK bytes, so that one read serves many small messages; a
 * message larger than that is read straight into the caller's buffer. */
#define PEER_READ_CHUNK (256 * 1024)
typedef long (*peer_source)(void* from, void* buf, size_t len);
struct peer_reader {
    peer_source read;
    void* from;
    char* buf;
    size_t begin, end;
};

static inline int peer_take(struct peer_reader* r, void* out, size_t len) {
    char* p = out;
    while (len > 0) {
        if (r->begin == r->end) {
            r->begin = r->end = 0;
            long n = r->read(r->from, len >= PEER_READ_CHUNK ? p : r->buf,
                             len >= PEER_READ_CHUNK ? len : PEER_READ_CHUNK);
            if (n <= 0) return -1;
            if (len >= PEER_READ_CHUNK) { /* large: no detour through the buffer */
                p += n;
                len -= (size_t)n;
                continue;
            }
            r->end = (size_t)n;
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

static inline int peer_read_message(struct peer_reader* r, char** buf, size_t* cap, uint32_t* len) {
    uint32_t n;
    if (peer_take(r, &n, 4) != 0) return -1;
    *len = ntohl(n);
    if (*len > *cap) {
        *buf = realloc(*buf, *len);
        *cap = *len;
    }
    return peer_take(r, *buf, *len);
}

/* Takes COUNT messages and reports the rate from the first one's arrival. */
static inline void peer_sink(struct peer_reader* r, size_t size, size_t count) {
    char* buf = NULL;
    size_t cap = 0;
    uint32_t len = 0;
    double start = 0;
    for (size_t i = 0; i < count; ++i) {
        if (peer_read_message(r, &buf, &cap, &len) != 0) peer_die("stream ended early");
        if (i == 0) start = peer_now();
    }
    peer_report_stream(size, count - 1, peer_now() - start);
    free(buf);
}

/* Binds 127.0.0.1:0, prints the endpoint, accepts one connection. */
static inline int peer_listen_tcp(void) {
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

/* Connects to "IPv4:port", TCP_NODELAY. */
static inline int peer_connect_tcp(const char* addr) {
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

#endif
