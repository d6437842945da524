// Threads and atomic counters over the platform layer.
#ifndef GROUNDKIT_OS_OS_THREAD_H
#define GROUNDKIT_OS_OS_THREAD_H

#include <cstddef>

#include "GroundKit/OS/OSType.h"
#include "os_sync.h"

namespace OS {

class Thread {
public:
    // Starts fn(arg); stack size 0 is the platform default. Returns 0 or an
    // errno; the handle is written only on success.
    static int create(pthread_t* thread, OS_THREAD_FUNCTION fn, void* arg, RT_MODE mode,
                      size_t stackSize) {
        return os_thread_create(thread, fn, arg, mode, stackSize);
    }
    // Blocks until the thread has returned.
    static int join(pthread_t thread, RT_MODE mode) { return os_thread_join(thread, mode); }
    // The calling thread's identifier.
    static unsigned long current() { return os_thread_current(); }
    // Atomic +1 / -1; both return the value after the change.
    static unsigned long syncFetchAdd(volatile unsigned long* counter) {
        return os_thread_sync_fetch_add(counter);
    }
    static unsigned long syncFetchSub(volatile unsigned long* counter) {
        return os_thread_sync_fetch_sub(counter);
    }
};

}  // namespace OS

#endif
