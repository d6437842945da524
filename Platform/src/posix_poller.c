#include <errno.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "os_poller.h"

/* The bits above are epoll's own, so they pass through unchanged. */
_Static_assert(OS_POLLER_READ == EPOLLIN && OS_POLLER_WRITE == EPOLLOUT &&
                   OS_POLLER_ERROR == EPOLLERR && OS_POLLER_HANGUP == EPOLLHUP,
               "poller bits are epoll's");

/* The most events one wait takes into its own stack buffer. */
enum { WAIT_BATCH = 256 };

int os_poller_create(void) { return epoll_create1(EPOLL_CLOEXEC); }

void os_poller_close(int poller) {
    if (poller >= 0) close(poller);
}

static int control(int poller, int op, int fd, uint32_t interest, uint64_t key) {
    struct epoll_event event;
    event.events = interest;
    event.data.u64 = key;
    return epoll_ctl(poller, op, fd, &event);
}

int os_poller_add(int poller, int fd, uint32_t interest, uint64_t key) {
    return control(poller, EPOLL_CTL_ADD, fd, interest, key);
}

int os_poller_modify(int poller, int fd, uint32_t interest, uint64_t key) {
    return control(poller, EPOLL_CTL_MOD, fd, interest, key);
}

int os_poller_remove(int poller, int fd) {
    struct epoll_event unused;  /* kernels before 2.6.9 wanted one */
    return epoll_ctl(poller, EPOLL_CTL_DEL, fd, &unused);
}

int os_poller_wait(int poller, os_poller_event* events, int max, int timeout_ms) {
    struct epoll_event ready[WAIT_BATCH];
    if (max > WAIT_BATCH) max = WAIT_BATCH;
    if (max <= 0) {
        errno = EINVAL;
        return -1;
    }
    const int count = epoll_wait(poller, ready, max, timeout_ms < 0 ? -1 : timeout_ms);
    if (count < 0) return errno == EINTR ? 0 : -1;
    for (int i = 0; i < count; ++i) {
        events[i].events = ready[i].events;
        events[i].key = ready[i].data.u64;
    }
    return count;
}

int os_wake_create(void) { return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }

void os_wake_signal(int wake) {
    const uint64_t one = 1;
    /* A counter at its maximum is a signal already pending. */
    if (wake >= 0) (void)!write(wake, &one, sizeof one);
}

void os_wake_drain(int wake) {
    uint64_t count;
    if (wake >= 0) (void)!read(wake, &count, sizeof count);
}

void os_wake_close(int wake) {
    if (wake >= 0) close(wake);
}
