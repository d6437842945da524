// The exported C functions. Each one marshals: it checks initialisation,
// finds the apartment (holding a reference for the call), forwards to one
// apartment or node operation and maps the result. What is decided here is
// what only the C boundary defines: which apartment a URL names (null is
// the initialised one; for the node messaging functions, so is any URL
// with the scheme), that a read with a buffer also removes the response,
// and the status codes. Each body runs through guarded(), so nothing
// thrown inside the library or by a host callback it calls leaves a C
// function: the call returns its failure value instead (see ApartmentApi.h).
#include "ApartmentApi.h"

#include <atomic>
#include <cstring>
#include <string>

#include "ApartmentGuard.h"
#include "ApartmentHelper.h"
#include "ApartmentManager.h"
#include "ApartmentNode.h"
#include "ApartmentTimerManager.h"
#include "ApartmentVersion.h"
#include "GroundKit/Reference/Reference.h"
#include "os_log.h"

namespace {

std::atomic<bool> is_library_initialized(false);
// The initialised apartment, with a reference of its own, so that the calls
// naming it by null (nearly all of them) skip the registry. Written only by
// apartment_initialize/uninitialize, which the host does not run
// concurrently with other calls. A plain pointer: a process that never
// uninitialises must not tear the apartment down while it exits.
IApartment* initialized_apartment = nullptr;

// The status results as plain ints, the type the status functions return.
const int NOT_INITIALIZED = APARTMENT_NOT_INITIALIZED;
const int NO_APARTMENT = CAN_NOT_FIND_APARTMENT;
const int NO_NODE = CAN_NOT_FIND_APARTMENT_NODE;
const int FAILED = APARTMENT_METHOD_FAILED;

// The apartment named by the URL, or the initialised one for null.
CReference<IApartment> lookup(const char* strApartmentUrl) {
    if (strApartmentUrl == nullptr) {
        if (initialized_apartment == nullptr) return CReference<IApartment>();
        initialized_apartment->addRef();
        return CReference<IApartment>(initialized_apartment);
    }
    CApartmentManager* manager = CApartmentManager::getUniqueApartmentManager();
    if (manager == nullptr) return CReference<IApartment>();
    return CReference<IApartment>(manager->findApartment(strApartmentUrl));
}

// The node messaging functions reach the initialised apartment for null or
// any URL containing "tcp://", and nothing otherwise.
CReference<IApartment> lookupForMessaging(const char* strApartmentUrl) {
    if (strApartmentUrl != nullptr && std::strstr(strApartmentUrl, "tcp://") == nullptr)
        return CReference<IApartment>();
    return lookup(nullptr);
}

int statusOf(bool bSucceeded) { return bSucceeded ? 0 : FAILED; }

}  // namespace

APARTMENT_API bool apartment_initialize(const char* strApartmentUrl,
                                        bool supportPassiveConnection) {
    return guarded("apartment_initialize", false, [&] {
        if (is_library_initialized) return false;
        install_log_task();
        CApartmentManager::createUniqueApartmentManager();
        CApartmentTimerManager::createUniqueApartmentTimerManager();
        CReference<IApartment> apartment(
            CApartmentManager::getUniqueApartmentManager()->createApartment(
                strApartmentUrl, supportPassiveConnection));
        if (apartment.nil()) return false;
        apartment->addRef();
        initialized_apartment = apartment;
        is_library_initialized = true;
        return true;
    });
}

APARTMENT_API void apartment_uninitialize() {
    guarded("apartment_uninitialize", false, [] {
        if (is_library_initialized) {
            // The registry's reference is then the last.
            IApartment* apartment = initialized_apartment;
            initialized_apartment = nullptr;
            apartment->releaseRef();
            CApartmentTimerManager::destroyUniqueApartmentTimerManager();
            CApartmentManager* manager = CApartmentManager::getUniqueApartmentManager();
            if (manager != nullptr) manager->removeAllApartments();
            CApartmentManager::destroyUniqueApartmentManager();
            is_library_initialized = false;
        }
        return true;
    });
    uninstall_log_task();
}

