/* Definitions shared by the POSIX sources of the platform layer. */
#ifndef POSIX_INTERNAL_H
#define POSIX_INTERNAL_H

#include <pthread.h>

struct mutex_handle {
    pthread_mutex_t mutex;
};

struct condition_handle {
    pthread_cond_t cond;
    struct mutex_handle* mutex;
};

#endif
