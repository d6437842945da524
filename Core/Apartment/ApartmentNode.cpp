#include "ApartmentNode.h"

#include <vector>

#include "ApartmentGuard.h"
#include "ApartmentTimerManager.h"
#include "GroundKit/OS/OS_Clock.h"
#include "GroundKit/OS/OS_Thread.h"
#include "os_log.h"

namespace {
const long long NS_PER_MS = 1000000;
long long nowNs() {
    const timespec now = OS::Clock::monotonicNow();
    return static_cast<long long>(now.tv_sec) * 1000 * NS_PER_MS + now.tv_nsec;
}
}  // namespace

CApartmentNode::CApartmentNode(IApartment* pApartment)
    : m_QueueNotEmptyCondition(nullptr, USE_STD), m_pApartment(pApartment) {
    m_QueueNotEmptyCondition.bindMutex(&m_DataMutex);
}

CApartmentNode::~CApartmentNode() { killAllTimer(); }

CReference<IApartmentNodeCallback> CApartmentNode::callback() {
    TAutoMutex<OS::TBaseMutex> lock(&m_CallbackMutex);
    return m_apartmentNodeCallback;
}

bool CApartmentNode::setCallback(IApartmentNodeCallback* pCallback) {
    if (pCallback != nullptr) pCallback->addRef();
    CReference<IApartmentNodeCallback> previous;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_CallbackMutex);
        previous = m_apartmentNodeCallback;
        m_apartmentNodeCallback = pCallback;
    }
    // `previous` drops the old callback here, outside the lock, in case its
    // destruction calls back into the library.
    return true;
}

void CApartmentNode::notifyApartmentOffline(const char* strSourceApartmentUrl) {
    CReference<IApartmentNodeCallback> cb = callback();
    if (!cb.nil()) cb->onApartmentOffline(strSourceApartmentUrl);
}

void CApartmentNode::onApartmentTimer(unsigned int uintTimerId) {
    CReference<IApartmentNodeCallback> cb = callback();
    // A callback that throws costs its tick, not the timer.
    runThenAlways([&] { if (!cb.nil()) cb->onTimer(uintTimerId); },
                  [&] {
                      CApartmentTimerManager* manager =
                          CApartmentTimerManager::getUniqueApartmentTimerManager();
                      if (manager != nullptr && !manager->generateNextTimer(uintTimerId))
                          killTimer(uintTimerId);
                  });
}

void CApartmentNode::receiveRequest(const char* strSourceApartmentUrl,
                                    const char* strSourceNodeUrl,
                                    const char* strTargetApartmentUrl,
                                    const char* strTargetNodeUrl, unsigned int uintRequestId,
                                    const void* pRequestBuffer, unsigned int uintBufLen,
                                    bool bRequireResponse) {
    CReference<IApartmentNodeCallback> cb = callback();
    if (cb.nil()) return;
    cb->onRequestReceived(strSourceApartmentUrl, strSourceNodeUrl, strTargetApartmentUrl,
                          strTargetNodeUrl, uintRequestId, pRequestBuffer, uintBufLen,
                          bRequireResponse);
}

bool CApartmentNode::addResponse(unsigned int uintRequestId, int intResponseCode,
                                 const void* pResponseBuffer, unsigned int uintBufLen) {
    CReference<IApartmentNodeResponseData> data(
        new CApartmentNodeResponseData(intResponseCode, pResponseBuffer, uintBufLen));
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_DataMutex);
        if (m_responseDataMap.count(uintRequestId) != 0) return false;
        m_responseDataMap.emplace(uintRequestId, data);
        m_QueueNotEmptyCondition.notifyAll();
    }
    return true;
}

CReference<IApartmentNodeResponseData> CApartmentNode::findResponse(unsigned int uintRequestId) {
    TAutoMutex<OS::TBaseMutex> lock(&m_DataMutex);
    auto it = m_responseDataMap.find(uintRequestId);
    return it == m_responseDataMap.end() ? CReference<IApartmentNodeResponseData>() : it->second;
}

void CApartmentNode::expectResponse(unsigned int uintRequestId) {
    TAutoMutex<OS::TBaseMutex> lock(&m_DataMutex);
    m_Awaited[uintRequestId].m_llSince = nowNs();
}

void CApartmentNode::forgetResponse(unsigned int uintRequestId) {
    TAutoMutex<OS::TBaseMutex> lock(&m_DataMutex);
    m_Awaited.erase(uintRequestId);
}

