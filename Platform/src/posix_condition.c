#include <errno.h>
#include <stdlib.h>

#include "os_sync.h"
#include "posix_internal.h"

condition_handle* os_condition_create(mutex_handle* mutex, RT_MODE mode) {
    (void)mode; /* Linux has no real-time condition variable. */
    if (mutex == NULL) return NULL;

    condition_handle* h = malloc(sizeof *h);
    if (h == NULL) return NULL;

    pthread_condattr_t attr;
    if (pthread_condattr_init(&attr) != 0) {
        free(h);
        return NULL;
    }
    /* Deadlines are built on the monotonic clock; the wait must measure the
     * same clock or a wall-clock step would stretch or cut every time-out. */
    int rc = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    if (rc == 0) rc = pthread_cond_init(&h->cond, &attr);
    pthread_condattr_destroy(&attr);
    if (rc != 0) {
        free(h);
        return NULL;
    }
    h->mutex = mutex;
    return h;
}

void os_condition_destroy(condition_handle** handle) {
    if (handle == NULL || *handle == NULL) return;
    pthread_cond_destroy(&(*handle)->cond);
    free(*handle);
    *handle = NULL;
}

void os_condition_notify(condition_handle* handle) {
    if (handle) pthread_cond_signal(&handle->cond);
}

void os_condition_notify_all(condition_handle* handle) {
    if (handle) pthread_cond_broadcast(&handle->cond);
}

int os_condition_wait(condition_handle* handle) {
    if (handle == NULL) return WAIT_CONDITION_FAILED;
    return pthread_cond_wait(&handle->cond, &handle->mutex->mutex) == 0 ? WAIT_CONDITION_OK
                                                                         : WAIT_CONDITION_FAILED;
}

int os_condition_wait_timeout(condition_handle* handle, struct timespec deadline) {
    if (handle == NULL || deadline.tv_nsec < 0 || deadline.tv_nsec >= 1000000000L)
        return WAIT_CONDITION_FAILED;
    int rc = pthread_cond_timedwait(&handle->cond, &handle->mutex->mutex, &deadline);
    if (rc == 0) return WAIT_CONDITION_OK;
    return rc == ETIMEDOUT ? WAIT_CONDITION_TIMEOUT : WAIT_CONDITION_FAILED;
}
