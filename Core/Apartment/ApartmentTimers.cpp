// CApartment's timers (its own and its nodes') and the heartbeat that
// watches a remote apartment with alive frames.
#include "Apartment.h"
#include "ApartmentFrameCodec.h"
#include "ApartmentGuard.h"
#include "ApartmentSink.h"
#include "ApartmentTimerManager.h"

unsigned int CApartment::setTimer(const char* strNodeUrl, unsigned int uintLagTime,
                                  unsigned int uintInterval) {
    if (strNodeUrl != nullptr) {
        TAutoMutex<OS::TRecursiveMutex> lock(&m_NodeManageMutex);
        auto it = m_ApartmentNodeMap.find(strNodeUrl);
        return it == m_ApartmentNodeMap.end() ? CApartmentTimerManager::NO_TIMER_ID
                                              : it->second->setTimer(uintLagTime, uintInterval);
    }
    CApartmentTimerManager* manager = CApartmentTimerManager::getUniqueApartmentTimerManager();
    if (manager == nullptr) return CApartmentTimerManager::NO_TIMER_ID;
    APARTMENT_TIMER_INFO info;
    addRef();
    info.m_Apartment = static_cast<IApartment*>(this);
    info.m_uintLagTime = uintLagTime;
    info.m_uintInterval = uintInterval;
    const unsigned int id = manager->setTimer(info);
    if (id != CApartmentTimerManager::NO_TIMER_ID) {
        TAutoMutex<OS::TBaseMutex> lock(&m_TimerIdMutex);
        m_timerIdSet.insert(id);
    }
    return id;
}

unsigned int CApartment::setSingleTimer(const char* strNodeUrl, unsigned int uintLagTime) {
    return setTimer(strNodeUrl, uintLagTime, 0);
}

bool CApartment::killTimer(const char* strNodeUrl, unsigned int uintTimerId) {
    if (strNodeUrl != nullptr) {
        TAutoMutex<OS::TRecursiveMutex> lock(&m_NodeManageMutex);
        auto it = m_ApartmentNodeMap.find(strNodeUrl);
        return it != m_ApartmentNodeMap.end() && it->second->killTimer(uintTimerId);
    }
    CApartmentTimerManager* manager = CApartmentTimerManager::getUniqueApartmentTimerManager();
    if (manager == nullptr || !manager->killTimer(uintTimerId)) return false;
    TAutoMutex<OS::TBaseMutex> lock(&m_TimerIdMutex);
    m_timerIdSet.erase(uintTimerId);
    return true;
}

void CApartment::killAllTimer() {
    std::set<unsigned int> ids;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_TimerIdMutex);
        ids.swap(m_timerIdSet);
    }
    CApartmentTimerManager* manager = CApartmentTimerManager::getUniqueApartmentTimerManager();
    if (manager == nullptr) return;
    for (unsigned int id : ids) manager->killTimer(id);
}

bool CApartment::keepAliveWith(const char* strRemoteApartmentUrl, unsigned int uintAliveCounter,
                               unsigned int uintAliveInterval) {
    const std::string url = strRemoteApartmentUrl != nullptr ? strRemoteApartmentUrl : "";
    TAutoMutex<OS::TBaseMutex> lock(&m_HeartbeatMutex);
    auto watched = m_HeartbeatTimerIdMap.find(url);
    if (uintAliveCounter != 0) {
        if (watched != m_HeartbeatTimerIdMap.end()) return false;
        const unsigned int id = setTimer(nullptr, 0, uintAliveInterval);
        m_HeartbeatTimerIdMap[url] = id;
        m_HeartbeatTimerInfoMap[id] = _HEARTBEAT_INFO{url, uintAliveCounter, uintAliveCounter};
        return true;
    }
    if (watched == m_HeartbeatTimerIdMap.end()) return false;
    const unsigned int id = watched->second;
    killTimer(nullptr, id);
    m_HeartbeatTimerInfoMap.erase(id);
    m_HeartbeatTimerIdMap.erase(watched);
    return true;
}

