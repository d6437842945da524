#include <errno.h>
#include <sched.h>

#include "os_sync.h"
#include "posix_internal.h"

static int create_with_attr(pthread_t* thread, OS_THREAD_FUNCTION fn, void* arg,
                            size_t stack_size, int realtime) {
    pthread_attr_t attr;
    int rc = pthread_attr_init(&attr);
    if (rc != 0) return rc;
    if (stack_size != 0) rc = pthread_attr_setstacksize(&attr, stack_size);
    if (rc == 0 && realtime) {
        struct sched_param param;
        param.sched_priority = sched_get_priority_min(SCHED_FIFO);
        rc = pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
        if (rc == 0) rc = pthread_attr_setschedpolicy(&attr, SCHED_FIFO);
        if (rc == 0) rc = pthread_attr_setschedparam(&attr, &param);
    }
    pthread_t created;
    if (rc == 0) rc = pthread_create(&created, &attr, fn, arg);
    pthread_attr_destroy(&attr);
    if (rc == 0) *thread = created;
    return rc;
}

int os_thread_create(pthread_t* thread, OS_THREAD_FUNCTION fn, void* arg, RT_MODE mode,
                     size_t stack_size) {
    if (thread == NULL || fn == NULL) return EINVAL;
    if (mode == USE_DEFAULT) mode = get_default_rt_mode();
    if (mode == USE_RT) {
        int rc = create_with_attr(thread, fn, arg, stack_size, 1);
        /* Without the privilege for a real-time policy, run the thread all
         * the same with the ordinary one. */
        if (rc != EPERM && rc != EINVAL) return rc;
    }
    return create_with_attr(thread, fn, arg, stack_size, 0);
}

int os_thread_join(pthread_t thread, RT_MODE mode) {
    (void)mode;
    return pthread_join(thread, NULL);
}

unsigned long os_thread_current(void) { return (unsigned long)pthread_self(); }

unsigned long os_thread_sync_fetch_add(volatile unsigned long* counter) {
    return __atomic_add_fetch(counter, 1UL, __ATOMIC_SEQ_CST);
}

unsigned long os_thread_sync_fetch_sub(volatile unsigned long* counter) {
    return __atomic_sub_fetch(counter, 1UL, __ATOMIC_SEQ_CST);
}
