/*
 * The platform support layer: the only place where the library meets the
 * operating system. Every function has C linkage and lives in
 * libapartment_platform.so. One header per family:
 *
 *   os_sync.h    mutexes, conditions, threads, atomic counters, RT mode
 *   os_clock.h   clocks and time normalisation
 *   os_text.h    code-page conversion, formatted length, ASCII test
 *   os_log.h     the log task
 *   os_socket.h  IPv4 sockets, and Unix sockets within one host
 *   os_stream.h  the byte stores behind the serialisation streams
 *
 * Unless a function says otherwise it never blocks, never prints and is safe
 * to call from any thread.
 */
#ifndef OS_PLATFORM_H
#define OS_PLATFORM_H

#include "os_sync.h"
#include "os_clock.h"
#include "os_text.h"
#include "os_log.h"
#include "os_socket.h"
#include "os_stream.h"

#endif