APARTMENT_API IModuleVersion* apartment_get_module_version() {
    return guarded("apartment_get_module_version", static_cast<IModuleVersion*>(nullptr),
                   [] { return static_cast<IModuleVersion*>(new CApartmentVersion()); });
}

APARTMENT_API bool apartment_set_callback(const char* strApartmentUrl,
                                          IApartmentCallback* pCallback) {
    return guarded("apartment_set_callback", false, [&] {
        if (!is_library_initialized) return false;
        CReference<IApartment> apartment = lookup(strApartmentUrl);
        if (apartment.nil()) return false;
        apartment->setCallback(pCallback);
        return true;
    });
}

APARTMENT_API bool apartment_set_dispatch_enabled(const char* strApartmentUrl, bool bEnable) {
    return guarded("apartment_set_dispatch_enabled", false, [&] {
        if (!is_library_initialized) return false;
        CReference<IApartment> apartment = lookup(strApartmentUrl);
        if (apartment.nil()) return false;
        return bEnable ? apartment->lockDispatchThread() : apartment->unlockDispatchThread();
    });
}

APARTMENT_API int apartment_dispatch_message(const char* strApartmentUrl, timespec timeout) {
    return guarded("apartment_dispatch_message", -1, [&] {
        if (!is_library_initialized) return -1;
        CReference<IApartment> apartment = lookup(strApartmentUrl);
        if (apartment.nil()) return -1;
        APARTMENT_TMSG msg;
        if (!apartment->getMessage(msg, timeout)) return -1;
        return apartment->dispatchMessage(msg);
    });
}

APARTMENT_API bool apartment_stop_dispatch_message(const char* strApartmentUrl) {
    return guarded("apartment_stop_dispatch_message", false, [&] {
        if (!is_library_initialized) return false;
        CReference<IApartment> apartment = lookup(strApartmentUrl);
        return !apartment.nil() && apartment->stopDispatchMessage();
    });
}

APARTMENT_API bool apartment_allow_reentry(const char* strApartmentUrl, bool bAllow) {
    return guarded("apartment_allow_reentry", false, [&] {
        if (!is_library_initialized) return false;
        CReference<IApartment> apartment = lookup(strApartmentUrl);
        return !apartment.nil() && apartment->allowReentry(bAllow);
    });
}

APARTMENT_API bool apartment_local_url(const char* strApartmentUrl,
                                       const char* strRemoteApartmentUrl,
                                       const bool bRtConnection, char* strLocalApartmentUrl,
                                       const DWORD& dwLen) {
    return guarded("apartment_local_url", false, [&] {
        if (!is_library_initialized) return false;
        CReference<IApartment> apartment = lookup(strApartmentUrl);
        return !apartment.nil() &&
               apartment->localApartmentUrl(strRemoteApartmentUrl, bRtConnection,
                                            strLocalApartmentUrl, const_cast<DWORD&>(dwLen));
    });
}

APARTMENT_API bool apartment_connect_remote(const char* strApartmentUrl,
                                            const char* strRemoteApartmentUrl,
                                            const bool bRtConnection) {
    return guarded("apartment_connect_remote", false, [&] {
        if (!is_library_initialized) return false;
        CReference<IApartment> apartment = lookup(strApartmentUrl);
        return !apartment.nil() &&
               apartment->connectApartment(strRemoteApartmentUrl, bRtConnection);
    });
}

APARTMENT_API bool apartment_has_connect_remote(const char* strApartmentUrl,
                                                const char* strRemoteApartmentUrl,
                                                const bool bRtConnection) {
    return guarded("apartment_has_connect_remote", false, [&] {
        if (!is_library_initialized) return false;
        CReference<IApartment> apartment = lookup(strApartmentUrl);
        return !apartment.nil() && apartment->hasConnection(strRemoteApartmentUrl, bRtConnection);
    });
}

APARTMENT_API bool apartment_disconnect_remote(const char* strApartmentUrl,
                                               const char* strRemoteApartmentUrl,
                                               const bool bRtConnection) {
    return guarded("apartment_disconnect_remote", false, [&] {
        if (!is_library_initialized) return false;
        CReference<IApartment> apartment = lookup(strApartmentUrl);
        return !apartment.nil() &&
               apartment->disconnectApartment(strRemoteApartmentUrl, bRtConnection);
    });
}

