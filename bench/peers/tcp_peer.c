/* Raw TCP, the floor: blocking sockets with TCP_NODELAY, each message a
 * 4-byte big-endian length and the bytes.
 *   tcp_peer echo                 bind 127.0.0.1:0, echo every message back
 *   tcp_peer ping ADDR SIZE COUNT round trips, report latency
 *   tcp_peer sink SIZE COUNT      bind, count COUNT messages, report the rate
 *   tcp_peer flood ADDR SIZE COUNT send COUNT messages */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "peer_common.h"

static int io_all(int fd, void* buf, size_t len, int writing) {
    char* p = buf;
    while (len > 0) {
        ssize_t n = writing ? send(fd, p, len, MSG_NOSIGNAL) : recv(fd, p, len, 0);
        if (n <= 0) return -1;
        p += n;
        len -= (size_t)n;
    }
    return 0;
}

static int listen_any(void) {
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

static int read_message(int fd, char** buf, size_t* cap, uint32_t* len) {
    uint32_t n;
    if (io_all(fd, &n, 4, 0) != 0) return -1;
    *len = ntohl(n);
    if (*len > *cap) {
        *buf = realloc(*buf, *len);
        *cap = *len;
    }
    return io_all(fd, *buf, *len, 0);
}

static int write_message(int fd, char* buf, uint32_t len) {
    /* Header and body in one call, as a framing library would. */
    char* frame = malloc(len + 4u);
    uint32_t n = htonl(len);
    memcpy(frame, &n, 4);
    memcpy(frame + 4, buf, len);
    int rc = io_all(fd, frame, len + 4u, 1);
    free(frame);
    return rc;
}

int main(int argc, char** argv) {
    if (argc < 2) peer_die("usage: tcp_peer echo | ping ADDR SIZE COUNT | sink SIZE COUNT | flood ADDR SIZE COUNT");
    char* buf = NULL;
    size_t cap = 0;
    uint32_t len = 0;
    if (strcmp(argv[1], "echo") == 0) {
        int fd = listen_any();
        while (read_message(fd, &buf, &cap, &len) == 0)
            if (write_message(fd, buf, len) != 0) break;
        return 0;
    }
    if (strcmp(argv[1], "ping") == 0 && argc == 5) {
        int fd = connect_to(argv[2]);
        size_t size = (size_t)atol(argv[3]), count = (size_t)atol(argv[4]);
        char* msg = calloc(size, 1);
        double* samples = malloc(count * sizeof *samples);
        for (size_t i = 0, w = peer_warmup(count); i < w + count; ++i) {
            double t = peer_now();
            if (write_message(fd, msg, (uint32_t)size) != 0 || read_message(fd, &buf, &cap, &len) != 0)
                peer_die("round trip failed");
            if (i >= w) samples[i - w] = (peer_now() - t) * 1e6;
        }
        peer_report_rr(size, samples, count);
        return 0;
    }
    if (strcmp(argv[1], "sink") == 0 && argc == 4) {
        size_t size = (size_t)atol(argv[2]), count = (size_t)atol(argv[3]);
        int fd = listen_any();
        double start = 0;
        for (size_t i = 0; i < count; ++i) {
            if (read_message(fd, &buf, &cap, &len) != 0) peer_die("stream ended early");
            if (i == 0) start = peer_now();
        }
        peer_report_stream(size, count - 1, peer_now() - start);
        return 0;
    }
    if (strcmp(argv[1], "flood") == 0 && argc == 5) {
        int fd = connect_to(argv[2]);
        size_t size = (size_t)atol(argv[3]), count = (size_t)atol(argv[4]);
        char* msg = calloc(size, 1);
        for (size_t i = 0; i < count; ++i)
            if (write_message(fd, msg, (uint32_t)size) != 0) peer_die("send failed");
        shutdown(fd, SHUT_WR);
        while (recv(fd, &len, sizeof len, 0) > 0) {
        }
        return 0;
    }
    peer_die("bad arguments");
    return 1;
}
