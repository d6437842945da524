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
        _REQUEST& request = m_Requests[uintRequestId];
        if (!request.m_Answer.nil()) return false;
        request.m_Answer = data;
        request.m_llExpiresAt = 0;
        m_QueueNotEmptyCondition.notifyAll();
    }
    return true;
}

CReference<IApartmentNodeResponseData> CApartmentNode::findResponse(unsigned int uintRequestId,
                                                                    const void* pTakeInto,
                                                                    unsigned int uintRoom,
                                                                    bool& bTaken) {
    TAutoMutex<OS::TBaseMutex> lock(&m_DataMutex);
    auto it = m_Requests.find(uintRequestId);
    if (it == m_Requests.end() ||
        (it->second.m_llExpiresAt != 0 && it->second.m_llExpiresAt <= nowNs()))
        return CReference<IApartmentNodeResponseData>();
    CReference<IApartmentNodeResponseData> answer = it->second.m_Answer;
    if (pTakeInto != nullptr && !answer.nil()) {
        // Goes now, in this look-up, when it will fit: the reader's copy
        // cannot fail then, and removing it afterwards would cost a look-up.
        int code = 0;
        unsigned int stored = 0;
        answer->getResponse(code, nullptr, stored);
        if (stored <= uintRoom) {
            m_Requests.erase(it);
            bTaken = true;
        }
    }
    return answer;
}

void CApartmentNode::expectResponse(unsigned int uintRequestId) {
    TAutoMutex<OS::TBaseMutex> lock(&m_DataMutex);
    _REQUEST& request = m_Requests[uintRequestId];
    // Reads counted on an earlier answer of this id ended long ago.
    if (!request.m_bAwaited) request.m_uintReaders = 0;
    request.m_bAwaited = true;
    request.m_bGivenUp = false;
    request.m_llSince = nowNs();
}

void CApartmentNode::forgetResponse(unsigned int uintRequestId) {
    TAutoMutex<OS::TBaseMutex> lock(&m_DataMutex);
    auto it = m_Requests.find(uintRequestId);
    if (it == m_Requests.end()) return;
    if (it->second.m_Answer.nil())
        m_Requests.erase(it);
    else
        it->second.m_bAwaited = false;
}

CApartmentNode::ANSWER CApartmentNode::acceptResponse(unsigned int uintRequestId,
                                                      int intResponseCode,
                                                      const void* pResponseBuffer,
                                                      unsigned int uintBufLen) {
    std::vector<CReference<IApartmentNodeResponseData>> dropped;  // released after the mutex
    TAutoMutex<OS::TBaseMutex> lock(&m_DataMutex);
    const long long now = nowNs();
    sweepLocked(now, dropped);
    auto it = m_Requests.find(uintRequestId);
    if (it == m_Requests.end()) return ANSWER_UNEXPECTED;
    _REQUEST& request = it->second;
    if (!request.m_Answer.nil()) return ANSWER_DUPLICATE;
    if (!request.m_bAwaited) return ANSWER_UNEXPECTED;
    long long expires = now + static_cast<long long>(m_uintUnreadLimitMs) * NS_PER_MS;
    if (request.m_bGivenUp) {
        expires = request.m_llSince + GIVE_UP_GRACE_MS * NS_PER_MS;
        if (expires <= now) {
            m_Requests.erase(it);
            return ANSWER_UNEXPECTED;
        }
    }
    request.m_Answer = CReference<IApartmentNodeResponseData>(
        new CApartmentNodeResponseData(intResponseCode, pResponseBuffer, uintBufLen));
    request.m_llExpiresAt = expires;
    request.m_bQuiet = request.m_bGivenUp;
    request.m_bAwaited = false;
    m_QueueNotEmptyCondition.notifyAll();
    return ANSWER_STORED;
}

void CApartmentNode::sweepLocked(long long llNow,
                                 std::vector<CReference<IApartmentNodeResponseData>>& dropped) {
    if (llNow < m_llNextSweep) return;
    const long long limit = static_cast<long long>(m_uintUnreadLimitMs) * NS_PER_MS;
    // A quarter of the limit, at most a second: what waits past its time
    // is held that much longer at most.
    m_llNextSweep = llNow + (limit / 4 > 1000 * NS_PER_MS ? 1000 * NS_PER_MS : limit / 4);
    size_t unread = 0;
    for (auto it = m_Requests.begin(); it != m_Requests.end();) {
        _REQUEST& request = it->second;
        if (!request.m_Answer.nil()) {
            if (request.m_llExpiresAt != 0 && request.m_llExpiresAt <= llNow) {
                dropped.push_back(request.m_Answer);
                // Answers to given-up requests go quietly: their requester moved on.
                if (!request.m_bQuiet) ++unread;
                it = m_Requests.erase(it);
                continue;
            }
        } else if (request.m_bAwaited && request.m_uintReaders == 0) {
            const long long age = llNow - request.m_llSince;
            if (request.m_bGivenUp ? age > GIVE_UP_GRACE_MS * NS_PER_MS : age > limit) {
                it = m_Requests.erase(it);
                continue;
            }
        }
        ++it;
    }
    if (unread != 0)
        log_task_line("[Apartment Warning]: %zu response(s) dropped unread after %u ms "
                      "(APARTMENT_UNREAD_RESPONSE_MS).",
                      unread, m_uintUnreadLimitMs);
}