APARTMENT_API bool apartment_node_create(const char* strApartmentUrl, const char* strNodeUrl) {
    return guarded("apartment_node_create", false, [&] {
        if (!is_library_initialized) return false;
        CReference<IApartment> apartment = lookup(strApartmentUrl);
        if (apartment.nil()) return false;
        apartment->createApartmentNode(strNodeUrl);
        return true;
    });
}

APARTMENT_API bool apartment_node_destroy(const char* strApartmentUrl, const char* strNodeUrl) {
    return guarded("apartment_node_destroy", false, [&] {
        if (!is_library_initialized) return false;
        CReference<IApartment> apartment = lookup(strApartmentUrl);
        if (apartment.nil()) return false;
        apartment->destroyApartmentNode(strNodeUrl);
        return true;
    });
}

APARTMENT_API bool apartment_node_set_callback(const char* strApartmentUrl,
                                               const char* strNodeUrl,
                                               IApartmentNodeCallback* pCallback) {
    return guarded("apartment_node_set_callback", false, [&] {
        if (!is_library_initialized) return false;
        CReference<IApartment> apartment = lookup(strApartmentUrl);
        if (apartment.nil()) return false;
        CReference<IApartmentNode> node(apartment->findApartmentNode(strNodeUrl));
        return !node.nil() && node->setCallback(pCallback);
    });
}

APARTMENT_API int apartment_raw_write(const char* strApartmentUrl,
                                      const char* strRemoteApartmentUrl,
                                      const unsigned int uintFrameType, void* pRawBuffer,
                                      const unsigned int& uintBufLen) {
    return guarded("apartment_raw_write", FAILED, [&] {
        if (!is_library_initialized) return NOT_INITIALIZED;
        CReference<IApartment> apartment = lookup(strApartmentUrl);
        if (apartment.nil()) return NO_APARTMENT;
        return statusOf(apartment->writeRawFrame(strRemoteApartmentUrl, uintFrameType, pRawBuffer,
                                                 uintBufLen, true));
    });
}

namespace {
int writeRequest(const char* strApartmentUrl, const char* strNodeUrl,
                 const char* strRemoteApartmentUrl, const char* strRemoteNodeUrl,
                 void* pRequestBuffer, unsigned int uintBufLen, unsigned int& uintRequestId,
                 bool bRequireResponse) {
    if (!is_library_initialized) return NOT_INITIALIZED;
    CReference<IApartment> apartment = lookupForMessaging(strApartmentUrl);
    if (apartment.nil()) return NO_APARTMENT;
    return statusOf(apartment->writeRequestFrame(strNodeUrl, strRemoteApartmentUrl,
                                                 strRemoteNodeUrl, pRequestBuffer, uintBufLen,
                                                 false, uintRequestId, bRequireResponse));
}
}  // namespace

APARTMENT_API int apartment_node_write_request(const char* strApartmentUrl,
                                               const char* strNodeUrl,
                                               const char* strRemoteApartmentUrl,
                                               const char* strRemoteNodeUrl,
                                               void* pRequestBuffer, unsigned int uintBufLen,
                                               const unsigned int& uintRequestId) {
    return guarded("apartment_node_write_request", FAILED, [&] {
        return writeRequest(strApartmentUrl, strNodeUrl, strRemoteApartmentUrl, strRemoteNodeUrl,
                            pRequestBuffer, uintBufLen, const_cast<unsigned int&>(uintRequestId),
                            true);
    });
}

APARTMENT_API int apartment_node_write_notify(const char* strApartmentUrl,
                                              const char* strNodeUrl,
                                              const char* strRemoteApartmentUrl,
                                              const char* strRemoteNodeUrl,
                                              void* pRequestBuffer, unsigned int uintBufLen,
                                              const unsigned int& uintRequestId) {
    return guarded("apartment_node_write_notify", FAILED, [&] {
        return writeRequest(strApartmentUrl, strNodeUrl, strRemoteApartmentUrl, strRemoteNodeUrl,
                            pRequestBuffer, uintBufLen, const_cast<unsigned int&>(uintRequestId),
                            false);
    });
}

