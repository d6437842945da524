#include "MessageQueue.h"

#include "GroundKit/OS/OS_Clock.h"

CMessageQueue::CMessageQueue()
    : m_bInterruptPop(false),
      m_bLockQueue(false),
      m_uintWaiters(0),
      m_pWaiting(nullptr),
      m_QueueMutex(MUTEX_NONE, USE_STD, nullptr),
      m_QueueNotEmptyCondition(nullptr, USE_STD) {
    m_QueueNotEmptyCondition.bindMutex(&m_QueueMutex);
}

CMessageQueue::~CMessageQueue() {}

void CMessageQueue::reset() {
    TAutoMutex<OS::TBaseMutex> lock(&m_QueueMutex);
    if (m_bLockQueue) return;
    m_bInterruptPop = false;
    m_ElementQueue.clear();
}

bool CMessageQueue::push(const APARTMENT_TMSG& msg) {
    TAutoMutex<OS::TBaseMutex> lock(&m_QueueMutex);
    if (m_bLockQueue) return false;
    m_ElementQueue.push_back(msg);
    wakeWaiters();
    return true;
}

bool CMessageQueue::pushBatch(const APARTMENT_TMSG* pMessages, size_t count) {
    TAutoMutex<OS::TBaseMutex> lock(&m_QueueMutex);
    if (m_bLockQueue) return false;
    const size_t before = m_ElementQueue.size();
    try {
        for (size_t i = 0; i < count; ++i) m_ElementQueue.push_back(pMessages[i]);
    } catch (...) {
        m_ElementQueue.resize(before);  // all or nothing: the caller still owns them all
        throw;
    }
    if (count != 0) wakeWaiters();
    return true;
}

bool CMessageQueue::tryPop(APARTMENT_TMSG& msg) {
    TAutoMutex<OS::TBaseMutex> lock(&m_QueueMutex);
    if (m_bLockQueue || m_ElementQueue.empty()) return false;
    msg = m_ElementQueue.front();
    m_ElementQueue.pop_front();
    return true;
}

bool CMessageQueue::pop(APARTMENT_TMSG& msg) { return pop(msg, -1); }

bool CMessageQueue::pop(APARTMENT_TMSG& msg, int intTimeout) {
    return pop(msg, OS::Clock::deadlineAfter(intTimeout));
}

void CMessageQueue::wakeWaiters() {
    // Every waiter re-tests the list; waking one could pick a pop that is
    // about to give up (interrupted, timed out) and strand the message.
    if (m_uintWaiters != 0) m_QueueNotEmptyCondition.notifyAll();
    if (m_pWaiting != nullptr) m_pWaiting->wake();
}

bool CMessageQueue::pop(APARTMENT_TMSG& msg, timespec deadline) {
    return pop(msg, deadline, nullptr);
}

bool CMessageQueue::pop(APARTMENT_TMSG& msg, timespec deadline, Waiter* pWaiter) {
    TAutoMutex<OS::TBaseMutex> lock(&m_QueueMutex);
    // An interrupt meant for pops that were already waiting must not end
    // this one.
    m_bInterruptPop = false;
    const bool bUnlimited = OS::Clock::isNoLimit(deadline);
    while (m_ElementQueue.empty()) {
        if (m_bInterruptPop || m_bLockQueue) return false;
        // A deadline already passed gives up without waiting: a timed wait
        // on it still sleeps and gives the processor away, and the
        // dispatcher asks the deferred queue with a zero wait before every
        // message.
        if (!bUnlimited && OS::Clock::hasPassed(deadline)) return false;
        if (pWaiter != nullptr && m_pWaiting == nullptr) {
            m_pWaiting = pWaiter;
            m_QueueMutex.unlock();
            bool waited = false;
            try {
                waited = pWaiter->waitElsewhere(deadline);
            } catch (...) {
                m_QueueMutex.lock();
                m_pWaiting = nullptr;
                throw;
            }
            m_QueueMutex.lock();
            m_pWaiting = nullptr;
            if (!waited) pWaiter = nullptr;
            continue;
        }
        ++m_uintWaiters;
        const int result = bUnlimited ? m_QueueNotEmptyCondition.wait()
                                      : m_QueueNotEmptyCondition.wait(deadline);
        --m_uintWaiters;
        if (result != WAIT_CONDITION_OK) return false;
    }
    if (m_bLockQueue) return false;
    msg = m_ElementQueue.front();
    m_ElementQueue.pop_front();
    return true;
}

void CMessageQueue::interruptPop() {
    TAutoMutex<OS::TBaseMutex> lock(&m_QueueMutex);
    m_bInterruptPop = true;
    m_QueueNotEmptyCondition.notifyAll();
    if (m_pWaiting != nullptr) m_pWaiting->wake();
}

unsigned int CMessageQueue::getQueueSize() {
    TAutoMutex<OS::TBaseMutex> lock(&m_QueueMutex);
    return static_cast<unsigned int>(m_ElementQueue.size());
}

void CMessageQueue::lockQueue() {
    TAutoMutex<OS::TBaseMutex> lock(&m_QueueMutex);
    // Both under the mutex: a woken waiter cannot run before the flag is set.
    m_QueueNotEmptyCondition.notifyAll();
    if (m_pWaiting != nullptr) m_pWaiting->wake();
    m_bLockQueue = true;
}

void CMessageQueue::unlockQueue() {
    TAutoMutex<OS::TBaseMutex> lock(&m_QueueMutex);
    m_bLockQueue = false;
}
