#include <errno.h>

#include "os_clock.h"

#define NSEC_PER_SEC 1000000000L

int os_clock_get_time(clockid_t clock_id, struct timespec* time, RT_MODE mode) {
    (void)mode;
    if (time == NULL) {
        errno = EINVAL;
        return -1;
    }
    return clock_gettime(clock_id, time);
}

void os_clock_adjust_clock_time(struct timespec* time) {
    if (time == NULL) return;
    /* Division rather than a loop: a caller may have added hours of
     * milliseconds to tv_nsec. */
    if (time->tv_nsec >= NSEC_PER_SEC || time->tv_nsec <= -NSEC_PER_SEC) {
        time->tv_sec += time->tv_nsec / NSEC_PER_SEC;
        time->tv_nsec %= NSEC_PER_SEC;
    }
    if (time->tv_nsec < 0) {
        time->tv_sec -= 1;
        time->tv_nsec += NSEC_PER_SEC;
    }
}
