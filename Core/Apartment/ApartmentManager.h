// CApartmentManager: the process-wide registry of live apartments, keyed by
// the URL each reports after initialisation.
//
// The singleton is created and destroyed by library initialisation and
// shut-down, which the host must not race; the registry operations
// themselves may be called from any thread. m_ApartmentMutex is recursive,
// so a tear-down that reaches the manager again on the same thread does not
// deadlock; apartments are released outside it (a release may tear one
// down).
#ifndef APARTMENT_APARTMENTMANAGER_H
#define APARTMENT_APARTMENTMANAGER_H

#include <functional>
#include <map>
#include <string>

#include "GroundKit/OS/OS_Mutex.h"
#include "GroundKit/Reference/Reference.h"
#include "IApartment.h"

class CApartmentManager {
public:
    static void createUniqueApartmentManager();
    static CApartmentManager* getUniqueApartmentManager();
    static void destroyUniqueApartmentManager();

    // A new registered apartment with one reference for the caller, or null
    // (bad scheme, failed initialisation, URL already registered).
    IApartment* createApartment(const char* strApartmentUrl, bool bListen);
    // The apartment registered under exactly this URL, with one reference
    // for the caller, or null.
    IApartment* findApartment(const char* strApartmentUrl);
    // Drops the registry's reference; false when the URL is not registered.
    bool removeApartment(const char* strApartmentUrl);
    // Empties the registry and releases the apartments in reverse URL order,
    // outside the lock.
    void removeAllApartments();

    CApartmentManager(const CApartmentManager&) = delete;
    CApartmentManager& operator=(const CApartmentManager&) = delete;

private:
    CApartmentManager() = default;
    ~CApartmentManager() = default;

    OS::TRecursiveMutex m_ApartmentMutex;  // guards m_ApartmentMap
    // Looked up with the caller's const char* as it is.
    std::map<std::string, CReference<IApartment>, std::less<>> m_ApartmentMap;

    static CApartmentManager* m_pUniqueApartmentManager;
};

#endif
