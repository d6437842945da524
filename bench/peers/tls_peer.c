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
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include "peer_common.h"

#define RECORD 16384

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

static long from_session(void* ssl, void* buf, size_t len) {
    return SSL_read(ssl, buf, len > 1u << 30 ? 1 << 30 : (int)len);
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
    SSL* ssl = NULL;
    struct peer_reader r = {from_session, NULL, malloc(PEER_READ_CHUNK), 0, 0};
    if (strcmp(what, "echo") == 0) {
        r.from = ssl = session(dir, peer_listen_tcp(), 1);
        while (peer_read_message(&r, &buf, &cap, &len) == 0)
            if (write_message(ssl, buf, len) != 0) break;
        return 0;
    }
    if (strcmp(what, "ping") == 0 && argc == 6) {
        r.from = ssl = session(dir, peer_connect_tcp(argv[3]), 0);
        size_t size = (size_t)atol(argv[4]), count = (size_t)atol(argv[5]);
        char* msg = calloc(size, 1);
        double* samples = malloc(count * sizeof *samples);
        for (size_t i = 0, w = peer_warmup(count); i < w + count; ++i) {
            double t = peer_now();
            if (write_message(ssl, msg, (uint32_t)size) != 0 || peer_read_message(&r, &buf, &cap, &len) != 0)
                peer_die("round trip failed");
            if (i >= w) samples[i - w] = (peer_now() - t) * 1e6;
        }
        peer_report_rr(size, samples, count);
        return 0;
    }
    if (strcmp(what, "sink") == 0 && argc == 5) {
        size_t size = (size_t)atol(argv[3]), count = (size_t)atol(argv[4]);
        r.from = ssl = session(dir, peer_listen_tcp(), 1);
        peer_sink(&r, size, count);
        return 0;
    }
    if (strcmp(what, "flood") == 0 && argc == 6) {
        int fd = peer_connect_tcp(argv[3]);
        ssl = session(dir, fd, 0);
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
