/*
 * Types shared by the platform support layer (C) and the OS wrappers (C++).
 *
 * This header is valid C and C++: the platform layer's C functions take and
 * return these types, and the GroundKit wrappers pass them through unchanged.
 * It deliberately pulls in only <sys/types.h> and <time.h>, which give
 * pthread_t, clockid_t and timespec without exposing the POSIX thread API.
 */
#ifndef GROUNDKIT_OS_OSTYPE_H
#define GROUNDKIT_OS_OSTYPE_H

#include <sys/types.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Selects the flavour of a platform primitive.
 *   USE_DEFAULT  the process-wide default, get_default_rt_mode(), which is
 *                USE_STD on Linux.
 *   USE_RT       the real-time flavour: mutexes use priority inheritance,
 *                threads ask for SCHED_FIFO and fall back to the default
 *                policy when the process may not use it. Clocks, conditions
 *                and sockets have no better variant on Linux and behave as
 *                USE_STD.
 *   USE_STD      the ordinary POSIX primitive.
 */
typedef enum RT_MODE {
    USE_DEFAULT = 0,
    USE_RT = 1,
    USE_STD = 2
} RT_MODE;

/* Result of a condition wait. Callers treat any non-zero value as a wake-up
 * without success. */
typedef enum CONDITION_WAIT_RESULT {
    WAIT_CONDITION_OK = 0,
    WAIT_CONDITION_TIMEOUT = 1,
    WAIT_CONDITION_FAILED = 2
} CONDITION_WAIT_RESULT;

/* Entry point of a platform thread. */
typedef void* (*OS_THREAD_FUNCTION)(void*);

/* Opaque handles owned by the platform layer. */
typedef struct mutex_handle mutex_handle;
typedef struct condition_handle condition_handle;

#ifdef __cplusplus
}
#endif

#endif /* GROUNDKIT_OS_OSTYPE_H */
