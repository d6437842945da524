#include "ApartmentTimerManager.h"

#include "ApartmentGuard.h"
#include "GroundKit/OS/OS_Clock.h"
#include "IApartmentEx.h"

namespace {
// How long the timer thread rests after a step that threw.
const unsigned long FAULT_PAUSE_MS = 100;
}  // namespace

std::atomic<CApartmentTimerManager*> CApartmentTimerManager::m_pUniqueApartmentTimerManager{nullptr};

bool CApartmentTimerManager::_early_timer::operator()(const APARTMENT_RUNTIME_TIMER& a,
                                                      const APARTMENT_RUNTIME_TIMER& b) const {
    return OS::Clock::isEarlier(b.m_tvNextTriggerTime, a.m_tvNextTriggerTime);
}

void CApartmentTimerManager::createUniqueApartmentTimerManager() {
    if (m_pUniqueApartmentTimerManager.load() == nullptr)
        m_pUniqueApartmentTimerManager.store(new CApartmentTimerManager());
}

CApartmentTimerManager* CApartmentTimerManager::getUniqueApartmentTimerManager() {
    return m_pUniqueApartmentTimerManager.load();
}

void CApartmentTimerManager::destroyUniqueApartmentTimerManager() {
    // Cleared before the delete: the references the manager drops may tear
    // down apartments and nodes, which then find no manager instead of one
    // that is half destroyed.
    CApartmentTimerManager* pManager = m_pUniqueApartmentTimerManager.exchange(nullptr);
    delete pManager;
}

CApartmentTimerManager::CApartmentTimerManager()
    : m_TimerMapMutex(MUTEX_NONE, USE_STD, nullptr),
      m_QueueMutex(MUTEX_NONE, USE_STD, nullptr),
      m_QueueActiveCondition(nullptr, USE_STD),
      m_uintNextTimerId(1),
      m_bRequestTerminate(false),
      m_hTimerThread(0) {
    m_QueueActiveCondition.bindMutex(&m_QueueMutex);
}

CApartmentTimerManager::~CApartmentTimerManager() {
    if (m_hTimerThread != 0) {
        m_bRequestTerminate = true;
        // Notified under the queue mutex, with the flag already set: the
        // thread tests the flag under that mutex right before each wait, so
        // it either sees the flag or is already waiting when the notification
        // comes. Without the mutex a thread that had just tested the flag
        // could miss the notification and sleep until its next deadline, or
        // forever on an empty heap.
        {
            TAutoMutex<OS::TBaseMutex> lock(&m_QueueMutex);
            m_QueueActiveCondition.notifyAll();
        }
        OS::Thread::join(m_hTimerThread, USE_DEFAULT);
        m_hTimerThread = 0;
    }
    // The members go now: the map (dropping the references it holds), the
    // heap, the condition and the mutexes.
}

unsigned int CApartmentTimerManager::setTimer(APARTMENT_TIMER_INFO& info) {
    unsigned int uintTimerId = NO_TIMER_ID;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_TimerMapMutex);
        if (m_hTimerThread == 0) {
            m_bRequestTerminate = false;
            pthread_t hThread = 0;
            // A timer that no thread would ever fire is refused.
            if (!createLibraryThread("timer", &hThread, &CApartmentTimerManager::apartmentTimerThreadFunc,
                                     this, USE_DEFAULT))
                return NO_TIMER_ID;
            m_hTimerThread = hThread;
        }

        // The search gives up one short of a full turn, so the value just
        // below the starting point is never handed out.
        const unsigned int uintLast = m_uintNextTimerId - 1;
        for (unsigned int candidate = m_uintNextTimerId;; ++candidate) {
            if (candidate == uintLast) return NO_TIMER_ID;
            if (candidate != 0 && m_ApartmentTimerInfoMap.find(candidate) == m_ApartmentTimerInfoMap.end()) {
                uintTimerId = candidate;
                break;
            }
        }

        info.m_tvNextTriggerTime = OS::Clock::monotonicDeadline(info.m_uintLagTime);
        m_ApartmentTimerInfoMap.insert(std::make_pair(uintTimerId, info));
        m_uintNextTimerId = uintTimerId + 1;
    }

    scheduleFiring(APARTMENT_RUNTIME_TIMER{uintTimerId, info.m_tvNextTriggerTime});
    return uintTimerId;
}

bool CApartmentTimerManager::killTimer(unsigned int uintTimerId) {
    // Taken out of the map under the lock, destroyed after it: dropping the
    // last reference to an apartment tears it down, and that calls back here.
    decltype(m_ApartmentTimerInfoMap)::node_type killed;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_TimerMapMutex);
        auto it = m_ApartmentTimerInfoMap.find(uintTimerId);
        if (it == m_ApartmentTimerInfoMap.end()) return false;
        killed = m_ApartmentTimerInfoMap.extract(it);
    }
    return true;
}

