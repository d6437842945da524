#include <errno.h>
#include <stdlib.h>

#include "os_sync.h"
#include "posix_internal.h"

RT_MODE get_default_rt_mode(void) { return USE_STD; }

mutex_handle* os_mutex_create(unsigned int attribute, RT_MODE mode, const char* name) {
    (void)name;
    if (mode == USE_DEFAULT) mode = get_default_rt_mode();

    mutex_handle* h = malloc(sizeof *h);
    if (h == NULL) return NULL;

    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0) {
        free(h);
        return NULL;
    }
    int rc = pthread_mutexattr_settype(
        &attr, (attribute & OS_MUTEX_RECURSIVE) ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_NORMAL);
    if (rc == 0 && ((attribute & OS_MUTEX_PRIO_INHERIT) || mode == USE_RT))
        rc = pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_INHERIT);
    if (rc == 0) rc = pthread_mutex_init(&h->mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    if (rc != 0) {
        free(h);
        return NULL;
    }
    return h;
}

void os_mutex_destroy(mutex_handle** handle) {
    if (handle == NULL || *handle == NULL) return;
    pthread_mutex_destroy(&(*handle)->mutex);
    free(*handle);
    *handle = NULL;
}

int os_mutex_lock(mutex_handle* handle) {
    return handle ? pthread_mutex_lock(&handle->mutex) : EINVAL;
}

int os_mutex_unlock(mutex_handle* handle) {
    return handle ? pthread_mutex_unlock(&handle->mutex) : EINVAL;
}
