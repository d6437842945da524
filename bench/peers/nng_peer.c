/* NNG peers: req0/rep0 round trips and push0/pull0 streaming.
 *   nng_peer rep                       listen on tcp://127.0.0.1:0, echo every request
 *   nng_peer req ENDPOINT SIZE COUNT   round trips, report latency
 *   nng_peer pull SIZE COUNT           listen, receive COUNT messages, report the rate
 *   nng_peer push ENDPOINT SIZE COUNT  send COUNT messages, then wait to be stopped */
#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>
#include <unistd.h>

#include "peer_common.h"

static void listen_any(nng_socket s) {
    nng_listener l;
    if (nng_listen(s, "tcp://127.0.0.1:0", &l, 0) != 0) peer_die("cannot listen");
    int port = 0;
    nng_listener_get_int(l, NNG_OPT_TCP_BOUND_PORT, &port);
    char endpoint[64];
    snprintf(endpoint, sizeof endpoint, "tcp://127.0.0.1:%d", port);
    peer_endpoint(endpoint);
}

int main(int argc, char** argv) {
    if (argc < 2) peer_die("usage: nng_peer rep | req EP SIZE COUNT | pull SIZE COUNT | push EP SIZE COUNT");
    nng_socket s;
    if (strcmp(argv[1], "rep") == 0) {
        if (nng_rep0_open(&s) != 0) peer_die("cannot open");
        listen_any(s);
        for (;;) {
            nng_msg* m;
            if (nng_recvmsg(s, &m, 0) != 0) break;
            if (nng_sendmsg(s, m, 0) != 0) break;
        }
        return 0;
    }
    if (strcmp(argv[1], "req") == 0 && argc == 5) {
        if (nng_req0_open(&s) != 0 || nng_dial(s, argv[2], NULL, 0) != 0) peer_die("cannot connect");
        size_t size = (size_t)atol(argv[3]), count = (size_t)atol(argv[4]);
        char* msg = calloc(size, 1);
        char* reply = malloc(size + 1);
        double* samples = malloc(count * sizeof *samples);
        for (size_t i = 0, w = peer_warmup(count); i < w + count; ++i) {
            double t = peer_now();
            size_t got = size + 1;
            if (nng_send(s, msg, size, 0) != 0 || nng_recv(s, reply, &got, 0) != 0)
                peer_die("round trip failed");
            if (i >= w) samples[i - w] = (peer_now() - t) * 1e6;
        }
        peer_report_rr(size, samples, count);
        nng_close(s);
        return 0;
    }
    if (strcmp(argv[1], "pull") == 0 && argc == 4) {
        size_t size = (size_t)atol(argv[2]), count = (size_t)atol(argv[3]);
        if (nng_pull0_open(&s) != 0) peer_die("cannot open");
        listen_any(s);
        double start = 0;
        for (size_t i = 0; i < count; ++i) {
            nng_msg* m;
            if (nng_recvmsg(s, &m, 0) != 0) peer_die("receive failed");
            nng_msg_free(m);
            if (i == 0) start = peer_now();
        }
        peer_report_stream(size, count - 1, peer_now() - start);
        _exit(0);
    }
    if (strcmp(argv[1], "push") == 0 && argc == 5) {
        if (nng_push0_open(&s) != 0 || nng_dial(s, argv[2], NULL, 0) != 0) peer_die("cannot connect");
        size_t size = (size_t)atol(argv[3]), count = (size_t)atol(argv[4]);
        char* msg = calloc(size, 1);
        for (size_t i = 0; i < count; ++i)
            if (nng_send(s, msg, size, 0) != 0) peer_die("send failed");
        for (int i = 0; i < 600; ++i) usleep(100000); /* until stopped */
        return 0;
    }
    peer_die("bad arguments");
    return 1;
}