bool CApartmentTimerManager::generateNextTimer(unsigned int uintTimerId) {
    APARTMENT_RUNTIME_TIMER runtimeTimer{uintTimerId, {0, 0}};
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_TimerMapMutex);
        auto it = m_ApartmentTimerInfoMap.find(uintTimerId);
        if (it == m_ApartmentTimerInfoMap.end()) return false;
        APARTMENT_TIMER_INFO& info = it->second;
        const timespec now = OS::Clock::monotonicNow();
        OS::Clock::addMilliseconds(&info.m_tvNextTriggerTime, info.m_uintInterval);
        // A late dispatch fires once, at once, instead of catching up.
        if (OS::Clock::isEarlier(info.m_tvNextTriggerTime, now)) info.m_tvNextTriggerTime = now;
        if (info.m_uintInterval == 0) return false;
        runtimeTimer.m_tvNextTriggerTime = info.m_tvNextTriggerTime;
    }

    scheduleFiring(runtimeTimer);
    return true;
}

void CApartmentTimerManager::scheduleFiring(const APARTMENT_RUNTIME_TIMER& runtimeTimer) {
    TAutoMutex<OS::TBaseMutex> lock(&m_QueueMutex);
    // The timer thread sleeps until the earliest firing it saw (or without
    // limit on an empty heap), so only a firing that becomes the new top can
    // need it sooner. Waking it for every re-arm would cost a futex wake and
    // a context switch per firing for nothing: with thousands of periodic
    // timers that is most of the thread's work.
    const bool bNewTop = m_RuntimeTimerQueue.empty() ||
                         _early_timer()(m_RuntimeTimerQueue.top(), runtimeTimer);
    m_RuntimeTimerQueue.push(runtimeTimer);
    if (bNewTop) m_QueueActiveCondition.notifyAll();
}

bool CApartmentTimerManager::expiredTimer(const APARTMENT_RUNTIME_TIMER& runtimeTimer) {
    return OS::Clock::hasPassed(runtimeTimer.m_tvNextTriggerTime);
}

bool CApartmentTimerManager::processTimer(APARTMENT_RUNTIME_TIMER& runtimeTimer) {
    // Copied under the lock, used after it: these references keep the
    // apartment and the node alive while posting, even if the timer is
    // killed meanwhile, and are dropped with no timer lock held.
    CReference<IApartment> apartment;
    CReference<IApartmentNode> node;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_TimerMapMutex);
        auto it = m_ApartmentTimerInfoMap.find(runtimeTimer.m_uintTimerId);
        if (it == m_ApartmentTimerInfoMap.end()) return false;
        apartment = it->second.m_Apartment;
        node = it->second.m_ApartmentNode;
    }
    CReference<IApartmentEx> apartmentEx(asIApartmentEx(static_cast<IApartment*>(apartment)));
    if (apartmentEx.nil()) return false;

    APARTMENT_TMSG msg{};
    msg.m_intMsg = APARTMENT_TIMER;
    msg.wParam = reinterpret_cast<WPARAM>(static_cast<IApartmentNode*>(node));
    msg.lParam = static_cast<LPARAM>(runtimeTimer.m_uintTimerId);
    // The message carries a reference of its own; dispatch releases it.
    if (!node.nil()) node->addRef();
    apartmentEx->postMessage(msg);
    return true;
}

void CApartmentTimerManager::processNextTimer() {
    std::vector<APARTMENT_RUNTIME_TIMER> due;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_QueueMutex);
        // Tested under the queue mutex right before waiting: see the
        // destructor.
        if (m_bRequestTerminate) return;
        if (m_RuntimeTimerQueue.empty()) {
            m_QueueActiveCondition.wait();
            return;
        }
        if (!expiredTimer(m_RuntimeTimerQueue.top())) {
            m_QueueActiveCondition.wait(m_RuntimeTimerQueue.top().m_tvNextTriggerTime);
            return;
        }
        // Everything due is taken in one go: timers that share a period come
        // due together, and taking the queue mutex once per firing (against
        // the dispatchers re-arming) made a burst of thousands fall behind.
        // They are still posted in due order, each with processTimer.
        // One reading of the clock serves the whole batch.
        const timespec now = OS::Clock::monotonicNow();
        do {
            due.push_back(m_RuntimeTimerQueue.top());
            m_RuntimeTimerQueue.pop();
        } while (!m_RuntimeTimerQueue.empty() &&
                 !OS::Clock::isEarlier(now, m_RuntimeTimerQueue.top().m_tvNextTriggerTime));
    }
    // One firing that cannot be posted costs that firing only.
    for (APARTMENT_RUNTIME_TIMER& runtimeTimer : due)
        guarded("timer thread, firing dropped", false,
                [this, &runtimeTimer] { return processTimer(runtimeTimer); });
}

void* CApartmentTimerManager::apartmentTimerThreadFunc(void* pParam) {
    if (pParam == nullptr) return nullptr;
    CApartmentTimerManager* pManager = static_cast<CApartmentTimerManager*>(pParam);
    while (!pManager->m_bRequestTerminate) {
        if (guarded("timer thread, step abandoned", false, [pManager] {
                pManager->processNextTimer();
                return true;
            }))
            continue;
        // Rest before the next step, so that a fault that repeats at once
        // does not make the thread spin.
        TAutoMutex<OS::TBaseMutex> lock(&pManager->m_QueueMutex);
        if (!pManager->m_bRequestTerminate)
            pManager->m_QueueActiveCondition.wait(OS::Clock::monotonicDeadline(FAULT_PAUSE_MS));
    }
    return nullptr;
}