void CApartment::onApartmentTimer(IApartmentNode* pNode, unsigned int uintTimerId) {
    if (pNode != nullptr) {
        pNode->onApartmentTimer(uintTimerId);
        return;
    }
    bool heartbeat = false;
    bool counterLeft = false;
    std::string remoteUrl;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_HeartbeatMutex);
        auto it = m_HeartbeatTimerInfoMap.find(uintTimerId);
        if (it != m_HeartbeatTimerInfoMap.end()) {
            heartbeat = true;
            counterLeft = it->second.m_uintAliveCounter != 0;
            remoteUrl = it->second.m_strRemoteApartmentUrl;
        }
    }
    auto rearm = [this, uintTimerId] {
        CApartmentTimerManager* manager = CApartmentTimerManager::getUniqueApartmentTimerManager();
        if (manager == nullptr || !manager->generateNextTimer(uintTimerId))
            killTimer(nullptr, uintTimerId);
    };
    if (heartbeat && counterLeft) {
        heartbeatWithApartment(remoteUrl.c_str(), uintTimerId);
        {
            // Looked up again: the watch may have been stopped meanwhile.
            TAutoMutex<OS::TBaseMutex> lock(&m_HeartbeatMutex);
            auto it = m_HeartbeatTimerInfoMap.find(uintTimerId);
            if (it != m_HeartbeatTimerInfoMap.end() && it->second.m_uintAliveCounter != 0)
                --it->second.m_uintAliveCounter;
        }
        rearm();
        return;
    }
    CReference<IApartmentCallback> cb = apartmentCallback();
    // A callback that throws costs its tick, not the timer.
    runThenAlways(
        [&] {
            if (cb.nil()) return;
            if (heartbeat)
                cb->onApartmentOffline(remoteUrl.c_str());
            else
                cb->onTimer(uintTimerId);
        },
        rearm);
}

bool CApartment::heartbeatWithApartment(const char* strRemoteApartmentUrl,
                                        unsigned int uintTimerId) {
    CReference<IApartmentSink> link;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        auto it = m_NonRtCommunicationSinkMap.find(strRemoteApartmentUrl != nullptr
                                                       ? strRemoteApartmentUrl
                                                       : "");
        if (it != m_NonRtCommunicationSinkMap.end()) link = it->second;
    }
    if (link.nil()) return false;
    std::string localUrl;
    CApartmentSinkHelper::getLocalApartmentUrl(link, localUrl);
    return sendPayload(link, APARTMENT_ALIVE_FRAME,
                       CApartmentFrameCodec::buildAlivePayload(localUrl, uintTimerId));
}

void CApartment::onAliveFrameArrived(IApartmentFrame* pFrame) {
    APARTMENT_ALIVE_PAYLOAD alive;
    if (!CApartmentFrameCodec::parseAlivePayload(pFrame->getFrameBuffer(), pFrame->getFrameSize(),
                                                 alive))
        return;
    CReference<IApartmentSink> link;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        auto it = m_NonRtCommunicationSinkMap.find(alive.m_strSenderApartmentUrl);
        if (it != m_NonRtCommunicationSinkMap.end()) link = it->second;
    }
    // Echo the payload unchanged.
    if (!link.nil())
        link->sendFrame(APARTMENT_ALIVE_ACK_FRAME, pFrame->getFrameBuffer(), pFrame->getFrameSize());
}

void CApartment::onAliveAckFrameArrived(IApartmentFrame* pFrame) {
    APARTMENT_ALIVE_PAYLOAD alive;
    if (!CApartmentFrameCodec::parseAlivePayload(pFrame->getFrameBuffer(), pFrame->getFrameSize(),
                                                 alive))
        return;
    TAutoMutex<OS::TBaseMutex> lock(&m_HeartbeatMutex);
    auto it = m_HeartbeatTimerInfoMap.find(alive.m_uintTimerId);
    if (it != m_HeartbeatTimerInfoMap.end())
        it->second.m_uintAliveCounter = it->second.m_uintMaxCounter;
}
