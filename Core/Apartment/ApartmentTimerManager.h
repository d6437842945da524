// CApartmentTimerManager: the process-wide timer service.
//
// One instance (created at library initialisation, destroyed at shut-down),
// one thread, one min-heap of pending firings. A due timer runs no user
// code here: the timer thread posts an APARTMENT_TIMER message to the owning
// apartment, whose dispatching thread runs the handler and then calls
// generateNextTimer to re-arm a periodic timer. So a host that stops pumping
// has at most one pending firing per timer, never a backlog.
//
// Threads: setTimer, killTimer and generateNextTimer are called from any
// thread (API callers, the dispatching thread); the timer thread alone runs
// processNextTimer and processTimer. Nothing thrown on the timer thread
// ends it: a firing that cannot be posted is dropped with a diagnostic line
// (a periodic timer then stops, as it is re-armed only by dispatch). The singleton operations are called by
// library initialisation and shut-down, while no other call is running.
//
// Locks: m_TimerMapMutex and m_QueueMutex are never held together, and no
// timer lock is held while a message is posted or a reference is dropped, so
// an apartment torn down by a dropped reference may call back into the
// manager (killTimer) without deadlock.
#ifndef APARTMENT_APARTMENTTIMERMANAGER_H
#define APARTMENT_APARTMENTTIMERMANAGER_H

#include <atomic>
#include <map>
#include <queue>
#include <vector>

#include "GroundKit/OS/OS_Condition.h"
#include "GroundKit/OS/OS_Mutex.h"
#include "GroundKit/OS/OS_Thread.h"
#include "GroundKit/Reference/Reference.h"
#include "IApartment.h"
#include "IApartmentNode.h"

// A registered timer. Copies hold references of their own on the apartment
// and the node.
struct _APARTMENT_TIMER_INFO {
    CReference<IApartment> m_Apartment;        // receives the firings
    CReference<IApartmentNode> m_ApartmentNode;  // the owning node; empty for an apartment timer
    unsigned int m_uintLagTime;                // ms from registration to the first firing
    unsigned int m_uintInterval;               // ms between firings; 0 fires once
    timespec m_tvNextTriggerTime;              // next firing, monotonic clock
};
typedef _APARTMENT_TIMER_INFO APARTMENT_TIMER_INFO;

// One pending firing in the heap.
struct _APARTMENT_RUNTIME_TIMER {
    unsigned int m_uintTimerId;
    timespec m_tvNextTriggerTime;
};
typedef _APARTMENT_RUNTIME_TIMER APARTMENT_RUNTIME_TIMER;

class CApartmentTimerManager {
public:
    // The id that stands for no timer: what setTimer, and every timer
    // function above it up to the C interface, returns when it sets none.
    static constexpr unsigned int NO_TIMER_ID = 0xFFFFFFFFu;

    // Heap order: true when `a` is due later than `b`, so the top of the
    // heap is the earliest firing. Equal times have no tie-break.
    struct _early_timer {
        bool operator()(const APARTMENT_RUNTIME_TIMER& a, const APARTMENT_RUNTIME_TIMER& b) const;
    };

    // Creates the instance if there is none.
    static void createUniqueApartmentTimerManager();
    // The instance, or null.
    static CApartmentTimerManager* getUniqueApartmentTimerManager();
    // Destroys the instance, if any; its thread is stopped and joined first.
    static void destroyUniqueApartmentTimerManager();

    // Stops and joins the timer thread, then drops every registered timer
    // (releasing the apartment and node references they hold).
    virtual ~CApartmentTimerManager();

    // Registers a timer whose first firing is info.m_uintLagTime ms from
    // now, and fills info.m_tvNextTriggerTime. Starts the timer thread on
    // first use. Returns the new id, or NO_TIMER_ID when no id is free or the
    // thread cannot be started (nothing is then registered). Never blocks
    // beyond the manager's mutexes.
    unsigned int setTimer(APARTMENT_TIMER_INFO& info);
    // Forgets the timer; a pending firing is discarded when it comes due.
    // False when the id is not registered.
    bool killTimer(unsigned int uintTimerId);
    // Re-arms a periodic timer one interval after its last due time, or now
    // if that is already past (missed periods are dropped). False when the id
    // is unknown or the timer fires once (it then stays registered until
    // killed).
    bool generateNextTimer(unsigned int uintTimerId);

    // True when the firing is due now.
    bool expiredTimer(const APARTMENT_RUNTIME_TIMER& runtimeTimer);
    // Posts the firing to its apartment. False when the timer is no longer
    // registered (the firing is dropped).
    bool processTimer(APARTMENT_RUNTIME_TIMER& runtimeTimer);
    // One step of the timer thread: fires every firing that is due, in due
    // order, or else waits until the earliest is due, an earlier one is
    // scheduled or termination is requested. Blocks; timer thread only.
    void processNextTimer();

    static void* apartmentTimerThreadFunc(void* pParam);

    CApartmentTimerManager(const CApartmentTimerManager&) = delete;
    CApartmentTimerManager& operator=(const CApartmentTimerManager&) = delete;

protected:
    // Only the singleton operations (and tests) make managers.
    CApartmentTimerManager();

private:
    // Pushes a firing onto the heap under m_QueueMutex and wakes the timer
    // thread when the firing is due before everything it was waiting for.
    void scheduleFiring(const APARTMENT_RUNTIME_TIMER& runtimeTimer);

protected:

    // Guards m_ApartmentTimerInfoMap, m_uintNextTimerId and m_hTimerThread.
    OS::TBaseMutex m_TimerMapMutex;
    // Guards m_RuntimeTimerQueue; m_QueueActiveCondition is bound to it.
    OS::TBaseMutex m_QueueMutex;
    // Wakes the timer thread: a new firing, a re-armed timer, termination.
    OS::TCondition m_QueueActiveCondition;
    std::priority_queue<APARTMENT_RUNTIME_TIMER, std::vector<APARTMENT_RUNTIME_TIMER>, _early_timer>
        m_RuntimeTimerQueue;
    std::map<unsigned int, APARTMENT_TIMER_INFO> m_ApartmentTimerInfoMap;
    // Where the next id search starts.
    unsigned int m_uintNextTimerId;
    // Set by the destructor; the timer thread reads it between steps and,
    // under m_QueueMutex, before every wait.
    std::atomic<bool> m_bRequestTerminate;
    // 0 while no thread runs; written once by the first setTimer.
    pthread_t m_hTimerThread;

    static std::atomic<CApartmentTimerManager*> m_pUniqueApartmentTimerManager;
};

#endif
