// How the library meets its own faults. Where it stops exceptions: the
// passes of its threads (listen, communication, timer, reply opener), the
// dispatch of a message, and the exported functions. An exception that left a thread function or an
// exported function would end the host's process (std::terminate) or
// unwind through C callers, so each of those places runs its work through
// guarded(): whatever is thrown (an allocation failure, a host callback's
// exception) costs that one pass, message or call, and leaves one
// diagnostic line. Code inside the library may still throw; only these
// edges catch.
#ifndef APARTMENT_APARTMENTGUARD_H
#define APARTMENT_APARTMENTGUARD_H

#include <cxxabi.h>

#include <exception>

#include "FieldKit/BoundedStream/AbstractStream.h"
#include "GroundKit/OS/OS_Thread.h"
#include "os_log.h"

// Prints "[Apartment Error]: <where>: <what was thrown>." as one line.
// Call only from inside a catch handler. Never throws and allocates
// nothing; a stream exception pointer is deleted.
inline void reportCaughtException(const char* where) noexcept {
    try {
        throw;
    } catch (const std::exception& e) {
        log_task_line("[Apartment Error]: %s: %s.", where, e.what());
    } catch (CAbstractStream::CStreamException* e) {
        log_task_line("[Apartment Error]: %s: stream error %d.", where,
                      e != nullptr ? static_cast<int>(e->m_iExceptionCode) : 0);
        delete e;
    } catch (...) {
        log_task_line("[Apartment Error]: %s: unknown exception.", where);
    }
}

// Returns fn(), or `failure` when fn throws; the exception is reported by
// reportCaughtException(where). Thread cancellation (the unwinding that
// pthread_cancel starts) is let through, as it must be.
template <class R, class F>
R guarded(const char* where, R failure, F&& fn) {
    try {
        return fn();
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        reportCaughtException(where);
        return failure;
    }
}

// Runs fn(), then after() whether fn threw or not; what fn threw is thrown
// again once after() has run (so that it is still reported where it is
// caught). A timer's callback runs this way: its next period is set even
// when the host's callback throws.
template <class F, class A>
void runThenAlways(F&& fn, A&& after) {
    std::exception_ptr thrown;
    try {
        fn();
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        thrown = std::current_exception();
    }
    after();
    if (thrown) std::rethrow_exception(thrown);
}

// Starts one of the library's threads. A thread the system refuses is
// reported the same way wherever it happens, with one line ("[Apartment
// Error]: the <what> thread could not be created (error <errno>)."), and
// false; the handle is then left as it was, so that a later call may try
// again. The caller decides what cannot go on without the thread.
inline bool createLibraryThread(const char* what, pthread_t* handle, OS_THREAD_FUNCTION fn,
                                void* arg, RT_MODE mode) {
    const int error = OS::Thread::create(handle, fn, arg, mode, 0);
    if (error == 0) return true;
    log_task_line("[Apartment Error]: the %s thread could not be created (error %d).", what, error);
    return false;
}

#endif