CApartmentNode::ANSWER CApartmentNode::acceptResponse(unsigned int uintRequestId,
                                                      int intResponseCode,
                                                      const void* pResponseBuffer,
                                                      unsigned int uintBufLen) {
    std::vector<CReference<IApartmentNodeResponseData>> dropped;  // released after the mutex
    TAutoMutex<OS::TBaseMutex> lock(&m_DataMutex);
    const long long now = nowNs();
    sweepLocked(now, dropped);
    if (m_responseDataMap.count(uintRequestId) != 0) return ANSWER_DUPLICATE;
    auto awaited = m_Awaited.find(uintRequestId);
    if (awaited == m_Awaited.end()) return ANSWER_UNEXPECTED;
    long long expires = now + static_cast<long long>(m_uintUnreadLimitMs) * NS_PER_MS;
    const bool givenUp = awaited->second.m_bGivenUp;
    if (givenUp) {
        expires = awaited->second.m_llSince + GIVE_UP_GRACE_MS * NS_PER_MS;
        if (expires <= now) {
            m_Awaited.erase(awaited);
            return ANSWER_UNEXPECTED;
        }
    }
    m_Awaited.erase(awaited);
    m_responseDataMap.emplace(uintRequestId, CReference<IApartmentNodeResponseData>(
                                                 new CApartmentNodeResponseData(
                                                     intResponseCode, pResponseBuffer, uintBufLen)));
    m_ExpiresAt[uintRequestId] = m_Expiries.emplace(expires, _EXPIRY{uintRequestId, givenUp});
    m_QueueNotEmptyCondition.notifyAll();
    return ANSWER_STORED;
}

void CApartmentNode::sweepLocked(long long llNow,
                                 std::vector<CReference<IApartmentNodeResponseData>>& dropped) {
    size_t unread = 0;
    while (!m_Expiries.empty() && m_Expiries.begin()->first <= llNow) {
        const unsigned int id = m_Expiries.begin()->second.m_uintRequestId;
        const bool quiet = m_Expiries.begin()->second.m_bQuiet;
        m_Expiries.erase(m_Expiries.begin());
        m_ExpiresAt.erase(id);
        auto data = m_responseDataMap.find(id);
        if (data == m_responseDataMap.end()) continue;
        dropped.push_back(data->second);
        m_responseDataMap.erase(data);
        // Answers to given-up requests go quietly: their requester moved on.
        if (!quiet) ++unread;
    }
    if (unread != 0)
        log_task_line("[Apartment Warning]: %zu response(s) dropped unread after %u ms "
                      "(APARTMENT_UNREAD_RESPONSE_MS).",
                      unread, m_uintUnreadLimitMs);

    // The requests: looked over now and then, not per call.
    if (llNow < m_llNextAwaitedSweep) return;
    const long long limit = static_cast<long long>(m_uintUnreadLimitMs) * NS_PER_MS;
    m_llNextAwaitedSweep = llNow + (limit / 4 > 1000 * NS_PER_MS ? 1000 * NS_PER_MS : limit / 4);
    for (auto it = m_Awaited.begin(); it != m_Awaited.end();) {
        const long long age = llNow - it->second.m_llSince;
        const bool over = it->second.m_bGivenUp ? age > GIVE_UP_GRACE_MS * NS_PER_MS : age > limit;
        if (over && it->second.m_uintReaders == 0)
            it = m_Awaited.erase(it);
        else
            ++it;
    }
}

bool CApartmentNode::getResponse(unsigned int uintRequestId, int& intResponseCode,
                                 void* pResponseBuffer, unsigned int& uintBufLen,
                                 int intTimeout) {
    std::vector<CReference<IApartmentNodeResponseData>> dropped;  // released after the mutex
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_DataMutex);
        sweepLocked(nowNs(), dropped);
        auto awaited = m_Awaited.find(uintRequestId);
        if (awaited != m_Awaited.end()) {
            ++awaited->second.m_uintReaders;
            awaited->second.m_bGivenUp = false;  // a new read takes it up again
        }
    }
    bool found = false;
    struct ReadEnd {
        CApartmentNode* node;
        unsigned int id;
        const bool& found;
        bool givesUp;
        ~ReadEnd() {
            TAutoMutex<OS::TBaseMutex> lock(&node->m_DataMutex);
            auto awaited = node->m_Awaited.find(id);
            if (awaited == node->m_Awaited.end() || --awaited->second.m_uintReaders != 0) return;
            if (!found && givesUp) {
                awaited->second.m_bGivenUp = true;
                awaited->second.m_llSince = nowNs();
            }
        }
    } end{this, uintRequestId, found, intTimeout > 0};
    found = waitResponse(uintRequestId, intResponseCode, pResponseBuffer, uintBufLen, intTimeout);
    return found;
}

