// A condition variable bound to one TBaseMutex for its whole life.
//
// The library builds conditions unbound, TCondition(nullptr, USE_STD), and
// binds them in the owner's constructor body once the mutex member exists.
// Waits are called with the bound mutex held; they may wake without a
// notification, so callers re-check their predicate. Timed waits take an
// absolute deadline on the monotonic clock (OS::Clock::monotonicDeadline).
#ifndef GROUNDKIT_OS_OS_CONDITION_H
#define GROUNDKIT_OS_OS_CONDITION_H

#include "GroundKit/OS/OSType.h"
#include "GroundKit/OS/OS_Mutex.h"
#include "os_sync.h"

namespace OS {

class TCondition {
public:
    explicit TCondition(TBaseMutex* pMutex = nullptr, RT_MODE mode = USE_STD)
        : m_ConditionHandle(pMutex != nullptr ? os_condition_create(pMutex->handle(), mode)
                                              : nullptr),
          m_intMode(mode) {}
    ~TCondition() {
        if (m_ConditionHandle != nullptr) {
            os_condition_destroy(&m_ConditionHandle);
            m_ConditionHandle = nullptr;
        }
    }
    TCondition(const TCondition&) = delete;
    TCondition& operator=(const TCondition&) = delete;

    // Binds an unbound condition. False, with nothing changed, when it is
    // already bound or pMutex is null; otherwise whether the platform made it.
    bool bindMutex(TBaseMutex* pMutex) {
        if (m_ConditionHandle != nullptr || pMutex == nullptr) return false;
        m_ConditionHandle = os_condition_create(pMutex->handle(), m_intMode);
        return m_ConditionHandle != nullptr;
    }

    condition_handle* handle() const { return m_ConditionHandle; }
    void notify() { os_condition_notify(m_ConditionHandle); }
    void notifyAll() { os_condition_notify_all(m_ConditionHandle); }
    // Returns a CONDITION_WAIT_RESULT.
    int wait() { return os_condition_wait(m_ConditionHandle); }
    int wait(timespec deadline) { return os_condition_wait_timeout(m_ConditionHandle, deadline); }

private:
    condition_handle* m_ConditionHandle;
    RT_MODE m_intMode;
};

}  // namespace OS

#endif
