/*
 * Mutexes, conditions, threads and atomic counters over POSIX threads.
 *
 * Failure policy: creation functions return NULL when the system refuses
 * (out of memory, bad attributes); operations on a NULL handle do nothing and
 * report failure where they have a result. Nothing here prints.
 */
#ifndef OS_SYNC_H
#define OS_SYNC_H

#include <stddef.h>

#include "os_platform_export.h"
#include "GroundKit/OS/OSType.h"

OS_PLATFORM_BEGIN_DECLS

/* Mutex attribute bits, as passed to os_mutex_create. */
#define OS_MUTEX_RECURSIVE 0x1u
#define OS_MUTEX_PRIO_INHERIT 0x80000000u

/* The process-wide default mode that USE_DEFAULT stands for: USE_STD. */
OS_PLATFORM_API RT_MODE get_default_rt_mode(void);

/*
 * Creates a mutex. OS_MUTEX_RECURSIVE lets the owning thread lock it again
 * (each lock needs its unlock); OS_MUTEX_PRIO_INHERIT, or mode USE_RT, asks
 * for priority inheritance. The name is for diagnostics only and may be NULL.
 * Returns NULL on failure.
 */
OS_PLATFORM_API mutex_handle* os_mutex_create(unsigned int attribute, RT_MODE mode,
                                              const char* name);
/* Destroys the mutex and clears *handle. The mutex must not be held. */
OS_PLATFORM_API void os_mutex_destroy(mutex_handle** handle);
/* Blocks until the calling thread owns the mutex. Returns 0 or an errno. */
OS_PLATFORM_API int os_mutex_lock(mutex_handle* handle);
/* Releases one level of ownership. Returns 0 or an errno. */
OS_PLATFORM_API int os_mutex_unlock(mutex_handle* handle);

/*
 * Creates a condition bound to `mutex` for its whole life. Timed waits
 * measure their absolute deadline on CLOCK_MONOTONIC (clock id 1), the clock
 * every caller reads when it builds a deadline. Returns NULL on failure or
 * for a NULL mutex.
 */
OS_PLATFORM_API condition_handle* os_condition_create(mutex_handle* mutex, RT_MODE mode);
/* Destroys the condition and clears *handle. No thread may wait on it. */
OS_PLATFORM_API void os_condition_destroy(condition_handle** handle);
/* Wakes one waiter / every waiter. */
OS_PLATFORM_API void os_condition_notify(condition_handle* handle);
OS_PLATFORM_API void os_condition_notify_all(condition_handle* handle);
/*
 * Blocks until notified. The caller holds the bound mutex; it is released
 * while blocked and held again on return. Like every condition wait it may
 * return without a notification: callers re-check their predicate.
 * Returns WAIT_CONDITION_OK or WAIT_CONDITION_FAILED.
 */
OS_PLATFORM_API int os_condition_wait(condition_handle* handle);
/*
 * As os_condition_wait, but gives up at the absolute monotonic `deadline`:
 * WAIT_CONDITION_TIMEOUT when it has passed (also when it had passed before
 * the call), WAIT_CONDITION_FAILED for a deadline whose tv_nsec is outside
 * 0..999,999,999 or any other failure.
 */
OS_PLATFORM_API int os_condition_wait_timeout(condition_handle* handle,
                                              struct timespec deadline);

/*
 * Starts a thread running fn(arg). `stack_size` 0 means the system default.
 * USE_RT asks for SCHED_FIFO at the lowest real-time priority and falls back
 * to the default policy when that is not permitted. Writes the handle to
 * *thread and returns 0, or returns an errno and leaves *thread unchanged.
 */
OS_PLATFORM_API int os_thread_create(pthread_t* thread, OS_THREAD_FUNCTION fn, void* arg,
                                     RT_MODE mode, size_t stack_size);
/* Blocks until the thread has returned. Returns 0 or an errno. */
OS_PLATFORM_API int os_thread_join(pthread_t thread, RT_MODE mode);
/* Identifier of the calling thread, comparable across threads. */
OS_PLATFORM_API unsigned long os_thread_current(void);
/* Atomically adds / subtracts 1 and returns the value AFTER the change. */
OS_PLATFORM_API unsigned long os_thread_sync_fetch_add(volatile unsigned long* counter);
OS_PLATFORM_API unsigned long os_thread_sync_fetch_sub(volatile unsigned long* counter);

OS_PLATFORM_END_DECLS

#endif