bool CApartmentNode::waitResponse(unsigned int uintRequestId, int& intResponseCode,
                                  void* pResponseBuffer, unsigned int& uintBufLen,
                                  int intTimeout) {
    const timespec deadline = OS::Clock::deadlineAfter(intTimeout);

    unsigned long lockedThreadId = 0;
    const bool bDispatchLocked =
        m_pApartment != nullptr && m_pApartment->lockedDispatchThreadId(lockedThreadId);
    const bool bSomeoneElseDispatches =
        bDispatchLocked && lockedThreadId != OS::Thread::current();

    for (;;) {
        if (bSomeoneElseDispatches) {
            // Another thread dispatches: wait for it to store the response.
            CReference<IApartmentNodeResponseData> data;
            {
                TAutoMutex<OS::TBaseMutex> lock(&m_DataMutex);
                for (;;) {
                    auto it = m_responseDataMap.find(uintRequestId);
                    if (it != m_responseDataMap.end()) {
                        data = it->second;
                        break;
                    }
                    const int rc = intTimeout < 0 ? m_QueueNotEmptyCondition.wait()
                                                  : m_QueueNotEmptyCondition.wait(deadline);
                    if (rc != WAIT_CONDITION_OK) return false;
                }
            }
            return data->getResponse(intResponseCode, pResponseBuffer, uintBufLen);
        }

        // Nobody else would deliver the response: pump one message ourselves.
        CReference<IApartmentNodeResponseData> data = findResponse(uintRequestId);
        if (!data.nil()) return data->getResponse(intResponseCode, pResponseBuffer, uintBufLen);
        if (m_pApartment == nullptr) return false;
        APARTMENT_TMSG msg;
        if (!m_pApartment->getMessage(msg, deadline)) return false;
        if (m_pApartment->dispatchMessage(msg) != 1) return false;
    }
}

bool CApartmentNode::removeResponse(unsigned int uintRequestId) {
    CReference<IApartmentNodeResponseData> removed;
    TAutoMutex<OS::TBaseMutex> lock(&m_DataMutex);
    m_Awaited.erase(uintRequestId);  // handed out: a second answer is not awaited
    auto at = m_ExpiresAt.find(uintRequestId);
    if (at != m_ExpiresAt.end()) {
        m_Expiries.erase(at->second);
        m_ExpiresAt.erase(at);
    }
    auto it = m_responseDataMap.find(uintRequestId);
    if (it == m_responseDataMap.end()) return false;
    removed = it->second;  // released after the mutex, when `lock` has gone
    m_responseDataMap.erase(it);
    return true;
}

size_t CApartmentNode::bookkept() {
    TAutoMutex<OS::TBaseMutex> lock(&m_DataMutex);
    return m_Awaited.size() + m_responseDataMap.size() + m_Expiries.size() + m_ExpiresAt.size();
}

unsigned int CApartmentNode::setTimer(unsigned int uintLagTime, unsigned int uintInterval) {
    CApartmentTimerManager* manager = CApartmentTimerManager::getUniqueApartmentTimerManager();
    if (manager == nullptr) return CApartmentTimerManager::NO_TIMER_ID;
    APARTMENT_TIMER_INFO info;
    if (m_pApartment != nullptr) m_pApartment->addRef();
    info.m_Apartment = m_pApartment;
    addRef();
    info.m_ApartmentNode = this;
    info.m_uintLagTime = uintLagTime;
    info.m_uintInterval = uintInterval;
    const unsigned int id = manager->setTimer(info);
    if (id < CApartmentTimerManager::NO_TIMER_ID) {
        TAutoMutex<OS::TBaseMutex> lock(&m_TimerIdMutex);
        m_timerIdSet.insert(id);
    }
    return id;
}

unsigned int CApartmentNode::setSingleTimer(unsigned int uintLagTime) {
    return setTimer(uintLagTime, 0);
}

bool CApartmentNode::killTimer(unsigned int uintTimerId) {
    CApartmentTimerManager* manager = CApartmentTimerManager::getUniqueApartmentTimerManager();
    if (manager == nullptr) return false;
    const bool killed = manager->killTimer(uintTimerId);
    TAutoMutex<OS::TBaseMutex> lock(&m_TimerIdMutex);
    m_timerIdSet.erase(uintTimerId);
    return killed;
}

void CApartmentNode::killAllTimer() {
    CApartmentTimerManager* manager = CApartmentTimerManager::getUniqueApartmentTimerManager();
    if (manager == nullptr) return;
    std::set<unsigned int> ids;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_TimerIdMutex);
        ids.swap(m_timerIdSet);
    }
    for (unsigned int id : ids) manager->killTimer(id);
}
