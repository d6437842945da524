/* Clocks. Deadlines in this library are absolute times on clock id 1,
 * CLOCK_MONOTONIC, which no change of the wall clock can move. */
#ifndef OS_CLOCK_H
#define OS_CLOCK_H

#include "os_platform_export.h"
#include "GroundKit/OS/OSType.h"

OS_PLATFORM_BEGIN_DECLS

/* Reads `clock_id` into *time. Returns 0, or -1 (errno set) for an unknown
 * clock or a NULL time. The mode has no effect on Linux. */
OS_PLATFORM_API int os_clock_get_time(clockid_t clock_id, struct timespec* time, RT_MODE mode);

/* Normalises *time after a caller added to its fields: carries whole seconds
 * out of tv_nsec (in either direction, several at once if need be) so that
 * tv_nsec ends in 0..999,999,999. A NULL time is ignored. */
OS_PLATFORM_API void os_clock_adjust_clock_time(struct timespec* time);

OS_PLATFORM_END_DECLS

#endif