APARTMENT_API int apartment_node_write_response(const char* strApartmentUrl,
                                                const char* strNodeUrl,
                                                const char* strRemoteApartmentUrl,
                                                const char* strRemoteNodeUrl,
                                                unsigned int uintRequestId, int intResponseCode,
                                                void* pRequestBuffer, unsigned int uintBufLen) {
    return guarded("apartment_node_write_response", FAILED, [&] {
        if (!is_library_initialized) return NOT_INITIALIZED;
        CReference<IApartment> apartment = lookupForMessaging(strApartmentUrl);
        if (apartment.nil()) return NO_APARTMENT;
        return statusOf(apartment->writeResponseFrame(strNodeUrl, strRemoteApartmentUrl,
                                                      strRemoteNodeUrl, uintRequestId,
                                                      intResponseCode, pRequestBuffer,
                                                      uintBufLen, false));
    });
}

APARTMENT_API int apartment_node_read_response(const char* strApartmentUrl,
                                               const char* strNodeUrl,
                                               unsigned int uintRequestId,
                                               const int& intResponseCode, void* pResponseBuffer,
                                               const unsigned int& uintBufLen, int intTimeout) {
    return guarded("apartment_node_read_response", FAILED, [&] {
        if (!is_library_initialized) return NOT_INITIALIZED;
        CReference<IApartment> apartment = lookupForMessaging(strApartmentUrl);
        if (apartment.nil()) return NO_APARTMENT;
        CReference<IApartmentNode> node(apartment->findApartmentNode(strNodeUrl));
        if (node.nil()) return NO_NODE;
        // Read into a buffer, the answer is removed (a null buffer asks its size).
        if (!static_cast<CApartmentNode*>(node.operator->())
                 ->takeResponse(uintRequestId, const_cast<int&>(intResponseCode), pResponseBuffer,
                                const_cast<unsigned int&>(uintBufLen), intTimeout))
            return FAILED;
        return 0;
    });
}

APARTMENT_API unsigned int apartment_set_timer(const char* strApartmentUrl,
                                               const char* strNodeUrl, unsigned int uintLagTime,
                                               unsigned int uintInterval) {
    return guarded("apartment_set_timer", CApartmentTimerManager::NO_TIMER_ID, [&] {
        if (!is_library_initialized) return CApartmentTimerManager::NO_TIMER_ID;
        CReference<IApartment> apartment = lookup(strApartmentUrl);
        if (apartment.nil()) return CApartmentTimerManager::NO_TIMER_ID;
        return apartment->setTimer(strNodeUrl, uintLagTime, uintInterval);
    });
}

APARTMENT_API unsigned int apartment_set_single_timer(const char* strApartmentUrl,
                                                      const char* strNodeUrl,
                                                      unsigned int uintLagTime) {
    return guarded("apartment_set_single_timer", CApartmentTimerManager::NO_TIMER_ID, [&] {
        if (!is_library_initialized) return CApartmentTimerManager::NO_TIMER_ID;
        CReference<IApartment> apartment = lookup(strApartmentUrl);
        if (apartment.nil()) return CApartmentTimerManager::NO_TIMER_ID;
        return apartment->setSingleTimer(strNodeUrl, uintLagTime);
    });
}

APARTMENT_API bool apartment_kill_timer(const char* strApartmentUrl, const char* strNodeUrl,
                                        unsigned int uintTimerId) {
    return guarded("apartment_kill_timer", false, [&] {
        if (!is_library_initialized) return false;
        CReference<IApartment> apartment = lookup(strApartmentUrl);
        return !apartment.nil() && apartment->killTimer(strNodeUrl, uintTimerId);
    });
}

APARTMENT_API bool apartment_keepalive_with(const char* strApartmentUrl,
                                            const char* strRemoteApartmentUrl,
                                            unsigned int uintAliveCounter,
                                            unsigned int uintAliveInterval) {
    return guarded("apartment_keepalive_with", false, [&] {
        if (!is_library_initialized) return false;
        CReference<IApartment> apartment = lookup(strApartmentUrl);
        return !apartment.nil() && apartment->keepAliveWith(strRemoteApartmentUrl,
                                                            uintAliveCounter, uintAliveInterval);
    });
}
