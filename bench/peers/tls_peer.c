/* The TLS floor: tcp_peer's ping-pong and stream through OpenSSL's record
 * layer in user space, set up as the library sets up its links (TLS 1.3
 * only, AES-128-GCM first, both sides presenting and verifying a
 * certificate, read-ahead, no session tickets). Blocking sockets with
 * TCP_NODELAY; each message a 4-byte big-endian length and the bytes,
 * written as one record when it fits one. What a library adds to its TLS
 * rows is measured against this, not against raw TCP.
 *   tls_peer CERTDIR echo                   bind 127.0.0.1:0, echo every message back
 *   tls_peer CERTDIR ping ADDR SIZE COUNT   round trips, report latency
 *   tls_peer CERTDIR sink SIZE COUNT        bind, count COUNT messages, report the rate
 *   tls_peer CERTDIR flood ADDR SIZE COUNT  send COUNT messages
 * CERTDIR holds a.pem, a.key and ca.pem (scripts/make-test-certs.sh). */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "peer_common.h"

#define RECORD 16384
#define READ_CHUNK (256 * 1024)

static SSL* session(const char* dir, int fd, int server) {
    char cert[512], key[512], ca[512];
    snprintf(cert, sizeof cert, "%s/a.pem", dir);
    snprintf(key, sizeof key, "%s/a.key", dir);
    snprintf(ca, sizeof ca, "%s/ca.pem", dir);
    SSL_CTX* ctx = SSL_CTX_new(server ? TLS_server_method() : TLS_client_method());
    if (ctx == NULL || SSL_CTX_use_certificate_chain_file(ctx, cert) != 1 ||
        SSL_CTX_use_PrivateKey_file(ctx, key, SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_load_verify_locations(ctx, ca, NULL) != 1)
        peer_die("cannot load the certificates");
    SSL_CTX_set_min_proto_version(ctx, TLS1_3_VERSION);
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, NULL);
    SSL_CTX_set_num_tickets(ctx, 0);
    SSL_CTX_set_read_ahead(ctx, 1);
    SSL_CTX_set_ciphersuites(ctx, "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384");
    SSL* ssl = SSL_new(ctx);
    SSL_CTX_free(ctx); /* the session keeps its own reference */
    if (ssl == NULL || SSL_set_fd(ssl, fd) != 1) peer_die("cannot make a TLS session");
    if ((server ? SSL_accept(ssl) : SSL_connect(ssl)) != 1) {
        ERR_print_errors_fp(stderr);
        peer_die("TLS handshake failed");
    }
    return ssl;
}

static int listen_tcp(void) {
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

static int connect_tcp(const char* addr) {
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

/* What has been decrypted and not yet taken. */
struct reader {
    SSL* ssl;
    char* buf;
    size_t begin, end;
};

static int take(struct reader* r, void* out, size_t len) {
    char* p = out;
    while (len > 0) {
        if (r->begin == r->end) {
            r->begin = r->end = 0;
            if (len >= READ_CHUNK) { /* large: decrypted straight into place */
                int n = SSL_read(r->ssl, p, len > 1u << 30 ? 1 << 30 : (int)len);
                if (n <= 0) return -1;
                p += n;
                len -= (size_t)n;
                continue;
            }
            int n = SSL_read(r->ssl, r->buf, READ_CHUNK);
            if (n <= 0) return -1;
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

/* The length and the first record's worth in one record, the rest in place. */
static int write_message(SSL* ssl, const char* buf, uint32_t len) {
    static char first[RECORD];
    uint32_t n = htonl(len);
    size_t head = len < RECORD - 4 ? len : RECORD - 4;
    memcpy(first, &n, 4);
    memcpy(first + 4, buf, head);
    if (SSL_write(ssl, first, (int)(head + 4)) <= 0) return -1;
    return len == head || SSL_write(ssl, buf + head, (int)(len - head)) > 0 ? 0 : -1;
}

int main(int argc, char** argv) {
    if (argc < 3)
        peer_die("usage: tls_peer CERTDIR echo | ping ADDR SIZE COUNT | sink SIZE COUNT | "
                 "flood ADDR SIZE COUNT");
    const char* dir = argv[1];
    const char* what = argv[2];
    char* buf = NULL;
    size_t cap = 0;
    uint32_t len = 0;
    struct reader r = {NULL, malloc(READ_CHUNK), 0, 0};
    if (strcmp(what, "echo") == 0) {
        r.ssl = session(dir, listen_tcp(), 1);
        while (read_message(&r, &buf, &cap, &len) == 0)
            if (write_message(r.ssl, buf, len) != 0) break;
        return 0;
    }
    if (strcmp(what, "ping") == 0 && argc == 6) {
        r.ssl = session(dir, connect_tcp(argv[3]), 0);
        size_t size = (size_t)atol(argv[4]), count = (size_t)atol(argv[5]);
        char* msg = calloc(size, 1);
        double* samples = malloc(count * sizeof *samples);
        for (size_t i = 0, w = peer_warmup(count); i < w + count; ++i) {
            double t = peer_now();
            if (write_message(r.ssl, msg, (uint32_t)size) != 0 || read_message(&r, &buf, &cap, &len) != 0)
                peer_die("round trip failed");
            if (i >= w) samples[i - w] = (peer_now() - t) * 1e6;
        }
        peer_report_rr(size, samples, count);
        return 0;
    }
    if (strcmp(what, "sink") == 0 && argc == 5) {
        size_t size = (size_t)atol(argv[3]), count = (size_t)atol(argv[4]);
        r.ssl = session(dir, listen_tcp(), 1);
        double start = 0;
        for (size_t i = 0; i < count; ++i) {
            if (read_message(&r, &buf, &cap, &len) != 0) peer_die("stream ended early");
            if (i == 0) start = peer_now();
        }
        peer_report_stream(size, count - 1, peer_now() - start);
        return 0;
    }
    if (strcmp(what, "flood") == 0 && argc == 6) {
        int fd = connect_tcp(argv[3]);
        SSL* ssl = session(dir, fd, 0);
        size_t size = (size_t)atol(argv[4]), count = (size_t)atol(argv[5]);
        char* msg = calloc(size, 1);
        for (size_t i = 0; i < count; ++i)
            if (write_message(ssl, msg, (uint32_t)size) != 0) peer_die("send failed");
        shutdown(fd, SHUT_WR);
        while (recv(fd, &len, sizeof len, 0) > 0) {
        }
        return 0;
    }
    peer_die("bad arguments");
    return 1;
}
