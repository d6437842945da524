// CMessageQueue: the apartment's message queue (see IMessageQueue for the
// contract of each operation).
//
// An apartment holds two of these by value, so the reference count that the
// stub supplies is normally never used. Any number of threads may push and
// pop at once. The queue's mutex is a leaf: while holding it the queue calls
// nothing but the list and its condition, so callers may use the queue from
// inside any lock of their own. Messages still queued when the queue goes
// away are dropped without looking at their payloads.
#ifndef APARTMENT_MESSAGEQUEUE_H
#define APARTMENT_MESSAGEQUEUE_H

#include <cstddef>
#include <deque>

#include "GroundKit/OS/OS_Condition.h"
#include "GroundKit/OS/OS_Mutex.h"
#include "IMessageQueue.h"

class CMessageQueue : public IMessageQueueStub {
public:
    // Someone who can wait for this queue's messages somewhere else (on the
    // links that bring them) instead of on its condition.
    class Waiter {
    public:
        virtual ~Waiter() {}
        // Called by the popping thread, without the queue's lock, while the
        // queue is empty: waits until wake(), the deadline, or something
        // of its own happens (it may push meanwhile). False at once when
        // it cannot wait now (someone else does): the pop then waits on the
        // condition.
        virtual bool waitElsewhere(timespec deadline) = 0;
        // Ends that wait. Called by any pushing, interrupting or locking
        // thread under the queue's lock: it must take no lock of the queue's
        // callers.
        virtual void wake() = 0;
    };

    CMessageQueue();
    virtual ~CMessageQueue();

    void reset() override;
    bool push(const APARTMENT_TMSG& msg) override;
    // Appends `count` messages in order under one lock, waking the waiters
    // once. False when the queue is locked, and std::bad_alloc when there is
    // no memory for them: either way none was taken, and what they carry is
    // still the caller's.
    bool pushBatch(const APARTMENT_TMSG* pMessages, size_t count);
    bool tryPop(APARTMENT_TMSG& msg) override;
    bool pop(APARTMENT_TMSG& msg) override;
    bool pop(APARTMENT_TMSG& msg, int intTimeout) override;
    bool pop(APARTMENT_TMSG& msg, timespec deadline) override;
    // The same pop, waiting through `pWaiter` (when not null and no other
    // pop waits through one) instead of on the condition.
    bool pop(APARTMENT_TMSG& msg, timespec deadline, Waiter* pWaiter);
    void interruptPop() override;
    unsigned int getQueueSize() override;
    void lockQueue() override;
    void unlockQueue() override;

private:
    // Guarded by m_QueueMutex: the flags, the list and the waiter count.
    bool m_bInterruptPop;  // set by interruptPop; cleared on entry to each blocking pop and by reset
    bool m_bLockQueue;     // set by lockQueue; cleared by unlockQueue
    std::deque<APARTMENT_TMSG> m_ElementQueue;  // push at the back, pop at the front; no allocation per message
    // Pops waiting on the condition: a push wakes them only when there are
    // any, so a busy pumping thread is not signalled per message.
    unsigned int m_uintWaiters;
    Waiter* m_pWaiting;  // the waiter of the pop waiting through one, or null
    // Wakes the pops waiting on the condition and the one waiting elsewhere.
    void wakeWaiters();
    OS::TBaseMutex m_QueueMutex;
    OS::TCondition m_QueueNotEmptyCondition;  // signalled (all waiters) on push, interrupt and lock
};

#endif