bool CApartmentNode::getResponse(unsigned int uintRequestId, int& intResponseCode,
                                 void* pResponseBuffer, unsigned int& uintBufLen,
                                 int intTimeout) {
    return readResponse(uintRequestId, intResponseCode, pResponseBuffer, uintBufLen, intTimeout,
                        false);
}

bool CApartmentNode::takeResponse(unsigned int uintRequestId, int& intResponseCode,
                                  void* pResponseBuffer, unsigned int& uintBufLen,
                                  int intTimeout) {
    return readResponse(uintRequestId, intResponseCode, pResponseBuffer, uintBufLen, intTimeout,
                        pResponseBuffer != nullptr);
}

bool CApartmentNode::readResponse(unsigned int uintRequestId, int& intResponseCode,
                                  void* pResponseBuffer, unsigned int& uintBufLen,
                                  int intTimeout, bool bTake) {
    std::vector<CReference<IApartmentNodeResponseData>> dropped;  // released after the mutex
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_DataMutex);
        sweepLocked(nowNs(), dropped);
        auto it = m_Requests.find(uintRequestId);
        if (it != m_Requests.end() && it->second.m_bAwaited) {
            ++it->second.m_uintReaders;
            it->second.m_bGivenUp = false;  // a new read takes it up again
        }
    }
    bool found = false;
    bool taken = false;
    struct ReadEnd {
        CApartmentNode* node;
        unsigned int id;
        const bool& found;
        const bool& taken;
        bool givesUp;
        ~ReadEnd() {
            if (taken) return;  // its entry went with the answer
            TAutoMutex<OS::TBaseMutex> lock(&node->m_DataMutex);
            auto it = node->m_Requests.find(id);
            if (it == node->m_Requests.end() || !it->second.m_bAwaited ||
                --it->second.m_uintReaders != 0)
                return;
            if (!found && givesUp) {
                it->second.m_bGivenUp = true;
                it->second.m_llSince = nowNs();
            }
        }
    } end{this, uintRequestId, found, taken, intTimeout > 0};
    found = waitResponse(uintRequestId, intResponseCode, pResponseBuffer, uintBufLen, intTimeout,
                         bTake, taken);
    if (found && bTake && !taken) removeResponse(uintRequestId);
    return found;
}

bool CApartmentNode::waitResponse(unsigned int uintRequestId, int& intResponseCode,
                                  void* pResponseBuffer, unsigned int& uintBufLen,
                                  int intTimeout, bool bTake, bool& bTaken) {
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
                    auto it = m_Requests.find(uintRequestId);
                    if (it != m_Requests.end() && !it->second.m_Answer.nil()) {
                        data = it->second.m_Answer;
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
        CReference<IApartmentNodeResponseData> data =
            findResponse(uintRequestId, bTake ? pResponseBuffer : nullptr, uintBufLen, bTaken);
        if (!data.nil()) return data->getResponse(intResponseCode, pResponseBuffer, uintBufLen);
        if (m_pApartment == nullptr) return false;
        APARTMENT_TMSG msg;
        if (!m_pApartment->getMessage(msg, deadline)) return false;
        if (m_pApartment->dispatchMessage(msg) != 1) return false;
    }
}

bool CApartmentNode::removeResponse(unsigned int uintRequestId) {
    CReference<IApartmentNodeResponseData> removed;  // released after the mutex
    TAutoMutex<OS::TBaseMutex> lock(&m_DataMutex);
    auto it = m_Requests.find(uintRequestId);
    if (it == m_Requests.end()) return false;
    // Handed out: a second answer is not awaited either.
    removed = it->second.m_Answer;
    m_Requests.erase(it);
    return !removed.nil();
}

size_t CApartmentNode::bookkept() {
    TAutoMutex<OS::TBaseMutex> lock(&m_DataMutex);
    return m_Requests.size();
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
