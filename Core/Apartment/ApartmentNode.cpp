#include "ApartmentNode.h"

#include <vector>

#include "ApartmentTimerManager.h"
#include "GroundKit/OS/OS_Clock.h"
#include "GroundKit/OS/OS_Thread.h"

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
    if (!cb.nil()) cb->onTimer(uintTimerId);
    CApartmentTimerManager* manager = CApartmentTimerManager::getUniqueApartmentTimerManager();
    if (manager != nullptr && !manager->generateNextTimer(uintTimerId)) killTimer(uintTimerId);
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

bool CApartmentNode::getResponse(unsigned int uintRequestId, int& intResponseCode,
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
    auto it = m_responseDataMap.find(uintRequestId);
    if (it == m_responseDataMap.end()) return false;
    removed = it->second;  // released after the mutex, when `lock` has gone
    m_responseDataMap.erase(it);
    return true;
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
