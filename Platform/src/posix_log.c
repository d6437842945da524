#include <stdarg.h>
#include <stdio.h>

#include "os_log.h"

/* Read by every thread that writes a diagnostic, changed by the thread that
 * installs and removes the task. */
static int install_depth;

void install_log_task(void) { __atomic_fetch_add(&install_depth, 1, __ATOMIC_ACQ_REL); }

void uninstall_log_task(void) {
    fflush(stdout);
    int depth = __atomic_load_n(&install_depth, __ATOMIC_ACQUIRE);
    while (depth > 0 && !__atomic_compare_exchange_n(&install_depth, &depth, depth - 1, 0,
                                                     __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
    }
}

void log_task_line(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    /* One hold of the stream's (recursive) lock for the text, its newline
     * and the flush: lines written by several threads at once neither
     * interleave nor wait in the buffer. The calls inside take the lock
     * again rather than use the _unlocked forms, which are inline macros
     * that a thread sanitizer would see touching the stream unguarded. */
    flockfile(stdout);
    vfprintf(stdout, format, arguments);
    fputc('\n', stdout);
    if (__atomic_load_n(&install_depth, __ATOMIC_ACQUIRE) > 0) fflush(stdout);
    funlockfile(stdout);
    va_end(arguments);
}
