/* What the minimal peers share: timing, latency summaries and the result
 * line that bench/compare reads:
 *   RESULT kind=rr size=N count=N median_us=.. p90_us=.. p99_us=.. max_us=..
 *   RESULT kind=stream size=N count=N msgs_per_s=.. mb_per_s=..
 * (MB = 10^6 bytes). Each peer is a two-process program: the side that
 * binds prints "endpoint <address>" first, so the script can start the
 * other side against it. */
#ifndef PEER_COMMON_H
#define PEER_COMMON_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

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

#endif
