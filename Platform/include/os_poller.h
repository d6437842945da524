/*
 * Readiness sets (epoll) and wake-ups (eventfd): what a thread that serves
 * many descriptors waits on. A set is kept across waits, so a wait costs
 * what the ready descriptors cost, not what every registered one costs.
 *
 * Conventions: results follow the system call they wrap (-1 with errno
 * set on failure); descriptors are created close-on-exec; none of the
 * calls blocks except os_poller_wait, for at most its time-out. Any thread
 * may add, modify or remove while another waits on the same set.
 * Registration is level-triggered: a descriptor with unread data is
 * reported again by every wait until it is read or its interest is
 * dropped.
 */
#ifndef OS_POLLER_H
#define OS_POLLER_H

#include <stdint.h>

#include "os_platform_export.h"

OS_PLATFORM_BEGIN_DECLS

/* Interest and readiness bits (the epoll values). */
#define OS_POLLER_READ 0x001u   /* data to read, or an orderly close */
#define OS_POLLER_WRITE 0x004u  /* room to write */
#define OS_POLLER_ERROR 0x008u  /* reported whatever the interest */
#define OS_POLLER_HANGUP 0x010u /* reported whatever the interest */

/* One ready descriptor: its bits and the key it was registered with. */
typedef struct os_poller_event {
    uint32_t events;
    uint64_t key;
} os_poller_event;

/* A new empty set: its descriptor, or -1. */
OS_PLATFORM_API int os_poller_create(void);
/* Closes a set made by os_poller_create. */
OS_PLATFORM_API void os_poller_close(int poller);
/* Registers fd with the interest bits and a key of the caller's choosing;
 * interest 0 keeps it registered but never reported (except errors and
 * hang-ups). 0 or -1 (EEXIST when already registered). */
OS_PLATFORM_API int os_poller_add(int poller, int fd, uint32_t interest, uint64_t key);
/* Changes a registered descriptor's interest and key. 0 or -1. */
OS_PLATFORM_API int os_poller_modify(int poller, int fd, uint32_t interest, uint64_t key);
/* Unregisters fd. Must come before fd is closed if the set is to forget it
 * for sure (a closed descriptor leaves the set only when no duplicate of it
 * stays open). 0 or -1. */
OS_PLATFORM_API int os_poller_remove(int poller, int fd);
/* Waits up to timeout_ms (0: do not wait; negative: no limit) and fills at
 * most max events. The count (0 on time-out), or -1; an interrupted wait
 * (EINTR) returns 0. */
OS_PLATFORM_API int os_poller_wait(int poller, os_poller_event* events, int max, int timeout_ms);

/* A wake-up descriptor (an eventfd, non-blocking): readable from the first
 * os_wake_signal until os_wake_drain. -1 when none could be had. */
OS_PLATFORM_API int os_wake_create(void);
/* Makes the descriptor readable; never blocks. Any thread. */
OS_PLATFORM_API void os_wake_signal(int wake);
/* Takes every signal given so far; never blocks. */
OS_PLATFORM_API void os_wake_drain(int wake);
/* Closes a wake-up descriptor. */
OS_PLATFORM_API void os_wake_close(int wake);

OS_PLATFORM_END_DECLS

#endif
