/* ZeroMQ peers: REQ/REP round trips and PUSH/PULL streaming.
 *   zmq_peer rep                       bind tcp://127.0.0.1:*, echo every request
 *   zmq_peer req ENDPOINT SIZE COUNT   round trips, report latency
 *   zmq_peer pull SIZE COUNT           bind, receive COUNT messages, report the rate
 *   zmq_peer push ENDPOINT SIZE COUNT [THREADS]
 *                                      send COUNT messages, then wait to be stopped;
 *                                      with THREADS > 1, from that many threads,
 *                                      each with its own PUSH socket */
#include <pthread.h>
#include <unistd.h>
#include <zmq.h>

#include "peer_common.h"

static void* bound(void* ctx, int type) {
    void* s = zmq_socket(ctx, type);
    if (zmq_bind(s, "tcp://127.0.0.1:*") != 0) peer_die("cannot bind");
    char endpoint[256];
    size_t len = sizeof endpoint;
    zmq_getsockopt(s, ZMQ_LAST_ENDPOINT, endpoint, &len);
    peer_endpoint(endpoint);
    return s;
}

struct pusher {
    void* ctx;
    const char* endpoint;
    size_t size, count;
};

static void* push(void* arg) {
    struct pusher* p = arg;
    void* s = zmq_socket(p->ctx, ZMQ_PUSH);
    if (zmq_connect(s, p->endpoint) != 0) peer_die("cannot connect");
    char* msg = calloc(p->size, 1);
    for (size_t i = 0; i < p->count; ++i)
        if (zmq_send(s, msg, p->size, 0) < 0) peer_die("send failed");
    return NULL;
}

int main(int argc, char** argv) {
    if (argc < 2) peer_die("usage: zmq_peer rep | req EP SIZE COUNT | pull SIZE COUNT | push EP SIZE COUNT [THREADS]");
    void* ctx = zmq_ctx_new();
    if (strcmp(argv[1], "rep") == 0) {
        void* s = bound(ctx, ZMQ_REP);
        for (;;) {
            zmq_msg_t m;
            zmq_msg_init(&m);
            if (zmq_msg_recv(&m, s, 0) < 0 || zmq_msg_send(&m, s, 0) < 0) break;
        }
        return 0;
    }
    if (strcmp(argv[1], "req") == 0 && argc == 5) {
        void* s = zmq_socket(ctx, ZMQ_REQ);
        if (zmq_connect(s, argv[2]) != 0) peer_die("cannot connect");
        size_t size = (size_t)atol(argv[3]), count = (size_t)atol(argv[4]);
        char* msg = calloc(size, 1);
        char* reply = malloc(size + 1);
        double* samples = malloc(count * sizeof *samples);
        for (size_t i = 0, w = peer_warmup(count); i < w + count; ++i) {
            double t = peer_now();
            if (zmq_send(s, msg, size, 0) < 0 || zmq_recv(s, reply, size + 1, 0) < 0)
                peer_die("round trip failed");
            if (i >= w) samples[i - w] = (peer_now() - t) * 1e6;
        }
        peer_report_rr(size, samples, count);
        zmq_close(s);
        zmq_ctx_term(ctx);
        return 0;
    }
    if (strcmp(argv[1], "pull") == 0 && argc == 4) {
        size_t size = (size_t)atol(argv[2]), count = (size_t)atol(argv[3]);
        void* s = bound(ctx, ZMQ_PULL);
        char* buf = malloc(size + 1);
        double start = 0;
        for (size_t i = 0; i < count; ++i) {
            if (zmq_recv(s, buf, size + 1, 0) < 0) peer_die("receive failed");
            if (i == 0) start = peer_now();
        }
        peer_report_stream(size, count - 1, peer_now() - start);
        _exit(0);
    }
    if (strcmp(argv[1], "push") == 0 && (argc == 5 || argc == 6)) {
        size_t size = (size_t)atol(argv[3]), count = (size_t)atol(argv[4]);
        size_t threads = argc == 6 ? (size_t)atol(argv[5]) : 1;
        if (threads < 1 || threads > 64) peer_die("THREADS must be 1..64");
        struct pusher p[64];
        pthread_t t[64];
        for (size_t i = 0; i < threads; ++i) {
            p[i].ctx = ctx;
            p[i].endpoint = argv[2];
            p[i].size = size;
            p[i].count = count / threads + (i < count % threads ? 1 : 0);
            if (pthread_create(&t[i], NULL, push, &p[i]) != 0) peer_die("no thread");
        }
        for (size_t i = 0; i < threads; ++i) pthread_join(t[i], NULL);
        for (int i = 0; i < 600; ++i) usleep(100000); /* until stopped */
        return 0;
    }
    peer_die("bad arguments");
    return 1;
}
