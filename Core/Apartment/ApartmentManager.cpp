#include "ApartmentManager.h"

#include <string_view>

#include <vector>

#include "ApartmentFactory.h"
#include "ApartmentHelper.h"

CApartmentManager* CApartmentManager::m_pUniqueApartmentManager = nullptr;

void CApartmentManager::createUniqueApartmentManager() {
    if (m_pUniqueApartmentManager == nullptr) m_pUniqueApartmentManager = new CApartmentManager();
}

CApartmentManager* CApartmentManager::getUniqueApartmentManager() {
    return m_pUniqueApartmentManager;
}

void CApartmentManager::destroyUniqueApartmentManager() {
    if (m_pUniqueApartmentManager == nullptr) return;
    delete m_pUniqueApartmentManager;
    m_pUniqueApartmentManager = nullptr;
}

IApartment* CApartmentManager::createApartment(const char* strApartmentUrl, bool bListen) {
    CReference<IApartment> apartment(CApartmentFactory::createApartment(strApartmentUrl, bListen));
    if (apartment.nil()) return nullptr;
    std::string key;
    CApartmentHelper::getApartmentUrl(apartment, key);
    TAutoMutex<OS::TRecursiveMutex> lock(&m_ApartmentMutex);
    if (m_ApartmentMap.count(key) != 0) return nullptr;  // `apartment` tears down after unlock
    m_ApartmentMap.emplace(key, apartment);
    apartment->addRef();
    return apartment;
}

IApartment* CApartmentManager::findApartment(const char* strApartmentUrl) {
    if (strApartmentUrl == nullptr) return nullptr;
    TAutoMutex<OS::TRecursiveMutex> lock(&m_ApartmentMutex);
    auto it = m_ApartmentMap.find(std::string_view(strApartmentUrl));
    if (it == m_ApartmentMap.end()) return nullptr;
    it->second->addRef();
    return it->second;
}

bool CApartmentManager::removeApartment(const char* strApartmentUrl) {
    if (strApartmentUrl == nullptr) return false;
    CReference<IApartment> removed;  // released after the unlock: it may be the last reference
    TAutoMutex<OS::TRecursiveMutex> lock(&m_ApartmentMutex);
    auto it = m_ApartmentMap.find(strApartmentUrl);
    if (it == m_ApartmentMap.end()) return false;
    removed = it->second;
    m_ApartmentMap.erase(it);
    return true;
}

void CApartmentManager::removeAllApartments() {
    std::vector<CReference<IApartment>> apartments;
    {
        TAutoMutex<OS::TRecursiveMutex> lock(&m_ApartmentMutex);
        apartments.reserve(m_ApartmentMap.size());
        for (auto& entry : m_ApartmentMap) apartments.push_back(entry.second);
        m_ApartmentMap.clear();
    }
    while (!apartments.empty()) apartments.pop_back();
}
