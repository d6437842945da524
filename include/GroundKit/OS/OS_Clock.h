// Clocks, and the one way the library turns a time-out into a deadline.
#ifndef GROUNDKIT_OS_OS_CLOCK_H
#define GROUNDKIT_OS_OS_CLOCK_H

#include "GroundKit/OS/OSType.h"
#include "os_clock.h"

namespace OS {

class Clock {
public:
    static const clockid_t MONOTONIC = 1;  // CLOCK_MONOTONIC on Linux

    static int getTime(clockid_t clockId, timespec* time, RT_MODE mode) {
        return os_clock_get_time(clockId, time, mode);
    }
    // Carries whole seconds out of tv_nsec after a caller added to it.
    static void adjustClockTime(timespec* time) { os_clock_adjust_clock_time(time); }

    // Now on the monotonic clock, the clock of every deadline.
    static timespec monotonicNow() {
        timespec now{0, 0};
        getTime(MONOTONIC, &now, USE_DEFAULT);
        return now;
    }
    // Now on the monotonic clock plus `ms` milliseconds: the whole seconds go
    // to tv_sec, the rest times 1,000,000 to tv_nsec, then normalised.
    static timespec monotonicDeadline(unsigned long ms) {
        timespec deadline = monotonicNow();
        addMilliseconds(&deadline, ms);
        return deadline;
    }
    // True once the monotonic clock has reached `deadline`.
    static bool hasPassed(const timespec& deadline) { return !isEarlier(monotonicNow(), deadline); }
    // The deadline with both fields -1, which means no limit.
    static timespec noLimit() { return timespec{-1, -1}; }
    static bool isNoLimit(const timespec& deadline) {
        return deadline.tv_sec == -1 && deadline.tv_nsec == -1;
    }
    // The deadline of a time-out in milliseconds, where a negative one
    // means no limit.
    static timespec deadlineAfter(int ms) {
        return ms < 0 ? noLimit() : monotonicDeadline(static_cast<unsigned long>(ms));
    }
    static void addMilliseconds(timespec* time, unsigned long ms) {
        time->tv_sec += static_cast<time_t>(ms / 1000);
        time->tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
        adjustClockTime(time);
    }
    // Whole milliseconds until `deadline`, rounded up so that a wait that
    // long does not end just before it (and spin on zero waits); 0 once it
    // has passed.
    static long long millisecondsUntil(const timespec& deadline) {
        const timespec now = monotonicNow();
        const long long ns =
            (deadline.tv_sec - now.tv_sec) * 1000000000LL + (deadline.tv_nsec - now.tv_nsec);
        return ns <= 0 ? 0 : ns / 1000000 + 1;
    }
    // True when a is strictly earlier than b.
    static bool isEarlier(const timespec& a, const timespec& b) {
        return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
    }
};

}  // namespace OS

#endif
